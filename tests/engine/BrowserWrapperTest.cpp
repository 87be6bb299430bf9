// The wrapper's engine lifecycle in both modes and its forwarding without a
// client.
#include "tests/engine/EngineTestSupport.h"

#include <gtest/gtest.h>

namespace SLF_ChromiumEmbeddedFramework {
namespace {

using Clock = std::chrono::steady_clock;

class BrowserWrapperThreaded : public ::testing::Test {
protected:
    void SetUp() override { m_Port.Install(); }
    int Open(CBrowserWrapper& wrapper)
    {
        return wrapper.StartBrowser("https://overlay.test/", 640, 360, 30, &CallbackRecorder::Frame,
                                    &CallbackRecorder::Audio, &m_Recorder, nullptr, nullptr, false);
    }
    FakeEnginePort m_Port;
    CallbackRecorder m_Recorder;
};

TEST_F(BrowserWrapperThreaded, StartsOnceAndAgainAfterStop)
{
    CBrowserWrapper wrapper;
    wrapper.StopCEF(); // never started
    ASSERT_TRUE(wrapper.StartCEF());
    CBrowserClient* client = wrapper.GetBrowserClient();
    EXPECT_TRUE(wrapper.StartCEF()); // no second worker or initialisation
    EXPECT_EQ(m_Port.InitializeCalls(), 1);
    EXPECT_EQ(wrapper.GetBrowserClient(), client);
    ASSERT_EQ(Open(wrapper), 1);
    EXPECT_TRUE(m_Port.WaitForPumpPasses(20, 2000));
    EXPECT_FALSE(m_Port.PumpedOffThread()) << "a second worker pumps";
    wrapper.StopCEF();
    EXPECT_EQ(m_Port.ShutdownCalls(), 1);
    ASSERT_TRUE(wrapper.StartCEF());
    EXPECT_EQ(m_Port.InitializeCalls(), 2);
}

TEST_F(BrowserWrapperThreaded, FailedStartServesNoBrowser)
{
    m_Port.SetFailInitialize(true);
    CBrowserWrapper wrapper;
    const auto start = Clock::now();
    EXPECT_FALSE(wrapper.StartCEF());
    EXPECT_LT(SecondsSince(start), 3.5); // the start hand-shake waits at most 2 s
    EXPECT_EQ(Open(wrapper), -1);
    EXPECT_EQ(m_Port.CreateBrowserCalls(), 0);
    wrapper.StopCEF();
    EXPECT_EQ(m_Port.ShutdownCalls(), 0);

    SetEnginePort(nullptr);
    CBrowserWrapper portless;
    EXPECT_FALSE(portless.StartCEF());
}

TEST_F(BrowserWrapperThreaded, PumpsOnTheWorkerStopsInTimeAndThenReachesNothing)
{
    CBrowserWrapper wrapper;
    ASSERT_TRUE(wrapper.StartCEF());
    EXPECT_EQ(m_Port.LastSettings().browser_subprocess_path, wrapper.GetAuxiliaryExecutablePath());
    const int id = Open(wrapper);
    ASSERT_EQ(id, 1);
    CBrowserClient* client = wrapper.GetBrowserClient();
    m_Port.Post([&] { Paint(*client, m_Port.Browser(id), 640, 360); });
    EXPECT_TRUE(WaitUntil([&] { return m_Recorder.Frames().size() == 1; }));
    const auto start = Clock::now();
    wrapper.StopCEF();
    EXPECT_LT(SecondsSince(start), 2.5);
    EXPECT_FALSE(m_Port.PumpedOffThread());

    m_Port.ClearHostCalls();
    EXPECT_EQ(Open(wrapper), -1);
    wrapper.StopBrowser(1), wrapper.RefreshBrowser(1), wrapper.EnableReceivingFrames(1, true);
    wrapper.SetRenderSize(1, 10, 10), wrapper.ReloadBrowser(1), wrapper.ExecuteJavaScript(1, "1;");
    EXPECT_EQ(wrapper.GetUrl(1), "");
    EXPECT_EQ(wrapper.GetRenderProcessId(1), 0);
    EXPECT_FALSE(wrapper.EventMouseDown(1, 0, 1, 1, false) || wrapper.EventMouseMove(1, 1, 1) ||
                 wrapper.EventMouseWheelScrollUp(1, 1, 1) || wrapper.EventKeyDown(1, true, 65) ||
                 wrapper.EventKey(1, true, false, false, 38, 65, 0));
    EXPECT_TRUE(m_Port.HostCalls().empty());
}

TEST(BrowserWrapperHosted, PumpsOnlyWithABrowserAndOnTheOwnersThread)
{
    FakeEnginePort port;
    port.Install();
    {
        HostedEngine engine;
        ASSERT_TRUE(engine.Started());
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_EQ(port.PumpPasses(), 0);
        CallbackRecorder recorder;
        ASSERT_EQ(engine.Open(recorder), 1);
        EXPECT_TRUE(port.WaitForPumpPasses(1, 2000));
        EXPECT_FALSE(port.PumpedOffThread());
    }
    CBrowserWrapper wrapper;
    EXPECT_FALSE(wrapper.PrepareCEFThread()); // no client: nothing initialised
    EXPECT_EQ(port.InitializeCalls(), 1);
    EXPECT_EQ(CBrowserWrapper::GetAuxiliaryExecutablePathForExecutable("/a/b/service"),
              "/a/b/StreamloftCEFOverlayHelper");
}

} // namespace
} // namespace SLF_ChromiumEmbeddedFramework
