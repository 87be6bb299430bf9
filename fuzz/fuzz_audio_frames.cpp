// The audio socket between a web process and the service: a stream of
// messages, each a 4-byte length, a fixed header and its payload. Walk the
// bytes message by message as the audio thread does.
#include "engine/wpe/WpeAudioWire.h"
#include "fuzz/FuzzSupport.h"

#include <cstring>

using namespace SLF_ChromiumEmbeddedFramework;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    size_t at = 0;
    uint32_t length = 0;
    while (size - at >= sizeof length) {
        std::memcpy(&length, data + at, sizeof length);
        at += sizeof length;
        if (length > kMaxAudioMessageBytes || length > size - at)
            break; // a broken peer, or one gone in the middle of a message
        AudioFrameHeader header = {};
        // The decode call, once per message.
        if (DecodeAudioFrameHeader(data + at, length, header) && AudioFrameAnnouncesFormat(header))
            FUZZ_CHECK(AudioBytesPerSecond(header.rate, header.channels) + sizeof header <= kMaxAudioMessageBytes);
        at += length;
    }
    return 0;
}
