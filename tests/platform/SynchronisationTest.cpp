#include "platform/CNplThreadCondition.h"
#include "platform/CNplThreadMutex.h"
#include "platform/CNplThreadSafeObject.h"
#include "platform/NplTime.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace {

using namespace std::chrono_literals;

int64_t NowMs()
{
    return NplTime_GetMonotonicNanoseconds() / 1000000;
}

// True when another thread can take the mutex right now.
bool FreeForOthers(CNplThreadMutex& mutex)
{
    bool taken = false;
    std::thread other([&] {
        taken = mutex.TryLock();
        if (taken)
            mutex.UnLock();
    });
    other.join();
    return taken;
}

TEST(CNplThreadMutexTest, PlainAndRecursiveMutexes)
{
    CNplThreadMutex plain;
    EXPECT_EQ(plain.Lock(), 0);
    EXPECT_FALSE(plain.TryLock());
    EXPECT_FALSE(FreeForOthers(plain));
    EXPECT_EQ(plain.UnLock(), 0);
    EXPECT_TRUE(FreeForOthers(plain));

    CNplThreadMutex recursive(true);
    EXPECT_EQ(recursive.Lock(), 0);
    EXPECT_EQ(recursive.Lock(), 0);
    EXPECT_TRUE(recursive.TryLock());
    EXPECT_EQ(recursive.UnLock(), 0);
    EXPECT_EQ(recursive.UnLock(), 0);
    EXPECT_FALSE(FreeForOthers(recursive));
    EXPECT_EQ(recursive.UnLock(), 0);
    EXPECT_TRUE(FreeForOthers(recursive));
}

TEST(CNplThreadMutexLockTest, ScopedLockHoldsAtMostOnce)
{
    CNplThreadMutex mutex;
    {
        CNplThreadMutexLock lock(mutex, false);
        EXPECT_FALSE(lock.IsLocked());
        EXPECT_TRUE(FreeForOthers(mutex));
        lock.Lock();
        lock.Lock(); // held already: not locked a second time (would deadlock)
        EXPECT_TRUE(lock.IsLocked());
        EXPECT_TRUE(lock.TryLock());
        EXPECT_FALSE(FreeForOthers(mutex));
        lock.UnLock();
        EXPECT_FALSE(lock.IsLocked());
        lock.UnLock(); // not held: nothing happens
        EXPECT_TRUE(FreeForOthers(mutex));
        EXPECT_TRUE(lock.TryLock());
    }
    // The destructor released it.
    EXPECT_TRUE(FreeForOthers(mutex));

    mutex.Lock();
    std::thread other([&] {
        CNplThreadMutexLock lock(mutex, false);
        EXPECT_FALSE(lock.TryLock());
        EXPECT_FALSE(lock.IsLocked());
    });
    other.join();
    mutex.UnLock();
}

TEST(DualMutexLockTest, SameLockTwiceLocksOnce)
{
    CNplThreadMutex mutex;
    CNplThreadMutexLock first(mutex, false);
    CNplThreadMutexLock second(mutex, false);
    DualMutexLock(first, second);
    EXPECT_TRUE(first.IsLocked());
    EXPECT_FALSE(second.IsLocked());
    first.UnLock();
    EXPECT_TRUE(FreeForOthers(mutex));
}

TEST(DualMutexLockTest, HeldLockMeansTheOtherIsLocked)
{
    // Separate pairs for the two cases: each case alone has one lock order.
    CNplThreadMutex a, b, c, d;
    {
        CNplThreadMutexLock first(a, true);
        CNplThreadMutexLock second(b, false);
        DualMutexLock(first, second);
        EXPECT_TRUE(first.IsLocked());
        EXPECT_TRUE(second.IsLocked());
    }
    {
        CNplThreadMutexLock first(c, false);
        CNplThreadMutexLock second(d, true);
        DualMutexLock(first, second);
        EXPECT_TRUE(first.IsLocked());
        EXPECT_TRUE(second.IsLocked());
    }
    EXPECT_TRUE(FreeForOthers(a));
    EXPECT_TRUE(FreeForOthers(b));
    EXPECT_TRUE(FreeForOthers(c));
    EXPECT_TRUE(FreeForOthers(d));
}

TEST(DualMutexLockTest, TakesBothOnceTheOtherHolderLetsGo)
{
    CNplThreadMutex a, b;
    std::atomic<bool> holding{false};
    std::atomic<bool> done{false};
    std::thread holder([&] {
        b.Lock();
        holding = true;
        std::this_thread::sleep_for(60ms);
        b.UnLock();
    });
    while (!holding)
        std::this_thread::sleep_for(1ms);

    // Opposite orders from two threads must not deadlock.
    std::thread reverse([&] {
        for (int i = 0; i < 5; ++i) {
            CNplThreadMutexLock first(b, false);
            CNplThreadMutexLock second(a, false);
            DualMutexLock(first, second);
            EXPECT_TRUE(first.IsLocked() && second.IsLocked());
        }
    });
    for (int i = 0; i < 5; ++i) {
        CNplThreadMutexLock first(a, false);
        CNplThreadMutexLock second(b, false);
        DualMutexLock(first, second);
        EXPECT_TRUE(first.IsLocked() && second.IsLocked());
    }
    done = true;
    reverse.join();
    holder.join();
}

class Box : public CNplThreadSafeObject {
public:
    std::atomic<bool> ready{false};
};

TEST(CNplThreadSafeObjectTest, ZeroTimeoutReturnsAtOnce)
{
    Box box;
    box.Lock();
    const int64_t start = NowMs();
    EXPECT_FALSE(box.WaitCondition(0));
    EXPECT_LT(NowMs() - start, 2000);
    box.UnLock();
}

TEST(CNplThreadSafeObjectTest, PositiveTimeoutExpires)
{
    Box box;
    box.Lock();
    const int64_t start = NowMs();
    EXPECT_FALSE(box.WaitCondition(Int64(50)));
    EXPECT_GE(NowMs() - start, 45);
    box.UnLock();
}

TEST(CNplThreadSafeObjectTest, SignalWakesTimedAndUnlimitedWaits)
{
    for (int64_t timeout : {int64_t(-5), int64_t(10000)}) {
        Box box;
        box.Lock();
        std::thread signaller([&] {
            std::this_thread::sleep_for(30ms);
            box.Lock();
            box.ready = true;
            EXPECT_EQ(box.SignalCondition(), 0);
            box.UnLock();
        });
        bool woken = false;
        // No predicate inside: the caller loops on its own state.
        while (!box.ready)
            woken = box.WaitCondition(timeout);
        EXPECT_TRUE(woken) << timeout;
        box.UnLock();
        signaller.join();
    }
}

TEST(CNplThreadSafeObjectTest, LockIsRecursive)
{
    Box box;
    EXPECT_EQ(box.Lock(), 0);
    EXPECT_EQ(box.Lock(), 0);
    EXPECT_EQ(box.UnLock(), 0);
    // Still held once: a timed wait releases and retakes it.
    EXPECT_FALSE(box.WaitCondition(Int64(1)));
    EXPECT_EQ(box.UnLock(), 0);
}

TEST(CNplThreadConditionTest, BroadcastWakesEveryWaiter)
{
    CNplThreadMutex mutex;
    CNplThreadCondition condition;
    std::atomic<int> waiting{0};
    bool go = false;
    std::atomic<int> woken{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i) {
        waiters.emplace_back([&] {
            mutex.Lock();
            waiting++;
            while (!go)
                condition.Wait(mutex, NplTimeout(-1));
            woken++;
            mutex.UnLock();
        });
    }
    while (waiting < 3)
        std::this_thread::sleep_for(1ms);
    mutex.Lock();
    go = true;
    EXPECT_EQ(condition.Broadcast(), 0);
    mutex.UnLock();
    for (auto& waiter : waiters)
        waiter.join();
    EXPECT_EQ(woken, 3);
}

} // namespace
