// Shared surfaces: sealed memfd memory and the property dictionary a host
// receives with every frame.
#include "platform/NplSharedSurface.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <memory>

namespace {

std::unique_ptr<CNplSharedSurface> MakeSurface(uint32_t width, uint32_t height, uint64_t bytesPerRow)
{
    return std::unique_ptr<CNplSharedSurface>(CNplSharedSurface::Create(width, height, bytesPerRow));
}

TEST(NplSharedSurface, MemoryIsSealedAgainstResizingAndSharedWithReadOnlyMappings)
{
    auto surface = MakeSurface(10, 3, 64);
    ASSERT_TRUE(surface);
    EXPECT_EQ(surface->GetAllocSize(), 192u);

    struct stat st;
    ASSERT_EQ(fstat(surface->GetFd(), &st), 0);
    EXPECT_EQ(st.st_size, 192);
    const int seals = fcntl(surface->GetFd(), F_GET_SEALS);
    EXPECT_EQ(seals & (F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL), F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL);
    EXPECT_NE(ftruncate(surface->GetFd(), 64), 0);
    EXPECT_NE(ftruncate(surface->GetFd(), 4096), 0);
    EXPECT_NE(fcntl(surface->GetFd(), F_ADD_SEALS, F_SEAL_WRITE), 0);

    // What the service writes, a host's read-only mapping of the fd sees.
    std::memset(surface->GetBaseAddress(), 0xAB, 192);
    void* host = mmap(nullptr, 192, PROT_READ, MAP_SHARED, surface->GetFd(), 0);
    ASSERT_NE(host, MAP_FAILED);
    EXPECT_EQ(static_cast<const unsigned char*>(host)[191], 0xAB);
    munmap(host, 192);
}

TEST(NplSharedSurface, RefusesSizesThatCannotHoldTheImage)
{
    EXPECT_FALSE(MakeSurface(0, 1, 64));
    EXPECT_FALSE(MakeSurface(1, 0, 64));
    EXPECT_FALSE(MakeSurface(17, 1, 64)); // 68 bytes of pixels in a 64-byte row
    EXPECT_TRUE(MakeSurface(16, 1, 64));
}

TEST(NplSharedSurface, PropertiesCarryTheSevenKeysWithFixedTypes)
{
    auto a = MakeSurface(100, 50, 448);
    auto b = MakeSurface(100, 50, 448);
    ASSERT_TRUE(a && b);
    EXPECT_GT(a->GetID(), 0u);
    EXPECT_GT(b->GetID(), a->GetID());

    GVariant* dict = a->GetPropertiesVariant();
    ASSERT_TRUE(g_variant_is_of_type(dict, G_VARIANT_TYPE("a{sv}")));
    guint64 value = 0;
    guint32 format = 0;
    EXPECT_TRUE(g_variant_lookup(dict, "IOSurfaceWidth", "t", &value));
    EXPECT_EQ(value, 100u);
    EXPECT_TRUE(g_variant_lookup(dict, "IOSurfaceHeight", "t", &value));
    EXPECT_EQ(value, 50u);
    EXPECT_TRUE(g_variant_lookup(dict, "IOSurfaceBytesPerRow", "t", &value));
    EXPECT_EQ(value, 448u);
    EXPECT_TRUE(g_variant_lookup(dict, "IOSurfaceBytesPerElement", "t", &value));
    EXPECT_EQ(value, 4u);
    EXPECT_TRUE(g_variant_lookup(dict, "IOSurfacePixelFormat", "u", &format));
    EXPECT_EQ(format, 0x42475241u);
    EXPECT_TRUE(g_variant_lookup(dict, "IOSurfaceID", "t", &value));
    EXPECT_EQ(value, a->GetID());
    EXPECT_TRUE(g_variant_lookup(dict, "IOSurfaceAllocSize", "t", &value));
    EXPECT_EQ(value, 448u * 50u);
    EXPECT_EQ(g_variant_n_children(dict), 7u);

    NplSharedSurfaceProperties parsed;
    ASSERT_TRUE(NplSharedSurface_ParsePropertiesVariant(dict, &parsed));
    EXPECT_EQ(parsed.width, 100u);
    EXPECT_EQ(parsed.bytesPerRow, 448u);
    EXPECT_EQ(parsed.surfaceID, a->GetID());
}

TEST(NplSharedSurface, HostSideParsingRefusesIncompleteOrInconsistentDictionaries)
{
    NplSharedSurfaceProperties good;
    good.width = 10;
    good.height = 2;
    good.bytesPerRow = 64;
    good.surfaceID = 7;
    good.allocSize = 128;
    NplSharedSurfaceProperties out;
    GVariant* v = g_variant_ref_sink(NplSharedSurface_BuildPropertiesVariant(good));
    EXPECT_TRUE(NplSharedSurface_ParsePropertiesVariant(v, &out));
    g_variant_unref(v);

    auto refused = [&](NplSharedSurfaceProperties p) {
        GVariant* d = g_variant_ref_sink(NplSharedSurface_BuildPropertiesVariant(p));
        const bool ok = NplSharedSurface_ParsePropertiesVariant(d, &out);
        g_variant_unref(d);
        return !ok;
    };
    NplSharedSurfaceProperties p = good;
    p.allocSize = 127;
    EXPECT_TRUE(refused(p));
    p = good;
    p.bytesPerRow = 39;
    EXPECT_TRUE(refused(p));
    p = good;
    p.pixelFormat = 0x41524742;
    EXPECT_TRUE(refused(p));
    p = good;
    p.bytesPerElement = 3;
    EXPECT_TRUE(refused(p));
    p = good;
    p.height = 0;
    EXPECT_TRUE(refused(p));

    // A key with the wrong type, a missing key, not a dictionary at all.
    GVariantBuilder b;
    g_variant_builder_init(&b, G_VARIANT_TYPE_VARDICT);
    g_variant_builder_add(&b, "{sv}", "IOSurfaceWidth", g_variant_new_uint32(10));
    g_variant_builder_add(&b, "{sv}", "IOSurfaceHeight", g_variant_new_uint64(2));
    g_variant_builder_add(&b, "{sv}", "IOSurfaceBytesPerRow", g_variant_new_uint64(64));
    g_variant_builder_add(&b, "{sv}", "IOSurfaceBytesPerElement", g_variant_new_uint64(4));
    g_variant_builder_add(&b, "{sv}", "IOSurfacePixelFormat", g_variant_new_uint32(0x42475241));
    g_variant_builder_add(&b, "{sv}", "IOSurfaceID", g_variant_new_uint64(1));
    g_variant_builder_add(&b, "{sv}", "IOSurfaceAllocSize", g_variant_new_uint64(128));
    GVariant* wrongType = g_variant_ref_sink(g_variant_builder_end(&b));
    EXPECT_FALSE(NplSharedSurface_ParsePropertiesVariant(wrongType, &out));
    g_variant_unref(wrongType);
    GVariant* empty = g_variant_ref_sink(g_variant_new("a{sv}", nullptr));
    EXPECT_FALSE(NplSharedSurface_ParsePropertiesVariant(empty, &out));
    g_variant_unref(empty);
    GVariant* notDict = g_variant_ref_sink(g_variant_new_uint64(1));
    EXPECT_FALSE(NplSharedSurface_ParsePropertiesVariant(notDict, &out));
    g_variant_unref(notDict);
}

} // namespace
