// The per-surface mapping cache and its checks of a surface's memory (the
// properties themselves are tested in tests/protocol/).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include "client/SurfaceMappingCache.h"

using namespace streamloft;

namespace {

SurfaceProperties Props(uint32_t w, uint32_t h, uint32_t stride, uint64_t alloc, uint64_t id = 1)
{
    return {.width = w,
            .height = h,
            .bytesPerRow = stride,
            .bytesPerElement = 4,
            .pixelFormat = kPixelFormatBGRA,
            .surfaceID = id,
            .allocSize = alloc};
}

int Memfd(size_t size, bool seal = true)
{
    int fd = memfd_create("surface", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    EXPECT_EQ(ftruncate(fd, static_cast<off_t>(size)), 0);
    EXPECT_EQ(seal ? fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW) : 0, 0);
    return fd;
}

TEST(SurfaceMappingCacheTest, MapsEachSurfaceOnceReadOnlyAndRefusesUnsafeMemory)
{
    SurfaceMappingCache cache;
    std::string error;
    auto map = [&](uint64_t id, int fd) { return cache.Map(1, Props(16, 16, 64, 1024, id), fd, &error); };
    int a = Memfd(4096), b = Memfd(4096);
    auto first = map(1, a);
    ASSERT_TRUE(first) << error;
    // The same surface again through another descriptor of the same memory.
    int again = dup(a);
    EXPECT_EQ(map(1, again), first);
    EXPECT_EQ(cache.mapCount(), 1u);
    // Same ID on other memory (another service instance's), and another ID on
    // the same memory, are separate surfaces.
    auto otherMemory = map(1, b);
    auto otherID = map(2, a);
    ASSERT_TRUE(otherMemory && otherID);
    EXPECT_TRUE(otherMemory != first && otherID != first);
    EXPECT_EQ(cache.mapCount(), 3u);
    for (int fd : {a, b, again})
        close(fd);
    // Still readable after its descriptors are gone, and never writable: the
    // kernel refuses to store into it.
    EXPECT_EQ(first->size(), 4096u);
    EXPECT_EQ(first->base()[4095], 0);
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    ASSERT_EQ(write(pipeFds[1], "x", 1), 1);
    EXPECT_EQ(read(pipeFds[0], const_cast<uint8_t*>(first->base()), 1), -1);
    EXPECT_EQ(errno, EFAULT);

    int unsealed = Memfd(4096, false), tooSmall = Memfd(512);
    std::pair<int, const char*> refused[] = {{unsealed, "not sealed against shrinking"},
                                             {pipeFds[0], "not a shared memory file"},
                                             {tooSmall, "exceeds its memory"}};
    for (auto [fd, message] : refused) {
        EXPECT_FALSE(map(5, fd));
        EXPECT_NE(error.find(message), std::string::npos) << error;
        close(fd);
    }
    close(pipeFds[1]);
    EXPECT_EQ(cache.size(), 3u);
}

TEST(SurfaceMappingCacheTest, PrunesSurfacesOfClosedBrowsersIdleOnesAndBeyondItsBound)
{
    SurfaceMappingCache cache(std::chrono::milliseconds(200));
    std::string error;
    auto map = [&](int browser, uint64_t id, int fd) {
        return cache.Map(browser, Props(16, 16, 64, 1024, id), fd, &error);
    };
    int a = Memfd(4096), b = Memfd(4096), c = Memfd(4096), d = Memfd(4096);
    auto heldA = map(1, 1, a);
    std::weak_ptr<const SurfaceMapping> b1 = map(1, 2, b), c2 = map(2, 3, c);
    ASSERT_EQ(cache.size(), 3u) << error;
    // Browser 1 closes: its surfaces go, browser 2's stays; a frame still held
    // keeps its memory mapped until it is dropped.
    cache.BrowserDidClose(1);
    EXPECT_EQ(cache.size(), 1u);
    EXPECT_TRUE(b1.expired());
    EXPECT_FALSE(c2.expired());
    EXPECT_EQ(heldA->base()[4095], 0);
    heldA.reset();
    // A resize moves browser 2 from surface 3 to 4: frames over surface 4 alone
    // let go of the idle surface 3, without mapping surface 4 again.
    ASSERT_TRUE(map(2, 4, d)) << error;
    usleep(250 * 1000);
    ASSERT_TRUE(map(2, 4, d)) << error;
    EXPECT_TRUE(c2.expired());
    EXPECT_EQ(cache.size(), 1u);
    EXPECT_EQ(cache.mapCount(), 4u);
    // With no frame at all, an explicit prune lets go of the rest.
    usleep(250 * 1000);
    cache.Prune();
    EXPECT_EQ(cache.size(), 0u);

    // Within the bound; a mapping let go of stays valid for its holder.
    for (uint64_t id = 10; id < 10 + SurfaceMappingCache::kMaxEntries + 10; ++id) {
        auto mapping = map(1, id, a);
        ASSERT_TRUE(mapping) << error;
        if (id == 10)
            heldA = mapping;
    }
    EXPECT_LE(cache.size(), SurfaceMappingCache::kMaxEntries);
    EXPECT_EQ(heldA->base()[0], 0);
    for (int fd : {a, b, c, d})
        close(fd);
}

} // namespace
