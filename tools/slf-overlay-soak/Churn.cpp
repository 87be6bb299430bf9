// slf-overlay-soak: the passing hosts (see Churn.h).
#include "tools/slf-overlay-soak/Churn.h"

#include <memory>
#include <vector>

namespace slfsoak {

void Churn::Run()
{
    int round = 0;
    while (!stop_) {
        if (paused_) {
            idle_ = true;
            std::this_thread::sleep_for(100ms);
            continue;
        }
        idle_ = false;
        Session(round++ % 3);
        idle_ = paused_.load();
        const auto next = Clock::now() + std::chrono::duration<double>(config_.churnSeconds);
        while (!stop_ && !paused_ && Clock::now() < next)
            std::this_thread::sleep_for(50ms);
    }
    idle_ = true;
}

void Churn::Session(int kind)
{
    Host host(kind == 1 ? 5 : 0);
    streamloft::ConnectOptions options;
    options.socketPath = socket_;
    options.startOnDemand = false;
    streamloft::Error error;
    std::shared_ptr<streamloft::Browser> browser; // goes after the client: kind 1 never closes it
    std::unique_ptr<streamloft::OverlayClient> client =
        streamloft::OverlayClient::Connect(host.Options(options), &error);
    if (!client) {
        ++stats_.failures;
        Say("churn host could not connect: %s", error.message.c_str());
        return;
    }
    if (kind == 2) {
        client.reset();
        ++stats_.bare;
        return;
    }
    browser =
        client->OpenBrowser({FileURL(config_.page), 480, 270, config_.fps, {FolderURL(config_.page)}}, host.events());
    // Like every host, it answers its page's settings requests: the page
    // waits for them on the service's one resource thread.
    auto answerSettings = [&] {
        if (host.takeSettingsRequest() && host.browserID() > 0) {
            const std::string text = "{\"churn\":true}";
            browser->UpdateSettingsData(std::vector<uint8_t>(text.begin(), text.end()));
        }
    };
    const bool framed = WaitFor(
        [&] {
            answerSettings();
            return host.frames() > 0 || host.closed() || stop_;
        },
        20s);
    if ((!framed || host.frames() == 0) && !stop_) {
        ++stats_.failures;
        Say("churn browser %d sent no frame within 20 s", host.browserID());
    }
    // A moment with the browser running (and its page asking for settings).
    const auto until = Clock::now() + 2s;
    WaitFor(
        [&] {
            answerSettings();
            return Clock::now() > until || host.closed() || stop_;
        },
        3s);
    if (kind == 0) {
        if (host.browserID() > 0)
            browser->Close();
        ++stats_.closedBrowser;
    } else {
        ++stats_.leftBrowser;
    }
    client.reset();
}

} // namespace slfsoak
