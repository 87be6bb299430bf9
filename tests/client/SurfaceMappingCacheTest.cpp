// Reading frame surfaces: the property dictionary, its checks against the
// surface memory, and the per-surface mapping cache.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

#include "client/SurfaceMappingCache.h"
#include "platform/NplSharedSurface.h"

using streamloft::ParseSurfaceProperties;
using streamloft::SurfaceMappingCache;
using streamloft::SurfaceProperties;
using streamloft::ValidateSurfaceProperties;

namespace {

SurfaceProperties Props(uint32_t w, uint32_t h, uint32_t stride, uint64_t alloc, uint64_t id = 1) {
  SurfaceProperties p;
  p.width = w;
  p.height = h;
  p.bytesPerRow = stride;
  p.bytesPerElement = 4;
  p.pixelFormat = streamloft::kPixelFormatBGRA;
  p.surfaceID = id;
  p.allocSize = alloc;
  return p;
}

int SealedMemfd(size_t size, bool seal = true) {
  int fd = memfd_create("surface", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  EXPECT_EQ(ftruncate(fd, static_cast<off_t>(size)), 0);
  if (seal) {
    EXPECT_EQ(fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW), 0);
  }
  return fd;
}

TEST(SurfacePropertiesTest, ReadsTheDictionaryThePlatformSurfaceWrites) {
  NplSharedSurfaceProperties sent;
  sent.width = 1280;
  sent.height = 720;
  sent.bytesPerRow = 5120;
  sent.surfaceID = 0x1'0000'0001ull;  // beyond 32 bits
  sent.allocSize = 5120 * 720;
  GVariant* dictionary = g_variant_ref_sink(NplSharedSurface_BuildPropertiesVariant(sent));
  SurfaceProperties p;
  std::string error;
  ASSERT_TRUE(ParseSurfaceProperties(dictionary, &p, &error)) << error;
  g_variant_unref(dictionary);
  EXPECT_EQ(p.width, 1280u);
  EXPECT_EQ(p.height, 720u);
  EXPECT_EQ(p.bytesPerRow, 5120u);
  EXPECT_EQ(p.bytesPerElement, 4u);
  EXPECT_EQ(p.pixelFormat, 0x42475241u);
  EXPECT_EQ(p.surfaceID, 0x1'0000'0001ull);
  EXPECT_EQ(p.allocSize, 5120u * 720u);
}

TEST(SurfacePropertiesTest, AcceptsOtherNumberTypesButRefusesMissingNegativeOrOversizedValues) {
  auto build = [](const char* skip, GVariant* widthValue) {
    GVariantBuilder b;
    g_variant_builder_init(&b, G_VARIANT_TYPE_VARDICT);
    g_variant_builder_add(&b, "{sv}", "IOSurfaceWidth", widthValue);
    g_variant_builder_add(&b, "{sv}", "IOSurfaceHeight", g_variant_new_double(2.0));
    g_variant_builder_add(&b, "{sv}", "IOSurfaceBytesPerRow", g_variant_new_int32(64));
    g_variant_builder_add(&b, "{sv}", "IOSurfaceBytesPerElement", g_variant_new_byte(4));
    if (strcmp(skip, "IOSurfacePixelFormat") != 0) {
      g_variant_builder_add(&b, "{sv}", "IOSurfacePixelFormat", g_variant_new_uint32(0x42475241));
    }
    g_variant_builder_add(&b, "{sv}", "IOSurfaceID", g_variant_new_int64(9));
    g_variant_builder_add(&b, "{sv}", "IOSurfaceAllocSize", g_variant_new_uint32(128));
    return g_variant_ref_sink(g_variant_builder_end(&b));
  };
  struct Case {
    const char* skip;
    GVariant* width;
    bool ok;
    const char* message;
  } cases[] = {
      {"", g_variant_new_uint16(16), true, ""},
      {"IOSurfacePixelFormat", g_variant_new_uint16(16), false, "IOSurfacePixelFormat is missing"},
      {"", g_variant_new_int32(-16), false, "IOSurfaceWidth is not a non-negative whole number"},
      {"", g_variant_new_double(16.5), false, "IOSurfaceWidth is not a non-negative whole number"},
      {"", g_variant_new_string("16"), false, "IOSurfaceWidth is not a non-negative whole number"},
      {"", g_variant_new_uint64(1ull << 32), false, "IOSurfaceWidth is out of range"},
  };
  for (auto& c : cases) {
    GVariant* d = build(c.skip, c.width);
    SurfaceProperties p;
    std::string error;
    EXPECT_EQ(ParseSurfaceProperties(d, &p, &error), c.ok) << c.message;
    EXPECT_NE(error.find(c.message), std::string::npos) << error;
    if (c.ok) {
      EXPECT_EQ(p.width, 16u);
      EXPECT_EQ(p.height, 2u);
      EXPECT_EQ(p.surfaceID, 9u);
    }
    g_variant_unref(d);
  }
  std::string error;
  SurfaceProperties p;
  GVariant* notADictionary = g_variant_ref_sink(g_variant_new_int32(1));
  EXPECT_FALSE(ParseSurfaceProperties(notADictionary, &p, &error));
  g_variant_unref(notADictionary);
}

TEST(SurfacePropertiesTest, ValidationKeepsEveryReadInsideTheMemory) {
  std::string error;
  EXPECT_TRUE(ValidateSurfaceProperties(Props(16, 2, 64, 128), 128, &error)) << error;
  EXPECT_TRUE(ValidateSurfaceProperties(Props(16, 2, 128, 256), 4096, &error)) << error;  // padded rows

  struct Case {
    SurfaceProperties p;
    uint64_t fileSize;
    const char* message;
  } cases[] = {
      {Props(16, 2, 63, 128), 128, "stride 63 is shorter than a row of 64 bytes"},
      {Props(16, 3, 64, 128), 128, "smaller than its image of 192 bytes"},
      {Props(16, 2, 64, 256), 128, "exceeds its memory of 128 bytes"},
      {Props(0, 2, 64, 128), 128, "surface is empty"},
      {Props(16, 0, 64, 128), 128, "surface is empty"},
      // Products that would wrap in 32 bits.
      {Props(0x40000000, 4, 0x10000000, 1024), 1024, "shorter than a row"},
      {Props(1, 0x10000, 0x10000, 0x10000), 0x10000, "smaller than its image"},
  };
  for (const auto& c : cases) {
    EXPECT_FALSE(ValidateSurfaceProperties(c.p, c.fileSize, &error)) << c.message;
    EXPECT_NE(error.find(c.message), std::string::npos) << error;
  }
  SurfaceProperties wrongFormat = Props(16, 2, 64, 128);
  wrongFormat.pixelFormat = 0x41524742;
  EXPECT_FALSE(ValidateSurfaceProperties(wrongFormat, 128, &error));
  SurfaceProperties wrongElement = Props(16, 2, 64, 128);
  wrongElement.bytesPerElement = 3;
  EXPECT_FALSE(ValidateSurfaceProperties(wrongElement, 128, &error));
}

TEST(SurfaceMappingCacheTest, ReusesOneMappingPerSurfaceAndTellsSurfacesApart) {
  SurfaceMappingCache cache;
  std::string error;
  int a = SealedMemfd(4096);
  int b = SealedMemfd(4096);
  auto first = cache.Map(1, Props(16, 16, 64, 1024, 1), a, &error);
  ASSERT_TRUE(first) << error;
  // The same surface arrives again through a new descriptor of the same memory.
  int again = dup(a);
  auto second = cache.Map(1, Props(16, 16, 64, 1024, 1), again, &error);
  EXPECT_EQ(first, second);
  EXPECT_EQ(cache.mapCount(), 1u);
  // Same ID but other memory (IDs of another service instance), and another
  // ID on the same memory: both are separate surfaces.
  auto otherMemory = cache.Map(1, Props(16, 16, 64, 1024, 1), b, &error);
  auto otherID = cache.Map(1, Props(16, 16, 64, 1024, 2), a, &error);
  ASSERT_TRUE(otherMemory && otherID);
  EXPECT_NE(otherMemory, first);
  EXPECT_NE(otherID, first);
  EXPECT_EQ(cache.mapCount(), 3u);
  EXPECT_EQ(first->size(), 4096u);
  close(a);
  close(b);
  close(again);
  // The mapping stays readable after its descriptors are gone.
  EXPECT_EQ(first->base()[4095], 0);
}

TEST(SurfaceMappingCacheTest, RefusesMemoryThatCanShrinkOrIsNotAFile) {
  SurfaceMappingCache cache;
  std::string error;
  int unsealed = SealedMemfd(4096, false);
  EXPECT_FALSE(cache.Map(1, Props(16, 16, 64, 1024), unsealed, &error));
  EXPECT_NE(error.find("not sealed against shrinking"), std::string::npos) << error;
  close(unsealed);
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  EXPECT_FALSE(cache.Map(1, Props(16, 16, 64, 1024), fds[0], &error));
  EXPECT_NE(error.find("not a shared memory file"), std::string::npos) << error;
  close(fds[0]);
  close(fds[1]);
  int tooSmall = SealedMemfd(512);
  EXPECT_FALSE(cache.Map(1, Props(16, 16, 64, 1024), tooSmall, &error));
  EXPECT_NE(error.find("exceeds its memory"), std::string::npos) << error;
  close(tooSmall);
  EXPECT_EQ(cache.size(), 0u);
}

TEST(SurfaceMappingCacheTest, KeepsABoundedNumberOfSurfaces) {
  SurfaceMappingCache cache;
  std::string error;
  std::shared_ptr<const streamloft::SurfaceMapping> held;
  for (uint64_t id = 1; id <= SurfaceMappingCache::kMaxEntries + 10; ++id) {
    int fd = SealedMemfd(4096);
    auto m = cache.Map(1, Props(16, 16, 64, 1024, id), fd, &error);
    ASSERT_TRUE(m) << error;
    if (id == 1) held = m;
    close(fd);
  }
  EXPECT_LE(cache.size(), SurfaceMappingCache::kMaxEntries);
  // A mapping the cache let go of is still valid for its holder.
  EXPECT_EQ(held->base()[0], 0);
}

TEST(SurfaceMappingCacheTest, UnmapsSurfacesOfAClosedBrowserAndSurfacesNoLongerSent) {
  SurfaceMappingCache cache(std::chrono::milliseconds(200));
  std::string error;
  int a = SealedMemfd(4096), b = SealedMemfd(4096), c = SealedMemfd(4096), d = SealedMemfd(4096);
  auto heldA = cache.Map(1, Props(16, 16, 64, 1024, 1), a, &error);
  std::weak_ptr<const streamloft::SurfaceMapping> b1 = cache.Map(1, Props(16, 16, 64, 1024, 2), b, &error);
  std::weak_ptr<const streamloft::SurfaceMapping> c2 = cache.Map(2, Props(16, 16, 64, 1024, 3), c, &error);
  ASSERT_EQ(cache.size(), 3u) << error;

  // Browser 1 closes: its surfaces go, browser 2's stays; a frame still
  // held keeps its memory mapped until it is dropped.
  cache.BrowserDidClose(1);
  EXPECT_EQ(cache.size(), 1u);
  EXPECT_TRUE(b1.expired());
  EXPECT_FALSE(c2.expired());
  EXPECT_EQ(heldA->base()[4095], 0);
  heldA.reset();

  // A resize: browser 2 moves from surface 3 to surface 4. Frames over
  // surface 4 alone let go of surface 3 once it has been idle too long,
  // without mapping surface 4 again.
  ASSERT_TRUE(cache.Map(2, Props(16, 16, 64, 1024, 4), d, &error)) << error;
  usleep(250 * 1000);
  ASSERT_TRUE(cache.Map(2, Props(16, 16, 64, 1024, 4), d, &error)) << error;
  EXPECT_TRUE(c2.expired());
  EXPECT_EQ(cache.size(), 1u);
  EXPECT_EQ(cache.mapCount(), 4u);
  // With no frame at all, an explicit prune lets go of the rest.
  usleep(250 * 1000);
  cache.Prune();
  EXPECT_EQ(cache.size(), 0u);
  for (int fd : {a, b, c, d}) close(fd);
}

}  // namespace
