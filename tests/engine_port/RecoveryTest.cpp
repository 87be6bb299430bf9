// A web process that hangs, under the engine wrapper on a real engine port
// (PortUnderTest.h): the port ends it and the browser goes on in a new one.
#include "engine/CBrowserWrapper.h"
#include "tests/engine_port/PortUnderTest.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <string>

using namespace SLF_ChromiumEmbeddedFramework;

namespace {

const std::string kPagesDir = SLF_TEST_PAGES_DIR;

std::atomic<long> g_nFrames {0};

bool OnFrame(unsigned char*, unsigned int, void*)
{
    ++g_nFrames;
    return true;
}

bool WaitFor(const std::function<bool()>& done, int timeoutMs)
{
    for (auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs); !done();
         usleep(20000))
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

TEST(EngineRecovery, AWebProcessThatStopsRespondingIsEndedAndTheBrowserGoesOnInANewOne)
{
    SetEnginePort(PortUnderTest::Create());
    CBrowserWrapper wrapper;
    ASSERT_TRUE(wrapper.StartCEF());
    CAccessHandlingForRequestSettings access;
    int context = 0;
    const int id = wrapper.StartBrowser("file://" + kPagesDir + "/wpe_port_colors.html", 150, 50, 30, OnFrame, nullptr,
                                        &context, &access, nullptr, false);
    ASSERT_GT(id, 0);
    ASSERT_TRUE(WaitFor([] { return g_nFrames.load() > 0; }, 60000)) << "no frame";
    int hung = 0;
    ASSERT_TRUE(WaitFor([&] { return (hung = wrapper.GetRenderProcessId(id)) > 0; }, 60000));

    wrapper.ExecuteJavaScript(id, "for (;;) {}");
    // The page is still: only a new process paints it again.
    const long framesBefore = g_nFrames.load();
    // WebKit measures a visible page's responsiveness when it sends it
    // input: a click every half second until the browser has a new process.
    int replacement = 0;
    const auto hangStart = std::chrono::steady_clock::now();
    EXPECT_TRUE(WaitFor(
        [&] {
            wrapper.EventMouseDown(id, 0, 10, 10, false);
            wrapper.EventMouseUp(id, 0, 10, 10);
            usleep(500000);
            replacement = wrapper.GetRenderProcessId(id);
            return replacement > 0 && replacement != hung;
        },
        90000))
        << "the browser was not given a new web process";
    EXPECT_GE(std::chrono::steady_clock::now() - hangStart, std::chrono::seconds(10))
        << "ended before it was unresponsive for 10 s";
    EXPECT_TRUE(WaitFor([&] { return !ProcessRuns(hung); }, 10000)) << "the hung process " << hung << " still runs";
    EXPECT_TRUE(WaitFor([&] { return g_nFrames.load() > framesBefore; }, 60000)) << "no frame from the new web process";
    EXPECT_TRUE(ProcessRuns(replacement));

    wrapper.StopBrowser(id);
    wrapper.StopCEF();
}

} // namespace
