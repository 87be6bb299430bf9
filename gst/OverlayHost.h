// The host side of one slfoverlaysrc's browser: the connection to the
// overlay service, the browser handle, and the host library's events, which
// it hands to the video path (OverlayVideo) and the audio pads
// (OverlayAudio).
//
// Threads: Start, Stop and RemoveAudioPads on the element's state change
// thread; CloseForEndOfStream on the thread that sends end of stream to the
// element; RequestRenegotiation on a streaming thread; the BrowserEvents on
// the host library's thread.
// Owns: the client (and with it the library thread), the browser handle,
// the video path and the audio pads' bookkeeping. The element owns this
// object from READY→PAUSED to PAUSED→READY.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "gst/OverlayAudio.h"
#include "gst/OverlayVideo.h"
#include "gst/SlfOverlaySrc.h"
#include "streamloft/OverlayClient.h"

namespace slfgst {

class OverlayHost : public streamloft::BrowserEvents {
public:
    explicit OverlayHost(SlfOverlaySrc* element) : self_(element), video_(element), audio_(element) {}

    // Connects and asks for the browser at the negotiated shape; false after
    // posting an error.
    bool Start(const std::string& location, const std::vector<std::string>& permitted, const std::string& socket,
               const VideoShape& shape);
    // Closes the browser and the connection; no callback runs and no buffer is
    // pushed after this.
    void Stop();
    // End of stream asked for by the application: the browser closes (waiting
    // a bounded time for the service to confirm) and no buffer follows.
    void CloseForEndOfStream();
    // After Stop: removes the audio pads and their appsrcs.
    void RemoveAudioPads() { audio_.RemoveAll(); }
    void RequestRenegotiation() { video_.RequestRenegotiation(); }

    // BrowserEvents, on the library thread.
    void BrowserDidStart(streamloft::Browser&, int browserID) override;
    void BrowserReceivedVideoFrame(streamloft::Browser& browser,
                                   std::shared_ptr<const streamloft::VideoFrame> frame) override;
    void BrowserWillStartAudioStream(streamloft::Browser&, int streamID,
                                     const streamloft::AudioStreamFormat& format) override;
    void BrowserDidReceiveAudioStream(streamloft::Browser&, int streamID,
                                      std::shared_ptr<const streamloft::AudioBuffer> block) override;
    void BrowserWillStopAudioStream(streamloft::Browser&, int streamID) override;
    void RequestSettingsDataForBrowser(streamloft::Browser& browser) override;
    void BrowserDidClose(streamloft::Browser& browser) override;
    void BrowserDidFail(streamloft::Browser&, const streamloft::Error& error) override;

private:
    SlfOverlaySrc* self_;

    // The connection and the browser.
    std::mutex lock_; // client_ and browser_; taken alone, never with the object lock
    std::unique_ptr<streamloft::OverlayClient> client_;
    std::shared_ptr<streamloft::Browser> browser_;
    // Stop began (failures are no longer reported); end of stream closed the
    // browser (events are ignored).
    std::atomic<bool> stopping_ {false}, closed_ {false};

    // Where the events go.
    OverlayVideo video_;
    OverlayAudio audio_;
};

} // namespace slfgst
