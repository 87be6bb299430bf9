#include "tests/support/Wait.h"
#include "dbg/dbg.h"
#include "platform/CNplThread.h"
#include "platform/NplDebug.h"
#include "platform/NplTime.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

// Collects log lines through the callback sink; restores the "npl" flags.
struct LogCapture {
    LogCapture()
    {
        dbgcommand("null");
        dbgsetcallback(
            [](void* self, int, const char* line, int length) {
                auto* capture = static_cast<LogCapture*>(self);
                std::lock_guard<std::mutex> guard(capture->mutex);
                capture->lines.emplace_back(line, static_cast<size_t>(length));
            },
            this);
        dbgcommand("callback");
    }
    ~LogCapture()
    {
        dbgcommand("null");
        dbgsetcallback(nullptr, nullptr);
        for (int level = 0; level < 4; ++level)
            dbgsetflagvalue(NplDebugModule(), level, (flags >> level) & 1);
    }
    std::vector<std::string> Matching(const std::string& text)
    {
        std::lock_guard<std::mutex> guard(mutex);
        std::vector<std::string> result;
        std::copy_if(lines.begin(), lines.end(), std::back_inserter(result),
                     [&](const std::string& line) { return line.find(text) != std::string::npos; });
        return result;
    }

    const uint32_t flags = _dbgGetModuleFlags(NplDebugModule());
    std::mutex mutex;
    std::vector<std::string> lines;
};

// Loops until its thread object asks it to stop or, without one, until released.
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
    for (const auto& c : cases) {
        LogCapture log;
        dbgsetflagvalue(NplDebugModule(), 3, 1);
        auto* thread = new CNplThread(false);
        auto* worker = new Worker;
        retained->insert(retained->end(), {thread, worker});
        ASSERT_TRUE(thread->CreateThread(&Worker::Run, worker, "stubborn"));
        ASSERT_TRUE(WaitUntil([&] { return thread->IsRunning() && worker->loops > 0; }));
        const int id = thread->GetThreadId();
        const int64_t start = NplTime_GetMonotonicNanoseconds();
        EXPECT_EQ(thread->StopThread(c.timeoutMs, c.debugger, c.forceKill), c.result);
        EXPECT_GE(NplTime_GetMonotonicNanoseconds() - start, (c.timeoutMs - 5) * 1000000LL);
        EXPECT_FALSE(thread->IsRunning());
        const int loops = worker->loops;
        EXPECT_TRUE(WaitUntil([&] { return worker->loops > loops; })); // still runs

        char expected[160];
        snprintf(expected, sizeof expected,
                 "npl  wrn virtual bool CNplThread::StopThread(): NPL thread %d (0x%04X) (stubborn) could not be "
                 "stopped.\n",
                 id, static_cast<unsigned>(id));
        const auto lines = log.Matching("StopThread");
        ASSERT_EQ(lines.size(), c.forceKill ? 3u : 1u);
        EXPECT_NE(lines[0].find(expected), std::string::npos) << lines[0];
        if (c.forceKill) {
            EXPECT_NE(lines[1].find("(stubborn) could not be stopped. Force kill it\n"), std::string::npos);
            EXPECT_NE(lines[2].find("Force kill returned with 0\n"), std::string::npos);
        }
        EXPECT_EQ(log.Matching("npl      void BreakIntoDebugger(): Debugger!!!\n").size(), c.debugger ? 1u : 0u);
        worker->release = true;
        EXPECT_TRUE(WaitUntil([&] { return worker->finished.load(); }));
    }
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
    std::atomic<bool> destroyed{false};
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
