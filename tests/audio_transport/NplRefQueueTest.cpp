// The bounded reference queue behind the pools' free lists.
#include <gtest/gtest.h>

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

} // namespace

TEST(CNplRefQueue, FirstInFirstOutUpToItsCapacity)
{
    CNplRefQueue<Item> queue(3);
    EXPECT_EQ(queue.GetCapacity(), 3u);
    EXPECT_EQ(queue.Dequeue(), nullptr);
    for (int round = 0; round < 3; ++round) { // wraps around the ring
        for (int i = 0; i < 3; ++i) {
            auto item = std::make_shared<Item>();
            item->value = round * 10 + i;
            EXPECT_TRUE(queue.Enqueue(item));
        }
        auto extra = std::make_shared<Item>();
        std::weak_ptr<Item> watch = extra;
        EXPECT_FALSE(queue.Enqueue(std::move(extra)));
        EXPECT_TRUE(watch.expired()) << "a refused reference is released";
        EXPECT_EQ(queue.GetCount(), 3u);
        for (int i = 0; i < 3; ++i) {
            auto item = queue.Dequeue();
            ASSERT_TRUE(item);
            EXPECT_EQ(item->value, round * 10 + i);
        }
        EXPECT_EQ(queue.GetCount(), 0u);
    }
}

TEST(CNplRefQueue, ReleasesReferencesOutsideItsLock)
{
    // Destructors that use the same queue must not deadlock: on refusal, on
    // Clear and when a dequeued reference is dropped.
    CNplRefQueue<Item> queue(1);
    int destroyed = 0;
    auto reentrant = [&queue, &destroyed] {
        ++destroyed;
        (void)queue.GetCount();
    };
    auto first = std::make_shared<Item>();
    first->onDestroy = reentrant;
    ASSERT_TRUE(queue.Enqueue(std::move(first)));
    auto second = std::make_shared<Item>();
    second->onDestroy = reentrant;
    EXPECT_FALSE(queue.Enqueue(std::move(second)));
    EXPECT_EQ(destroyed, 1);
    queue.Clear();
    EXPECT_EQ(destroyed, 2);
    EXPECT_EQ(queue.GetCount(), 0u);
}

TEST(CNplRefQueue, ManyProducersAndConsumersLoseNothing)
{
    constexpr int kItems = 64;
    CNplRefQueue<Item> queue(kItems);
    for (int i = 0; i < kItems; ++i) {
        auto item = std::make_shared<Item>();
        item->value = i;
        ASSERT_TRUE(queue.Enqueue(std::move(item)));
    }
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&queue] {
            for (int i = 0; i < 2000; ++i) {
                if (auto item = queue.Dequeue()) {
                    EXPECT_TRUE(queue.Enqueue(std::move(item)));
                }
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(queue.GetCount(), static_cast<uint32_t>(kItems));
    std::vector<bool> seen(kItems);
    while (auto item = queue.Dequeue())
        seen[static_cast<size_t>(item->value)] = true;
    for (int i = 0; i < kItems; ++i)
        EXPECT_TRUE(seen[static_cast<size_t>(i)]) << i;
}
