#include "dbg/dbg.h"
#include "platform/CNplThread.h"
#include "platform/NplDebug.h"
#include "platform/NplTime.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Wait.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

// Loops until its thread object asks it to stop or, without one, until released.
struct Worker {
    CNplThread* thread = nullptr;
    std::atomic<bool> release {false};
    std::atomic<bool> finished {false};
    std::atomic<int> loops {0};
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
};

TEST(CNplThread, CooperativeStopAndReuse)
{
    LogCapture log;
    CNplThread thread(false);
    EXPECT_FALSE(thread.CreateThread(nullptr, nullptr, "none"));
    EXPECT_TRUE(thread.StopThread(0, true, true)); // no thread: true, quietly
    Worker worker;
    worker.thread = &thread;
    ASSERT_TRUE(thread.CreateThread(&Worker::Run, &worker, "coop"));
    ASSERT_TRUE(WaitUntil([&] { return worker.loops > 0; }));
    EXPECT_TRUE(thread.IsRunning());
    EXPECT_TRUE(thread.StopThread(5000, false, false));
    EXPECT_TRUE(worker.finished);
    EXPECT_FALSE(thread.IsRunning());

    // A new thread starts without the old stop request; -1 waits as long as it runs.
    Worker late;
    ASSERT_TRUE(thread.CreateThread(&Worker::Run, &late, nullptr));
    EXPECT_FALSE(thread.IsTerminationRequested());
    ASSERT_TRUE(WaitUntil([&] { return late.loops > 0; }));
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

// A worker that ignores the stop: false after the wait (debugger hook only
// when asked), true with forceKill; the thread goes on.
TEST(CNplThread, StopOfAWorkerThatIgnoresTheRequest)
{
    // Abandoned threads still use their object and worker: never freed.
    static auto* retained = new std::vector<void*>;
    const struct {
        int timeoutMs;
        bool debugger, forceKill, result;
    } cases[] = {{0, false, false, false}, {60, true, false, false}, {0, true, true, true}};
    const uint32_t flags = _dbgGetModuleFlags(NplDebugModule());
    for (const auto& c : cases) {
        LogCapture log;
        dbgsetflagvalue(NplDebugModule(), 3, 1);
        auto* thread = new CNplThread(false);
        auto* worker = new Worker;
        retained->insert(retained->end(), {thread, worker});
        ASSERT_TRUE(thread->CreateThread(&Worker::Run, worker, "stubborn"));
        ASSERT_TRUE(WaitUntil([&] { return thread->IsRunning() && worker->loops > 0; }));
        const int64_t start = NplTime_GetMonotonicNanoseconds();
        EXPECT_EQ(thread->StopThread(c.timeoutMs, c.debugger, c.forceKill), c.result);
        EXPECT_GE(NplTime_GetMonotonicNanoseconds() - start, (c.timeoutMs - 5) * 1000000LL);
        EXPECT_FALSE(thread->IsRunning());
        const int loops = worker->loops;
        EXPECT_TRUE(WaitUntil([&] { return worker->loops > loops; })); // still runs
        EXPECT_EQ(log.Matching("(stubborn) could not be stopped").size(), c.forceKill ? 2u : 1u);
        EXPECT_EQ(log.Matching("Debugger!!!").size(), c.debugger ? 1u : 0u);
        worker->release = true;
        EXPECT_TRUE(WaitUntil([&] { return worker->finished.load(); }));
    }
    for (int level = 0; level < 4; ++level)
        dbgsetflagvalue(NplDebugModule(), level, (flags >> level) & 1);
}

// Stopped or destroyed right after CreateThread, mostly before the new thread
// has run at all: the stop and the destructor wait for the thread procedure
// to leave the object (the ASan run sees any read of freed memory), and a
// stop reports true only once the user function has returned.
TEST(CNplThread, StopAndDestructionBeforeTheThreadRuns)
{
    LogCapture log;
    for (int i = 0; i < 50; ++i) {
        CNplThread thread(false);
        Worker worker;
        worker.thread = &thread;
        ASSERT_TRUE(thread.CreateThread(&Worker::Run, &worker, "early"));
        EXPECT_TRUE(thread.StopThread(5000, false, false));
        EXPECT_TRUE(worker.finished) << "round " << i;

        // Without a wait the stop cannot report a thread that has yet to end.
        Worker held;
        ASSERT_TRUE(thread.CreateThread(&Worker::Run, &held, "held"));
        EXPECT_FALSE(thread.StopThread(0, false, false)) << "round " << i;
        held.release = true;
        EXPECT_TRUE(thread.StopThread(5000, false, false));
        EXPECT_TRUE(held.finished);
    }
    for (int i = 0; i < 100; ++i) {
        auto* thread = new CNplThread(false);
        Worker worker;
        worker.thread = thread;
        ASSERT_TRUE(thread->CreateThread(&Worker::Run, &worker, "doomed"));
        delete thread;
        EXPECT_TRUE(worker.finished) << "round " << i;
    }
    EXPECT_TRUE(log.Matching("Debugger").empty());
}

struct AutoDeleteThread : CNplThread {
    explicit AutoDeleteThread(std::atomic<bool>* destroyed) : CNplThread(true), m_destroyed(destroyed) {}
    ~AutoDeleteThread() override { *m_destroyed = true; }
    std::atomic<bool>* m_destroyed;
};

TEST(CNplThread, AutoDeleteAndDestructorStop)
{
    std::atomic<bool> destroyed {false};
    auto* thread = new AutoDeleteThread(&destroyed);
    ASSERT_TRUE(thread->CreateThread([](void*) -> void* { return nullptr; }, nullptr, "auto"));
    EXPECT_TRUE(WaitUntil([&] { return destroyed.load(); }));

    Worker worker;
    {
        CNplThread scoped(false);
        worker.thread = &scoped;
        ASSERT_TRUE(scoped.CreateThread(&Worker::Run, &worker, "scoped"));
        ASSERT_TRUE(WaitUntil([&] { return scoped.IsRunning(); }));
    }
    EXPECT_TRUE(worker.finished);
}

} // namespace
