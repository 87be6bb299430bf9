// Frame surfaces: their properties, the checks against their memory, and
// the per-surface mapping cache.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include "client/SurfaceMappingCache.h"

using namespace streamloft;

namespace {

SurfaceProperties Props(uint32_t w, uint32_t h, uint32_t stride, uint64_t alloc, uint64_t id = 1) {
  return {.width = w, .height = h, .bytesPerRow = stride, .bytesPerElement = 4, .pixelFormat = kPixelFormatBGRA,
          .surfaceID = id, .allocSize = alloc};
}

int Memfd(size_t size, bool seal = true) {
  int fd = memfd_create("surface", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  EXPECT_EQ(ftruncate(fd, static_cast<off_t>(size)), 0);
  EXPECT_EQ(seal ? fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW) : 0, 0);
  return fd;
}

// What the service sends is read in the frames' end-to-end tests; here, the
// values it must refuse.
TEST(SurfacePropertiesTest, ReadsAnyWholeNumberTypeAndRefusesMissingOrMistypedValues) {
  SurfaceProperties p;
  std::string error;
  // Any integer type, or a double without a fraction, is read.
  struct {
    const char* width;
    bool withFormat;
    const char* error;  // "" when it is read
  } cases[] = {
      {"<uint16 16>", true, ""},
      {"<-16>", true, "IOSurfaceWidth is not a non-negative whole number"},
      {"<16.5>", true, "IOSurfaceWidth is not a non-negative whole number"},
      {"<'16'>", true, "IOSurfaceWidth is not a non-negative whole number"},
      {"<uint64 4294967296>", true, "IOSurfaceWidth is out of range"},
      {"<16>", false, "IOSurfacePixelFormat is missing"},
  };
  for (const auto& c : cases) {
    std::string text = std::string("{'IOSurfaceWidth': ") + c.width +
                       ", 'IOSurfaceHeight': <2.0>, 'IOSurfaceBytesPerRow': <64>, 'IOSurfaceBytesPerElement': <byte 4>,"
                       " 'IOSurfaceID': <int64 9>, 'IOSurfaceAllocSize': <uint32 128>" +
                       (c.withFormat ? ", 'IOSurfacePixelFormat': <uint32 0x42475241>}" : "}");
    GVariant* d = g_variant_ref_sink(g_variant_new_parsed(text.c_str()));
    p = {};
    EXPECT_EQ(ParseSurfaceProperties(d, &p, &error), !*c.error) << text;
    EXPECT_NE(error.find(c.error), std::string::npos) << error;
    if (!*c.error) {
      EXPECT_EQ(std::tie(p.width, p.height, p.surfaceID), std::make_tuple(16u, 2u, uint64_t(9)));
    }
    g_variant_unref(d);
  }
  GVariant* notADictionary = g_variant_ref_sink(g_variant_new_int32(1));
  EXPECT_FALSE(ParseSurfaceProperties(notADictionary, &p, &error));
  g_variant_unref(notADictionary);
}

TEST(SurfacePropertiesTest, ValidationKeepsEveryReadInsideTheMemory) {
  std::string error;
  EXPECT_TRUE(ValidateSurfaceProperties(Props(16, 2, 64, 128), 128, &error)) << error;
  EXPECT_TRUE(ValidateSurfaceProperties(Props(16, 2, 128, 256), 4096, &error)) << error;  // padded rows
  SurfaceProperties wrongFormat = Props(16, 2, 64, 128), wrongElement = wrongFormat;
  wrongFormat.pixelFormat = 0x41524742;
  wrongElement.bytesPerElement = 3;
  struct {
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
      {wrongFormat, 128, ""},
      {wrongElement, 128, ""},
  };
  for (const auto& c : cases) {
    EXPECT_FALSE(ValidateSurfaceProperties(c.p, c.fileSize, &error)) << c.message;
    EXPECT_NE(error.find(c.message), std::string::npos) << error;
  }
}

TEST(SurfaceMappingCacheTest, MapsEachSurfaceOnceReadOnlyAndRefusesUnsafeMemory) {
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
  for (int fd : {a, b, again}) close(fd);
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

TEST(SurfaceMappingCacheTest, PrunesSurfacesOfClosedBrowsersIdleOnesAndBeyondItsBound) {
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
    if (id == 10) heldA = mapping;
  }
  EXPECT_LE(cache.size(), SurfaceMappingCache::kMaxEntries);
  EXPECT_EQ(heldA->base()[0], 0);
  for (int fd : {a, b, c, d}) close(fd);
}

}  // namespace
