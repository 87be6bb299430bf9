// CBrowserClient's audio handler: the engine reports a page's audio streams
// on its audio thread; each start, packet and stop goes to the browser's
// audio callback (the window representation), which owns the slots.
#include "engine/CBrowserClient.h"

#include "dbg/FlowLog.h"
#include "engine/EngineLog.h"

namespace SLF_ChromiumEmbeddedFramework {
// ---- audio ---------------------------------------------------------------------------------

void CBrowserClient::OnAudioStreamStarted(EngineBrowserRef browser, int audioStreamId, int sampleRate, int channels,
                                          int bitsPerSample, int64_t bufferDuration)
{
    NPL_DBGPRINTF(EngineLog_GetModuleIndex(), 2,
                  "---> Starting audio stream: %d, channels: %d, samplerate: %d, buffer_duration: %lld, "
                  "bits_per_sample: %d\n",
                  audioStreamId, channels, sampleRate, static_cast<long long>(bufferDuration), bitsPerSample);
    if (!browser)
        return;

    CNplThreadMutexLock browsersLock(m_BrowsersMutex); // lock order 3
    CBrowser* record = FindBrowserRecord(browser->GetIdentifier());
    if (!record)
        return;
    SLF_AUDIO_LOG("browser %d: stream %d started (%d Hz, %d channels, %d bits)%s", record->id, audioStreamId,
                  sampleRate, channels, bitsPerSample, record->m_bReceivingFrames ? "" : ", delivery is off");
    // The format is kept even while delivery is off, so packets after
    // enabling carry it.
    record->audioStreams[audioStreamId] = CAudioStream {audioStreamId, sampleRate, bitsPerSample, channels};
    if (record->m_bReceivingFrames && record->audioCallback)
        record->audioCallback(audioStreamId, nullptr, 0, static_cast<unsigned int>(sampleRate),
                              static_cast<unsigned int>(channels), static_cast<unsigned int>(bitsPerSample),
                              record->callbackContext);
}

void CBrowserClient::OnAudioStreamPacket(EngineBrowserRef browser, int audioStreamId, const void* data, int dataLength)
{
    if (!browser)
        return;

    CNplThreadMutexLock browsersLock(m_BrowsersMutex); // lock order 3
    CBrowser* record = FindBrowserRecord(browser->GetIdentifier());
    if (!record)
        return;
    CAudioStream stream;
    try {
        stream = record->audioStreams.at(audioStreamId);
    } catch (const std::out_of_range&) {
        // A packet of a stream that never started is dropped.
        SLF_AUDIO_LOG("browser %d: stream %d: block of %d bytes dropped: the stream never started", record->id,
                      audioStreamId, dataLength);
        return;
    }
    if (!record->m_bReceivingFrames || !record->audioCallback) {
        SLF_AUDIO_LOG("browser %d: stream %d: block of %d bytes dropped: delivery is off", record->id, audioStreamId,
                      dataLength);
        return;
    }
    SLF_AUDIO_LOG("browser %d: stream %d: block of %d bytes from the engine, handed over", record->id, audioStreamId,
                  dataLength);
    record->audioCallback(audioStreamId, static_cast<unsigned char*>(const_cast<void*>(data)),
                          static_cast<unsigned int>(dataLength), static_cast<unsigned int>(stream.m_nSampleRate),
                          static_cast<unsigned int>(stream.m_nChannels),
                          static_cast<unsigned int>(stream.m_nBitsPerSample), record->callbackContext);
}

void CBrowserClient::OnAudioSteamStopped(EngineBrowserRef browser, int audioStreamId)
{
    NPL_DBGPRINTF(EngineLog_GetModuleIndex(), 2, "---> Stopping audio stream : %d\n", audioStreamId);
    if (!browser)
        return;

    CNplThreadMutexLock browsersLock(m_BrowsersMutex); // lock order 3
    CBrowser* record = FindBrowserRecord(browser->GetIdentifier());
    if (!record)
        return;
    SLF_AUDIO_LOG("browser %d: stream %d stopped", record->id, audioStreamId);
    // The stream's entry stays; a stop signal carries zeros for size and format.
    if (record->m_bReceivingFrames && record->audioCallback)
        record->audioCallback(audioStreamId, nullptr, 0, 0, 0, 0, record->callbackContext);
}

} // namespace SLF_ChromiumEmbeddedFramework
