// Audio delivery of SLFCefWindowRepresentation: the engine's PCM blocks and
// stream ends reach the representation here.
#include "windows/SLFCefWindowRepresentation.h"

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
    // Audio is not delivered to receivers yet: the block is dropped.
    (void)streamID;
    (void)data;
    (void)bufferSize;
    (void)sampleRate;
    (void)channels;
    (void)bitsPerSample;
}
