#include "platform/CNplThreadMutex.h"
#include "platform/CNplThreadMutexLock.h"
#include "platform/CNplThreadSafeObject.h"
#include "platform/NplTime.h"
#include "platform/NplTypes.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <tuple>
#include <unistd.h>

namespace {

// True when another thread can take the mutex right now.
bool FreeForOthers(CNplThreadMutex& mutex)
{
    bool taken = false;
    std::thread([&] {
        taken = mutex.TryLock();
        if (taken)
            mutex.UnLock();
    }).join();
    return taken;
}

int64_t NowMs()
{
    return NplTime_GetMonotonicNanoseconds() / 1000000;
}

TEST(CNplThreadMutex, RecursiveAndScopedLocks)
{
    CNplThreadMutex recursive(true);
    EXPECT_EQ(recursive.Lock(), 0);
    EXPECT_TRUE(recursive.TryLock());
    EXPECT_EQ(recursive.UnLock(), 0);
    EXPECT_FALSE(FreeForOthers(recursive)); // still held once
    EXPECT_EQ(recursive.UnLock(), 0);
    EXPECT_TRUE(FreeForOthers(recursive));

    CNplThreadMutex plain;
    {
        CNplThreadMutexLock lock(plain, false);
        EXPECT_TRUE(FreeForOthers(plain));
        lock.Lock();
        lock.Lock(); // held already: a second lock of a plain mutex would deadlock
        EXPECT_TRUE(lock.TryLock());
        EXPECT_FALSE(FreeForOthers(plain));
        lock.UnLock();
        lock.UnLock(); // not held: nothing happens
        EXPECT_TRUE(FreeForOthers(plain));
        EXPECT_TRUE(lock.TryLock());
    }
    EXPECT_TRUE(FreeForOthers(plain)); // the destructor released it
}

TEST(DualMutexLock, SameLockHeldLockAndOppositeOrders)
{
    // Mutexes of its own per case: no two cases lock a pair in opposite orders.
    CNplThreadMutex a, b, c, d, e;
    {
        CNplThreadMutexLock first(a, false), second(a, false);
        DualMutexLock(first, second); // one lock, taken once
        EXPECT_TRUE(first.IsLocked());
        EXPECT_FALSE(second.IsLocked());
    }
    for (bool firstHeld : {true, false}) {
        CNplThreadMutexLock first(firstHeld ? b : d, firstHeld), second(firstHeld ? c : e, !firstHeld);
        DualMutexLock(first, second);
        EXPECT_TRUE(first.IsLocked() && second.IsLocked());
    }
    EXPECT_TRUE(FreeForOthers(a) && FreeForOthers(b) && FreeForOthers(c) && FreeForOthers(d) && FreeForOthers(e));

    // Opposite orders from two threads while a third holds one lock: both
    // finish. A deadlock fails the test after 10 s instead of hanging the
    // run; the stuck threads are then left behind with the state they share.
    struct Shared {
        CNplThreadMutex f, g;
        std::atomic<bool> holding {false};
        std::atomic<int> finished {0}, pairsNotHeld {0};
    };
    auto shared = std::make_shared<Shared>();
    std::thread holder([shared] {
        shared->g.Lock();
        shared->holding = true;
        usleep(60000);
        shared->g.UnLock();
    });
    while (!shared->holding)
        usleep(1000);
    auto takePairs = [shared](bool reversed) {
        for (int i = 0; i < 5; ++i) {
            CNplThreadMutexLock first(reversed ? shared->g : shared->f, false);
            CNplThreadMutexLock second(reversed ? shared->f : shared->g, false);
            DualMutexLock(first, second);
            if (!(first.IsLocked() && second.IsLocked()))
                ++shared->pairsNotHeld;
        }
        ++shared->finished;
    };
    std::thread forward(takePairs, false), reverse(takePairs, true);
    const int64_t deadline = NowMs() + 10000;
    while (shared->finished < 2 && NowMs() < deadline)
        usleep(1000);
    holder.join();
    if (shared->finished < 2) {
        forward.detach();
        reverse.detach();
        FAIL() << "locking two mutexes in opposite orders deadlocked";
    }
    forward.join();
    reverse.join();
    EXPECT_EQ(shared->pairsNotHeld, 0);
}

// Time-out 0 returns at once, a positive one after its time, a negative one waits for the signal.
TEST(CNplThreadSafeObject, WaitTimeOutsAndSignals)
{
    for (const auto& [ns, sec, nsec] :
         {std::tuple<int64_t, long, long> {1500000001, 1, 500000001}, {999, 0, 999}, {0, 0, 0}, {-5000000000, 0, 0}}) {
        const timespec ts = NplMakeRelativeTimespec(NplTimeout(ns));
        EXPECT_TRUE(ts.tv_sec == sec && ts.tv_nsec == nsec) << ns;
    }
    CNplThreadSafeObject object;
    EXPECT_EQ(object.Lock(), 0);
    EXPECT_EQ(object.Lock(), 0); // recursive
    EXPECT_EQ(object.UnLock(), 0);
    int64_t start = NowMs();
    EXPECT_FALSE(object.WaitCondition(0));
    EXPECT_LT(NowMs() - start, 2000);
    start = NowMs();
    EXPECT_FALSE(object.WaitCondition(Int64(50)));
    EXPECT_GE(NowMs() - start, 45);

    for (int64_t timeout : {int64_t(-5), int64_t(10000)}) {
        bool ready = false;
        std::thread signaller([&] {
            usleep(30000);
            object.Lock();
            ready = true;
            EXPECT_EQ(object.SignalCondition(), 0);
            object.UnLock();
        });
        bool woken = false;
        while (!ready) // no predicate inside: the caller loops on its own state
            woken = object.WaitCondition(timeout);
        EXPECT_TRUE(woken) << timeout;
        signaller.join();
    }
    EXPECT_EQ(object.UnLock(), 0);
}

} // namespace
