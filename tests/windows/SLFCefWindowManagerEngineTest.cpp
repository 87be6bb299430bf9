// The window manager over the real engine wrapper and client, with the fake
// engine port behind them; the engine runs on the test's main loop thread.
#include "windows/SLFCefWindowManager.h"

#include "tests/engine/FakeEnginePort.h"
#include "tests/windows/TestMainLoop.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <thread>

using SLF_ChromiumEmbeddedFramework::FakeEnginePort;
using SLF_ChromiumEmbeddedFramework::FakeHostCall;

namespace {

class SLFCefWindowManagerEngine : public ::testing::Test {
protected:
    SLFCefWindowManagerEngine() { m_port.Install(); }

    // Kinds of the recorded host calls of one browser, in order.
    std::vector<FakeHostCall::Kind> Calls(int browserID)
    {
        std::vector<FakeHostCall::Kind> kinds;
        for (const auto& call : m_port.HostCalls(browserID))
            kinds.push_back(call.kind);
        return kinds;
    }
    // The view size the engine asked for after the last resize notice, once
    // the notice has been pumped.
    SLF_ChromiumEmbeddedFramework::EngineRect ViewRect(int browserID)
    {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (m_port.LastViewRect(browserID).width == 0 && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return m_port.LastViewRect(browserID);
    }
    bool HiddenCall(int browserID, bool hidden)
    {
        auto calls = m_port.HostCalls(browserID);
        return std::any_of(calls.begin(), calls.end(), [&](const FakeHostCall& call) {
            return call.kind == FakeHostCall::WasHidden && call.hidden == hidden;
        });
    }

    // Order matters: the manager goes first (its engine shuts down on the
    // main loop), then the port, then the loop.
    TestMainLoop m_main;
    FakeEnginePort m_port;
    std::shared_ptr<SLFCefWindowManager> m_manager = std::make_shared<SLFCefWindowManager>();
};

} // namespace

TEST_F(SLFCefWindowManagerEngine, EveryOpenRequestGetsItsOwnBrowser)
{
    EXPECT_FALSE(m_manager->isEngineRunning());
    auto first = m_manager->startBrowserWithURL("https://x.test/", {1920, 1080}, 60, {"file:///a/"});
    auto second = m_manager->startBrowserWithURL("https://x.test/", {1920, 1080}, 60, {"file:///a/"});
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_GE(first->browserID(), 0);
    EXPECT_GE(second->browserID(), 0);
    EXPECT_NE(first->browserID(), second->browserID());
    EXPECT_EQ(first->uniqueLookupKey(), second->uniqueLookupKey());
    EXPECT_EQ(m_manager->numberOfOpenBrowserWindows(), 2);
    EXPECT_EQ(m_manager->windowRepresentationWithID(first->browserID()), first);
    EXPECT_EQ(first->permittedFileURLStrings(), std::vector<std::string>{"file:///a/"});
    EXPECT_EQ(m_port.LastCreateUrl(), "https://x.test/");
    // Frames are switched on for each new browser.
    EXPECT_TRUE(HiddenCall(first->browserID(), false));
    // The engine was started once, on the main loop thread, and is pumped there.
    EXPECT_TRUE(m_manager->isEngineRunning());
    EXPECT_EQ(m_port.InitializeCalls(), 1);
    EXPECT_TRUE(m_port.WaitForPumpPasses(5, 5000));
    EXPECT_FALSE(m_port.PumpedOffThread());
}

TEST_F(SLFCefWindowManagerEngine, FractionalSizesAndFrameRatesAreTruncated)
{
    auto representation = m_manager->startBrowserWithURL("https://x.test/", {1279.9, 719.99}, 29.97, {});
    ASSERT_NE(representation, nullptr);
    int id = representation->browserID();
    EXPECT_EQ(m_port.LastBrowserSettings().windowless_frame_rate, 29);
    // The representation keeps the size as asked.
    EXPECT_EQ(representation->size(), (NSSize{1279.9, 719.99}));

    EXPECT_EQ(m_manager->updateBrowserWithID(id, {640.7, 360.2}), representation);
    EXPECT_EQ(representation->size(), (NSSize{640.7, 360.2}));
    EXPECT_FALSE(representation->updating());
    auto rect = ViewRect(id);
    EXPECT_EQ(rect.width, 640);
    EXPECT_EQ(rect.height, 360);
}

TEST_F(SLFCefWindowManagerEngine, ResizeSwitchesFramesOffAroundTheNewSize)
{
    auto representation = m_manager->startBrowserWithURL("https://x.test/", {100, 100}, 30, {});
    int id = representation->browserID();
    m_port.ClearHostCalls();
    m_manager->updateBrowserWithID(id, {200, 100});
    std::vector<FakeHostCall::Kind> calls = Calls(id);
    auto hiddenOff = std::find(calls.begin(), calls.end(), FakeHostCall::WasHidden);
    auto resized = std::find(calls.begin(), calls.end(), FakeHostCall::WasResized);
    ASSERT_NE(hiddenOff, calls.end());
    ASSERT_NE(resized, calls.end());
    EXPECT_LT(hiddenOff, resized);
    auto recorded = m_port.HostCalls(id);
    EXPECT_TRUE(recorded[hiddenOff - calls.begin()].hidden);
    EXPECT_FALSE(recorded.back().kind == FakeHostCall::WasHidden && recorded.back().hidden);
    EXPECT_TRUE(HiddenCall(id, false));
}

TEST_F(SLFCefWindowManagerEngine, UpdateWhileUpdatingDoesNothing)
{
    auto representation = m_manager->startBrowserWithURL("https://x.test/", {100, 100}, 30, {});
    int id = representation->browserID();
    // Another update of this representation is in progress.
    representation->setUpdating(true);
    m_port.ClearHostCalls();
    EXPECT_EQ(m_manager->updateBrowserWithID(id, {300, 300}), representation);
    EXPECT_TRUE(Calls(id).empty());
    EXPECT_EQ(representation->size(), (NSSize{100, 100}));
    // The first update finishes and clears the flag; then updates go ahead.
    representation->setUpdating(false);
    m_manager->updateBrowserWithID(id, {300, 300});
    EXPECT_EQ(representation->size(), (NSSize{300, 300}));
}

TEST_F(SLFCefWindowManagerEngine, ConcurrentUpdatesOfOneBrowserNeverOverlap)
{
    auto representation = m_manager->startBrowserWithURL("https://x.test/", {100, 100}, 30, {});
    int id = representation->browserID();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 20; ++i)
                m_manager->updateBrowserWithID(id, {100.0 + t, 100.0 + i});
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_FALSE(representation->updating());
    // Each update that went ahead switched frames off and on again: the
    // hide/show calls pair up.
    int hidden = 0;
    for (const auto& call : m_port.HostCalls(id)) {
        if (call.kind == FakeHostCall::WasHidden)
            hidden += call.hidden ? 1 : -1;
        EXPECT_GE(hidden, -1);
        EXPECT_LE(hidden, 1);
    }
    EXPECT_EQ(hidden, -1); // the start's "show" is left over
}

TEST_F(SLFCefWindowManagerEngine, StopOfABrowserTheRegistryDoesNotKnowStillReachesTheEngine)
{
    auto representation = m_manager->startBrowserWithURL("https://x.test/", {100, 100}, 30, {});
    int id = representation->browserID();
    m_manager->unregisterWindowRepresentation(representation);
    m_port.ClearHostCalls();
    EXPECT_EQ(m_manager->stopBrowserWithID(id), nullptr);
    // Frames off, then the browser is closed.
    std::vector<FakeHostCall::Kind> calls = Calls(id);
    ASSERT_FALSE(calls.empty());
    EXPECT_EQ(calls.front(), FakeHostCall::WasHidden);
    EXPECT_NE(std::find(calls.begin(), calls.end(), FakeHostCall::CloseBrowser), calls.end());

    // An update of a browser the registry does not know reaches the engine too.
    auto other = m_manager->startBrowserWithURL("https://x.test/", {100, 100}, 30, {});
    int otherID = other->browserID();
    m_manager->unregisterWindowRepresentation(other);
    m_port.ClearHostCalls();
    EXPECT_EQ(m_manager->updateBrowserWithID(otherID, {50.5, 60.5}), nullptr);
    EXPECT_EQ(ViewRect(otherID).width, 50);
    EXPECT_EQ(ViewRect(otherID).height, 60);
}

TEST_F(SLFCefWindowManagerEngine, EngineKeepsRunningAfterTheLastBrowserStops)
{
    auto representation = m_manager->startBrowserWithURL("https://x.test/", {100, 100}, 30, {});
    int id = representation->browserID();
    EXPECT_EQ(m_manager->stopBrowserWithID(id), representation);
    EXPECT_EQ(m_manager->numberOfOpenBrowserWindows(), 0);
    EXPECT_TRUE(m_manager->isEngineRunning());
    // The next open request does not start a second engine, and the timer
    // still pumps it (the browser's creation is reported from a pump pass).
    auto next = m_manager->startBrowserWithURL("https://x.test/", {100, 100}, 30, {});
    EXPECT_GE(next->browserID(), 0);
    EXPECT_NE(next->browserID(), id);
    EXPECT_EQ(m_port.InitializeCalls(), 1);
}

TEST_F(SLFCefWindowManagerEngine, NegativeIDsNeverReachTheEngine)
{
    auto representation = m_manager->startBrowserWithURL("https://x.test/", {100, 100}, 30, {});
    m_port.ClearHostCalls();
    EXPECT_EQ(m_manager->stopBrowserWithID(-1), nullptr);
    EXPECT_EQ(m_manager->updateBrowserWithID(-5, {10, 10}), nullptr);
    EXPECT_TRUE(m_port.HostCalls().empty());
}

TEST(SLFCefWindowManagerEngineFailure, AnEngineThatDoesNotStartIsRetriedAndGivesNoBrowser)
{
    TestMainLoop main;
    FakeEnginePort port;
    port.Install();
    port.SetFailInitialize(true);
    auto manager = std::make_shared<SLFCefWindowManager>();
    auto representation = manager->startBrowserWithURL("https://x.test/", {100, 100}, 30, {});
    ASSERT_NE(representation, nullptr);
    EXPECT_EQ(representation->browserID(), -1);
    EXPECT_EQ(manager->numberOfOpenBrowserWindows(), 0);
    EXPECT_FALSE(manager->isEngineRunning());
    // A refused update keeps refusing: the flag stays raised without an engine.
    manager->registerWindowRepresentation(representation); // -1: not registered
    EXPECT_EQ(manager->numberOfOpenBrowserWindows(), 0);

    // The next open request tries again.
    port.SetFailInitialize(false);
    auto next = manager->startBrowserWithURL("https://x.test/", {100, 100}, 30, {});
    EXPECT_GE(next->browserID(), 0);
    EXPECT_TRUE(manager->isEngineRunning());
    EXPECT_EQ(port.InitializeCalls(), 2);
    manager.reset();
}
