// The host side of one slfoverlaysrc's browser (see OverlayHost.h).
#include "gst/OverlayHost.h"

#include <chrono>
#include <future>

namespace slfgst {

bool OverlayHost::Start(const std::string& location, const std::vector<std::string>& permitted,
                        const std::string& socket, const VideoShape& shape)
{
    streamloft::ConnectOptions options;
    options.socketPath = socket;
    // A service started on demand gets time to come up on a busy machine.
    options.startTimeout = std::chrono::seconds(20);
    options.diagnostics = [this](const std::string& message) { GST_WARNING_OBJECT(self_, "%s", message.c_str()); };
    streamloft::Error error;
    auto client = streamloft::OverlayClient::Connect(options, &error);
    if (!client) {
        PostError(self_, error.kind, "Cannot reach the overlay service", error.name, error.message);
        return false;
    }
    GST_INFO_OBJECT(self_, "opening %s at %dx%d, %d/%d fps", location.c_str(), shape.width, shape.height, shape.fpsN,
                    shape.fpsD);
    video_.Start(shape);
    // The element outlives the client (Stop ends it), so the events need no owner.
    auto browser = client->OpenBrowser(
        {location, double(shape.width), double(shape.height), double(shape.fpsN) / shape.fpsD, permitted},
        std::shared_ptr<streamloft::BrowserEvents>(std::shared_ptr<void>(), this));
    // Lock order: this lock only; requests never block, so holding it across
    // one is harmless.
    std::lock_guard<std::mutex> guard(lock_);
    client_ = std::move(client);
    browser_ = std::move(browser);
    return true;
}

void OverlayHost::Stop()
{
    std::unique_ptr<streamloft::OverlayClient> client;
    std::shared_ptr<streamloft::Browser> browser;
    {
        std::lock_guard<std::mutex> guard(lock_);
        stopping_ = true;
        client = std::move(client_);
        browser = std::move(browser_);
    }
    // Dropping the handle closes the browser (unless EOS closed it already).
    browser.reset();
    client.reset(); // joins the library thread
    video_.Stop();
}

void OverlayHost::CloseForEndOfStream()
{
    std::shared_ptr<streamloft::Browser> browser;
    {
        std::lock_guard<std::mutex> guard(lock_);
        if (closed_ || !browser_)
            return;
        closed_ = true;
        browser = browser_;
    }
    // No repeated frame either: end of stream follows.
    video_.Stop();
    // End of stream follows once the service has closed the browser (or
    // after a bounded wait), so that no frame of it comes after.
    auto closed = std::make_shared<std::promise<void>>();
    std::future<void> done = closed->get_future();
    browser->Close([this, closed](const std::optional<streamloft::Error>& error) {
        if (error)
            GST_WARNING_OBJECT(self_, "closing failed: %s", error->Describe().c_str());
        closed->set_value();
    });
    done.wait_for(std::chrono::seconds(5));
}

void OverlayHost::BrowserDidStart(streamloft::Browser&, int browserID)
{
    GST_INFO_OBJECT(self_, "browser %d started", browserID);
    PostElementMessage(self_, "slf-browser-started", browserID);
}

void OverlayHost::BrowserReceivedVideoFrame(streamloft::Browser& browser,
                                            std::shared_ptr<const streamloft::VideoFrame> frame)
{
    if (closed_)
        return;
    video_.Frame(browser, *frame);
}

void OverlayHost::BrowserWillStartAudioStream(streamloft::Browser&, int streamID,
                                              const streamloft::AudioStreamFormat& format)
{
    if (closed_ || stopping_)
        return;
    audio_.Start(streamID, format);
}

void OverlayHost::BrowserDidReceiveAudioStream(streamloft::Browser&, int streamID,
                                               std::shared_ptr<const streamloft::AudioBuffer> block)
{
    if (closed_ || !block)
        return;
    audio_.Push(streamID, *block);
}

void OverlayHost::BrowserWillStopAudioStream(streamloft::Browser&, int streamID)
{
    audio_.End(streamID);
}

void OverlayHost::RequestSettingsDataForBrowser(streamloft::Browser& browser)
{
    std::vector<uint8_t> data;
    GST_OBJECT_LOCK(self_);
    if (self_->settingsData) {
        gsize size = 0;
        auto* bytes = static_cast<const uint8_t*>(g_bytes_get_data(self_->settingsData, &size));
        data.assign(bytes, bytes + size);
    }
    GST_OBJECT_UNLOCK(self_);
    browser.UpdateSettingsData(std::move(data), [this](const std::optional<streamloft::Error>& error) {
        if (error)
            GST_WARNING_OBJECT(self_, "answering the settings request failed: %s", error->Describe().c_str());
    });
}

void OverlayHost::BrowserDidClose(streamloft::Browser& browser)
{
    GST_INFO_OBJECT(self_, "browser %d closed", browser.ID());
    PostElementMessage(self_, "slf-browser-closed", browser.ID());
}

void OverlayHost::BrowserDidFail(streamloft::Browser&, const streamloft::Error& error)
{
    if (stopping_)
        return;
    const char* text = error.kind == OverlayError::ConnectionClosed ? "The connection to the overlay service closed"
                       : error.kind == OverlayError::EngineFailed   ? "The overlay service could not open the page"
                                                                    : "The overlay service refused to open the page";
    PostError(self_, error.kind, text, error.name, error.Describe());
}

} // namespace slfgst
