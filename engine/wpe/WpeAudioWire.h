// The wire between a web process and the service's audio thread. Every
// message is a 4-byte length and then a fixed header and its payload (the
// engine's socket framing). The service knows the sending process from the
// socket's peer credentials, never from what the process says.
//   start:  rate, channels and bits per sample of interleaved PCM (no payload)
//   packet: PCM bytes, whole sample frames, at most one second of them
//   stop:   the stream ended (also implied when the connection closes)
//   page:   the page token (8 bytes) of a page this process shows
// Our GStreamer sink opens one connection per stream; the web extension one
// per process for its page tokens.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace SLF_ChromiumEmbeddedFramework {

// Environment variable naming the service's audio socket; set by the port,
// inherited by the web processes.
inline constexpr const char* kAudioSocketVariable = "SLF_AUDIO_SOCKET";
// Message a web process sends for each of its pages, so that the service
// can tell which browser a process's audio belongs to. Argument (t): a
// random token, sent also over the audio socket; the two must meet.
inline constexpr const char* kPageProcessMessage = "slf.page-process";

enum AudioFrameKind : uint32_t {
    AUDIO_FRAME_START = 1,
    AUDIO_FRAME_PACKET = 2,
    AUDIO_FRAME_STOP = 3,
    AUDIO_FRAME_PAGE = 4
};

struct AudioFrameHeader {
    uint32_t kind;
    int32_t rate;
    int32_t channels;
    int32_t bitsPerSample;
};

// The formats a stream may have: 16-bit interleaved PCM at 8 to 384 kHz
// with 1 to 32 channels.
inline constexpr int kAudioBitsPerSample = 16;
inline constexpr int kAudioMinRate = 8000;
inline constexpr int kAudioMaxRate = 384000;
inline constexpr int kAudioMaxChannels = 32;

inline bool AudioFormatIsValid(int rate, int channels, int bitsPerSample)
{
    return bitsPerSample == kAudioBitsPerSample && rate >= kAudioMinRate && rate <= kAudioMaxRate && channels >= 1 &&
           channels <= kAudioMaxChannels;
}

// The bytes of one second of a valid format: the largest packet.
inline size_t AudioBytesPerSecond(int rate, int channels)
{
    return static_cast<size_t>(rate) * static_cast<size_t>(channels) * (kAudioBitsPerSample / 8);
}

// The largest message: one second of the largest format.
inline constexpr size_t kMaxAudioMessageBytes =
    sizeof(AudioFrameHeader) + static_cast<size_t>(kAudioMaxRate) * kAudioMaxChannels * (kAudioBitsPerSample / 8);

// Reads the header of one message (the bytes after its length): false when
// fewer than a header's bytes arrived. What follows is the payload.
inline bool DecodeAudioFrameHeader(const void* bytes, size_t size, AudioFrameHeader& header)
{
    if (!bytes || size < sizeof(AudioFrameHeader))
        return false;
    std::memcpy(&header, bytes, sizeof(AudioFrameHeader));
    return true;
}

// Whether a start message describes PCM the service takes.
inline bool AudioFrameAnnouncesFormat(const AudioFrameHeader& header)
{
    return header.kind == AUDIO_FRAME_START && AudioFormatIsValid(header.rate, header.channels, header.bitsPerSample);
}

} // namespace SLF_ChromiumEmbeddedFramework
