// A host receives a pool record (a{sv}) when a page's audio stream starts:
// decode it as the receiving side does. A pool that decodes describes a
// mapping as large as its slots.
#include "audio_transport/NVKXPCAudioBufferPool.h"
#include "fuzz/FuzzSupport.h"

namespace {

// The decode call: bytes to a receiving pool (null when refused).
std::shared_ptr<NVKXPCAudioBufferPool> Decode(const uint8_t* data, size_t size)
{
    GVariant* record = FuzzVariant("a{sv}", data, size);
    auto pool = NVKXPCAudioBufferPool::initWithRecord(record);
    g_variant_unref(record);
    return pool;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::shared_ptr<NVKXPCAudioBufferPool> pool = Decode(data, size);
    if (!pool)
        return 0;
    FUZZ_CHECK(!pool->isXPCService());
    FUZZ_CHECK(pool->mappedMemory());
    FUZZ_CHECK(pool->shmemSize() == pool->bufferSize() * pool->maxNumBuffers());
    FUZZ_CHECK(pool->bufferFromPool() == nullptr);
    return 0;
}
