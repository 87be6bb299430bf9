#include "platform/CNplThread.h"
#include "platform/NplDebug.h"
#include "platform/NplThreading.h"
#include "platform/NplTime.h"
#include "tests/platform/LogCapture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using namespace std::chrono_literals;

template <typename Predicate>
bool WaitFor(Predicate predicate, std::chrono::milliseconds limit = 5000ms)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!predicate()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

int64_t NowMs()
{
    return NplTime_GetMonotonicNanoseconds() / 1000000;
}

// A worker that loops until its thread object asks it to stop.
struct Cooperative {
    CNplThread* thread = nullptr;
    std::atomic<int> loops{0};
    static void* Run(void* argument)
    {
        Cooperative* self = static_cast<Cooperative*>(argument);
        while (!self->thread->IsTerminationRequested()) {
            self->loops++;
            usleep(1000);
        }
        return nullptr;
    }
};

// A worker that ignores the stop request and ends only when the test lets it.
struct Stubborn {
    std::atomic<bool> release{false};
    std::atomic<bool> finished{false};
    std::atomic<int> loops{0};
    static void* Run(void* argument)
    {
        Stubborn* self = static_cast<Stubborn*>(argument);
        while (!self->release) {
            self->loops++;
            usleep(1000);
        }
        self->finished = true;
        return nullptr;
    }
};

// A stubborn thread is abandoned by StopThread, so its object and worker must
// outlive it: both stay reachable (from this list) until the process ends.
std::vector<void*>* g_retained = new std::vector<void*>;

struct AbandonedThread {
    CNplThread* thread = new CNplThread(false);
    Stubborn* worker = new Stubborn;
    AbandonedThread()
    {
        g_retained->push_back(thread);
        g_retained->push_back(worker);
    }
    void Release()
    {
        worker->release = true;
        EXPECT_TRUE(WaitFor([&] { return worker->finished.load(); }));
    }
};

class CNplThreadTest : public ::testing::Test {
protected:
    void SetUp() override { m_flags = _dbgGetModuleFlags(NplDebugModule()); }
    void TearDown() override
    {
        for (int level = 0; level < 4; ++level)
            dbgsetflagvalue(NplDebugModule(), level, (m_flags >> level) & 1);
    }
    uint32_t m_flags = 0;
};

TEST_F(CNplThreadTest, PlatformModuleHasWarningsOnAndDebugOff)
{
    const int32_t module = NplDebugModule();
    ASSERT_GE(module, 0);
    EXPECT_STREQ(_dbgGetModuleName(module), "npl");
    EXPECT_EQ(_dbgGetModuleFlags(module) & 0xF, 0x3u);
    EXPECT_EQ(dbgquery("npl WRN"), 1);
    EXPECT_EQ(dbgquery("npl DBG"), 0);
}

TEST_F(CNplThreadTest, CooperativeWorkerStopsAndIdsFollowTheThread)
{
    LogCapture log;
    CNplThread thread(false);
    Cooperative worker;
    worker.thread = &thread;
    EXPECT_EQ(thread.GetThreadId(), -1);
    EXPECT_FALSE(thread.IsRunning());
    ASSERT_TRUE(thread.CreateThread(&Cooperative::Run, &worker, "coop"));
    EXPECT_EQ(thread.GetName(), "coop");
    ASSERT_TRUE(WaitFor([&] { return worker.loops > 0; }));
    EXPECT_TRUE(thread.IsRunning());
    EXPECT_GE(thread.GetThreadId(), 0);
    EXPECT_NE(thread.GetThreadId(), CNplThread::GetCurrentThreadId());

    EXPECT_TRUE(thread.StopThread(5000, false, false));
    EXPECT_FALSE(thread.IsRunning());
    EXPECT_TRUE(thread.IsTerminationRequested());
    EXPECT_EQ(thread.GetThreadId(), -1);
    EXPECT_TRUE(log.Matching("could not be stopped").empty());

    // The same object takes a new thread after a stop.
    worker.loops = 0;
    ASSERT_TRUE(thread.CreateThread(&Cooperative::Run, &worker, nullptr));
    EXPECT_FALSE(thread.IsTerminationRequested());
    EXPECT_EQ(thread.GetName(), "");
    ASSERT_TRUE(WaitFor([&] { return worker.loops > 0; }));
    EXPECT_TRUE(thread.StopThread(-1, false, false));
}

TEST_F(CNplThreadTest, NullFunctionIsRefused)
{
    CNplThread thread(false);
    EXPECT_FALSE(thread.CreateThread(nullptr, nullptr, "none"));
    EXPECT_FALSE(thread.IsRunning());
    EXPECT_EQ(thread.GetName(), "");
}

TEST_F(CNplThreadTest, StopOnIdleObjectReturnsTrueQuietly)
{
    LogCapture log;
    CNplThread thread(false);
    EXPECT_TRUE(thread.StopThread(0, true, true));
    EXPECT_TRUE(thread.StopThread(100, false, false));
    EXPECT_TRUE(log.Matching("NPL thread").empty());
    EXPECT_TRUE(log.Matching("Debugger").empty());
}

TEST_F(CNplThreadTest, StopWithoutWaitingReportsAndAbandonsAStubbornThread)
{
    LogCapture log;
    AbandonedThread stubborn;
    ASSERT_TRUE(stubborn.thread->CreateThread(&Stubborn::Run, stubborn.worker, "stubborn"));
    ASSERT_TRUE(WaitFor([&] { return stubborn.thread->IsRunning() && stubborn.worker->loops > 0; }));
    const int id = stubborn.thread->GetThreadId();

    EXPECT_FALSE(stubborn.thread->StopThread(0, false, false));
    // The handle is dropped although the thread goes on.
    EXPECT_FALSE(stubborn.thread->IsRunning());
    const int loops = stubborn.worker->loops;
    EXPECT_TRUE(WaitFor([&] { return stubborn.worker->loops > loops; }));

    char expected[128];
    snprintf(expected, sizeof expected, "NPL thread %d (0x%04X) (stubborn) could not be stopped.\n", id,
             static_cast<unsigned>(id));
    const auto lines = log.Matching("could not be stopped");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, 1);
    EXPECT_NE(lines[0].text.find("npl  wrn virtual bool CNplThread::StopThread(): "), std::string::npos)
        << lines[0].text;
    EXPECT_NE(lines[0].text.find(expected), std::string::npos) << lines[0].text;
    EXPECT_TRUE(log.Matching("Force kill").empty());
    stubborn.Release();
}

TEST_F(CNplThreadTest, TimedStopOfStubbornThreadWaitsThenBreaks)
{
    LogCapture log;
    dbgsetflagvalue(NplDebugModule(), 3, 1);
    AbandonedThread stubborn;
    ASSERT_TRUE(stubborn.thread->CreateThread(&Stubborn::Run, stubborn.worker, "slow"));
    ASSERT_TRUE(WaitFor([&] { return stubborn.thread->IsRunning(); }));

    const int64_t start = NowMs();
    EXPECT_FALSE(stubborn.thread->StopThread(60, true, false));
    EXPECT_GE(NowMs() - start, 55);
    EXPECT_EQ(log.Matching("(slow) could not be stopped.").size(), 1u);
    const auto debugger = log.Matching("Debugger!!!");
    ASSERT_EQ(debugger.size(), 1u);
    EXPECT_EQ(debugger[0].level, 3);
    EXPECT_NE(debugger[0].text.find("void BreakIntoDebugger(): Debugger!!!\n"), std::string::npos);
    stubborn.Release();
}

TEST_F(CNplThreadTest, ForceKillSendsSignalZeroAndReportsTrueWhileTheThreadRuns)
{
    LogCapture log;
    dbgsetflagvalue(NplDebugModule(), 3, 1);
    AbandonedThread stubborn;
    ASSERT_TRUE(stubborn.thread->CreateThread(&Stubborn::Run, stubborn.worker, "forced"));
    ASSERT_TRUE(WaitFor([&] { return stubborn.thread->IsRunning(); }));

    EXPECT_TRUE(stubborn.thread->StopThread(0, false, true));
    EXPECT_FALSE(stubborn.worker->finished);
    const int loops = stubborn.worker->loops;
    EXPECT_TRUE(WaitFor([&] { return stubborn.worker->loops > loops; }));

    const auto lines = log.Lines();
    std::vector<std::string> texts;
    for (const auto& line : lines)
        if (line.text.find("StopThread") != std::string::npos)
            texts.push_back(line.text);
    ASSERT_EQ(texts.size(), 3u);
    EXPECT_NE(texts[0].find("(forced) could not be stopped.\n"), std::string::npos);
    EXPECT_NE(texts[1].find("(forced) could not be stopped. Force kill it\n"), std::string::npos);
    EXPECT_NE(texts[2].find("Force kill returned with 0\n"), std::string::npos);
    stubborn.Release();
}

TEST_F(CNplThreadTest, DebugLinesStayOffByDefault)
{
    LogCapture log;
    AbandonedThread stubborn;
    ASSERT_TRUE(stubborn.thread->CreateThread(&Stubborn::Run, stubborn.worker, "quiet"));
    ASSERT_TRUE(WaitFor([&] { return stubborn.thread->IsRunning(); }));
    EXPECT_TRUE(stubborn.thread->StopThread(0, true, true));
    EXPECT_EQ(log.Matching("could not be stopped").size(), 2u);
    EXPECT_TRUE(log.Matching("Force kill returned").empty());
    EXPECT_TRUE(log.Matching("Debugger").empty());
    stubborn.Release();
}

TEST_F(CNplThreadTest, NegativeTimeoutWaitsUntilTheThreadEnds)
{
    CNplThread thread(false);
    Stubborn worker;
    ASSERT_TRUE(thread.CreateThread(&Stubborn::Run, &worker, "ends"));
    ASSERT_TRUE(WaitFor([&] { return thread.IsRunning(); }));
    std::thread releaser([&] {
        std::this_thread::sleep_for(100ms);
        worker.release = true;
    });
    EXPECT_TRUE(thread.StopThread(-1, false, false));
    EXPECT_TRUE(worker.finished);
    releaser.join();
}

struct AutoDeleteThread : CNplThread {
    explicit AutoDeleteThread(std::atomic<bool>* destroyed) : CNplThread(true), m_destroyed(destroyed) {}
    ~AutoDeleteThread() override { *m_destroyed = true; }
    std::atomic<bool>* m_destroyed;
};

TEST_F(CNplThreadTest, AutoDeleteObjectDeletesItselfWhenTheFunctionReturns)
{
    std::atomic<bool> destroyed{false};
    std::atomic<bool> ran{false};
    auto* thread = new AutoDeleteThread(&destroyed);
    ASSERT_TRUE(thread->CreateThread(
        [](void* argument) -> void* {
            *static_cast<std::atomic<bool>*>(argument) = true;
            return nullptr;
        },
        &ran, "auto"));
    EXPECT_TRUE(WaitFor([&] { return destroyed.load(); }));
    EXPECT_TRUE(ran);
}

TEST_F(CNplThreadTest, DestructorStopsARunningThread)
{
    Cooperative worker;
    {
        CNplThread thread(false);
        worker.thread = &thread;
        ASSERT_TRUE(thread.CreateThread(&Cooperative::Run, &worker, "scoped"));
        ASSERT_TRUE(WaitFor([&] { return thread.IsRunning(); }));
    }
    const int loops = worker.loops;
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(worker.loops, loops);
}

TEST_F(CNplThreadTest, ThreadNamesAndIds)
{
    std::thread other([] {
        char name[64];
        CNplThread::SetCurrentThreadName("npl-worker");
        CNplThread::GetCurrentThreadName(name, sizeof name);
        // The plain name is applied, not the "NPL " form.
        EXPECT_STREQ(name, "npl-worker");
        CNplThread::SetCurrentThreadName(nullptr);
        CNplThread::GetCurrentThreadName(name, sizeof name);
        EXPECT_STREQ(name, "npl-worker");

        const int id = CNplThread::GetCurrentThreadId();
        EXPECT_GE(id, 0);
        EXPECT_EQ(id, static_cast<int>(syscall(SYS_gettid) & 0x7FFFFFFF));
        EXPECT_EQ(id, NplThreading_GetThreadId());
    });
    other.join();
    EXPECT_EQ(NplThreading_GetProcessId(), static_cast<int32_t>(getpid()));
}

} // namespace
