// The client's record of one off-screen browser: what it was started with,
// where its frames and audio go, and its per-browser state. Kept by value in
// CBrowserClient's browser list, guarded by the client's browsers lock.
#pragma once

#include "engine/BrowserCallbacks.h"
#include "engine/CAudioStream.h"
#include "engine/port/EnginePort.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace SLF_ChromiumEmbeddedFramework {

class CBrowser {
public:
    CBrowser() = default;
    CBrowser(const std::string& startURL, int frameRate, unsigned int width, unsigned int height,
             SLFCefVideoFrameCallbackType frameCallback, SLFCefAudioCallbackType audioCallback,
             SLFCefURLChangeCallbackType urlChangeCallback, void* callbackContext,
             const CAccessHandlingForRequestSettings* accessSettings);

    // Asks the service side whether it takes this request over: false when
    // access control is off or no callback was given. A closing browser is
    // not asked and its requests are refused (true: taken over).
    bool HandleAccessForRequestURL(const std::string& url) const;
    // Asks the service side for the body and status of a taken-over request
    // (the access-control flag is not looked at); false without a callback
    // and, without asking, for a closing browser.
    bool GetReponseHeadersRequestURL(const std::string& url, std::vector<char>& data, int64_t& length,
                                     int& status) const;

    // The engine's browser identifier; 0 until the engine reported the browser.
    int id = 0;
    // Null until the engine reported the browser.
    EngineBrowserRef browser;
    std::string startURL;
    int frameRate = 0;
    unsigned int width = 0;
    unsigned int height = 0;
    SLFCefVideoFrameCallbackType frameCallback = nullptr;
    SLFCefAudioCallbackType audioCallback = nullptr;
    SLFCefURLChangeCallbackType urlChangeCallback = nullptr;
    void* callbackContext = nullptr;
    // Frames and audio reach the callbacks only while set.
    bool m_bReceivingFrames = true;
    // Set by StopBrowser before its close wait. The service side lets go of
    // callbackContext once that wait ends, also when the engine has not
    // reported the close yet, so from then on the record's resource and
    // URL-change callbacks are not called.
    bool m_bClosing = false;
    // Stream ID to its format; entries live as long as the record.
    std::map<int, CAudioStream> audioStreams;
    // One-shot: the next paint is dropped (set before a reload).
    bool m_bSkipNextPaint = false;
    CAccessHandlingForRequestSettings accessSettings;
    // The web process's process ID, 0 until it answered.
    int m_nRenderProcessId = 0;
};

} // namespace SLF_ChromiumEmbeddedFramework
