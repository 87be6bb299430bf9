// The page audio of an overlay browser as the host sees it.
//
// Each audio stream starts with an AudioStreamFormat (the stream's PCM format
// and the shape of its shared-memory pool), then brings AudioBuffers, then
// stops. A buffer is a read-only view of one slot of the stream's shared
// memory; dropping the last reference gives the slot back to the service.
// The service has 200 slots per stream: a host that holds buffers for long
// makes the service drop audio.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "streamloft/Export.h"

namespace streamloft {

struct AudioStreamFormat {
    int64_t sampleRate = 0;      // samples per second
    int64_t channelCount = 0;    // interleaved channels
    int64_t bitsPerSample = 0;   // 16 for the engine's signed little-endian PCM
    uint64_t bufferCapacity = 0; // bytes per slot
    uint64_t bufferCount = 0;    // slots in the pool
};

class SLF_OVERLAY_EXPORT AudioBuffer {
public:
    // `bytes` points at `length` valid bytes; `keepAlive` keeps them mapped and
    // releases the slot when the buffer is destroyed.
    AudioBuffer(const uint8_t* bytes, uint64_t length, uint64_t capacity, int64_t sampleRate, int64_t channelCount,
                int64_t bitsPerSample, std::shared_ptr<const void> keepAlive, uint64_t presentationTime = 0);
    AudioBuffer(const AudioBuffer&) = delete;
    AudioBuffer& operator=(const AudioBuffer&) = delete;

    // Interleaved PCM samples as the page produced them.
    const uint8_t* bytes() const { return bytes_; }
    uint64_t length() const { return length_; }
    uint64_t capacity() const { return capacity_; }
    int64_t sampleRate() const { return sampleRate_; }
    int64_t channelCount() const { return channelCount_; }
    int64_t bitsPerSample() const { return bitsPerSample_; }
    // When the buffer's first sample plays in the page, in microseconds of
    // CLOCK_MONOTONIC (the clock of VideoFrame::presentationTime()); 0 when
    // the service did not say.
    uint64_t presentationTime() const { return presentationTime_; }

private:
    const uint8_t* bytes_;
    uint64_t length_;
    uint64_t capacity_;
    int64_t sampleRate_;
    int64_t channelCount_;
    int64_t bitsPerSample_;
    std::shared_ptr<const void> keepAlive_;
    uint64_t presentationTime_;
};

} // namespace streamloft
