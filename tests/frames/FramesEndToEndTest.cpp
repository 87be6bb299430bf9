// Frames from a real page through the started-on-demand service to the host library.
#include "streamloft/OverlayClient.h"

#include <gtest/gtest.h>

#include <signal.h>

#include <algorithm>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <thread>
#include <vector>

using namespace std::chrono_literals;

namespace {

const std::string kPages = SLF_TEST_PAGES_DIR;

struct FrameHost : streamloft::OverlayCallbacks {
    void BrowserDidStart(int id) override
    {
        std::lock_guard<std::mutex> guard(lock);
        browserID = id;
        changed.notify_all();
    }
    void BrowserReceivedVideoFrame(int, std::shared_ptr<const streamloft::VideoFrame> frame) override
    {
        std::lock_guard<std::mutex> guard(lock);
        sizes.emplace_back(frame->width(), frame->height());
        last = frame;
        changed.notify_all();
    }
    template <typename Pred>
    bool WaitFor(Pred pred, std::chrono::seconds timeout = 30s)
    {
        std::unique_lock<std::mutex> guard(lock);
        return changed.wait_for(guard, timeout, pred);
    }

    std::mutex lock;
    std::condition_variable changed;
    int browserID = -2;
    std::vector<std::pair<uint32_t, uint32_t>> sizes;
    std::shared_ptr<const streamloft::VideoFrame> last;
};

uint32_t Pixel(const streamloft::VideoFrame& frame, uint32_t x, uint32_t y)
{
    const uint8_t* p = frame.row(y) + x * 4;
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

// The page's quarters: red, green, blue, and transparent at the bottom right.
bool ShowsTheColourPage(const streamloft::VideoFrame& f, uint32_t width, uint32_t height)
{
    return f.width() == width && f.height() == height && f.pixelFormat() == streamloft::kPixelFormatBGRA &&
           f.stride() >= width * 4 && Pixel(f, width / 4, height / 4) == 0xFFFF0000u &&
           Pixel(f, 3 * width / 4, height / 4) == 0xFF00FF00u && Pixel(f, width / 4, 3 * height / 4) == 0xFF0000FFu &&
           Pixel(f, 3 * width / 4, 3 * height / 4) == 0 && Pixel(f, width - 1, height - 1) == 0;
}

// Stops the service the test started (it outlives its hosts) and removes its folder.
struct ServiceCleanup {
    std::string folder;
    pid_t pid = -1;
    ~ServiceCleanup()
    {
        if (pid > 0) {
            kill(pid, SIGTERM);
            for (int i = 0; i < 100 && kill(pid, 0) == 0; ++i)
                std::this_thread::sleep_for(50ms);
            if (kill(pid, 0) == 0)
                kill(pid, SIGKILL);
        }
        std::filesystem::remove_all(folder);
    }
};

TEST(FramesEndToEnd, KnownColoursArriveAsBGRAWithAlphaZeroWhereThePageIsTransparentAndFollowAResize)
{
    char folder[] = "/tmp/slf-frames-XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    ServiceCleanup cleanup{folder};
    FrameHost host;
    streamloft::ConnectOptions options;
    options.socketPath = cleanup.folder + "/overlay-helper.sock";
    options.helperPath = SLF_TEST_HELPER_PATH;
    options.startTimeout = 20s;
    std::string error;
    auto client = streamloft::OverlayClient::Connect(host, options, &error);
    ASSERT_TRUE(client) << error;
    ASSERT_TRUE(client->StartedService());
    cleanup.pid = client->ServiceProcessID();

    ASSERT_TRUE(client->OpenBrowser("file://" + kPages + "/frames_colours.html", 64, 48, 30,
                                    {"file://" + kPages + "/"}, &error))
        << error;
    ASSERT_TRUE(host.WaitFor([&] { return host.browserID != -2; }, 60s));
    ASSERT_GE(host.browserID, 0);
    // The first paints may come before the page has loaded.
    EXPECT_TRUE(host.WaitFor([&] { return host.last && ShowsTheColourPage(*host.last, 64, 48); }));
    ASSERT_TRUE(client->UpdateBrowserSize(host.browserID, 96, 40, &error)) << error;
    EXPECT_TRUE(host.WaitFor([&] { return host.last && ShowsTheColourPage(*host.last, 96, 40); }));
    {
        std::lock_guard<std::mutex> guard(host.lock);
        // Frames in flight at the resize may have the old size, never one after a new one.
        const auto firstNew = std::find(host.sizes.begin(), host.sizes.end(), std::make_pair(96u, 40u));
        EXPECT_TRUE(std::all_of(host.sizes.begin(), firstNew, [](auto s) { return s == std::make_pair(64u, 48u); }));
        EXPECT_TRUE(std::all_of(firstNew, host.sizes.end(), [](auto s) { return s == std::make_pair(96u, 40u); }));
    }
}

} // namespace
