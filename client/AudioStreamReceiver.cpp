#include "client/AudioStreamReceiver.h"

#include "audio_transport/NVKXPCAudioBuffer.h"
#include "audio_transport/NVKXPCAudioBufferPool.h"

namespace streamloft {

namespace {

// What an AudioBuffer handed to the host keeps alive: the received buffer
// (whose destruction runs the reply) and the pool whose mapping its bytes lie
// in. Members go in reverse order, so the reply is sent before the pool can
// be unmapped.
struct HeldAudioBuffer {
    std::shared_ptr<NVKXPCAudioBufferPool> pool;
    std::shared_ptr<NVKXPCAudioBuffer> buffer;
};

std::string StreamName(int browserID, int streamID)
{
    return "audio stream " + std::to_string(streamID) + " of browser " + std::to_string(browserID);
}

} // namespace

AudioStreamReceiver::AudioStreamReceiver() = default;
AudioStreamReceiver::~AudioStreamReceiver() = default;

bool AudioStreamReceiver::StartStream(int browserID, int streamID, GVariant* poolRecord, AudioStreamFormat* format,
                                      std::string* error)
{
    pools_.erase({browserID, streamID});
    auto pool = NVKXPCAudioBufferPool::initWithRecord(poolRecord);
    if (!pool) {
        *error = "the pool of " + StreamName(browserID, streamID) + " cannot be opened";
        return false;
    }
    format->sampleRate = pool->sampleRate();
    format->channelCount = pool->channelCount();
    format->bitsPerSample = pool->bitsPerSample();
    format->bufferCapacity = pool->bufferSize();
    format->bufferCount = pool->maxNumBuffers();
    pools_[{browserID, streamID}] = std::move(pool);
    return true;
}

std::shared_ptr<const AudioBuffer>
AudioStreamReceiver::ReceiveBuffer(int browserID, int streamID, GVariant* bufferRecord, Reply reply, std::string* error)
{
    if (g_variant_n_children(bufferRecord) == 0) {
        reply();
        return nullptr;
    }
    auto it = pools_.find({browserID, streamID});
    if (it == pools_.end()) {
        // A stream that started before this host joined, or whose pool failed to
        // open: nothing to read the slot with.
        reply();
        return nullptr;
    }
    std::shared_ptr<NVKXPCAudioBufferPool> pool = it->second;
    auto received = NVKXPCAudioBuffer::initWithRecord(bufferRecord);
    if (!received) {
        *error = "a buffer record of " + StreamName(browserID, streamID) + " does not decode";
        reply();
        return nullptr;
    }
    if (!pool->receivedBuffer(received, reply)) {
        *error = "a buffer of " + StreamName(browserID, streamID) + " lies outside its pool";
        // When the block was attached it runs as `received` goes; otherwise the
        // reply is still ours to send.
        if (!received->hasReturnBlock())
            reply();
        return nullptr;
    }
    const uint64_t presentationTime = received->presentationTime();
    received.reset();
    auto held = std::make_shared<HeldAudioBuffer>();
    held->pool = pool;
    held->buffer = pool->bufferFromPool();
    if (!held->buffer) {
        *error = "a buffer of " + StreamName(browserID, streamID) + " was lost in its pool";
        return nullptr;
    }
    const NVKXPCAudioBuffer& b = *held->buffer;
    return std::make_shared<const AudioBuffer>(static_cast<const uint8_t*>(b.bytes()), b.length(), b.capacity(),
                                               b.sampleRate(), b.channelCount(), b.bitsPerSample(), held,
                                               presentationTime);
}

void AudioStreamReceiver::StopStream(int browserID, int streamID)
{
    pools_.erase({browserID, streamID});
}

void AudioStreamReceiver::Clear()
{
    pools_.clear();
}

} // namespace streamloft
