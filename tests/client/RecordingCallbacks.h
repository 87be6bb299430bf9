// The host side of the host library's tests: every callback as an event
// line ("start 7", "open-reply 7", ...), frames, buffers and the format kept.
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

inline std::string Ids(int browser, int stream) { return std::to_string(browser) + " " + std::to_string(stream); }

class RecordingCallbacks : public streamloft::OverlayCallbacks {
 public:
  void BrowserDidStart(int id) override { Add("start " + std::to_string(id)); }
  void BrowserReceivedVideoFrame(int id, std::shared_ptr<const streamloft::VideoFrame> frame) override {
    Add("frame " + std::to_string(id), [&] { frames.push_back(frame); });
  }
  void BrowserWillStartAudioStream(int id, int stream, const streamloft::AudioStreamFormat& f) override {
    Add("audio-start " + Ids(id, stream), [&] { format = f; });
  }
  void BrowserDidReceiveAudioStream(int id, int stream, std::shared_ptr<const streamloft::AudioBuffer> b) override {
    Add((b ? "audio-buffer " : "audio-null ") + Ids(id, stream), [&] {
      if (b) buffers.push_back(b);
    });
  }
  void BrowserWillStopAudioStream(int id, int stream) override { Add("audio-stop " + Ids(id, stream)); }
  // Answered from the callback thread itself, through `client` if set.
  void RequestSettingsDataForBrowser(int id) override {
    if (streamloft::OverlayClient* c = client.load())
      Add("settings " + std::to_string(id) + (c->UpdateBrowserSettingsData(id, {'{', '}'}) ? " answered" : " failed"));
  }
  void OpenBrowserDidReply(int id) override { Add("open-reply " + std::to_string(id)); }
  void OpenBrowserDidFail(const std::string& error) override { Add("open-failed " + error); }
  void ConnectionDidClose() override { Add("closed"); }
  void ClientDidReportProblem(const std::string& message) override { Add("problem " + message); }

  void Add(const std::string& event, const std::function<void()>& keep = {}) {
    std::lock_guard<std::mutex> guard(lock);
    if (keep) keep();
    events.push_back(event);
    changed.notify_all();
  }
  // The n-th event that starts with `prefix`, or "" when none came in time.
  std::string WaitFor(const std::string& prefix, std::chrono::milliseconds timeout = std::chrono::seconds(5),
                      size_t n = 1) {
    std::unique_lock<std::mutex> guard(lock);
    std::vector<std::string> found;
    changed.wait_for(guard, timeout, [&] {
      found.clear();
      for (const auto& e : events)
        if (e.rfind(prefix, 0) == 0) found.push_back(e);
      return found.size() >= n;
    });
    return found.size() >= n ? found[n - 1] : "";
  }
  template <typename T>
  std::vector<T> Take(std::vector<T>& list) {
    std::lock_guard<std::mutex> guard(lock);
    return std::exchange(list, {});
  }

  std::atomic<streamloft::OverlayClient*> client{nullptr};
  std::mutex lock;
  std::condition_variable changed;
  std::vector<std::string> events;
  std::vector<std::shared_ptr<const streamloft::VideoFrame>> frames;
  std::vector<std::shared_ptr<const streamloft::AudioBuffer>> buffers;
  streamloft::AudioStreamFormat format;
};
