// slf-overlay-soak: the anchor hosts (see Anchors.h).
#include "tools/slf-overlay-soak/Anchors.h"

namespace slfsoak {

std::vector<std::unique_ptr<Anchor>> OpenAnchors(const Config& config, const std::string& socket,
                                                 const std::function<bool()>& serviceAlive)
{
    std::vector<std::unique_ptr<Anchor>> anchors;
    streamloft::ConnectOptions options;
    options.socketPath = socket;
    options.startOnDemand = false;
    for (int i = 0; i < kAnchors && serviceAlive(); ++i) {
        auto anchor = std::make_unique<Anchor>();
        streamloft::Error error;
        WaitFor(
            [&] {
                anchor->client = streamloft::OverlayClient::Connect(anchor->host.Options(options), &error);
                return anchor->client != nullptr || !serviceAlive();
            },
            30s);
        if (!anchor->client) {
            Say("anchor %d could not connect: %s", i + 1, error.message.c_str());
            break;
        }
        anchor->browser = anchor->client->OpenBrowser(
            {FileURL(config.page), 640, 360, config.fps, {FolderURL(config.page)}}, anchor->host.events());
        if (!WaitFor([&] { return anchor->host.browserID() != 0; }, 30s) || anchor->host.browserID() < 0) {
            Say("anchor %d could not open a browser", i + 1);
            break;
        }
        anchor->id = anchor->host.browserID();
        anchors.push_back(std::move(anchor));
    }
    return anchors;
}

bool ServeAnchors(std::vector<std::unique_ptr<Anchor>>& anchors, uint64_t* settingsTick, bool watch)
{
    bool connected = true;
    const auto clockNow = Clock::now();
    for (auto& anchor : anchors) {
        if (anchor->host.takeSettingsRequest()) {
            const std::string text = "{\"soak\":" + std::to_string(++*settingsTick) + "}";
            anchor->browser->UpdateSettingsData(
                std::vector<uint8_t>(text.begin(), text.end()),
                [answered = anchor->settingsAnswered, id = anchor->id](const std::optional<streamloft::Error>& error) {
                    if (!error)
                        ++*answered;
                    else
                        Say("settings answer for browser %d refused: %s", id, error->Describe().c_str());
                });
        }
        anchor->recent.emplace_back(clockNow, anchor->host.frames());
        while (clockNow - anchor->recent.front().first > kSilenceLimit)
            anchor->recent.pop_front();
        const bool watchedLongEnough = clockNow - anchor->recent.front().first > kSilenceLimit - 500ms;
        const bool quiet = watch && watchedLongEnough && anchor->recentFrames() < kLiveFrames;
        if (quiet && !anchor->silent) {
            anchor->silent = true;
            anchor->silentSince = clockNow;
            ++anchor->silences;
            Say("browser %d silent: %llu frames in the last %lld s", anchor->id,
                static_cast<unsigned long long>(anchor->recentFrames()),
                static_cast<long long>(std::chrono::duration_cast<std::chrono::seconds>(kSilenceLimit).count()));
        } else if (!quiet && anchor->silent && anchor->recentFrames() >= kLiveFrames) {
            anchor->silent = false;
            ++anchor->recoveries;
            Say("browser %d sends frames again, %.0f s after it went silent", anchor->id,
                std::chrono::duration<double>(clockNow - anchor->silentSince).count());
        }
        if (anchor->host.closed() && connected) {
            Say("anchor connection of browser %d closed", anchor->id);
            connected = false;
        }
    }
    return connected;
}

void ResizeAnchor(Anchor& anchor)
{
    anchor.large = !anchor.large;
    anchor.browser->Resize(anchor.large ? 800 : 640, anchor.large ? 450 : 360,
                           [id = anchor.id](const std::optional<streamloft::Error>& error) {
                               if (error)
                                   Say("resize of browser %d refused: %s", id, error->Describe().c_str());
                           });
}

} // namespace slfsoak
