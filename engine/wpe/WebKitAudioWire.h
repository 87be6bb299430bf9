// The wire between our GStreamer audio sink in a web process and the
// service's audio thread: one connection per stream, frames of a fixed
// header followed by `length` payload bytes. The service knows the sending
// process from the socket's peer credentials.
//   start:  rate, channels and bits per sample of interleaved PCM (no payload)
//   packet: PCM bytes
//   stop:   the stream ended (also implied when the connection closes)
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace SLF_ChromiumEmbeddedFramework {

// Environment variable naming the service's audio socket; set by the port,
// inherited by the web processes.
inline constexpr const char* kAudioSocketVariable = "SLF_AUDIO_SOCKET";
// Message a web process sends for each of its pages, so that the service
// can tell which browser a process's audio belongs to. Argument: the pid.
inline constexpr const char* kPageProcessMessage = "slf.page-process";

enum AudioFrameKind : uint32_t { AUDIO_FRAME_START = 1, AUDIO_FRAME_PACKET = 2, AUDIO_FRAME_STOP = 3 };

struct AudioFrameHeader {
    uint32_t kind;
    uint32_t length;
    int32_t rate;
    int32_t channels;
    int32_t bitsPerSample;
    int32_t reserved;
};

// Larger packets are a broken peer.
inline constexpr uint32_t kMaxAudioPacketBytes = 4 * 1024 * 1024;

// Reads a frame header from the bytes that arrived: false when there are
// fewer than a header's bytes or the announced payload is larger than any
// packet may be (a broken peer).
inline bool DecodeAudioFrameHeader(const void* bytes, size_t size, AudioFrameHeader& header)
{
    if (!bytes || size < sizeof(AudioFrameHeader))
        return false;
    std::memcpy(&header, bytes, sizeof(AudioFrameHeader));
    return header.length <= kMaxAudioPacketBytes;
}

// Whether a start frame describes PCM the service can take: every field of
// the format positive.
inline bool AudioFrameAnnouncesFormat(const AudioFrameHeader& header)
{
    return header.kind == AUDIO_FRAME_START && header.rate > 0 && header.channels > 0 && header.bitsPerSample > 0;
}

} // namespace SLF_ChromiumEmbeddedFramework
