// The audio socket between our sink in a web process and the service: a
// stream of frames, each a fixed header and `length` payload bytes. Walk the
// bytes frame by frame as the audio thread does.
#include "engine/wpe/WebKitAudioWire.h"
#include "fuzz/FuzzSupport.h"

using namespace SLF_ChromiumEmbeddedFramework;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    size_t at = 0;
    AudioFrameHeader header = {};
    // The decode call, once per frame.
    while (DecodeAudioFrameHeader(data + at, size - at, header)) {
        at += sizeof header;
        FUZZ_CHECK(header.length <= kMaxAudioPacketBytes);
        if (header.length > size - at)
            break; // the peer went away in the middle of a payload
        if (AudioFrameAnnouncesFormat(header))
            FUZZ_CHECK(header.rate > 0 && header.channels > 0 && header.bitsPerSample > 0);
        at += header.length;
    }
    return 0;
}
