// Sealed shared surfaces and the pixel-buffer pool; reuse and flushing are
// tested through frame delivery (tests/frames).
#include "platform/NplPixelBufferPool.h"
#include "platform/NplSharedSurface.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

std::unique_ptr<CNplSharedSurface> MakeSurface(uint32_t width, uint32_t height, uint64_t bytesPerRow)
{
    return std::unique_ptr<CNplSharedSurface>(CNplSharedSurface::Create(width, height, bytesPerRow));
}

TEST(NplSharedSurface, SealedMemorySharedWithReadOnlyMappings)
{
    EXPECT_FALSE(MakeSurface(0, 1, 64));
    EXPECT_FALSE(MakeSurface(17, 1, 64)); // 68 bytes of pixels in a 64-byte row
    // Surfaces their properties could not describe to a host.
    EXPECT_FALSE(MakeSurface(16385, 1, 65540 + 60));
    EXPECT_FALSE(MakeSurface(1, 1, uint64_t {1} << 32));
    auto surface = MakeSurface(10, 3, 64), next = MakeSurface(10, 3, 64);
    ASSERT_TRUE(surface && next);
    EXPECT_EQ(surface->GetAllocSize(), 192u);
    EXPECT_GT(next->GetID(), surface->GetID()); // hosts cache mappings by ID
    const int fd = surface->GetFd();
    EXPECT_EQ(fcntl(fd, F_GET_SEALS) & (F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL),
              F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL);
    EXPECT_NE(ftruncate(fd, 64), 0);
    EXPECT_NE(ftruncate(fd, 4096), 0);

    static_cast<unsigned char*>(surface->GetBaseAddress())[191] = 0xAB;
    void* host = mmap(nullptr, 192, PROT_READ, MAP_SHARED, fd, 0);
    ASSERT_NE(host, MAP_FAILED);
    EXPECT_EQ(static_cast<const unsigned char*>(host)[191], 0xAB);
    munmap(host, 192);
}

NplPixelBufferAttributes Attributes(double width, double height)
{
    NplPixelBufferAttributes a;
    a.width = a.ioSurfaceProperties.width = width;
    a.height = a.ioSurfaceProperties.height = height;
    a.pixelFormatType = kNplPixelFormatType_32BGRA;
    a.hasIOSurfaceProperties = true;
    return a;
}

std::shared_ptr<CNplPixelBufferPool> MakePool(double width, double height)
{
    std::shared_ptr<CNplPixelBufferPool> pool;
    EXPECT_EQ(CNplPixelBufferPool::Create(nullptr, Attributes(width, height), &pool), kNplPixelBufferSuccess);
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

TEST(NplPixelBufferPool, RowsArePaddedTo64BytesAndUnusableAttributesRefused)
{
    for (const auto& [width, bytesPerRow] : {std::pair<uint32_t, uint64_t> {1, 64}, {16, 64}, {17, 128}, {1279, 5120}})
        EXPECT_EQ(CNplPixelBufferPool::BytesPerRowForWidth(width), bytesPerRow) << width;
    auto buffer = Take(*MakePool(101.7, 3)); // fractions are dropped
    ASSERT_TRUE(buffer);
    EXPECT_EQ(buffer->GetWidth(), 101u);
    EXPECT_EQ(buffer->GetBytesPerRow(), 448u);
    EXPECT_EQ(buffer->GetIOSurface()->GetAllocSize(), 448u * 3u);

    std::shared_ptr<CNplPixelBufferPool> pool;
    for (const auto& [w, h] : {std::pair<double, double> {0, 10}, {-5, 10}, {10, 1e9}, {NAN, 10}})
        EXPECT_EQ(CNplPixelBufferPool::Create(nullptr, Attributes(w, h), &pool), kNplPixelBufferInvalidSize);
    NplPixelBufferAttributes format = Attributes(10, 10), element = format;
    format.pixelFormatType = 0x20;
    element.ioSurfaceProperties.bytesPerElement = 2;
    for (const auto& wrong : {format, element})
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

TEST(NplPixelBufferPool, DroppedPoolLeavesBuffersValidAndAFailedLockLeavesThemUnlocked)
{
    auto pool = MakePool(16, 16);
    NplPixelBufferPtr out = Take(*pool);
    Take(*pool); // one free buffer, freed with the pool
    CNplSharedSurface* surface = out->GetIOSurface();
    surface->IncrementUseCount();
    pool.reset();

    ASSERT_EQ(out->LockBaseAddress(0), kNplPixelBufferSuccess);
    std::memset(out->GetBaseAddress(), 0x5A, out->GetDataSize());
    EXPECT_EQ(out->UnlockBaseAddress(0), kNplPixelBufferSuccess);
    EXPECT_EQ(out->UnlockBaseAddress(0), kNplPixelBufferInvalidArgument); // not locked
    CNplPixelBuffer::InjectLockFailuresForTesting(1);
    EXPECT_EQ(out->LockBaseAddress(0), kNplPixelBufferError);
    EXPECT_FALSE(out->IsLocked());
    out.reset();
    EXPECT_EQ(static_cast<unsigned char*>(surface->GetBaseAddress())[0], 0x5A);
    surface->DecrementUseCount(); // the last holder frees buffer and pool state
}

// Frames are taken and flushed on one thread while a receiver lets go on
// another: every buffer comes back and the threshold holds.
TEST(NplPixelBufferPool, ReturnsFromAnotherThreadWhileBuffersAreTaken)
{
    auto pool = MakePool(32, 8);
    std::mutex mutex;
    std::deque<CNplSharedSurface*> queue;
    std::atomic<bool> done {false};
    std::thread receiver([&] {
        for (std::unique_lock lock(mutex); !queue.empty() || !done; lock.lock()) {
            CNplSharedSurface* s = queue.empty() ? nullptr : queue.front();
            if (s)
                queue.pop_front();
            lock.unlock();
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
