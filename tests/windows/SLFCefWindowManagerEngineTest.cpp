// The window manager over the real engine wrapper and client on the fake port.
#include "windows/SLFCefWindowManager.h"

#include "tests/engine/FakeEnginePort.h"
#include "tests/windows/TestMainLoop.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

using SLF_ChromiumEmbeddedFramework::FakeEnginePort;
using SLF_ChromiumEmbeddedFramework::FakeHostCall;

namespace {

class SLFCefWindowManagerEngine : public ::testing::Test {
protected:
    SLFCefWindowManagerEngine() { m_port.Install(); }

    SLFCefWindowRepresentationRef Open(NSSize size = {100, 100}, double fps = 30)
    {
        return m_manager->startBrowserWithURL("https://x.test/", size, fps, {"file:///a/"});
    }
    // One browser's calls: "-" frames off, "+" frames on, "r" resized, "x" close.
    std::string Calls(int browserID)
    {
        std::string text;
        for (const auto& call : m_port.HostCalls(browserID)) {
            if (call.kind == FakeHostCall::WasHidden)
                text += call.hidden ? '-' : '+';
            else if (call.kind == FakeHostCall::WasResized || call.kind == FakeHostCall::CloseBrowser)
                text += call.kind == FakeHostCall::WasResized ? 'r' : 'x';
        }
        return text;
    }
    // The view size the engine asked for after the last resize notice.
    SLF_ChromiumEmbeddedFramework::EngineRect ViewRect(int browserID)
    {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (m_port.LastViewRect(browserID).width == 0 && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return m_port.LastViewRect(browserID);
    }

    // Destroyed manager first (its engine stops on the loop), then port, then loop.
    TestMainLoop m_main;
    FakeEnginePort m_port;
    std::shared_ptr<SLFCefWindowManager> m_manager = std::make_shared<SLFCefWindowManager>();
};

TEST_F(SLFCefWindowManagerEngine, EveryOpenRequestGetsItsOwnBrowserOnOneEngine)
{
    EXPECT_FALSE(m_manager->isEngineRunning());
    auto first = Open(), second = Open();
    ASSERT_TRUE(first && second);
    EXPECT_TRUE(first->browserID() >= 0 && second->browserID() >= 0 && first->browserID() != second->browserID());
    EXPECT_EQ(m_manager->numberOfOpenBrowserWindows(), 2);
    EXPECT_EQ(m_manager->windowRepresentationWithID(first->browserID()), first);
    EXPECT_EQ(Calls(first->browserID()), "+");
    EXPECT_EQ(m_port.InitializeCalls(), 1);
    EXPECT_TRUE(m_port.WaitForPumpPasses(5, 5000));
    EXPECT_FALSE(m_port.PumpedOffThread());

    // The engine outlives the last browser; its pump timer runs on while the
    // engine still finishes closing them, then rests; the next open starts
    // no second engine and the pump again.
    EXPECT_TRUE(m_manager->isPumpRunning());
    m_port.SetCloseWorkLeft(true);
    EXPECT_EQ(m_manager->stopBrowserWithID(first->browserID()), first);
    EXPECT_EQ(m_manager->stopBrowserWithID(second->browserID()), second);
    EXPECT_EQ(m_manager->numberOfOpenBrowserWindows(), 0);
    EXPECT_TRUE(m_manager->isEngineRunning());
    const int passes = m_port.PumpPasses();
    EXPECT_TRUE(m_port.WaitForPumpPasses(passes + 20, 5000)) << "no passes for the close work";
    EXPECT_TRUE(m_manager->isPumpRunning());
    m_port.SetCloseWorkLeft(false);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (m_manager->isPumpRunning() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_FALSE(m_manager->isPumpRunning());
    auto next = Open();
    EXPECT_GE(next->browserID(), 0);
    EXPECT_EQ(m_port.InitializeCalls(), 1);
    EXPECT_TRUE(m_manager->isPumpRunning());
    EXPECT_TRUE(m_port.WaitForPumpPasses(5, 5000));
}

// The engine gets sizes and rates truncated, frames off around the resize.
TEST_F(SLFCefWindowManagerEngine, ResizeIsTruncatedAndFramesAreOffAroundIt)
{
    auto representation = Open({1279.9, 719.99}, 29.97);
    ASSERT_NE(representation, nullptr);
    const int id = representation->browserID();
    EXPECT_EQ(m_port.LastBrowserSettings().windowless_frame_rate, 29);
    EXPECT_EQ(representation->size(), (NSSize {1279.9, 719.99}));
    m_port.ClearHostCalls();
    EXPECT_EQ(m_manager->updateBrowserWithID(id, {640.7, 360.2}), representation);
    EXPECT_EQ(representation->size(), (NSSize {640.7, 360.2}));
    EXPECT_FALSE(representation->updating());
    EXPECT_TRUE(ViewRect(id).width == 640 && ViewRect(id).height == 360);
    EXPECT_EQ(Calls(id), "-r+");
}

// Of concurrent updates of one browser only the first goes ahead.
TEST_F(SLFCefWindowManagerEngine, ASizeUpdateDuringAnotherIsIgnored)
{
    auto representation = Open();
    const int id = representation->browserID();
    representation->setUpdating(true);
    m_port.ClearHostCalls();
    EXPECT_EQ(m_manager->updateBrowserWithID(id, {300, 300}), representation);
    EXPECT_TRUE(m_port.HostCalls(id).empty());
    EXPECT_EQ(representation->size(), (NSSize {100, 100}));
    representation->setUpdating(false);

    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 20; ++i)
                m_manager->updateBrowserWithID(id, {100.0 + t, 100.0 + i});
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_FALSE(representation->updating());
    // Updates that went ahead never interleave.
    const std::string calls = Calls(id);
    ASSERT_FALSE(calls.empty());
    for (size_t i = 0; i < calls.size(); ++i)
        ASSERT_EQ(calls[i], "-r+"[i % 3]) << calls;
    EXPECT_EQ(calls.size() % 3, 0u) << calls;
}

// Stops and updates of IDs the registry does not know still reach the engine; negative IDs never.
TEST_F(SLFCefWindowManagerEngine, StopAndUpdateOfAnIDTheRegistryDoesNotKnowStillReachTheEngine)
{
    auto representation = Open(), other = Open();
    const int id = representation->browserID(), otherID = other->browserID();
    m_manager->unregisterWindowRepresentation(representation);
    m_manager->unregisterWindowRepresentation(other);
    m_port.ClearHostCalls();
    EXPECT_EQ(m_manager->stopBrowserWithID(-1), nullptr);
    EXPECT_EQ(m_manager->updateBrowserWithID(-5, {10, 10}), nullptr);
    EXPECT_TRUE(m_port.HostCalls().empty());

    EXPECT_EQ(m_manager->stopBrowserWithID(id), nullptr);
    EXPECT_EQ(Calls(id), "-x");
    EXPECT_EQ(m_manager->updateBrowserWithID(otherID, {50.5, 60.5}), nullptr);
    EXPECT_TRUE(ViewRect(otherID).width == 50 && ViewRect(otherID).height == 60);
}

TEST_F(SLFCefWindowManagerEngine, AnEngineThatDoesNotStartGivesNoBrowserAndIsRetried)
{
    m_port.SetFailInitialize(true);
    auto representation = Open();
    ASSERT_NE(representation, nullptr);
    EXPECT_EQ(representation->browserID(), -1);
    EXPECT_EQ(m_manager->numberOfOpenBrowserWindows(), 0);
    EXPECT_FALSE(m_manager->isEngineRunning());
    m_port.SetFailInitialize(false);
    EXPECT_GE(Open()->browserID(), 0);
    EXPECT_TRUE(m_manager->isEngineRunning());
    EXPECT_EQ(m_port.InitializeCalls(), 2);
}

} // namespace
