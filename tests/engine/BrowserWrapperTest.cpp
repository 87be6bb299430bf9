// The wrapper's engine lifecycle in both modes, its forwarding without a
// client, and the place of the helper executable.
#include "platform/NplFile.h"
#include "tests/engine/EngineTestSupport.h"

#include <gtest/gtest.h>

#include <climits>
#include <unistd.h>

namespace SLF_ChromiumEmbeddedFramework {
namespace {

using Clock = std::chrono::steady_clock;

class BrowserWrapperThreaded : public ::testing::Test {
protected:
    void SetUp() override { m_Port.Install(); }
    FakeEnginePort m_Port;
    CallbackRecorder m_Recorder;
};

TEST_F(BrowserWrapperThreaded, StartsOnceAndAgainAfterStop)
{
    CBrowserWrapper wrapper;
    wrapper.StopCEF(); // never started: nothing to stop
    ASSERT_TRUE(wrapper.StartCEF());
    CBrowserClient* client = wrapper.GetBrowserClient();
    ASSERT_NE(client, nullptr);
    // The worker is running: no second worker, no second initialisation.
    EXPECT_TRUE(wrapper.StartCEF());
    EXPECT_EQ(m_Port.InitializeCalls(), 1);
    EXPECT_EQ(wrapper.GetBrowserClient(), client);
    wrapper.StopCEF();
    EXPECT_EQ(m_Port.ShutdownCalls(), 1);
    EXPECT_EQ(wrapper.GetBrowserClient(), nullptr);
    ASSERT_TRUE(wrapper.StartCEF());
    EXPECT_EQ(m_Port.InitializeCalls(), 2);
    wrapper.StopCEF();
}

TEST_F(BrowserWrapperThreaded, FailedStartServesNoBrowser)
{
    m_Port.SetFailInitialize(true);
    CBrowserWrapper wrapper;
    const auto start = Clock::now();
    EXPECT_FALSE(wrapper.StartCEF());
    EXPECT_LT(SecondsSince(start), 3.5); // the start hand-shake waits at most 2 s
    EXPECT_NE(wrapper.GetBrowserClient(), nullptr);
    EXPECT_EQ(wrapper.StartBrowser("https://overlay.test/", 800, 600, 30, &CallbackRecorder::Frame,
                                   &CallbackRecorder::Audio, &m_Recorder, nullptr, nullptr, false),
              -1);
    EXPECT_EQ(m_Port.CreateBrowserCalls(), 0);
    wrapper.StopCEF();
    EXPECT_EQ(m_Port.ShutdownCalls(), 0);

    SetEnginePort(nullptr); // no engine at all
    CBrowserWrapper portless;
    EXPECT_FALSE(portless.StartCEF());
    EXPECT_EQ(m_Port.InitializeCalls(), 1);
}

TEST_F(BrowserWrapperThreaded, RunsABrowserEndToEndAndStopsInTime)
{
    CBrowserWrapper wrapper;
    ASSERT_TRUE(wrapper.StartCEF());
    EXPECT_EQ(m_Port.LastSettings().browser_subprocess_path, wrapper.GetAuxiliaryExecutablePath());
    const int id = wrapper.StartBrowser("https://overlay.test/", 640, 360, 30, &CallbackRecorder::Frame,
                                        &CallbackRecorder::Audio, &m_Recorder, nullptr, nullptr, false);
    ASSERT_EQ(id, 1);
    // The worker pumps: the web process's answer arrives by itself.
    EXPECT_TRUE(WaitUntil([&] { return wrapper.GetRenderProcessId(id) == getpid(); }));
    m_Port.Post([&] { m_Port.EmitPaint(id, 640, 360); });
    EXPECT_TRUE(WaitUntil([&] { return m_Recorder.Frames() == std::vector<unsigned>{640 * 360 * 4}; }));
    const auto start = Clock::now();
    wrapper.StopCEF();
    EXPECT_LT(SecondsSince(start), 2.5);
    EXPECT_TRUE(m_Port.OpenBrowserIds().empty());
    EXPECT_FALSE(m_Port.PumpedOffThread()); // only the thread that initialised the engine pumped

    // Without a client every call gives a neutral result and reaches nothing.
    EXPECT_EQ(wrapper.StartBrowser("x", 1, 1, 1, nullptr, nullptr, nullptr, nullptr, nullptr, false), -1);
    wrapper.PauseBrowser(1), wrapper.ResumeBrowser(1), wrapper.StopBrowser(1), wrapper.RefreshBrowser(1);
    wrapper.EnableReceivingFrames(1, true), wrapper.SetRenderSize(1, 10, 10), wrapper.ReloadBrowser(1);
    wrapper.ExecuteJavaScript(1, "1;");
    EXPECT_EQ(wrapper.GetUrl(1), "");
    EXPECT_EQ(wrapper.GetRenderProcessId(1), 0);
    EXPECT_FALSE(wrapper.EventMouseDown(1, 0, 1, 1, false) || wrapper.EventMouseUp(1, 0, 1, 1) ||
                 wrapper.EventMouseMove(1, 1, 1) || wrapper.EventMouseWheelScrollUp(1, 1, 1) ||
                 wrapper.EventMouseWheelScrollDown(1, 1, 1) || wrapper.EventMouseWheelScrollLeft(1, 1, 1) ||
                 wrapper.EventMouseWheelScrollRight(1, 1, 1) || wrapper.EventKeyDown(1, true, 65) ||
                 wrapper.EventKeyUp(1, 65) || wrapper.EventKey(1, true, false, false, 38, 65, 0));
    EXPECT_TRUE(m_Port.HostCalls().empty());
}

TEST(BrowserWrapperHosted, PreparesAndPumpsOnTheOwnersThread)
{
    FakeEnginePort port;
    port.Install();
    {
        HostedEngine engine;
        ASSERT_TRUE(engine.Started());
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
    CBrowserWrapper wrapper;
    EXPECT_FALSE(wrapper.PrepareCEFThread()); // without a client nothing is initialised
    EXPECT_EQ(port.InitializeCalls(), 1);
}

TEST(BrowserWrapperPaths, HelperExecutableLivesNextToTheRunningExecutable)
{
    EXPECT_EQ(CBrowserWrapper::GetAuxiliaryExecutablePathForExecutable("/a/b/service"),
              "/a/b/StreamloftCEFOverlayHelper");
    char self[PATH_MAX] = {};
    ASSERT_GT(readlink("/proc/self/exe", self, sizeof self - 1), 0);
    std::string folder(self);
    folder.erase(folder.rfind('/'));
    EXPECT_EQ(CBrowserWrapper().GetAuxiliaryExecutablePath(), folder + "/StreamloftCEFOverlayHelper");
}

} // namespace
} // namespace SLF_ChromiumEmbeddedFramework
