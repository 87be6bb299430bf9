// The parts of web-process recovery both WebKit ports share: how many
// recoveries a browser gets, what the log says, and how a process that lives
// in a process namespace of its own is found from outside it.
#include "engine/CBrowserApp.h"
#include "engine/port/EngineProcesses.h"
#include "engine/port/EngineRecovery.h"

#include <gtest/gtest.h>

#include <unistd.h>

using namespace SLF_ChromiumEmbeddedFramework;

namespace {

constexpr int64_t kSecond = 1000 * 1000;

TEST(WebProcessRecoveries, ThreeWithinAMinuteThenGivenUpUntilTheOldestLeavesTheMinute)
{
    WebProcessRecoveries recoveries;
    EXPECT_FALSE(recoveries.GiveUp(100 * kSecond));
    EXPECT_FALSE(recoveries.GiveUp(110 * kSecond));
    EXPECT_FALSE(recoveries.GiveUp(150 * kSecond));
    EXPECT_EQ(recoveries.Count(), 3u);
    EXPECT_TRUE(recoveries.GiveUp(159 * kSecond)) << "a fourth crash within the minute";
    EXPECT_EQ(recoveries.Count(), 3u) << "a given-up crash is no recovery";
    // The first recovery is a minute old: one more is allowed.
    EXPECT_FALSE(recoveries.GiveUp(160 * kSecond));
    EXPECT_TRUE(recoveries.GiveUp(161 * kSecond));
    EXPECT_FALSE(recoveries.GiveUp(400 * kSecond));
    EXPECT_EQ(recoveries.Count(), 1u);
}

TEST(WebProcessRecoveries, TheLogNamesTheProcessTheReasonAndWhatHappensNext)
{
    EXPECT_EQ(DescribeWebProcessEnd(42, TS_PROCESS_CRASHED, false, 1),
              "web process 42 crashed; loading the page again in a new web process (recovery 1 of 3 within a minute)");
    EXPECT_EQ(DescribeWebProcessEnd(42, TS_PROCESS_CRASHED, true, 3),
              "web process 42 crashed; given up after 3 recoveries within a minute, the browser stays open without "
              "frames");
    EXPECT_EQ(DescribeWebProcessEnd(7, TS_PROCESS_WAS_KILLED, false, 2)
                  .rfind("web process 7 was unresponsive for 10 s and was ended; loading the page again", 0),
              0u);
    EXPECT_EQ(DescribeWebProcessEnd(7, TS_PROCESS_OOM, false, 1).rfind("web process 7 exceeded its memory limit;", 0),
              0u);
    EXPECT_EQ(DescribeWebProcessEnd(0, TS_ABNORMAL_TERMINATION, false, 1).rfind("web process 0 ended;", 0), 0u);
}

TEST(EngineProcesses, AProcessIsFoundByItsPidInItsOwnNamespaceOnly)
{
    const std::string ours = PidNamespaceOf(0);
    ASSERT_EQ(ours.rfind("pid:[", 0), 0u) << ours;
    EXPECT_EQ(PidNamespaceOf(getpid()), ours);
    EXPECT_EQ(PidNamespaceOf(-5), "");
    const std::vector<int> candidates = {getppid(), getpid()};
    EXPECT_EQ(FindProcessByInnerPid(candidates, getpid(), ours), getpid());
    EXPECT_EQ(FindProcessByInnerPid(candidates, getpid(), "pid:[1]"), 0) << "another namespace";
    EXPECT_EQ(FindProcessByInnerPid({getppid()}, getpid(), ours), 0) << "not among the candidates";
    EXPECT_EQ(FindProcessByInnerPid(candidates, 0, ours), 0);
}

// The web process's answer to the render-process-ID question carries its
// namespace, so that the service can find it from outside a sandbox.
TEST(EngineProcesses, TheRenderProcessIdAnswerCarriesThePidAndItsNamespace)
{
    class Browser : public EngineBrowser {
    public:
        int GetIdentifier() override { return 1; }
        EngineBrowserHostRef GetHost() override { return nullptr; }
        EngineFrameRef GetMainFrame() override { return nullptr; }
        void Reload() override {}
        void SendProcessMessage(const EngineProcessMessageRef& message) override { sent = message; }
        EngineProcessMessageRef sent;
    };
    auto browser = std::make_shared<Browser>();
    CBrowserApp app;
    ASSERT_TRUE(app.OnProcessMessageReceived(browser, EngineProcessMessage::Create(kRequestGetRenderProcessId)));
    ASSERT_TRUE(browser->sent);
    EXPECT_EQ(browser->sent->GetName(), kResponseGetRenderProcessId);
    const auto& arguments = browser->sent->GetArgumentList();
    ASSERT_EQ(arguments.size(), 2u);
    EXPECT_EQ(std::get<int>(arguments[0]), getpid());
    EXPECT_EQ(std::get<std::string>(arguments[1]), PidNamespaceOf(0));
}

} // namespace
