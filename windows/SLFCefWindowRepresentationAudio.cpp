// Audio delivery of SLFCefWindowRepresentation: the engine's PCM blocks and
// stream ends reach the representation here and go out to every receiver in
// the slots of a per-stream shared-memory pool.
//
// Message sequence per receiver and stream:
//   BrowserWillStartAudioStream(pool), BrowserDidReceiveAudioStream(empty
//   buffer), BrowserDidReceiveAudioStream(buffer)..., at the end
//   BrowserDidReceiveAudioStream(no buffer), BrowserWillStopAudioStream.
// Each buffer message's reply gives that receiver's hold on the slot back.
#include "windows/SLFCefWindowRepresentation.h"

#include "audio_transport/NVKXPCAudioBufferPool.h"
#include "dbg/FlowLog.h"

#include <gio/gio.h>

#include <algorithm>

namespace {

// Slots per stream; the slot size is the byte count of the stream's first block.
constexpr uint64_t kAudioBuffersPerStream = 200;

// A GVariant reference that is let go of at the end of the scope. Every
// receiver's message takes its own reference to the record.
class RecordRef {
public:
    explicit RecordRef(GVariant* floating) : m_record(g_variant_ref_sink(floating)) {}
    ~RecordRef() { g_variant_unref(m_record); }
    RecordRef(const RecordRef&) = delete;
    RecordRef& operator=(const RecordRef&) = delete;
    GVariant* get() const { return m_record; }

private:
    GVariant* m_record;
};

// Sends one buffer to every receiver, each with a return callback of its
// own that gives the slot back when that receiver is done with it (or its
// connection fails). Nothing counts the receivers that share the buffer: with
// two receivers the slot goes back to the free list twice.
void SendBufferToReceivers(const SLFCefReceiverList& receivers, int browserID, int streamID,
                           const std::shared_ptr<NVKXPCAudioBuffer>& buffer)
{
    RecordRef record(buffer->encodeRecord());
    for (const SLFCefCallbackProxyRef& receiver : receivers) {
        SLF_AUDIO_LOG("browser %d: stream %d: slot at %llu (%llu bytes) sent to %s", browserID, streamID,
                      static_cast<unsigned long long>(buffer->offset()),
                      static_cast<unsigned long long>(buffer->length()), receiver->description().c_str());
        receiver->browserDidReceiveAudioStream(browserID, streamID, record.get(), [buffer] { buffer->returnToPool(); });
    }
}

} // namespace

bool SLFCefAudioCallback(int streamID, unsigned char* data, unsigned int bufferSize, unsigned int sampleRate,
                         unsigned int channels, unsigned int bitsPerSample, void* context)
{
    if (!context)
        return false;
    // Keep the representation alive for the whole call.
    SLFCefWindowRepresentationRef representation =
        static_cast<SLFCefWindowRepresentation*>(context)->shared_from_this();
    representation->browserAudioStreamIDDataArrived(streamID, data, bufferSize, sampleRate, channels, bitsPerSample);
    return true;
}

void SLFCefWindowRepresentation::browserAudioStreamIDDataArrived(int streamID, unsigned char* data,
                                                                 unsigned int bufferSize, unsigned int sampleRate,
                                                                 unsigned int channels, unsigned int bitsPerSample)
{
    // One snapshot of the receivers for the whole call; a receiver added or
    // removed meanwhile counts from the next call on.
    const SLFCefReceiverListRef receivers = receiverProxies();
    const int browser = browserID();
    // Without receivers everything is dropped, stream ends included: a pool
    // made earlier then stays until a later end finds a receiver.
    if (!receivers || receivers->empty()) {
        SLF_AUDIO_LOG("browser %d: stream %d: %u bytes dropped: no receiver", browser, streamID, bufferSize);
        return;
    }

    if (bufferSize == 0 && sampleRate == 0 && channels == 0 && bitsPerSample == 0) {
        // The stream ended. Dropping the pool unmaps the service's view of the
        // segment; slots still out with receivers go back to nothing.
        m_audioBufferPools.erase(streamID);
        SLF_AUDIO_LOG("browser %d: stream %d: end sent to %zu receivers, pool let go", browser, streamID,
                      receivers->size());
        for (const SLFCefCallbackProxyRef& receiver : *receivers) {
            // Every stream end brings one delivery without a buffer first.
            receiver->browserDidReceiveAudioStream(browser, streamID,
                                                   g_variant_new_array(G_VARIANT_TYPE("{sv}"), nullptr, 0), [] {});
            receiver->browserWillStopAudioStream(browser, streamID);
        }
        return;
    }
    // The engine announces a stream's format with an empty block; there is
    // nothing to send yet, and a pool cannot have slots of 0 bytes.
    if (bufferSize == 0 || !data)
        return;
    // Our sink in the web process plays against the clock: it hands a block
    // over when its first sample is due, and the block arrives here straight
    // from its socket, so now is when that sample plays.
    const int64_t blockTime = g_get_monotonic_time();
    const uint64_t bytesPerSecond = static_cast<uint64_t>(sampleRate) * channels * (bitsPerSample / 8);

    std::shared_ptr<NVKXPCAudioBufferPool>& pool = m_audioBufferPools[streamID];
    if (!pool) {
        pool = NVKXPCAudioBufferPool::initWithBufferSize(bufferSize, kAudioBuffersPerStream);
        if (!pool) {
            // The pool logged why; the block is dropped and the next block of
            // the stream tries again.
            m_audioBufferPools.erase(streamID);
            return;
        }
        pool->setSampleRate(sampleRate);
        pool->setChannelCount(channels);
        pool->setBitsPerSample(bitsPerSample);
        SLF_AUDIO_LOG("browser %d: stream %d: pool %s of %llu slots of %u bytes, start sent to %zu receivers", browser,
                      streamID, pool->shmemName().c_str(), static_cast<unsigned long long>(kAudioBuffersPerStream),
                      bufferSize, receivers->size());
        RecordRef poolRecord(pool->encodeRecord());
        for (const SLFCefCallbackProxyRef& receiver : *receivers) {
            receiver->browserWillStartAudioStream(browser, streamID, poolRecord.get());
            // Every receiver starts with an empty buffer of its own, given back
            // like any other.
            if (std::shared_ptr<NVKXPCAudioBuffer> empty = pool->bufferFromPool()) {
                empty->setPresentationTime(static_cast<uint64_t>(blockTime));
                SendBufferToReceivers(SLFCefReceiverList {receiver}, browser, streamID, empty);
            }
        }
    }

    // Cut the block at the slot size. Buffers carry the pool's format (stamped
    // when taken), not this block's. The block's last, partly filled buffer
    // goes out at once: nothing waits for the next block.
    uint64_t remaining = bufferSize;
    const unsigned char* source = data;
    std::shared_ptr<NVKXPCAudioBuffer> current;
    while (remaining > 0) {
        if (!current) {
            current = pool->bufferFromPool();
            // Every slot is out: the rest of the block is dropped.
            if (!current) {
                SLF_AUDIO_LOG("browser %d: stream %d: no free slot, %llu of %u bytes dropped", browser, streamID,
                              static_cast<unsigned long long>(remaining), bufferSize);
                return;
            }
            // The slot's first sample plays as far after the block's first
            // as the bytes before it last.
            const uint64_t before = bufferSize - remaining;
            const uint64_t offset =
                bytesPerSecond ? static_cast<uint64_t>(static_cast<double>(before) * 1e6 / bytesPerSecond) : 0;
            current->setPresentationTime(static_cast<uint64_t>(blockTime) + offset);
        }
        const uint64_t n = std::min<uint64_t>(current->capacity() - current->length(), remaining);
        current->appendBytes(source, n);
        remaining -= n;
        source += n;
        if (current->length() == current->capacity() || remaining == 0) {
            SendBufferToReceivers(*receivers, browser, streamID, current);
            current.reset();
        }
    }
}
