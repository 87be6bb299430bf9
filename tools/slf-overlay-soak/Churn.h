// slf-overlay-soak: the passing hosts. While the anchors stay, a host
// connects every few seconds and goes again; in turn it closes the browser
// it opened, leaves without closing it while it holds frames, or never opens
// one.
//
// Threads: the churn thread runs the hosts one after the other; Start, Stop,
// Pause, Resume and the readers on the main thread; each passing host's
// events on its client's library thread.
// Owns: the churn thread, and the current passing host with its client.
#pragma once

#include <atomic>
#include <string>
#include <thread>

#include "tools/slf-overlay-soak/Soak.h"

namespace slfsoak {

struct ChurnStats {
    std::atomic<int> closedBrowser {0};
    std::atomic<int> leftBrowser {0};
    std::atomic<int> bare {0};
    std::atomic<int> failures {0};
};

class Churn {
public:
    Churn(const Config& config, const std::string& socket) : config_(config), socket_(socket) {}
    ~Churn() { Stop(); }

    void Start()
    {
        thread_ = std::thread([this] { Run(); });
    }
    void Stop()
    {
        stop_ = true;
        if (thread_.joinable())
            thread_.join();
    }
    // No new churn host after the current one has gone (idle() turns true)
    // until Resume; RequestStop ends the thread the same way.
    void Pause() { paused_ = true; }
    void Resume() { paused_ = false; }
    void RequestStop() { stop_ = true; }
    bool idle() const { return idle_.load(); }
    const ChurnStats& stats() const { return stats_; }

private:
    // The churn thread: one passing host after the other, every churnSeconds.
    void Run();
    // 0: opens a browser and closes it; 1: opens one, holds its frames and
    // goes away without closing it; 2: connects and goes away.
    void Session(int kind);

    const Config& config_;
    const std::string socket_;
    std::thread thread_;
    std::atomic<bool> stop_ {false};
    std::atomic<bool> paused_ {false};
    std::atomic<bool> idle_ {true};
    ChurnStats stats_;
};

} // namespace slfsoak
