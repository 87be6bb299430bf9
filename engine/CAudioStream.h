// One audio stream of a browser: the format the engine reported when the
// stream started. The engine reports it only once, while every block handed
// to the service carries it, so the client keeps it per stream.
#pragma once

namespace SLF_ChromiumEmbeddedFramework {

struct CAudioStream {
    int m_nStreamId = 0;
    int m_nSampleRate = 0;
    int m_nBitsPerSample = 0;
    int m_nChannels = 0;
};

} // namespace SLF_ChromiumEmbeddedFramework
