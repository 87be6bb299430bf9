// A host receives a buffer record (a{sv}) with every block of page audio:
// decode it, let a receiving pool over a real segment adopt it, and read the
// bytes it points at. The return block must run exactly once for an adopted
// buffer and never for a refused one.
#include "audio_transport/NVKXPCAudioBuffer.h"
#include "audio_transport/NVKXPCAudioBufferPool.h"
#include "audio_transport/NVKXPCRecord.h"
#include "fuzz/FuzzSupport.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

// A receiving pool over a segment of this process. The segment is made here
// under a name no pool can have (its "address" lies above user space): the
// service's own naming uses heap addresses, which other processes running
// pools at the same time may share.
struct Pools {
    std::shared_ptr<NVKXPCAudioBufferPool> receiving;
    Pools()
    {
        char name[64];
        snprintf(name, sizeof name, "NVKXPCABN_0xffff%08x", static_cast<unsigned>(getpid()));
        const int fd = shm_open(name, O_RDWR | O_CREAT | O_EXCL, 0600);
        FUZZ_CHECK(fd >= 0);
        FUZZ_CHECK(ftruncate(fd, 4 * 256) == 0);
        close(fd);
        NVKXPCRecordWriter writer;
        writer.addSigned("NVKBufferBitsPerSample", 16);
        writer.addSigned("NVKBufferChannelCount", 2);
        writer.addSigned("NVKBufferSampleRate", 48000);
        writer.addUnsigned("NVKBufferCapacity", 256);
        writer.addUnsigned("NVKMaxNumBuffers", 4);
        writer.addString("NVKShmemName", name);
        receiving = NVKXPCAudioBufferPool::initWithRecord(writer.finish());
        FUZZ_CHECK(receiving);
        // The receiving pool unlinks the name when it goes; so that a crash
        // leaves nothing behind either, it goes now (the mapping stays).
        shm_unlink(name);
    }
};

// The decode call: bytes to a buffer (null when the record is refused).
std::shared_ptr<NVKXPCAudioBuffer> Decode(const uint8_t* data, size_t size)
{
    GVariant* record = FuzzVariant("a{sv}", data, size);
    auto buffer = NVKXPCAudioBuffer::initWithRecord(record);
    g_variant_unref(record);
    return buffer;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static Pools* pools = new Pools;
    std::shared_ptr<NVKXPCAudioBuffer> buffer = Decode(data, size);
    if (!buffer)
        return 0;
    FUZZ_CHECK(buffer->length() <= buffer->capacity());

    int returned = 0;
    const bool adopted = pools->receiving->receivedBuffer(buffer, [&returned] { ++returned; });
    buffer.reset();
    if (adopted) {
        std::shared_ptr<NVKXPCAudioBuffer> next = pools->receiving->bufferFromPool();
        FUZZ_CHECK(next);
        FUZZ_CHECK(next->offset() <= pools->receiving->shmemSize());
        FUZZ_CHECK(next->capacity() <= pools->receiving->shmemSize() - next->offset());
        const auto* bytes = static_cast<const volatile uint8_t*>(next->bytes());
        uint8_t sum = 0;
        for (uint64_t i = 0; i < next->length(); ++i)
            sum = static_cast<uint8_t>(sum + bytes[i]);
        (void)sum;
    }
    FUZZ_CHECK(pools->receiving->bufferFromPool() == nullptr);
    FUZZ_CHECK(returned == (adopted ? 1 : 0));
    return 0;
}
