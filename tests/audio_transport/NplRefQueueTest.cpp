// The bounded reference queue behind the pools' free lists.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "platform/NplRefQueue.h"

namespace {

struct Item {
    int value = 0;
    std::function<void()> onDestroy;
    ~Item()
    {
        if (onDestroy)
            onDestroy();
    }
};

std::shared_ptr<Item> MakeItem(int value, std::function<void()> onDestroy = nullptr)
{
    auto item = std::make_shared<Item>();
    item->value = value;
    item->onDestroy = std::move(onDestroy);
    return item;
}

} // namespace

TEST(CNplRefQueue, FirstInFirstOutUpToItsCapacity)
{
    CNplRefQueue<Item> queue(3);
    EXPECT_EQ(queue.Dequeue(), nullptr);
    int released = 0;
    for (int round = 0; round < 3; ++round) { // wraps around the ring
        for (int i = 0; i < 3; ++i)
            EXPECT_TRUE(queue.Enqueue(MakeItem(round * 10 + i)));
        // A refused reference is released, outside the lock: its destructor may use the queue.
        EXPECT_FALSE(queue.Enqueue(MakeItem(-1, [&] { ++released, (void)queue.GetCount(); })));
        EXPECT_EQ(released, round + 1);
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(queue.Dequeue()->value, round * 10 + i);
    }
    ASSERT_TRUE(queue.Enqueue(MakeItem(0, [&] { ++released, (void)queue.GetCount(); })));
    queue.Clear();
    EXPECT_EQ(released, 4);
    EXPECT_EQ(queue.GetCount(), 0u);
}

TEST(CNplRefQueue, ManyProducersAndConsumersLoseNothing)
{
    constexpr int kItems = 64;
    CNplRefQueue<Item> queue(kItems);
    for (int i = 0; i < kItems; ++i)
        ASSERT_TRUE(queue.Enqueue(MakeItem(i)));
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&queue] {
            for (int i = 0; i < 2000; ++i)
                if (auto item = queue.Dequeue(); item && !queue.Enqueue(std::move(item)))
                    ADD_FAILURE() << "a dequeued reference did not fit back";
        });
    for (auto& thread : threads)
        thread.join();
    std::vector<bool> seen(kItems);
    while (auto item = queue.Dequeue())
        seen[static_cast<size_t>(item->value)] = true;
    EXPECT_EQ(std::count(seen.begin(), seen.end(), true), kItems);
}
