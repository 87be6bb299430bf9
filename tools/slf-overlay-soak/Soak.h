// slf-overlay-soak: what its files share: the run's settings, the clock of
// the run and its log lines, waiting, page URLs, and Host, the browser events
// of one host (anchor or passing). See main.cpp for what the tool does.
//
// Threads: Say, Elapsed and WaitFor on any thread; a Host's events on its
// client's library thread, its readers on the main or churn thread.
// Owns: a Host holds the frames it was asked to hold.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "streamloft/OverlayClient.h"

namespace slfsoak {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

struct Config {
    double minutes = 10;
    double warmupSeconds = 30;
    double killSeconds = 60;
    double churnSeconds = 3;
    double resizeSeconds = 5;
    double fps = 30;
    std::string service;
    std::string page;
};

// Seconds since the tool started.
double Elapsed();
// One line of the log, with the seconds since the start in front.
void Say(const char* format, ...) __attribute__((format(printf, 1, 2)));
// Polls `done` every 50 ms; false when `limit` passed first.
bool WaitFor(const std::function<bool()>& done, std::chrono::milliseconds limit);

inline std::string FileURL(const std::string& path)
{
    return "file://" + path;
}

inline std::string FolderURL(const std::string& path)
{
    return FileURL(path.substr(0, path.rfind('/') + 1));
}

// The events of one host's browser: counts of frames, audio buffers and
// problems, its settings requests (taken by the thread that answers them),
// and the last `framesToHold` frames held as a slow host would hold them.
class Host : public streamloft::BrowserEvents {
public:
    explicit Host(size_t framesToHold = 0) : framesToHold_(framesToHold) {}

    // The client's own events for this host.
    streamloft::ConnectOptions Options(streamloft::ConnectOptions options)
    {
        options.connectionClosed = [this] { closed_ = true; };
        options.diagnostics = [this](const std::string& message) {
            if (problems_++ < 3)
                Say("host library problem: %s", message.c_str());
        };
        return options;
    }
    // A non-owning handle for OpenBrowser: the host outlives its client.
    std::shared_ptr<streamloft::BrowserEvents> events() { return {std::shared_ptr<void>(), this}; }

    void BrowserDidStart(streamloft::Browser&, int browserID) override { browserID_ = browserID; }
    void BrowserDidFail(streamloft::Browser&, const streamloft::Error& error) override
    {
        if (browserID_ == 0)
            browserID_ = -1;
        if (error.kind == streamloft::ErrorKind::ConnectionClosed)
            closed_ = true;
        if (problems_++ < 3)
            Say("browser failed: %s", error.Describe().c_str());
    }
    void BrowserReceivedVideoFrame(streamloft::Browser&, std::shared_ptr<const streamloft::VideoFrame> frame) override
    {
        ++frames_;
        if (framesToHold_) {
            std::lock_guard<std::mutex> guard(heldLock_); // lock order: a leaf
            held_.push_back(std::move(frame));
            if (held_.size() > framesToHold_)
                held_.pop_front();
        }
    }
    void BrowserDidReceiveAudioStream(streamloft::Browser&, int,
                                      std::shared_ptr<const streamloft::AudioBuffer> buffer) override
    {
        if (buffer)
            ++audioBuffers_;
    }
    void RequestSettingsDataForBrowser(streamloft::Browser&) override { settingsAsked_ = true; }

    int browserID() const { return browserID_; }
    uint64_t frames() const { return frames_; }
    uint64_t audioBuffers() const { return audioBuffers_; }
    uint64_t problems() const { return problems_; }
    bool closed() const { return closed_; }
    bool takeSettingsRequest() { return settingsAsked_.exchange(false); }

private:
    const size_t framesToHold_;
    std::atomic<int> browserID_ {0};
    std::atomic<uint64_t> frames_ {0};
    std::atomic<uint64_t> audioBuffers_ {0};
    std::atomic<uint64_t> problems_ {0};
    std::atomic<bool> settingsAsked_ {false};
    std::atomic<bool> closed_ {false};
    std::mutex heldLock_;
    std::deque<std::shared_ptr<const streamloft::VideoFrame>> held_;
};

} // namespace slfsoak
