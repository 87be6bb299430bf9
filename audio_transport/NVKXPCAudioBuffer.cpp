#include "audio_transport/NVKXPCAudioBuffer.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "audio_transport/NVKXPCAudioBufferPool.h"
#include "audio_transport/NVKXPCRecord.h"
#include "dbg/NSLog.h"

namespace {

// Lines of the transport's assertion reports; the host's crash reports have
// always shown these numbers.
constexpr int kAppendBytesAssertLine = 131;
constexpr int kAppendDataAssertLine = 141;
constexpr int kReturnToPoolAssertLine = 164;

// The buffer record, in the order it is written: three unsigned fields, the
// three signed format fields, and the unsigned presentation time.
constexpr const char* kRecordKeys[] = {"NVKShmemSize",
                                       "NVKLength",
                                       "NVKOffset",
                                       "NVKSampleRate",
                                       "NVKChannelCount",
                                       "NVKBitsPerSample",
                                       kNVKXPCAudioBufferPresentationTimeKey};
constexpr int kRecordFields = 7;

GVariant* WriteRecord(const uint64_t (&values)[kRecordFields])
{
    NVKXPCRecordWriter writer;
    for (int i = 0; i < kRecordFields; ++i) {
        if (i >= 3 && i < 6)
            writer.addSigned(kRecordKeys[i], static_cast<int64_t>(values[i]));
        else
            writer.addUnsigned(kRecordKeys[i], values[i]);
    }
    return writer.finish();
}

// A buffer record is sent for every block of audio. Its shape never changes:
// the same seven keys, each with an 8-byte integer. So GLib serialises it once,
// with marker values, and every later record is that byte image with the
// values written over the markers: four allocations instead of dozens (the
// copy of the image, GLib's GBytes and GVariant around it, and the copy of
// the type string GLib makes to look up its cached type information).
struct BufferRecordImage {
    // The marker record itself stays alive for the whole process: it keeps
    // GLib's type information for a{sv} cached, which would otherwise be made
    // and freed again with every record.
    GVariant* typeKeeper = nullptr;
    std::vector<uint8_t> bytes;
    size_t valueOffsets[kRecordFields] = {};
    bool usable = false;
};

BufferRecordImage MakeBufferRecordImage()
{
    BufferRecordImage image;
    uint64_t markers[kRecordFields];
    for (int i = 0; i < kRecordFields; ++i)
        markers[i] = 0x5AC3E1F00D0B7E00ull + static_cast<uint64_t>(i + 1) * 0x0100000000000011ull;
    GVariant* record = g_variant_ref_sink(WriteRecord(markers));
    const uint8_t* data = static_cast<const uint8_t*>(g_variant_get_data(record));
    image.bytes.assign(data, data + g_variant_get_size(record));
    image.typeKeeper = record;

    image.usable = true;
    for (int i = 0; i < kRecordFields && image.usable; ++i) {
        int found = 0;
        for (size_t at = 0; at + sizeof markers[i] <= image.bytes.size(); at += 8) {
            if (memcmp(image.bytes.data() + at, &markers[i], sizeof markers[i]) == 0) {
                image.valueOffsets[i] = at;
                ++found;
            }
        }
        // Each marker must sit at exactly one aligned place, or the image is
        // not used and records are built entry by entry.
        image.usable = found == 1;
    }
    return image;
}

const BufferRecordImage& TheBufferRecordImage()
{
    static const BufferRecordImage image = MakeBufferRecordImage();
    return image;
}

} // namespace

void NVKXPCAudioBufferAssertionFailure(const char* method, const char* expression, int line)
{
    fprintf(stderr, "*** Assertion failure in %s, NVKXPCAudioBuffer:%d: %s\n", method, line, expression);
    fflush(stderr);
    abort();
}

NVKXPCAudioBuffer::NVKXPCAudioBuffer(void* base, uint64_t offset, uint64_t capacity)
    : m_mappedMemory(base),
      m_offset(offset),
      m_shmemSize(capacity)
{
}

std::shared_ptr<NVKXPCAudioBuffer> NVKXPCAudioBuffer::initWithBuffer(void* base, uint64_t offset, uint64_t capacity)
{
    return std::shared_ptr<NVKXPCAudioBuffer>(new NVKXPCAudioBuffer(base, offset, capacity));
}

NVKXPCAudioBuffer::~NVKXPCAudioBuffer()
{
    m_mappedMemory = nullptr;
    // Nobody else can see the buffer any more: no lock needed.
    if (m_hasReturnBlock.load(std::memory_order_acquire) && m_returnBlock) {
        ReturnBlock block = std::move(m_returnBlock);
        block();
    }
}

std::shared_ptr<NVKXPCAudioBuffer> NVKXPCAudioBuffer::initWithRecord(GVariant* record)
{
    NVKXPCRecordReader reader(record);
    if (!reader.valid())
        return nullptr;
    // The empty dictionary stands for "no buffer": not worth a log line.
    if (reader.empty())
        return nullptr;

    uint64_t shmemSize = 0;
    uint64_t length = 0;
    uint64_t offset = 0;
    int64_t sampleRate = 0;
    int64_t channelCount = 0;
    int64_t bitsPerSample = 0;
    if (!reader.readUnsigned("NVKShmemSize", &shmemSize) || !reader.readUnsigned("NVKLength", &length) ||
        !reader.readUnsigned("NVKOffset", &offset) || !reader.readSigned("NVKSampleRate", &sampleRate) ||
        !reader.readSigned("NVKChannelCount", &channelCount) ||
        !reader.readSigned("NVKBitsPerSample", &bitsPerSample)) {
        NSLog("NVKXPCAudioBuffer initWithRecord - Refused a buffer record with a missing or mistyped key");
        return nullptr;
    }
    // Optional: records of senders that do not stamp their blocks lack it.
    uint64_t presentationTime = 0;
    reader.readUnsigned(kNVKXPCAudioBufferPresentationTimeKey, &presentationTime);
    if (shmemSize == 0 || shmemSize > kNVKXPCAudioBufferMaxSlotSize) {
        NSLog("NVKXPCAudioBuffer initWithRecord - Refused a buffer record with a slot size of %llu bytes",
              static_cast<unsigned long long>(shmemSize));
        return nullptr;
    }

    auto buffer = std::shared_ptr<NVKXPCAudioBuffer>(new NVKXPCAudioBuffer(nullptr, offset, shmemSize));
    buffer->m_length = length > shmemSize ? shmemSize : length;
    buffer->m_sampleRate = sampleRate;
    buffer->m_channelCount = channelCount;
    buffer->m_bitsPerSample = bitsPerSample;
    buffer->m_presentationTime = presentationTime;
    return buffer;
}

GVariant* NVKXPCAudioBuffer::encodeRecord() const
{
    const uint64_t values[kRecordFields] = {m_shmemSize,
                                            m_length,
                                            m_offset,
                                            static_cast<uint64_t>(m_sampleRate),
                                            static_cast<uint64_t>(m_channelCount),
                                            static_cast<uint64_t>(m_bitsPerSample),
                                            m_presentationTime};
    const BufferRecordImage& image = TheBufferRecordImage();
    if (!image.usable)
        return WriteRecord(values);
    // g_malloc's memory is aligned for any GVariant value.
    uint8_t* data = static_cast<uint8_t*>(g_malloc(image.bytes.size()));
    memcpy(data, image.bytes.data(), image.bytes.size());
    for (int i = 0; i < kRecordFields; ++i)
        memcpy(data + image.valueOffsets[i], &values[i], sizeof values[i]);
    return g_variant_new_from_data(G_VARIANT_TYPE_VARDICT, data, image.bytes.size(), TRUE, g_free, data);
}

const void* NVKXPCAudioBuffer::bytes() const
{
    // Integer arithmetic: before the mapping is set this is `offset` taken as
    // an address, never a pointer derived from null.
    return reinterpret_cast<const void*>(reinterpret_cast<uintptr_t>(m_mappedMemory) + m_offset);
}

void* NVKXPCAudioBuffer::mutableBytes() const
{
    if (hasReturnBlock())
        return nullptr;
    return reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(m_mappedMemory) + m_offset);
}

void NVKXPCAudioBuffer::appendBytes(const void* source, uint64_t length)
{
    if (hasReturnBlock())
        NVKXPCAudioBufferAssertionFailure("NVKXPCAudioBuffer::appendBytes", "_returnBlock == nil",
                                          kAppendBytesAssertLine);
    uint64_t n = length;
    if (n > m_shmemSize - m_length)
        n = m_shmemSize - m_length;
    if (n == 0)
        return;
    memcpy(static_cast<uint8_t*>(m_mappedMemory) + m_offset + m_length, source, n);
    m_length += n;
}

void NVKXPCAudioBuffer::appendData(std::span<const uint8_t> data)
{
    if (hasReturnBlock())
        NVKXPCAudioBufferAssertionFailure("NVKXPCAudioBuffer::appendData", "_returnBlock == nil",
                                          kAppendDataAssertLine);
    uint64_t n = data.size();
    if (n > m_shmemSize - m_length)
        n = m_shmemSize - m_length;
    if (n == 0)
        return;
    memcpy(static_cast<uint8_t*>(m_mappedMemory) + m_offset + m_length, data.data(), n);
    m_length += n;
}

void NVKXPCAudioBuffer::returnToPool()
{
    if (hasReturnBlock())
        NVKXPCAudioBufferAssertionFailure("NVKXPCAudioBuffer::returnToPool", "_returnBlock == nil",
                                          kReturnToPoolAssertLine);
    std::shared_ptr<NVKXPCAudioBufferPool> pool = m_owningPool.lock();
    if (pool)
        pool->returnBuffer(shared_from_this());
}

NVKXPCAudioBuffer::ReturnBlock NVKXPCAudioBuffer::returnBlock() const
{
    std::lock_guard<std::mutex> lock(m_returnBlockLock);
    return m_returnBlock;
}

void NVKXPCAudioBuffer::setReturnBlock(ReturnBlock block)
{
    ReturnBlock previous;
    {
        std::lock_guard<std::mutex> lock(m_returnBlockLock);
        previous = std::move(m_returnBlock);
        m_returnBlock = std::move(block);
        m_hasReturnBlock.store(static_cast<bool>(m_returnBlock), std::memory_order_release);
    }
    // `previous` (and whatever its captures hold) is released here, unlocked.
}
