// The host library receives a surface property dictionary (a{sv}) with every
// frame: decode it with the protocol's parser, validate it against a real
// sealed surface file and map it through the cache. Whatever passes must
// describe an image inside the mapping.
#include "client/SurfaceMappingCache.h"
#include "fuzz/FuzzSupport.h"
#include "protocol/SurfaceDictionary.h"

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

    // The decode call.
    GVariant* dictionary = FuzzVariant("a{sv}", data, size);
    streamloft::SurfaceProperties properties;
    std::string error;
    const bool parsed = streamloft::protocol::ParseSurfaceProperties(dictionary, &properties, &error);
    g_variant_unref(dictionary);
    if (!parsed)
        return 0;

    // What the parser lets through describes an image inside its allocation.
    const unsigned __int128 image = static_cast<unsigned __int128>(properties.bytesPerRow) * properties.height;
    FUZZ_CHECK(image <= properties.allocSize);
    FUZZ_CHECK(static_cast<uint64_t>(properties.width) * 4 <= properties.bytesPerRow);

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
