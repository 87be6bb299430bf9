// Shared surfaces: sealed memfd memory and the property dictionary a host
// receives with every frame.
#include "platform/NplSharedSurface.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <functional>
#include <memory>
#include <sys/mman.h>
#include <unistd.h>

namespace {

std::unique_ptr<CNplSharedSurface> MakeSurface(uint32_t width, uint32_t height, uint64_t bytesPerRow)
{
    return std::unique_ptr<CNplSharedSurface>(CNplSharedSurface::Create(width, height, bytesPerRow));
}

TEST(NplSharedSurface, SealedMemorySharedWithReadOnlyMappings)
{
    EXPECT_FALSE(MakeSurface(0, 1, 64));
    EXPECT_FALSE(MakeSurface(17, 1, 64)); // 68 bytes of pixels in a 64-byte row
    auto surface = MakeSurface(10, 3, 64);
    ASSERT_TRUE(surface);
    EXPECT_EQ(surface->GetAllocSize(), 192u);
    const int fd = surface->GetFd();
    EXPECT_EQ(fcntl(fd, F_GET_SEALS) & (F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL),
              F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL);
    EXPECT_NE(ftruncate(fd, 64), 0);
    EXPECT_NE(ftruncate(fd, 4096), 0);

    // What the service writes, a host's read-only mapping of the fd sees.
    static_cast<unsigned char*>(surface->GetBaseAddress())[191] = 0xAB;
    void* host = mmap(nullptr, 192, PROT_READ, MAP_SHARED, fd, 0);
    ASSERT_NE(host, MAP_FAILED);
    EXPECT_EQ(static_cast<const unsigned char*>(host)[191], 0xAB);
    munmap(host, 192);
}

TEST(NplSharedSurface, PropertiesCarryTheSevenKeysWithFixedTypes)
{
    auto a = MakeSurface(100, 50, 448);
    auto b = MakeSurface(100, 50, 448);
    ASSERT_TRUE(a && b);
    EXPECT_GT(b->GetID(), a->GetID());
    GVariant* dict = a->GetPropertiesVariant();
    char* text = g_variant_print(dict, TRUE);
    char expected[512];
    snprintf(expected, sizeof expected,
             "{'IOSurfaceWidth': <uint64 100>, 'IOSurfaceHeight': <uint64 50>, 'IOSurfaceBytesPerRow': <uint64 448>, "
             "'IOSurfaceBytesPerElement': <uint64 4>, 'IOSurfacePixelFormat': <uint32 1111970369>, "
             "'IOSurfaceID': <uint64 %llu>, 'IOSurfaceAllocSize': <uint64 22400>}",
             static_cast<unsigned long long>(a->GetID()));
    EXPECT_STREQ(text, expected);
    g_free(text);
}

TEST(NplSharedSurface, HostSideParsingRefusesIncompleteOrInconsistentDictionaries)
{
    NplSharedSurfaceProperties good;
    good.width = 10;
    good.height = 2;
    good.bytesPerRow = 64;
    good.surfaceID = 7;
    good.allocSize = 128;
    auto parses = [](const NplSharedSurfaceProperties& p) {
        GVariant* d = g_variant_ref_sink(NplSharedSurface_BuildPropertiesVariant(p));
        NplSharedSurfaceProperties out;
        const bool ok = NplSharedSurface_ParsePropertiesVariant(d, &out);
        g_variant_unref(d);
        return ok && out.width == p.width && out.bytesPerRow == p.bytesPerRow && out.surfaceID == p.surfaceID;
    };
    EXPECT_TRUE(parses(good));
    const std::function<void(NplSharedSurfaceProperties&)> breaks[] = {
        [](auto& p) { p.allocSize = 127; },         [](auto& p) { p.bytesPerRow = 39; },
        [](auto& p) { p.pixelFormat = 0x41524742; }, [](auto& p) { p.bytesPerElement = 3; },
        [](auto& p) { p.height = 0; }};
    for (const auto& breakIt : breaks) {
        NplSharedSurfaceProperties p = good;
        breakIt(p);
        EXPECT_FALSE(parses(p));
    }
    // A key with the wrong type, a missing key, not a dictionary at all.
    NplSharedSurfaceProperties out;
    for (const char* text : {"{'IOSurfaceWidth': <uint32 10>, 'IOSurfaceHeight': <uint64 2>, "
                             "'IOSurfaceBytesPerRow': <uint64 64>, 'IOSurfaceBytesPerElement': <uint64 4>, "
                             "'IOSurfacePixelFormat': <uint32 1111970369>, 'IOSurfaceID': <uint64 1>, "
                             "'IOSurfaceAllocSize': <uint64 128>}",
                             "@a{sv} {}", "uint64 1"}) {
        GVariant* v = g_variant_ref_sink(g_variant_parse(nullptr, text, nullptr, nullptr, nullptr));
        EXPECT_FALSE(NplSharedSurface_ParsePropertiesVariant(v, &out)) << text;
        g_variant_unref(v);
    }
}

} // namespace
