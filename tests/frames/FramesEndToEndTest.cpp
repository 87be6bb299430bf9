// Frames from a real page to a real host: the service started on demand on
// a socket in a temporary folder, the WebKit engine rendering the test pages,
// and the host library receiving and mapping the surfaces.
#include "streamloft/OverlayClient.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <stdlib.h>

#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <optional>
#include <sstream>
#include <thread>
#include <vector>

using namespace std::chrono_literals;

namespace {

const std::string kPages = SLF_TEST_PAGES_DIR;

struct ReceivedFrame {
    std::shared_ptr<const streamloft::VideoFrame> frame; // held only when asked to
    uint32_t width;
    uint32_t height;
};

class FrameHost : public streamloft::OverlayCallbacks {
public:
    void BrowserDidStart(int browserID) override
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_browserID = browserID;
        m_changed.notify_all();
    }
    void BrowserReceivedVideoFrame(int, std::shared_ptr<const streamloft::VideoFrame> frame) override
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_frames.push_back({m_hold ? frame : nullptr, frame->width(), frame->height()});
        m_last = frame; // the newest frame is always kept, for its pixels
        m_changed.notify_all();
    }

    std::optional<int> WaitForStart()
    {
        std::unique_lock<std::mutex> guard(m_lock);
        if (!m_changed.wait_for(guard, 60s, [&] { return m_browserID.has_value(); }))
            return std::nullopt;
        return m_browserID;
    }
    // Waits until pred(frames) holds; false after the time-out.
    template <typename Pred>
    bool WaitFor(Pred pred, std::chrono::milliseconds timeout = 30s)
    {
        std::unique_lock<std::mutex> guard(m_lock);
        return m_changed.wait_for(guard, timeout, [&] { return pred(m_frames); });
    }
    size_t Count()
    {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_frames.size();
    }
    std::shared_ptr<const streamloft::VideoFrame> Last()
    {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_last;
    }
    std::vector<ReceivedFrame> Frames()
    {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_frames;
    }
    void Hold(bool hold)
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_hold = hold;
    }
    // Lets go of every frame (the newest included).
    void ReleaseAll()
    {
        std::lock_guard<std::mutex> guard(m_lock);
        for (auto& f : m_frames)
            f.frame.reset();
        m_last.reset();
    }

private:
    std::mutex m_lock;
    std::condition_variable m_changed;
    std::optional<int> m_browserID;
    std::vector<ReceivedFrame> m_frames;
    std::shared_ptr<const streamloft::VideoFrame> m_last;
    bool m_hold = false;
};

// 0xAARRGGBB of one pixel of a BGRA frame.
uint32_t Pixel(const streamloft::VideoFrame& frame, uint32_t x, uint32_t y)
{
    const uint8_t* p = frame.row(y) + x * 4;
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

class FramesEndToEnd : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        char pattern[] = "/tmp/slf-frames-XXXXXX";
        s_dir = mkdtemp(pattern);
        s_socket = s_dir + "/overlay-helper.sock";
    }
    static void TearDownTestSuite()
    {
        // The service outlives its hosts; stop the one these tests started.
        if (s_servicePid > 0) {
            kill(s_servicePid, SIGTERM);
            for (int i = 0; i < 100 && kill(s_servicePid, 0) == 0; ++i)
                std::this_thread::sleep_for(50ms);
            if (kill(s_servicePid, 0) == 0)
                kill(s_servicePid, SIGKILL);
        }
        std::filesystem::remove_all(s_dir);
    }

    void SetUp() override
    {
        streamloft::ConnectOptions options;
        options.socketPath = s_socket;
        options.helperPath = SLF_TEST_HELPER_PATH;
        options.startTimeout = 20s;
        std::string error;
        m_client = streamloft::OverlayClient::Connect(m_host, options, &error);
        ASSERT_TRUE(m_client) << error;
        if (m_client->StartedService())
            s_servicePid = m_client->ServiceProcessID();
    }
    void TearDown() override { m_client.reset(); }

    int Open(const std::string& page, double width, double height, double fps = 30)
    {
        std::string error;
        EXPECT_TRUE(m_client->OpenBrowser("file://" + kPages + "/" + page, width, height, fps,
                                          {"file://" + kPages + "/"}, &error))
            << error;
        auto id = m_host.WaitForStart();
        EXPECT_TRUE(id && *id >= 0);
        return id ? *id : -1;
    }
    std::string ServiceLog()
    {
        std::ifstream in(s_socket + ".log");
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }

    static inline std::string s_dir;
    static inline std::string s_socket;
    static inline pid_t s_servicePid = -1;
    FrameHost m_host;
    std::unique_ptr<streamloft::OverlayClient> m_client;
};

TEST_F(FramesEndToEnd, KnownColoursArriveAsBGRAWithAlphaZeroWhereThePageIsTransparent)
{
    ASSERT_GE(Open("frames_colours.html", 64, 48), 0);
    // The first paints may come before the page has loaded; wait for the
    // red quarter.
    ASSERT_TRUE(m_host.WaitFor([](const std::vector<ReceivedFrame>& frames) { return !frames.empty(); }));
    std::shared_ptr<const streamloft::VideoFrame> frame;
    for (int attempt = 0; attempt < 300; ++attempt) {
        frame = m_host.Last();
        if (frame && Pixel(*frame, 8, 8) == 0xFFFF0000u)
            break;
        std::this_thread::sleep_for(20ms);
    }
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->width(), 64u);
    EXPECT_EQ(frame->height(), 48u);
    EXPECT_EQ(frame->pixelFormat(), streamloft::kPixelFormatBGRA);
    EXPECT_GE(frame->stride(), 64u * 4u);
    EXPECT_EQ(Pixel(*frame, 8, 8), 0xFFFF0000u);   // red
    EXPECT_EQ(Pixel(*frame, 40, 8), 0xFF00FF00u);  // green
    EXPECT_EQ(Pixel(*frame, 8, 40), 0xFF0000FFu);  // blue
    EXPECT_EQ(Pixel(*frame, 40, 40), 0x00000000u); // transparent
    EXPECT_EQ(Pixel(*frame, 63, 47), 0x00000000u);
}

TEST_F(FramesEndToEnd, AfterAResizeOnlyFramesOfTheNewSizeArrive)
{
    const int id = Open("frames_animated.html", 64, 48);
    ASSERT_GE(id, 0);
    ASSERT_TRUE(m_host.WaitFor([](const std::vector<ReceivedFrame>& f) { return f.size() >= 3; }));
    std::string error;
    ASSERT_TRUE(m_client->UpdateBrowserSize(id, 96, 40, &error)) << error;
    const size_t atResize = m_host.Count();
    ASSERT_TRUE(m_host.WaitFor([&](const std::vector<ReceivedFrame>& f) { return f.size() >= atResize + 5; }));

    const auto frames = m_host.Frames();
    size_t firstNew = frames.size();
    for (size_t i = 0; i < frames.size(); ++i) {
        if (frames[i].width == 96) {
            firstNew = i;
            break;
        }
    }
    ASSERT_LT(firstNew, frames.size());
    for (size_t i = 0; i < firstNew; ++i)
        EXPECT_TRUE(frames[i].width == 64 && frames[i].height == 48) << i;
    for (size_t i = std::max(firstNew, atResize); i < frames.size(); ++i)
        EXPECT_TRUE(frames[i].width == 96 && frames[i].height == 40) << "frame " << i << " after the resize";
    for (size_t i = firstNew; i < frames.size(); ++i)
        EXPECT_EQ(frames[i].width, 96u) << "old size after a new one, frame " << i;
}

TEST_F(FramesEndToEnd, AHostHoldingThirtyFramesLosesFramesSilentlyUntilItLetsGo)
{
    m_host.Hold(true);
    ASSERT_GE(Open("frames_animated.html", 32, 32), 0);
    ASSERT_TRUE(m_host.WaitFor([](const std::vector<ReceivedFrame>& f) { return f.size() >= 30; }));
    const std::string logBefore = ServiceLog();
    // The page animates at 30 frames a second: a second without frames means
    // the service is dropping them.
    std::this_thread::sleep_for(1s);
    EXPECT_EQ(m_host.Count(), 30u);
    EXPECT_EQ(ServiceLog(), logBefore);

    m_host.Hold(false);
    m_host.ReleaseAll();
    ASSERT_TRUE(m_host.WaitFor([](const std::vector<ReceivedFrame>& f) { return f.size() >= 40; }));
}

} // namespace
