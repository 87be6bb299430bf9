// The pixel-buffer pool: attributes, row padding, threshold, reuse only after
// every holder has let go, flushing, and dropping a pool with buffers out.
#include "platform/NplPixelBufferPool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <deque>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

namespace {

NplPixelBufferAttributes Attributes(double width, double height)
{
    NplPixelBufferAttributes a;
    a.width = width;
    a.height = height;
    a.pixelFormatType = kNplPixelFormatType_32BGRA;
    a.openGLCompatibility = true;
    a.hasIOSurfaceProperties = true;
    a.ioSurfaceProperties.width = width;
    a.ioSurfaceProperties.height = height;
    return a;
}

std::shared_ptr<CNplPixelBufferPool> MakePool(double width, double height, double maxAgeSeconds = 1.0)
{
    NplPixelBufferPoolAttributes poolAttributes;
    poolAttributes.maximumBufferAgeSeconds = maxAgeSeconds;
    std::shared_ptr<CNplPixelBufferPool> pool;
    EXPECT_EQ(CNplPixelBufferPool::Create(&poolAttributes, Attributes(width, height), &pool), kNplPixelBufferSuccess);
    return pool;
}

NplPixelBufferPtr Take(CNplPixelBufferPool& pool, int64_t threshold = 30, NplPixelBufferStatus* status = nullptr)
{
    NplPixelBufferPoolAuxAttributes aux;
    aux.allocationThreshold = threshold;
    CNplPixelBuffer* buffer = nullptr;
    const NplPixelBufferStatus s = pool.CreatePixelBuffer(&aux, &buffer);
    if (status) {
        *status = s;
    }
    return NplPixelBufferPtr(buffer);
}

TEST(NplPixelBufferPool, RowsArePaddedToSixtyFourBytesAndAttributesAreKept)
{
    EXPECT_EQ(CNplPixelBufferPool::BytesPerRowForWidth(1), 64u);
    EXPECT_EQ(CNplPixelBufferPool::BytesPerRowForWidth(16), 64u);
    EXPECT_EQ(CNplPixelBufferPool::BytesPerRowForWidth(17), 128u);
    EXPECT_EQ(CNplPixelBufferPool::BytesPerRowForWidth(1279), 5120u);
    EXPECT_EQ(CNplPixelBufferPool::BytesPerRowForWidth(1920), 7680u);

    auto pool = MakePool(101.7, 3); // fractions are dropped
    ASSERT_TRUE(pool);
    EXPECT_TRUE(pool->GetPixelBufferAttributes().openGLCompatibility);
    auto buffer = Take(*pool);
    ASSERT_TRUE(buffer);
    EXPECT_EQ(buffer->GetWidth(), 101u);
    EXPECT_EQ(buffer->GetHeight(), 3u);
    EXPECT_EQ(buffer->GetBytesPerRow(), 448u);
    EXPECT_EQ(buffer->GetPixelFormatType(), kNplPixelFormatType_32BGRA);
    EXPECT_EQ(buffer->GetIOSurface()->GetAllocSize(), 448u * 3u);
}

TEST(NplPixelBufferPool, RefusesUnusableAttributes)
{
    std::shared_ptr<CNplPixelBufferPool> pool;
    EXPECT_EQ(CNplPixelBufferPool::Create(nullptr, Attributes(0, 10), &pool), kNplPixelBufferInvalidSize);
    EXPECT_EQ(CNplPixelBufferPool::Create(nullptr, Attributes(-5, 10), &pool), kNplPixelBufferInvalidSize);
    EXPECT_EQ(CNplPixelBufferPool::Create(nullptr, Attributes(10, 1e9), &pool), kNplPixelBufferInvalidSize);
    EXPECT_EQ(CNplPixelBufferPool::Create(nullptr, Attributes(NAN, 10), &pool), kNplPixelBufferInvalidSize);
    NplPixelBufferAttributes wrongFormat = Attributes(10, 10);
    wrongFormat.pixelFormatType = 0x20;
    EXPECT_EQ(CNplPixelBufferPool::Create(nullptr, wrongFormat, &pool), kNplPixelBufferInvalidPixelFormat);
    NplPixelBufferAttributes wrongElement = Attributes(10, 10);
    wrongElement.ioSurfaceProperties.bytesPerElement = 2;
    EXPECT_EQ(CNplPixelBufferPool::Create(nullptr, wrongElement, &pool), kNplPixelBufferInvalidPixelFormat);
    EXPECT_FALSE(pool);
    EXPECT_EQ(CNplPixelBufferPool::Create(nullptr, Attributes(10, 10), &pool), kNplPixelBufferSuccess);
    EXPECT_TRUE(pool);
}

TEST(NplPixelBufferPool, ThresholdCountsBuffersOutOfThePool)
{
    auto pool = MakePool(8, 8);
    std::vector<NplPixelBufferPtr> held;
    for (int i = 0; i < 30; ++i) {
        held.push_back(Take(*pool));
        ASSERT_TRUE(held.back()) << i;
    }
    NplPixelBufferStatus status = 0;
    EXPECT_FALSE(Take(*pool, 30, &status));
    EXPECT_EQ(status, kNplPixelBufferWouldExceedAllocationThreshold);
    // Without a threshold the pool keeps growing.
    EXPECT_TRUE(Take(*pool, 0));

    held.pop_back();
    auto again = Take(*pool, 30, &status);
    EXPECT_TRUE(again);
    EXPECT_EQ(status, kNplPixelBufferSuccess);
    EXPECT_EQ(pool->GetCreatedBufferCount(), 31u); // the 31st is the unlimited one, now free again
}

TEST(NplPixelBufferPool, BufferIsReusedOnlyAfterEveryHolderHasLetGo)
{
    auto pool = MakePool(4, 4);
    NplPixelBufferPtr first = Take(*pool);
    CNplSharedSurface* surface = first->GetIOSurface();
    const uint64_t id = surface->GetID();

    // Two receivers hold the surface; the service releases its buffer.
    surface->IncrementUseCount();
    surface->IncrementUseCount();
    EXPECT_TRUE(surface->IsInUse());
    first.reset();
    EXPECT_EQ(pool->GetOutstandingBufferCount(), 1u);
    EXPECT_EQ(pool->GetFreeBufferCount(), 0u);

    NplPixelBufferPtr other = Take(*pool);
    EXPECT_NE(other->GetIOSurface()->GetID(), id);
    other.reset();

    surface->DecrementUseCount();
    EXPECT_EQ(pool->GetOutstandingBufferCount(), 1u);
    surface->DecrementUseCount();
    EXPECT_EQ(pool->GetOutstandingBufferCount(), 0u);
    EXPECT_EQ(pool->GetFreeBufferCount(), 2u);

    // Most recently returned first: the surface that just came back.
    NplPixelBufferPtr reused = Take(*pool);
    EXPECT_EQ(reused->GetIOSurface()->GetID(), id);
    EXPECT_EQ(reused->GetHoldCount(), 1);
    EXPECT_EQ(pool->GetCreatedBufferCount(), 2u);

    // Receivers that let go before the service does: the release returns it.
    reused->GetIOSurface()->IncrementUseCount();
    reused->GetIOSurface()->DecrementUseCount();
    EXPECT_EQ(pool->GetOutstandingBufferCount(), 1u);
    reused.reset();
    EXPECT_EQ(pool->GetOutstandingBufferCount(), 0u);
}

TEST(NplPixelBufferPool, FlushWithoutFlagsFreesOnlyBuffersUnusedLongerThanTheMaximumAge)
{
    auto pool = MakePool(4, 4, 0.2);
    Take(*pool);
    EXPECT_EQ(pool->GetFreeBufferCount(), 1u);
    pool->Flush(0);
    EXPECT_EQ(pool->GetFreeBufferCount(), 1u); // just returned
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    {
        NplPixelBufferPtr held = Take(*pool);   // the old one, back in use
        NplPixelBufferPtr second = Take(*pool); // a new one
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    NplPixelBufferPtr fresh = Take(*pool);
    fresh.reset();
    pool->Flush(0);
    EXPECT_EQ(pool->GetFreeBufferCount(), 1u); // the one just returned stays
    pool->Flush(kNplPixelBufferPoolFlushExcessBuffers);
    EXPECT_EQ(pool->GetFreeBufferCount(), 0u);

    // The default age is one second: a flush right away keeps everything.
    auto defaultPool = MakePool(4, 4);
    Take(*defaultPool);
    defaultPool->Flush(0);
    EXPECT_EQ(defaultPool->GetFreeBufferCount(), 1u);
}

TEST(NplPixelBufferPool, DroppedPoolLeavesBuffersValidUntilTheyComeBack)
{
    auto pool = MakePool(16, 16);
    NplPixelBufferPtr out = Take(*pool);
    Take(*pool); // one free buffer, freed with the pool
    CNplSharedSurface* surface = out->GetIOSurface();
    surface->IncrementUseCount();
    pool.reset();

    // The service and a receiver still use it.
    ASSERT_EQ(out->LockBaseAddress(0), kNplPixelBufferSuccess);
    std::memset(out->GetBaseAddress(), 0x5A, out->GetDataSize());
    EXPECT_EQ(out->UnlockBaseAddress(0), kNplPixelBufferSuccess);
    out.reset();
    EXPECT_EQ(static_cast<unsigned char*>(surface->GetBaseAddress())[0], 0x5A);
    surface->DecrementUseCount(); // the last holder frees buffer and pool state
}

TEST(NplPixelBufferPool, BaseAddressLockingFollowsCoreVideo)
{
    auto pool = MakePool(4, 4);
    NplPixelBufferPtr buffer = Take(*pool);
    EXPECT_EQ(buffer->UnlockBaseAddress(0), kNplPixelBufferInvalidArgument);
    EXPECT_EQ(buffer->LockBaseAddress(4), kNplPixelBufferInvalidArgument);
    EXPECT_EQ(buffer->LockBaseAddress(0), kNplPixelBufferSuccess);
    EXPECT_EQ(buffer->LockBaseAddress(kNplPixelBufferLock_ReadOnly), kNplPixelBufferSuccess);
    EXPECT_TRUE(buffer->IsLocked());
    EXPECT_EQ(buffer->UnlockBaseAddress(kNplPixelBufferLock_ReadOnly), kNplPixelBufferSuccess);
    EXPECT_EQ(buffer->UnlockBaseAddress(0), kNplPixelBufferSuccess);
    EXPECT_FALSE(buffer->IsLocked());

    CNplPixelBuffer::InjectLockFailuresForTesting(1);
    EXPECT_EQ(buffer->LockBaseAddress(0), kNplPixelBufferError);
    EXPECT_FALSE(buffer->IsLocked());
    EXPECT_EQ(buffer->LockBaseAddress(0), kNplPixelBufferSuccess);
    EXPECT_EQ(buffer->UnlockBaseAddress(0), kNplPixelBufferSuccess);
}

// Frames are taken on one thread while receivers let go on others; every
// buffer must come back exactly once and the threshold must hold.
TEST(NplPixelBufferPool, ReturnsFromOtherThreadsWhileBuffersAreTaken)
{
    auto pool = MakePool(32, 8);
    constexpr int kReceivers = 2;
    std::mutex mutex;
    std::deque<CNplSharedSurface*> queues[kReceivers];
    std::atomic<bool> done{false};
    std::vector<std::thread> receivers;
    for (int r = 0; r < kReceivers; ++r) {
        receivers.emplace_back([&, r] {
            for (;;) {
                CNplSharedSurface* s = nullptr;
                {
                    std::lock_guard<std::mutex> lock(mutex);
                    if (!queues[r].empty()) {
                        s = queues[r].front();
                        queues[r].pop_front();
                    }
                }
                if (s) {
                    s->DecrementUseCount();
                } else if (done.load()) {
                    return;
                } else {
                    std::this_thread::yield();
                }
            }
        });
    }
    int delivered = 0;
    for (int frame = 0; frame < 3000; ++frame) {
        if (frame % 10 == 9) {
            pool->Flush(0);
        }
        NplPixelBufferPtr buffer = Take(*pool);
        if (!buffer) {
            continue;
        }
        ++delivered;
        CNplSharedSurface* s = buffer->GetIOSurface();
        for (int r = 0; r < kReceivers; ++r) {
            s->IncrementUseCount();
            std::lock_guard<std::mutex> lock(mutex);
            queues[r].push_back(s);
        }
    }
    done = true;
    for (auto& t : receivers) {
        t.join();
    }
    EXPECT_GT(delivered, 0);
    EXPECT_EQ(pool->GetOutstandingBufferCount(), 0u);
    EXPECT_LE(pool->GetFreeBufferCount(), 30u);
    EXPECT_LE(pool->GetCreatedBufferCount(), 30u);
}

} // namespace
