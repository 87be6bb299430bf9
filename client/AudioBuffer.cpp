#include "streamloft/AudioBuffer.h"

#include <utility>

namespace streamloft {

AudioBuffer::AudioBuffer(const uint8_t* bytes, uint64_t length, uint64_t capacity, int64_t sampleRate,
                         int64_t channelCount, int64_t bitsPerSample, std::shared_ptr<const void> keepAlive,
                         uint64_t presentationTime)
    : bytes_(bytes),
      length_(length),
      capacity_(capacity),
      sampleRate_(sampleRate),
      channelCount_(channelCount),
      bitsPerSample_(bitsPerSample),
      keepAlive_(std::move(keepAlive)),
      presentationTime_(presentationTime)
{
}

} // namespace streamloft
