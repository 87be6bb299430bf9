// The engine wrapper, client and application object over a real engine
// port (PortUnderTest.h) in threaded mode: one process, one engine start.
#include "engine/CBrowserWrapper.h"
#include "tests/engine_port/PortUnderTest.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

using namespace SLF_ChromiumEmbeddedFramework;

namespace {

const std::string kPagesDir = SLF_TEST_PAGES_DIR;

struct Representation {
    std::mutex mutex;
    std::vector<unsigned char> frame;
    std::atomic<int> audioStops {0};
    std::atomic<long> audioBytes {0};

    static bool OnFrame(unsigned char* data, unsigned int size, void* context)
    {
        auto* self = static_cast<Representation*>(context);
        std::lock_guard<std::mutex> lock(self->mutex);
        return self->frame.assign(data, data + size), true;
    }
    static bool OnAudio(int, unsigned char*, unsigned int size, unsigned int rate, unsigned int, unsigned int,
                        void* context)
    {
        auto* self = static_cast<Representation*>(context);
        self->audioStops += size == 0 && rate == 0;
        return self->audioBytes += size, true;
    }
    // The BGRA bytes of a pixel read as one little-endian word, 0 outside the frame.
    uint32_t PixelAt(int width, int x, int y)
    {
        std::lock_guard<std::mutex> lock(mutex);
        const size_t at = (static_cast<size_t>(y) * width + x) * 4;
        uint32_t value = 0;
        return at + 4 <= frame.size() ? (std::memcpy(&value, frame.data() + at, 4), value) : 0;
    }
    size_t FrameSize()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return frame.size();
    }
};

bool WaitFor(const std::function<bool()>& done, int timeoutMs = 20000)
{
    for (auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs); !done(); usleep(5000))
        if (std::chrono::steady_clock::now() > deadline)
            return false;
    return true;
}

bool ProcessRuns(int pid)
{
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(stat, line);
    const size_t close = line.rfind(')');
    return close != std::string::npos && close + 2 < line.size() && line[close + 2] != 'Z';
}

constexpr uint32_t kRed = 0xFFFF0000, kBlue = 0xFF0000FF;

TEST(EngineWrapper, ThreadedEngineServesPagesAndStopsInTime)
{
    SetEnginePort(PortUnderTest::Create());
    CBrowserWrapper wrapper;
    ASSERT_TRUE(wrapper.StartCEF()) << "the engine did not start on the worker";

    Representation page;
    CAccessHandlingForRequestSettings access;
    const std::string url = "file://" + kPagesDir + "/wpe_port_colors.html";
    const int id = wrapper.StartBrowser(url, 150, 50, 30, Representation::OnFrame, Representation::OnAudio, &page,
                                        &access, nullptr, false);
    ASSERT_GT(id, 0);
    EXPECT_EQ(wrapper.GetUrl(id), url);
    EXPECT_TRUE(WaitFor([&] { return page.PixelAt(150, 25, 25) == kRed; })) << std::hex << page.PixelAt(150, 25, 25);
    EXPECT_EQ(page.PixelAt(150, 75, 25), kBlue) << "devicePixelRatio is not 1";
    EXPECT_EQ(page.FrameSize(), 150u * 50u * 4u);

    int pid = 0;
    EXPECT_TRUE(WaitFor([&] { return (pid = wrapper.GetRenderProcessId(id)) > 0; }));
    EXPECT_NE(pid, getpid());
    EXPECT_TRUE(ProcessRuns(pid)) << pid << " is no live process";
    EXPECT_EQ(wrapper.GetRenderProcessId(id + 100), 0);

    wrapper.SetRenderSize(id, 200, 80);
    EXPECT_TRUE(WaitFor([&] { return page.FrameSize() == 200u * 80u * 4u; }));

    // The close waits for OnBeforeClose, which removes the record.
    wrapper.StopBrowser(id);
    EXPECT_EQ(wrapper.GetRenderProcessId(id), 0) << "the browser record outlived its close";
    EXPECT_TRUE(WaitFor([&] { return !ProcessRuns(pid); })) << "web process " << pid << " still runs";

    // A page playing audio whose web process then hangs in a script: its
    // stream gets a stop signal with the close, and the engine stop has to
    // end the hung process within the wrapper's 2000 ms wait.
    Representation audio;
    const int second =
        wrapper.StartBrowser("file://" + kPagesDir + "/wpe_port_audio.html", 100, 50, 30, Representation::OnFrame,
                             Representation::OnAudio, &audio, &access, nullptr, false);
    ASSERT_GT(second, 0);
    EXPECT_TRUE(WaitFor([&] { return audio.audioBytes.load() > 0; })) << "no audio reached the callback";
    wrapper.ExecuteJavaScript(second, "for (;;) {}");
    wrapper.StopBrowser(second);
    EXPECT_TRUE(WaitFor([&] { return audio.audioStops.load() >= 1; })) << "no stop signal for the stream";

    const auto stopStart = std::chrono::steady_clock::now();
    wrapper.StopCEF();
    EXPECT_LT(std::chrono::steady_clock::now() - stopStart, std::chrono::milliseconds(2000));
    EXPECT_TRUE(PortUnderTest::RunningEngineProcesses().empty());
}

} // namespace
