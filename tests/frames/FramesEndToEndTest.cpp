// Frames from a real page through the started-on-demand service to the host library.
#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "tests/support/AwaitRequest.h"
#include "tests/support/ServiceProcess.h"

using namespace slftest;

namespace {

bool OpaqueCorners(const streamloft::VideoFrame& frame);

struct FrameHost : streamloft::BrowserEvents {
    void BrowserDidStart(streamloft::Browser&, int id) override
    {
        std::lock_guard<std::mutex> guard(lock);
        browserID = id;
        changed.notify_all();
    }
    void BrowserDidFail(streamloft::Browser&, const streamloft::Error&) override
    {
        std::lock_guard<std::mutex> guard(lock);
        browserID = -1;
        changed.notify_all();
    }
    void BrowserReceivedVideoFrame(streamloft::Browser&, std::shared_ptr<const streamloft::VideoFrame> frame) override
    {
        std::lock_guard<std::mutex> guard(lock);
        sizes.emplace_back(frame->width(), frame->height());
        opaqueCorners.push_back(OpaqueCorners(*frame));
        timings.push_back(
            {frame->sequence(), frame->presentationTime(),
             uint64_t(std::chrono::duration_cast<std::chrono::microseconds>(frame->receivedAt().time_since_epoch())
                          .count())});
        if (holdFrames && held.size() < 30)
            held.push_back(frame);
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
    std::vector<bool> opaqueCorners; // per frame, as sizes
    struct Timing {
        uint64_t sequence, presentation, received; // microseconds of CLOCK_MONOTONIC
    };
    std::vector<Timing> timings;
    bool holdFrames = false;
    std::vector<std::shared_ptr<const streamloft::VideoFrame>> held;
    std::shared_ptr<const streamloft::VideoFrame> last;
};

uint32_t Pixel(const streamloft::VideoFrame& frame, uint32_t x, uint32_t y)
{
    const uint8_t* p = frame.row(y) + x * 4;
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

// The frame's four corner pixels are opaque.
bool OpaqueCorners(const streamloft::VideoFrame& frame)
{
    const uint32_t right = frame.width() - 1, bottom = frame.height() - 1;
    for (auto [x, y] : {std::pair {0u, 0u}, {right, 0u}, {0u, bottom}, {right, bottom}})
        if (Pixel(frame, x, y) >> 24 != 0xFF)
            return false;
    return true;
}

// The page's quarters: red, green, blue, and transparent at the bottom right,
// every pixel (the quarters' edges fall on whole pixels at even sizes).
bool ShowsTheColourPage(const streamloft::VideoFrame& f, uint32_t width, uint32_t height)
{
    if (f.width() != width || f.height() != height || f.pixelFormat() != streamloft::kPixelFormatBGRA ||
        f.stride() < width * 4)
        return false;
    for (uint32_t y = 0; y < height; ++y)
        for (uint32_t x = 0; x < width; ++x) {
            const bool left = x < width / 2, top = y < height / 2;
            const uint32_t expected = top ? (left ? 0xFFFF0000u : 0xFF00FF00u) : (left ? 0xFF0000FFu : 0);
            // An odd width splits a pixel column between two quarters.
            if ((width % 2 && x == width / 2) || Pixel(f, x, y) == expected)
                continue;
            return false;
        }
    return true;
}

class FramesEndToEnd : public ServiceTest {
protected:
    void SetUp() override
    {
        ServiceTest::SetUp();
        client = Connect(Options());
        ASSERT_TRUE(client);
    }
    void TearDown() override
    {
        browser.reset();
        client.reset();
        ServiceTest::TearDown();
    }
    void Open(const std::string& page, double width, double height)
    {
        browser = client->OpenBrowser(Page(page, width, height),
                                      std::shared_ptr<streamloft::BrowserEvents>(std::shared_ptr<void>(), &host));
        ASSERT_TRUE(host.WaitFor([&] { return host.browserID != -2; }, 60s));
        ASSERT_GE(host.browserID, 0);
    }

    FrameHost host;
    std::unique_ptr<streamloft::OverlayClient> client;
    std::shared_ptr<streamloft::Browser> browser;
};

// Fractional sizes render at the truncated size, with every row in place.
TEST_F(FramesEndToEnd, KnownColoursArriveAsBGRAWithAlphaZeroWhereThePageIsTransparentAndFollowAResize)
{
    Open("frames_colours.html", 64.5, 48);
    // The first paints may come before the page has loaded.
    EXPECT_TRUE(host.WaitFor([&] { return host.last && ShowsTheColourPage(*host.last, 64, 48); }));
    ASSERT_EQ(AwaitRequest([&](auto done) { browser->Resize(96, 40, done); }), "");
    EXPECT_TRUE(host.WaitFor([&] { return host.last && ShowsTheColourPage(*host.last, 96, 40); }));
    {
        std::lock_guard<std::mutex> guard(host.lock);
        // Frames in flight at the resize may have the old size, never one after a new one.
        const auto firstNew = std::find(host.sizes.begin(), host.sizes.end(), std::make_pair(96u, 40u));
        EXPECT_TRUE(std::all_of(host.sizes.begin(), firstNew, [](auto s) { return s == std::make_pair(64u, 48u); }));
        EXPECT_TRUE(std::all_of(firstNew, host.sizes.end(), [](auto s) { return s == std::make_pair(96u, 40u); }));
    }
    ASSERT_EQ(AwaitRequest([&](auto done) { browser->Resize(1279.9, 720.5, done); }), "");
    EXPECT_TRUE(host.WaitFor([&] { return host.last && ShowsTheColourPage(*host.last, 1279, 720); }));
}

// A host that resizes an overlay on air, here in the middle of a page's
// animation at 30 fps, gets no frame at a new size before the page painted
// at that size: every frame of the page, which is opaque from edge to edge,
// arrives opaque at its corners.
TEST_F(FramesEndToEnd, AResizeDuringAnAnimationBringsNoFrameThePageHasNotPaintedEdgeToEdge)
{
    Open("port_resize_animation.html", 64, 48);
    // The first paints may come before the page has loaded.
    size_t loaded = 0;
    ASSERT_TRUE(host.WaitFor([&] { return loaded = host.sizes.size(), host.last && OpaqueCorners(*host.last); }));
    const std::pair<uint32_t, uint32_t> steps[] = {{160, 90}, {64, 48}, {320, 180}, {200, 60}, {96, 200}};
    for (auto [width, height] : steps) {
        ASSERT_EQ(AwaitRequest([&](auto done) { browser->Resize(width, height, done); }), "");
        ASSERT_TRUE(host.WaitFor([&] { return host.sizes.back() == std::make_pair(width, height); }));
        // Into the animation, a different way each time.
        std::this_thread::sleep_for(std::chrono::milliseconds(width % 70));
    }
    std::lock_guard<std::mutex> guard(host.lock);
    for (size_t i = loaded - 1; i < host.sizes.size(); ++i)
        EXPECT_TRUE(host.opaqueCorners[i])
            << "frame " << i << " of " << host.sizes[i].first << " x " << host.sizes[i].second;
}

// Every frame carries the service's frame number and paint time: numbers go
// up by one while the host keeps up, a host that holds 30 frames (all the
// service may have out) sees the frames dropped meanwhile as a gap once it
// lets go, and paint times rise and lie shortly before the frame's receipt.
TEST_F(FramesEndToEnd, FramesAreNumberedWithoutGapsUntilAHostHoldsThirtyAndCarryTheirPaintTime)
{
    {
        std::lock_guard<std::mutex> guard(host.lock);
        host.holdFrames = true;
    }
    Open("client_overlay.html", 64, 48);
    // The page repaints 20 times a second: 30 frames held, then more painted and dropped.
    ASSERT_TRUE(host.WaitFor([&] { return host.held.size() == 30; }, 60s));
    std::this_thread::sleep_for(500ms);
    size_t heldUntil = 0;
    {
        std::lock_guard<std::mutex> guard(host.lock);
        heldUntil = host.timings.size();
        host.holdFrames = false;
        host.held.clear();
    }
    ASSERT_TRUE(host.WaitFor([&] { return host.timings.size() >= heldUntil + 10; }));

    std::lock_guard<std::mutex> guard(host.lock);
    const auto& t = host.timings;
    EXPECT_EQ(heldUntil, 30u);
    EXPECT_GE(t.front().sequence, 1u);
    size_t gaps = 0;
    for (size_t i = 1; i < t.size(); ++i) {
        ASSERT_GT(t[i].sequence, t[i - 1].sequence) << i;
        ASSERT_GT(t[i].presentation, t[i - 1].presentation) << i;
        if (t[i].sequence != t[i - 1].sequence + 1) {
            ++gaps;
            EXPECT_EQ(i, heldUntil) << "a gap while the host kept up";
            EXPECT_GE(t[i].sequence - t[i - 1].sequence, 5u) << "half a second of a 20 fps page dropped";
        }
    }
    EXPECT_EQ(gaps, 1u);
    for (const auto& frame : t) {
        ASSERT_LE(frame.presentation, frame.received);
        // Generous: a loaded machine may take a while to pass a frame on.
        EXPECT_LT(frame.received - frame.presentation, 2000000u);
    }
}

} // namespace
