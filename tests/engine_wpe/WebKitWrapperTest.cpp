// The engine wrapper, client and application object over the real WebKit
// port, in the wrapper's threaded mode (its own worker thread runs and
// pumps the engine): a page is started, painted into the frame callback,
// answers the render-process question, is resized, and a second page is
// stopped with its audio stream and its web process hanging in a script,
// which the engine stop has to end. One process, one engine start.
#include "engine/CBrowserWrapper.h"
#include "engine/wpe/WebKitEnginePort.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using namespace SLF_ChromiumEmbeddedFramework;

namespace {

const std::string kPagesDir = SLF_TEST_PAGES_DIR;

// What the service's window representation would see.
struct Representation {
    std::mutex mutex;
    std::vector<unsigned char> frame;
    std::atomic<int> frames{0};
    std::atomic<int> audioStarts{0};
    std::atomic<int> audioStops{0};
    std::atomic<long> audioBytes{0};

    uint32_t PixelAt(int width, int x, int y)
    {
        std::lock_guard<std::mutex> lock(mutex);
        const size_t at = (static_cast<size_t>(y) * width + x) * 4;
        if (at + 4 > frame.size())
            return 0;
        uint32_t value;
        std::memcpy(&value, frame.data() + at, 4);
        return value;
    }
};

bool OnFrame(unsigned char* data, unsigned int size, void* context)
{
    auto* representation = static_cast<Representation*>(context);
    std::lock_guard<std::mutex> lock(representation->mutex);
    representation->frame.assign(data, data + size);
    ++representation->frames;
    return true;
}

bool OnAudio(int, unsigned char*, unsigned int size, unsigned int rate, unsigned int channels, unsigned int bits,
             void* context)
{
    auto* representation = static_cast<Representation*>(context);
    if (size == 0 && rate == 0 && channels == 0 && bits == 0)
        ++representation->audioStops;
    else if (representation->audioBytes.fetch_add(size) == 0)
        ++representation->audioStarts;
    return true;
}

bool WaitFor(const std::function<bool()>& done, int timeoutMs = 20000)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        usleep(5000);
    }
    return true;
}

// BGRA bytes read as one little-endian word.
constexpr uint32_t kRed = 0xFFFF0000;

TEST(WebKitWrapper, ThreadedEngineServesAPageEndToEnd)
{
    SetEnginePort(CreateWebKitEnginePort());
    CBrowserWrapper wrapper;
    ASSERT_TRUE(wrapper.StartCEF()) << "the engine did not start on the worker";

    Representation page;
    CAccessHandlingForRequestSettings access;
    const int id = wrapper.StartBrowser("file://" + kPagesDir + "/wpe_port_colors.html", 150, 50, 30, OnFrame,
                                        OnAudio, &page, &access, nullptr, false);
    ASSERT_GT(id, 0);
    // The URL is known as soon as the browser is.
    EXPECT_EQ(wrapper.GetUrl(id), "file://" + kPagesDir + "/wpe_port_colors.html");

    // Frames of the requested size with the page's colours.
    EXPECT_TRUE(WaitFor([&] { return page.PixelAt(150, 25, 25) == kRed; })) << std::hex << page.PixelAt(150, 25, 25);
    {
        std::lock_guard<std::mutex> lock(page.mutex);
        EXPECT_EQ(page.frame.size(), 150u * 50u * 4u);
    }

    // The render-process question was asked at start; the answer is a live
    // process other than this one.
    int pid = 0;
    EXPECT_TRUE(WaitFor([&] { return (pid = wrapper.GetRenderProcessId(id)) > 0; }));
    EXPECT_NE(pid, getpid());

    // A resize is followed by frames of the new size.
    wrapper.SetRenderSize(id, 200, 80);
    EXPECT_TRUE(WaitFor([&] {
        std::lock_guard<std::mutex> lock(page.mutex);
        return page.frame.size() == 200u * 80u * 4u;
    }));

    wrapper.StopBrowser(id);
    EXPECT_EQ(wrapper.GetRenderProcessId(id), 0) << "the browser record outlived its close";

    // A second page plays audio: its stream starts and is stopped with the
    // browser.
    Representation audio;
    const int second = wrapper.StartBrowser("file://" + kPagesDir + "/wpe_port_audio.html", 100, 50, 30, OnFrame,
                                            OnAudio, &audio, &access, nullptr, false);
    ASSERT_GT(second, 0);
    EXPECT_NE(second, id);
    EXPECT_TRUE(WaitFor([&] { return audio.audioBytes.load() > 0; })) << "no audio reached the callback";
    // Its web process then hangs in a script, so the engine shutdown below
    // has to end a process that does not go by itself.
    wrapper.ExecuteJavaScript(second, "for (;;) {}");
    wrapper.StopBrowser(second);
    EXPECT_TRUE(WaitFor([&] { return audio.audioStops.load() >= 1; })) << "no stop signal for the stream";

    // StopCEF gives the worker 2000 ms and then abandons it: the engine
    // shutdown, hung web process included, has to end within that wait.
    const auto stopStart = std::chrono::steady_clock::now();
    wrapper.StopCEF();
    EXPECT_LT(std::chrono::steady_clock::now() - stopStart, std::chrono::milliseconds(2000));
    EXPECT_TRUE(WebKitEnginePort::RunningEngineProcesses().empty());
}

} // namespace
