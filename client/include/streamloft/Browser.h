// One overlay browser as the host sees it: a handle returned by
// OverlayClient::OpenBrowser, with its own events and requests.
//
// Events: the BrowserEvents object given to OpenBrowser receives this
// browser's events and no other browser's, in the order the service sent
// them, on the client's event context (see OverlayClient.h). Each event
// names the handle it is for, so a callback can make requests on it.
//
// Requests: every method may be called from any thread, also from inside a
// callback, and never blocks: the request is queued and sent in the order
// requests are made; the optional completion reports how it ended. Requests
// made before the browser has started wait for its start and are sent then.
//
// Lifetime: dropping the last reference to the handle closes the browser
// (queued, never blocking) unless it is closed already; no event of this
// browser is delivered after that. A handle may outlive its client: its
// requests then do nothing and their completions do not run.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "streamloft/AudioBuffer.h"
#include "streamloft/Error.h"
#include "streamloft/Export.h"
#include "streamloft/VideoFrame.h"

namespace streamloft {

class Browser;

// What a browser sends back. Every method has an empty default, so a host
// overrides only what it needs. Frames and audio buffers that the host does
// not keep are given back to the service as soon as the call returns.
class SLF_OVERLAY_EXPORT BrowserEvents {
public:
    virtual ~BrowserEvents() = default;

    // The service created the browser; `browserID` is its ID in the service.
    virtual void BrowserDidStart(Browser& browser, int browserID)
    {
        (void)browser;
        (void)browserID;
    }
    // A painted frame. Holding `frame` keeps its surface from being reused.
    virtual void BrowserReceivedVideoFrame(Browser& browser, std::shared_ptr<const VideoFrame> frame)
    {
        (void)browser;
        (void)frame;
    }
    virtual void BrowserWillStartAudioStream(Browser& browser, int streamID, const AudioStreamFormat& format)
    {
        (void)browser;
        (void)streamID;
        (void)format;
    }
    // A block of PCM audio. `buffer` is null for the empty delivery that comes
    // right before BrowserWillStopAudioStream.
    virtual void BrowserDidReceiveAudioStream(Browser& browser, int streamID, std::shared_ptr<const AudioBuffer> buffer)
    {
        (void)browser;
        (void)streamID;
        (void)buffer;
    }
    virtual void BrowserWillStopAudioStream(Browser& browser, int streamID)
    {
        (void)browser;
        (void)streamID;
    }
    // The page asked for its settings data; answer with
    // Browser::UpdateSettingsData (the page waits up to 120 s).
    virtual void RequestSettingsDataForBrowser(Browser& browser) { (void)browser; }
    // The browser has closed (after Close, when the service confirmed it).
    virtual void BrowserDidClose(Browser& browser) { (void)browser; }
    // The browser could not be opened, or it ended because the connection
    // closed. No further event follows.
    virtual void BrowserDidFail(Browser& browser, const Error& error)
    {
        (void)browser;
        (void)error;
    }
};

// What OpenBrowser asks for.
struct BrowserOptions {
    std::string url;
    double width = 1280;
    double height = 720;
    double framerate = 30;
    // File URL prefixes the page may load (for a file URL, at least its folder).
    std::vector<std::string> permittedFileURLStrings;
};

class SLF_OVERLAY_EXPORT Browser {
public:
    class State;
    explicit Browser(std::shared_ptr<State> state);
    ~Browser();
    Browser(const Browser&) = delete;
    Browser& operator=(const Browser&) = delete;

    // The browser's ID in the service, -1 until it has started.
    int ID() const;

    void Resize(double width, double height, Completion done = {});
    // Asks the service to close the browser; BrowserDidClose follows.
    void Close(Completion done = {});
    // The bytes the page reads from its settings URL.
    void UpdateSettingsData(std::vector<uint8_t> settingsData, Completion done = {});
    void UpdatePermittedFileURLStrings(std::vector<std::string> permittedFileURLStrings, Completion done = {});

private:
    std::shared_ptr<State> state_;
};

} // namespace streamloft
