// slf-overlay-soak: the anchor hosts. Three hosts stay connected for the
// whole run, each with one browser on the soak page; they answer their
// pages' settings requests, are resized in turn, and are watched for going
// silent (fewer than kLiveFrames frames over kSilenceLimit) and coming back.
//
// Threads: everything here on the main thread; each anchor's Host gets its
// events on its client's library thread.
// Owns: each Anchor its client and browser handle.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tools/slf-overlay-soak/Soak.h"

namespace slfsoak {

constexpr int kAnchors = 3;
// A browser counts as silent while fewer than kLiveFrames frames arrived
// over the last kSilenceLimit.
constexpr auto kSilenceLimit = 5s;
constexpr uint64_t kLiveFrames = 10;

struct Anchor {
    Host host;
    std::unique_ptr<streamloft::OverlayClient> client;
    std::shared_ptr<streamloft::Browser> browser;
    int id = 0;
    bool large = false;
    std::shared_ptr<std::atomic<uint64_t>> settingsAnswered = std::make_shared<std::atomic<uint64_t>>(0);
    bool silent = false;
    Clock::time_point silentSince;
    // Frame counts of the last kSilenceLimit, one per look, oldest first.
    std::deque<std::pair<Clock::time_point, uint64_t>> recent;
    // Frames over the last kSilenceLimit: a browser that only repaints when
    // resized sends one now and then, a live one a steady stream.
    uint64_t recentFrames() const { return recent.empty() ? 0 : recent.back().second - recent.front().second; }
    int silences = 0;
    int recoveries = 0;
};

// Connects kAnchors hosts and opens a browser for each (640x360); stops at
// the first that fails or when `serviceAlive` says the service is gone.
std::vector<std::unique_ptr<Anchor>> OpenAnchors(const Config& config, const std::string& socket,
                                                 const std::function<bool()>& serviceAlive);

// Answers the anchors' settings requests and, once `watch` (after the
// warm-up: pages take a while to load the first time), notes which anchor
// browsers went silent or came back. False when an anchor's connection
// closed.
bool ServeAnchors(std::vector<std::unique_ptr<Anchor>>& anchors, uint64_t* settingsTick, bool watch);

// Toggles the anchor's browser between 640x360 and 800x450.
void ResizeAnchor(Anchor& anchor);

} // namespace slfsoak
