// The host side of the host library's tests: every event as a line
// ("start 7", "frame 7", "closed 7", "failed invalid-url ...", ...), frames,
// buffers and the format kept. One recorder may serve several browsers.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "streamloft/OverlayClient.h"

inline std::string Ids(int browser, int stream)
{
    return std::to_string(browser) + " " + std::to_string(stream);
}

class RecordingCallbacks : public streamloft::BrowserEvents {
public:
    using Browser = streamloft::Browser;

    void BrowserDidStart(Browser&, int id) override { Add("start " + std::to_string(id)); }
    void BrowserReceivedVideoFrame(Browser& b, std::shared_ptr<const streamloft::VideoFrame> frame) override
    {
        Add("frame " + std::to_string(b.ID()), [&] {
            if (keepFrames)
                frames.push_back(frame);
        });
    }
    void BrowserWillStartAudioStream(Browser& b, int stream, const streamloft::AudioStreamFormat& f) override
    {
        Add("audio-start " + Ids(b.ID(), stream), [&] { format = f; });
    }
    void BrowserDidReceiveAudioStream(Browser& b, int stream,
                                      std::shared_ptr<const streamloft::AudioBuffer> buf) override
    {
        Add((buf ? "audio-buffer " : "audio-null ") + Ids(b.ID(), stream), [&] {
            if (buf)
                buffers.push_back(buf);
        });
    }
    void BrowserWillStopAudioStream(Browser& b, int stream) override { Add("audio-stop " + Ids(b.ID(), stream)); }
    // Answered with `settings` from the event itself when `answerSettings` is
    // set, except for the browser `heldBrowser`, which the test answers (Answer).
    void RequestSettingsDataForBrowser(Browser& b) override
    {
        Add("settings-asked " + std::to_string(b.ID()));
        if (answerSettings && b.ID() != heldBrowser)
            Answer(b, settings);
    }
    void Answer(Browser& b, const std::string& text)
    {
        const int id = b.ID();
        b.UpdateSettingsData({text.begin(), text.end()}, [this, id](const std::optional<streamloft::Error>& error) {
            Add("settings " + std::to_string(id) + (error ? " failed" : " answered"));
        });
    }
    void BrowserDidClose(Browser& b) override { Add("closed " + std::to_string(b.ID())); }
    void BrowserDidFail(Browser&, const streamloft::Error& e) override
    {
        Add(std::string("failed ") + streamloft::ErrorKindName(e.kind) + " " + e.Describe());
    }

    // A handle on this recorder for OpenBrowser (the test owns the recorder).
    std::shared_ptr<streamloft::BrowserEvents> events() { return {std::shared_ptr<void>(), this}; }
    // Options that record the client's own events too: "problem ...",
    // "disconnected".
    streamloft::ConnectOptions Options(streamloft::ConnectOptions options = {})
    {
        options.diagnostics = [this](const std::string& message) { Add("problem " + message); };
        options.connectionClosed = [this] { Add("disconnected"); };
        return options;
    }
    // A completion that records "<what> ok" or "<what> failed <kind>".
    streamloft::Completion Done(const std::string& what)
    {
        return [this, what](const std::optional<streamloft::Error>& error) {
            Add(what + (error ? std::string(" failed ") + streamloft::ErrorKindName(error->kind) : " ok"));
        };
    }

    void Add(const std::string& event, const std::function<void()>& keep = {})
    {
        std::lock_guard<std::mutex> guard(lock);
        if (keep)
            keep();
        events_.push_back(event);
        changed.notify_all();
    }
    // The n-th event that starts with `prefix`, or "" when none came in time.
    std::string WaitFor(const std::string& prefix, std::chrono::milliseconds timeout = std::chrono::seconds(5),
                        size_t n = 1)
    {
        std::unique_lock<std::mutex> guard(lock);
        std::vector<std::string> found;
        changed.wait_for(guard, timeout, [&] {
            found.clear();
            for (const auto& e : events_)
                if (e.rfind(prefix, 0) == 0)
                    found.push_back(e);
            return found.size() >= n;
        });
        return found.size() >= n ? found[n - 1] : "";
    }
    std::vector<std::string> Events()
    {
        std::lock_guard<std::mutex> guard(lock);
        return events_;
    }
    template <typename T>
    std::vector<T> Take(std::vector<T>& list)
    {
        std::lock_guard<std::mutex> guard(lock);
        return std::exchange(list, {});
    }

    std::atomic<bool> answerSettings {true}, keepFrames {true};
    std::atomic<int> heldBrowser {-1};
    std::string settings = "{}"; // set before the browser opens
    std::mutex lock;
    std::condition_variable changed;
    std::vector<std::string> events_;
    std::vector<std::shared_ptr<const streamloft::VideoFrame>> frames;
    std::vector<std::shared_ptr<const streamloft::AudioBuffer>> buffers;
    streamloft::AudioStreamFormat format;
};
