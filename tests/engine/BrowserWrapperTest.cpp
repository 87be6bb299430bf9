// The wrapper's engine lifecycle in both modes, its forwarding without a
// client, and the place of the helper executable.
#include "engine/CBrowserClient.h"
#include "engine/CBrowserWrapper.h"
#include "platform/NplFile.h"
#include "tests/engine/EngineTestSupport.h"
#include "tests/engine/FakeEnginePort.h"

#include <gtest/gtest.h>

#include <chrono>
#include <climits>
#include <unistd.h>

namespace SLF_ChromiumEmbeddedFramework {
namespace {

using Clock = std::chrono::steady_clock;

class BrowserWrapperThreaded : public ::testing::Test {
protected:
    void SetUp() override { m_Port.Install(); }
    FakeEnginePort m_Port;
};

TEST_F(BrowserWrapperThreaded, StartsOnceFromTheSameThreadAndAgainAfterStop)
{
    CBrowserWrapper wrapper;
    ASSERT_TRUE(wrapper.StartCEF());
    CBrowserClient* firstClient = wrapper.GetBrowserClient();
    ASSERT_NE(firstClient, nullptr);

    // The worker is running: no second worker, no second initialisation.
    const auto start = Clock::now();
    EXPECT_TRUE(wrapper.StartCEF());
    EXPECT_LT(SecondsSince(start), 1.0);
    EXPECT_EQ(m_Port.InitializeCalls(), 1);
    EXPECT_EQ(wrapper.GetBrowserClient(), firstClient);

    wrapper.StopCEF();
    EXPECT_EQ(m_Port.ShutdownCalls(), 1);
    EXPECT_EQ(wrapper.GetBrowserClient(), nullptr);
    EXPECT_FALSE(wrapper.IsCefInitialized());

    // The start lock is still held by this thread; starting again works.
    ASSERT_TRUE(wrapper.StartCEF());
    EXPECT_EQ(m_Port.InitializeCalls(), 2);
    EXPECT_NE(wrapper.GetBrowserClient(), nullptr);
    wrapper.StopCEF();
    EXPECT_EQ(m_Port.ShutdownCalls(), 2);
}

TEST_F(BrowserWrapperThreaded, FailedStartLeavesTheClientButServesNoBrowser)
{
    m_Port.SetFailInitialize(true);
    CBrowserWrapper wrapper;
    const auto start = Clock::now();
    EXPECT_FALSE(wrapper.StartCEF());
    EXPECT_LT(SecondsSince(start), 3.5);
    EXPECT_FALSE(wrapper.IsCefInitialized());
    EXPECT_NE(wrapper.GetBrowserClient(), nullptr);

    CallbackRecorder recorder;
    EXPECT_EQ(wrapper.StartBrowser("https://overlay.test/", 800, 600, 30, &CallbackRecorder::Frame,
                                   &CallbackRecorder::Audio, &recorder, nullptr, nullptr, false),
              -1);
    EXPECT_EQ(m_Port.CreateBrowserCalls(), 0);
    wrapper.StopCEF();
    EXPECT_EQ(m_Port.ShutdownCalls(), 0);
}

TEST_F(BrowserWrapperThreaded, WithoutAnEnginePortTheEngineDoesNotStart)
{
    SetEnginePort(nullptr);
    CBrowserWrapper wrapper;
    EXPECT_FALSE(wrapper.StartCEF());
    EXPECT_EQ(wrapper.StartBrowser("https://overlay.test/", 800, 600, 30, nullptr, nullptr, nullptr, nullptr,
                                   nullptr, false),
              -1);
    EXPECT_EQ(m_Port.InitializeCalls(), 0);
}

TEST_F(BrowserWrapperThreaded, RunsABrowserEndToEndAndStopsInTime)
{
    CallbackRecorder recorder;
    {
        CBrowserWrapper wrapper;
        ASSERT_TRUE(wrapper.StartCEF());
        EXPECT_EQ(m_Port.LastSettings().browser_subprocess_path, wrapper.GetAuxiliaryExecutablePath());

        const int id = wrapper.StartBrowser("https://overlay.test/", 640, 360, 30, &CallbackRecorder::Frame,
                                            &CallbackRecorder::Audio, &recorder, nullptr, nullptr, false);
        ASSERT_EQ(id, 1);
        // The worker pumps: the web process's answer arrives by itself.
        EXPECT_TRUE(WaitUntil([&] { return wrapper.GetRenderProcessId(id) == getpid(); }));

        m_Port.Post([&] { m_Port.EmitPaint(id, 640, 360); });
        EXPECT_TRUE(WaitUntil([&] { return recorder.Frames().size() == 1; }));
        EXPECT_EQ(recorder.Frames()[0], 640u * 360u * 4u);

        const auto stopStart = Clock::now();
        wrapper.StopCEF();
        EXPECT_LT(SecondsSince(stopStart), 2.5);
        EXPECT_EQ(m_Port.ShutdownCalls(), 1);
        EXPECT_TRUE(m_Port.OpenBrowserIds().empty());
        // Only the worker pumped, the thread that initialised the engine.
        EXPECT_FALSE(m_Port.PumpedOffThread());
    }
}

TEST_F(BrowserWrapperThreaded, ForwardingWithoutAClientGivesNeutralResults)
{
    CBrowserWrapper wrapper;
    wrapper.StopCEF(); // never started: nothing to stop
    EXPECT_EQ(wrapper.GetBrowserClient(), nullptr);

    ASSERT_TRUE(wrapper.StartCEF());
    wrapper.StopCEF();

    EXPECT_EQ(wrapper.StartBrowser("https://overlay.test/", 1, 1, 1, nullptr, nullptr, nullptr, nullptr, nullptr,
                                   false),
              -1);
    wrapper.PauseBrowser(1);
    wrapper.ResumeBrowser(1);
    wrapper.StopBrowser(1);
    wrapper.EnableReceivingFrames(1, true);
    wrapper.SetRenderSize(1, 10, 10);
    wrapper.RefreshBrowser(1);
    wrapper.ReloadBrowser(1);
    wrapper.ExecuteJavaScript(1, "1;");
    EXPECT_EQ(wrapper.GetUrl(1), "");
    EXPECT_EQ(wrapper.GetRenderProcessId(1), 0);
    EXPECT_FALSE(wrapper.EventMouseDown(1, 0, 1, 1, false));
    EXPECT_FALSE(wrapper.EventMouseUp(1, 0, 1, 1));
    EXPECT_FALSE(wrapper.EventMouseMove(1, 1, 1));
    EXPECT_FALSE(wrapper.EventMouseWheelScrollUp(1, 1, 1));
    EXPECT_FALSE(wrapper.EventMouseWheelScrollDown(1, 1, 1));
    EXPECT_FALSE(wrapper.EventMouseWheelScrollLeft(1, 1, 1));
    EXPECT_FALSE(wrapper.EventMouseWheelScrollRight(1, 1, 1));
    EXPECT_FALSE(wrapper.EventKeyDown(1, true, 65));
    EXPECT_FALSE(wrapper.EventKeyUp(1, 65));
    EXPECT_FALSE(wrapper.EventKey(1, true, false, false, 38, 65, 0));
    EXPECT_TRUE(m_Port.HostCalls().empty());
}

TEST(BrowserWrapperHosted, PreparesAndPumpsOnTheOwnersThread)
{
    FakeEnginePort port;
    port.Install();
    {
        HostedEngine engine;
        ASSERT_TRUE(engine.Started());
        EXPECT_TRUE(engine.Wrapper().IsCefInitialized());
        // No browser: the loop is not pumped at all.
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_EQ(port.PumpPasses(), 0);

        CallbackRecorder recorder;
        ASSERT_EQ(engine.Open(recorder), 1);
        // The creation was reported from inside a pass; the pass is counted
        // when it ends, so wait for the pump to go on.
        EXPECT_TRUE(port.WaitForPumpPasses(1, 2000));
        EXPECT_FALSE(port.PumpedOffThread());
    }
    // Without a client, preparing fails and nothing is initialised.
    CBrowserWrapper wrapper;
    EXPECT_FALSE(wrapper.PrepareCEFThread());
    EXPECT_EQ(port.InitializeCalls(), 1);
}

TEST(BrowserWrapperPaths, HelperExecutableLivesNextToTheRunningExecutable)
{
    EXPECT_EQ(CBrowserWrapper::GetAuxiliaryExecutablePathForExecutable("/a/b/service"),
              "/a/b/StreamloftCEFOverlayHelper");
    EXPECT_EQ(CBrowserWrapper::GetAuxiliaryExecutablePathForExecutable("service"),
              NplFile_AddPathComponent("", "StreamloftCEFOverlayHelper"));

    char self[PATH_MAX] = {};
    ASSERT_GT(readlink("/proc/self/exe", self, sizeof self - 1), 0);
    std::string folder(self);
    folder.erase(folder.rfind('/'));
    CBrowserWrapper wrapper;
    EXPECT_EQ(wrapper.GetAuxiliaryExecutablePath(), folder + "/StreamloftCEFOverlayHelper");
}

} // namespace
} // namespace SLF_ChromiumEmbeddedFramework
