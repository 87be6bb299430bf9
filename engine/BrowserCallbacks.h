// The plain callbacks through which the engine reaches the service side, and
// the access-handling record handed over when a browser starts. The context
// pointer is the service's window representation.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace SLF_ChromiumEmbeddedFramework {

// Pixels (BGRA, tightly packed, current render size), byte count, context.
typedef bool (*SLFCefVideoFrameCallbackType)(unsigned char* data, unsigned int bufferSize, void* context);
// Stream ID, bytes, byte count, sample rate, channels, bits per sample,
// context. Byte count and the three format values all 0: the stream stopped.
typedef bool (*SLFCefAudioCallbackType)(int streamID, unsigned char* data, unsigned int bufferSize,
                                        unsigned int sampleRate, unsigned int channels, unsigned int bitsPerSample,
                                        void* context);
// Request URL, context: true when the engine takes the request over.
typedef bool (*SLFCefHandleRequestURLType)(const std::string& url, const void* context);
// Request URL, start URL, body to fill, body length out, status in/out, context.
typedef bool (*SLFCefGetResponseHeadersForURLType)(const std::string& url, const std::string& startURL,
                                                   std::vector<char>* data, int64_t* length, int* statusCode,
                                                   const void* context);
// URL-change callback (load start): frame URL, context.
typedef bool (*SLFCefURLChangeCallbackType)(const std::string& url, const void* context);

// The one-word host of the URLs the service answers itself: the settings
// resource "http://streamloft/settings" and the text requests
// "http://streamloft/requestText?filePath=...". Pages must use the same word.
inline constexpr const char* kSLFCefInternalHost = "streamloft";

struct CAccessHandlingForRequestSettings {
    SLFCefHandleRequestURLType handleRequestURL = nullptr;
    SLFCefGetResponseHeadersForURLType getResponseHeadersForURL = nullptr;
    bool accessControlEnabled = false;
};

} // namespace SLF_ChromiumEmbeddedFramework
