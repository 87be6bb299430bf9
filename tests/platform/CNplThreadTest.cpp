#include "platform/CNplThread.h"
#include "platform/NplThreading.h"
#include "platform/NplTime.h"
#include "tests/platform/LogCapture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

template <typename Predicate>
bool WaitFor(Predicate predicate)
{
    for (int i = 0; i < 5000 && !predicate(); ++i)
        usleep(1000);
    return predicate();
}

// A worker that loops until its thread object asks it to stop, or (stubborn)
// until the test releases it.
struct Worker {
    CNplThread* thread = nullptr;
    std::atomic<bool> release{false};
    std::atomic<bool> finished{false};
    std::atomic<int> loops{0};
    static void* Run(void* argument)
    {
        auto* self = static_cast<Worker*>(argument);
        while (self->thread ? !self->thread->IsTerminationRequested() : !self->release) {
            self->loops++;
            usleep(1000);
        }
        self->finished = true;
        return nullptr;
    }
    // True when the worker still loops.
    bool Loops()
    {
        const int before = loops;
        return WaitFor([&] { return loops > before; });
    }
};

// A stubborn thread that StopThread abandons: its object and worker stay
// reachable (from this list) until the process ends, as the thread may still
// touch them after it is released.
std::vector<void*>* g_retained = new std::vector<void*>;

struct Stubborn {
    CNplThread* thread = new CNplThread(false);
    Worker* worker = new Worker;
    explicit Stubborn(const char* name)
    {
        g_retained->insert(g_retained->end(), {thread, worker});
        EXPECT_TRUE(thread->CreateThread(&Worker::Run, worker, name));
        EXPECT_TRUE(WaitFor([&] { return thread->IsRunning() && worker->loops > 0; }));
    }
    ~Stubborn()
    {
        worker->release = true;
        EXPECT_TRUE(WaitFor([&] { return worker->finished.load(); }));
    }
};

TEST(CNplThread, CooperativeStopIdsAndReuse)
{
    LogCapture log;
    CNplThread thread(false);
    Worker worker;
    worker.thread = &thread;
    EXPECT_EQ(thread.GetThreadId(), -1);
    EXPECT_FALSE(thread.CreateThread(nullptr, nullptr, "none"));
    EXPECT_TRUE(thread.StopThread(0, true, true)); // idle: true, quietly
    ASSERT_TRUE(thread.CreateThread(&Worker::Run, &worker, "coop"));
    EXPECT_EQ(thread.GetName(), "coop");
    ASSERT_TRUE(WaitFor([&] { return worker.loops > 0; }));
    EXPECT_TRUE(thread.IsRunning());
    EXPECT_GE(thread.GetThreadId(), 0);
    EXPECT_NE(thread.GetThreadId(), CNplThread::GetCurrentThreadId());
    EXPECT_TRUE(thread.StopThread(5000, false, false));
    EXPECT_FALSE(thread.IsRunning());
    EXPECT_EQ(thread.GetThreadId(), -1);

    // The same object takes a new thread after a stop; -1 waits as long as
    // the thread runs.
    Worker late;
    ASSERT_TRUE(thread.CreateThread(&Worker::Run, &late, nullptr));
    EXPECT_FALSE(thread.IsTerminationRequested());
    EXPECT_EQ(thread.GetName(), "");
    ASSERT_TRUE(WaitFor([&] { return late.loops > 0; }));
    std::thread releaser([&] {
        usleep(100000);
        late.release = true;
    });
    EXPECT_TRUE(thread.StopThread(-1, false, false));
    EXPECT_TRUE(late.finished);
    releaser.join();
    EXPECT_TRUE(log.Matching("NPL thread").empty());
    EXPECT_TRUE(log.Matching("Debugger").empty());
}

// A stop without waiting returns false at once; a timed one waits, then
// (when asked) calls the debugger hook. Either way the handle is dropped
// although the thread goes on.
TEST(CNplThread, StopOfAStubbornThreadReportsAndAbandonsIt)
{
    for (int timeoutMs : {0, 60}) {
        LogCapture log;
        dbgsetflagvalue(NplDebugModule(), 3, 1);
        Stubborn stubborn("stubborn");
        const int id = stubborn.thread->GetThreadId();
        const int64_t start = NplTime_GetMonotonicNanoseconds();
        EXPECT_FALSE(stubborn.thread->StopThread(timeoutMs, timeoutMs > 0, false));
        EXPECT_GE(NplTime_GetMonotonicNanoseconds() - start, (timeoutMs - 5) * 1000000LL);
        EXPECT_FALSE(stubborn.thread->IsRunning());
        EXPECT_TRUE(stubborn.worker->Loops());
        char expected[160];
        snprintf(expected, sizeof expected,
                 "npl  wrn virtual bool CNplThread::StopThread(): NPL thread %d (0x%04X) (stubborn) could not be "
                 "stopped.\n",
                 id, static_cast<unsigned>(id));
        const auto lines = log.Matching("could not be stopped");
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_NE(lines[0].find(expected), std::string::npos) << lines[0];
        const auto debugger = log.Matching("Debugger!!!");
        ASSERT_EQ(debugger.size(), timeoutMs ? 1u : 0u);
        EXPECT_TRUE(!timeoutMs || debugger[0].find("npl      void BreakIntoDebugger(): Debugger!!!\n") != std::string::npos);
    }
}

// Signal 0 only tests that the thread exists: the stop reports true while the
// thread goes on.
TEST(CNplThread, ForceKillSendsSignalZeroAndReportsTrueWhileTheThreadRuns)
{
    for (int debug : {0, 1}) {
        LogCapture log;
        dbgsetflagvalue(NplDebugModule(), 3, debug);
        Stubborn stubborn("forced");
        EXPECT_TRUE(stubborn.thread->StopThread(0, true, true));
        EXPECT_TRUE(stubborn.worker->Loops());
        const auto lines = log.Matching("StopThread");
        ASSERT_EQ(lines.size(), 2u + debug);
        EXPECT_NE(lines[0].find("(forced) could not be stopped.\n"), std::string::npos);
        EXPECT_NE(lines[1].find("(forced) could not be stopped. Force kill it\n"), std::string::npos);
        EXPECT_TRUE(!debug || lines[2].find("Force kill returned with 0\n") != std::string::npos);
        EXPECT_EQ(log.Matching("Debugger").size(), size_t(debug));
    }
}

struct AutoDeleteThread : CNplThread {
    explicit AutoDeleteThread(std::atomic<bool>* destroyed) : CNplThread(true), m_destroyed(destroyed) {}
    ~AutoDeleteThread() override { *m_destroyed = true; }
    std::atomic<bool>* m_destroyed;
};

TEST(CNplThread, AutoDeleteAndDestructorStop)
{
    std::atomic<bool> destroyed{false};
    auto* thread = new AutoDeleteThread(&destroyed);
    ASSERT_TRUE(thread->CreateThread([](void*) -> void* { return nullptr; }, nullptr, "auto"));
    EXPECT_TRUE(WaitFor([&] { return destroyed.load(); }));

    Worker worker;
    {
        CNplThread scoped(false);
        worker.thread = &scoped;
        ASSERT_TRUE(scoped.CreateThread(&Worker::Run, &worker, "scoped"));
        ASSERT_TRUE(WaitFor([&] { return scoped.IsRunning(); }));
    }
    EXPECT_TRUE(worker.finished);
}

TEST(CNplThread, ThreadNamesAndIds)
{
    std::thread other([] {
        char name[64];
        CNplThread::SetCurrentThreadName("npl-worker");
        CNplThread::SetCurrentThreadName(nullptr); // leaves the name
        CNplThread::GetCurrentThreadName(name, sizeof name);
        EXPECT_STREQ(name, "npl-worker"); // the plain name, not "NPL npl-worker"
        EXPECT_EQ(CNplThread::GetCurrentThreadId(), static_cast<int>(syscall(SYS_gettid) & 0x7FFFFFFF));
    });
    other.join();
    EXPECT_STREQ(_dbgGetModuleName(NplDebugModule()), "npl");
    EXPECT_EQ(_dbgGetModuleFlags(NplDebugModule()) & 0xF, 0x3u); // errors and warnings on
}

} // namespace
