// The pixel-buffer pool: attributes, row padding, threshold, reuse only after
// every holder has let go, flushing, and dropping a pool with buffers out.
#include "platform/NplPixelBufferPool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

NplPixelBufferAttributes Attributes(double width, double height)
{
    NplPixelBufferAttributes a;
    a.width = a.ioSurfaceProperties.width = width;
    a.height = a.ioSurfaceProperties.height = height;
    a.pixelFormatType = kNplPixelFormatType_32BGRA;
    a.hasIOSurfaceProperties = true;
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
    if (status)
        *status = s;
    return NplPixelBufferPtr(buffer);
}

TEST(NplPixelBufferPool, RowsArePaddedAndUnusableAttributesRefused)
{
    for (const auto& [width, bytesPerRow] : {std::pair<uint32_t, uint64_t>{1, 64}, {16, 64}, {17, 128}, {1279, 5120}})
        EXPECT_EQ(CNplPixelBufferPool::BytesPerRowForWidth(width), bytesPerRow) << width;
    auto buffer = Take(*MakePool(101.7, 3)); // fractions are dropped
    ASSERT_TRUE(buffer);
    EXPECT_EQ(buffer->GetWidth(), 101u);
    EXPECT_EQ(buffer->GetBytesPerRow(), 448u);
    EXPECT_EQ(buffer->GetIOSurface()->GetAllocSize(), 448u * 3u);

    std::shared_ptr<CNplPixelBufferPool> pool;
    for (const auto& size : {std::pair<double, double>{0, 10}, {-5, 10}, {10, 1e9}, {NAN, 10}})
        EXPECT_EQ(CNplPixelBufferPool::Create(nullptr, Attributes(size.first, size.second), &pool),
                  kNplPixelBufferInvalidSize);
    NplPixelBufferAttributes wrong = Attributes(10, 10);
    wrong.pixelFormatType = 0x20;
    EXPECT_EQ(CNplPixelBufferPool::Create(nullptr, wrong, &pool), kNplPixelBufferInvalidPixelFormat);
    wrong = Attributes(10, 10);
    wrong.ioSurfaceProperties.bytesPerElement = 2;
    EXPECT_EQ(CNplPixelBufferPool::Create(nullptr, wrong, &pool), kNplPixelBufferInvalidPixelFormat);
    EXPECT_FALSE(pool);
}

TEST(NplPixelBufferPool, ThresholdCountsBuffersOutOfThePool)
{
    auto pool = MakePool(8, 8);
    std::vector<NplPixelBufferPtr> held;
    for (int i = 0; i < 30; ++i)
        held.push_back(Take(*pool));
    ASSERT_TRUE(held.back());
    NplPixelBufferStatus status = 0;
    EXPECT_FALSE(Take(*pool, 30, &status));
    EXPECT_EQ(status, kNplPixelBufferWouldExceedAllocationThreshold);
    EXPECT_TRUE(Take(*pool, 0)); // without a threshold the pool grows
    held.pop_back();
    EXPECT_TRUE(Take(*pool, 30));
    EXPECT_EQ(pool->GetCreatedBufferCount(), 31u);
}

TEST(NplPixelBufferPool, BufferIsReusedOnlyAfterEveryHolderHasLetGo)
{
    auto pool = MakePool(4, 4);
    NplPixelBufferPtr first = Take(*pool);
    CNplSharedSurface* surface = first->GetIOSurface();
    // Two receivers hold the surface; the service releases its buffer.
    surface->IncrementUseCount();
    surface->IncrementUseCount();
    first.reset();
    EXPECT_NE(Take(*pool)->GetIOSurface(), surface);
    surface->DecrementUseCount();
    EXPECT_EQ(pool->GetOutstandingBufferCount(), 1u);
    surface->DecrementUseCount();
    EXPECT_EQ(pool->GetOutstandingBufferCount(), 0u);
    EXPECT_EQ(pool->GetFreeBufferCount(), 2u);
    // Most recently returned first.
    NplPixelBufferPtr reused = Take(*pool);
    EXPECT_EQ(reused->GetIOSurface(), surface);
    // Receivers that let go before the service does: the release returns it.
    surface->IncrementUseCount();
    surface->DecrementUseCount();
    EXPECT_EQ(pool->GetOutstandingBufferCount(), 1u);
    reused.reset();
    EXPECT_EQ(pool->GetOutstandingBufferCount(), 0u);
}

TEST(NplPixelBufferPool, FlushWithoutFlagsFreesOnlyBuffersUnusedLongerThanTheMaximumAge)
{
    auto pool = MakePool(4, 4, 0.2);
    Take(*pool);
    pool->Flush(0);
    EXPECT_EQ(pool->GetFreeBufferCount(), 1u); // just returned
    usleep(300000);
    {
        NplPixelBufferPtr old = Take(*pool); // back in use, so young again
        NplPixelBufferPtr second = Take(*pool);
    }
    usleep(300000);
    Take(*pool);
    pool->Flush(0);
    EXPECT_EQ(pool->GetFreeBufferCount(), 1u); // the one just returned stays
    pool->Flush(kNplPixelBufferPoolFlushExcessBuffers);
    EXPECT_EQ(pool->GetFreeBufferCount(), 0u);
}

TEST(NplPixelBufferPool, DroppedPoolLeavesBuffersValidAndLockingFollowsCoreVideo)
{
    auto pool = MakePool(16, 16);
    NplPixelBufferPtr out = Take(*pool);
    Take(*pool); // one free buffer, freed with the pool
    CNplSharedSurface* surface = out->GetIOSurface();
    surface->IncrementUseCount();
    pool.reset();

    EXPECT_EQ(out->UnlockBaseAddress(0), kNplPixelBufferInvalidArgument);
    EXPECT_EQ(out->LockBaseAddress(4), kNplPixelBufferInvalidArgument);
    ASSERT_EQ(out->LockBaseAddress(0), kNplPixelBufferSuccess);
    EXPECT_EQ(out->LockBaseAddress(kNplPixelBufferLock_ReadOnly), kNplPixelBufferSuccess);
    std::memset(out->GetBaseAddress(), 0x5A, out->GetDataSize());
    EXPECT_EQ(out->UnlockBaseAddress(kNplPixelBufferLock_ReadOnly), kNplPixelBufferSuccess);
    EXPECT_EQ(out->UnlockBaseAddress(0), kNplPixelBufferSuccess);
    EXPECT_FALSE(out->IsLocked());
    CNplPixelBuffer::InjectLockFailuresForTesting(1);
    EXPECT_EQ(out->LockBaseAddress(0), kNplPixelBufferError);
    EXPECT_FALSE(out->IsLocked());
    out.reset();
    EXPECT_EQ(static_cast<unsigned char*>(surface->GetBaseAddress())[0], 0x5A);
    surface->DecrementUseCount(); // the last holder frees buffer and pool state
}

// Frames are taken on one thread while a receiver lets go on another; every
// buffer must come back and the threshold must hold.
TEST(NplPixelBufferPool, ReturnsFromAnotherThreadWhileBuffersAreTaken)
{
    auto pool = MakePool(32, 8);
    std::mutex mutex;
    std::deque<CNplSharedSurface*> queue;
    std::atomic<bool> done{false};
    std::thread receiver([&] {
        for (;;) {
            CNplSharedSurface* s = nullptr;
            {
                std::lock_guard<std::mutex> lock(mutex);
                if (queue.empty() && done)
                    return;
                if (!queue.empty())
                    s = queue.front(), queue.pop_front();
            }
            s ? s->DecrementUseCount() : std::this_thread::yield();
        }
    });
    for (int frame = 0; frame < 3000; ++frame) {
        if (frame % 10 == 9)
            pool->Flush(0);
        if (NplPixelBufferPtr buffer = Take(*pool)) {
            buffer->GetIOSurface()->IncrementUseCount();
            std::lock_guard<std::mutex> lock(mutex);
            queue.push_back(buffer->GetIOSurface());
        }
    }
    done = true;
    receiver.join();
    EXPECT_EQ(pool->GetOutstandingBufferCount(), 0u);
    EXPECT_LE(pool->GetCreatedBufferCount(), 30u);
}

} // namespace
