// The host library receives a surface property dictionary (a{sv}) with every
// frame: decode it, validate it against a real sealed surface file and map
// it through the cache. Whatever passes must describe an image inside the
// mapping; the inline reader of the platform header must agree on sizes.
#include "client/SurfaceMappingCache.h"
#include "fuzz/FuzzSupport.h"
#include "platform/NplSharedSurface.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr uint64_t kFileSize = 64 * 1024;

int SealedSurfaceFile()
{
    const int fd = memfd_create("fuzz-surface", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    FUZZ_CHECK(fd >= 0);
    FUZZ_CHECK(ftruncate(fd, kFileSize) == 0);
    FUZZ_CHECK(fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) == 0);
    return fd;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const int fd = SealedSurfaceFile();
    static auto* cache = new streamloft::SurfaceMappingCache;

    // The decode calls.
    GVariant* dictionary = FuzzVariant("a{sv}", data, size);
    streamloft::SurfaceProperties properties;
    std::string error;
    const bool parsed = streamloft::ParseSurfaceProperties(dictionary, &properties, &error);
    NplSharedSurfaceProperties inlineProperties;
    const bool inlineParsed = NplSharedSurface_ParsePropertiesVariant(dictionary, &inlineProperties);
    g_variant_unref(dictionary);

    if (inlineParsed) {
        const unsigned __int128 image =
            static_cast<unsigned __int128>(inlineProperties.bytesPerRow) * inlineProperties.height;
        FUZZ_CHECK(image <= inlineProperties.allocSize);
        FUZZ_CHECK(static_cast<unsigned __int128>(inlineProperties.width) * 4 <= inlineProperties.bytesPerRow);
    }
    if (!parsed)
        return 0;
    std::shared_ptr<const streamloft::SurfaceMapping> mapping = cache->Map(1, properties, fd, &error);
    if (!mapping)
        return 0;
    // The last byte of the last pixel is inside the mapping: read it.
    const uint64_t last = static_cast<uint64_t>(properties.bytesPerRow) * (properties.height - 1) +
                          static_cast<uint64_t>(properties.width) * 4 - 1;
    FUZZ_CHECK(last < mapping->size());
    const volatile uint8_t* pixels = mapping->base();
    (void)pixels[last];
    return 0;
}
