#include <gtest/gtest.h>

#include <functional>
#include <memory>

#include "platform/NplRefQueue.h"

namespace {

std::shared_ptr<int> MakeItem(
    int value, std::function<void()> onRelease = [] {})
{
    return std::shared_ptr<int>(new int(value), [onRelease](int* item) {
        delete item;
        onRelease();
    });
}

} // namespace

TEST(CNplRefQueue, FirstInFirstOutUpToItsCapacity)
{
    CNplRefQueue<int> queue(3);
    EXPECT_EQ(queue.Dequeue(), nullptr);
    int released = 0;
    for (int round = 0; round < 3; ++round) { // wraps around the ring
        for (int i = 0; i < 3; ++i)
            EXPECT_TRUE(queue.Enqueue(MakeItem(round * 10 + i)));
        // A refused reference is released, outside the lock: its destructor may use the queue.
        EXPECT_FALSE(queue.Enqueue(MakeItem(-1, [&] { ++released, (void)queue.GetCount(); })));
        EXPECT_EQ(released, round + 1);
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(*queue.Dequeue(), round * 10 + i);
    }
    ASSERT_TRUE(queue.Enqueue(MakeItem(0, [&] { ++released, (void)queue.GetCount(); })));
    queue.Clear();
    EXPECT_EQ(released, 4);
    EXPECT_EQ(queue.GetCount(), 0u);
}
