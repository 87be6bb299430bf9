// Measures the WebKit port: creation and first-paint latency (cold and warm
// engine), memory with one and three browsers, and the pump's processor
// use with three pages at the service's 600 Hz pump rate (static by default;
// give an animated page to see the frame rate the pacing delivers).
// Usage: engine_wpe_probe [page-url] [seconds-of-pumping]
#include "engine/wpe/WebKitEnginePort.h"

#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

using namespace SLF_ChromiumEmbeddedFramework;
using Clock = std::chrono::steady_clock;

namespace {

class ProbeClient : public EngineClient, public EngineRenderHandler, public EngineLifeSpanHandler {
public:
    EngineRenderHandler* GetRenderHandler() override { return this; }
    EngineLifeSpanHandler* GetLifeSpanHandler() override { return this; }
    bool GetViewRect(EngineBrowserRef, EngineRect& rect) override
    {
        rect = {0, 0, 1280, 720};
        return true;
    }
    void OnPaint(EngineBrowserRef, const void*, int, int) override
    {
        if (!paints++)
            firstPaint = Clock::now();
    }
    void OnCursorChange(EngineBrowserRef, EngineCursorType) override {}
    void OnAfterCreated(EngineBrowserRef b) override
    {
        browser = b;
        created = Clock::now();
    }
    void OnBeforeClose(EngineBrowserRef) override {}
    bool OnBeforePopup(EngineBrowserRef, const std::string&) override { return true; }

    EngineBrowserRef browser;
    int paints = 0;
    Clock::time_point created;
    Clock::time_point firstPaint;
};

// A "Key: value kB" entry of a /proc file.
long ProcKiB(const std::string& file, const std::string& wanted)
{
    std::ifstream status(file);
    std::string key;
    while (status >> key) {
        if (key == wanted) {
            long value = 0;
            status >> value;
            return value;
        }
        status.ignore(4096, '\n');
    }
    return 0;
}

long ProcessTicks(int pid)
{
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(stat, line);
    const size_t close = line.rfind(')');
    if (close == std::string::npos)
        return 0;
    std::vector<std::string> fields;
    size_t start = close + 2;
    while (start < line.size()) {
        size_t end = line.find(' ', start);
        if (end == std::string::npos)
            end = line.size();
        fields.push_back(line.substr(start, end - start));
        start = end + 1;
    }
    // Fields after "comm": state is 0, utime 11, stime 12.
    return fields.size() > 12 ? std::stol(fields[11]) + std::stol(fields[12]) : 0;
}

double Ms(Clock::duration d)
{
    return std::chrono::duration<double, std::milli>(d).count();
}

void ReportMemory(const char* label)
{
    long helpers = 0;
    long helpersPss = 0;
    std::string list;
    for (const auto& process : WebKitEnginePort::RunningEngineProcesses()) {
        const std::string proc = "/proc/" + std::to_string(process.first);
        const long rss = ProcKiB(proc + "/status", "VmRSS:");
        const long pss = ProcKiB(proc + "/smaps_rollup", "Pss:");
        helpers += rss;
        helpersPss += pss;
        list += " " + std::string(process.second ? "network" : "web") + "=" + std::to_string(rss / 1024) + "/" +
                std::to_string(pss / 1024);
    }
    const long self = ProcKiB("/proc/self/status", "VmRSS:");
    const long selfPss = ProcKiB("/proc/self/smaps_rollup", "Pss:");
    std::printf("memory %s, RSS/PSS MiB: service %ld/%ld, engine helpers %ld/%ld [%s ], total %ld/%ld\n", label,
                self / 1024, selfPss / 1024, helpers / 1024, helpersPss / 1024, list.c_str(),
                (self + helpers) / 1024, (selfPss + helpersPss) / 1024);
}

// Runs body at 600 Hz on absolute deadlines, as the service's timer does;
// returns the calling thread's processor time in percent of one core.
double PumpAt600Hz(int seconds, const std::function<void()>& body, long& passes)
{
    struct rusage before = {};
    getrusage(RUSAGE_THREAD, &before);
    const auto start = Clock::now();
    struct timespec next = {};
    clock_gettime(CLOCK_MONOTONIC, &next);
    passes = 0;
    while (Clock::now() - start < std::chrono::seconds(seconds)) {
        next.tv_nsec += 1666667;
        if (next.tv_nsec >= 1000000000) {
            next.tv_nsec -= 1000000000;
            ++next.tv_sec;
        }
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr);
        body();
        ++passes;
    }
    struct rusage after = {};
    getrusage(RUSAGE_THREAD, &after);
    const double wall = std::chrono::duration<double>(Clock::now() - start).count();
    auto secondsOf = [](const timeval& t) { return t.tv_sec + t.tv_usec / 1e6; };
    const double cpu = secondsOf(after.ru_utime) - secondsOf(before.ru_utime) + secondsOf(after.ru_stime) -
                       secondsOf(before.ru_stime);
    return 100.0 * cpu / wall;
}

} // namespace

int main(int argc, char** argv)
{
    const std::string url =
        argc > 1 ? argv[1] : std::string("file://") + SLF_TEST_PAGES_DIR + "/wpe_port_colors.html";
    const int seconds = argc > 2 ? std::atoi(argv[2]) : 10;

    WebKitEnginePort port;
    const auto initStart = Clock::now();
    if (!port.Initialize(EngineSettings(), nullptr)) {
        std::fprintf(stderr, "engine did not start\n");
        return 1;
    }
    std::printf("Initialize: %.1f ms\n", Ms(Clock::now() - initStart));

    auto pumpUntil = [&](const std::function<bool()>& done, int timeoutMs) {
        const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
        while (!done() && Clock::now() < deadline) {
            port.DoMessageLoopWork();
            usleep(500);
        }
        return done();
    };

    std::vector<std::unique_ptr<ProbeClient>> clients;
    auto open = [&](const char* label) {
        clients.push_back(std::make_unique<ProbeClient>());
        ProbeClient& client = *clients.back();
        EngineWindowInfo windowInfo;
        windowInfo.SetAsWindowless(nullptr);
        EngineBrowserSettings settings;
        settings.windowless_frame_rate = 60;
        const auto start = Clock::now();
        port.CreateBrowser(windowInfo, &client, url, settings);
        if (!pumpUntil([&] { return client.paints > 0; }, 20000)) {
            std::printf("%s: no paint\n", label);
            return;
        }
        std::printf("%s: CreateBrowser -> OnAfterCreated %.3f ms, -> first OnPaint %.1f ms\n", label,
                    Ms(client.created - start), Ms(client.firstPaint - start));
    };

    open("browser 1 (cold engine)");
    pumpUntil([] { return false; }, 2000);
    ReportMemory("with 1 browser");
    open("browser 2 (warm engine)");
    open("browser 3 (warm engine)");
    pumpUntil([] { return false; }, 2000);
    ReportMemory("with 3 browsers");

    // First the same 600 Hz loop with nothing to do: the price of the
    // wake-ups alone. Then the pump.
    long passes = 0;
    const double idle = PumpAt600Hz(seconds, [] {}, passes);
    std::printf("600 Hz loop without the pump: %ld passes, CPU %.2f %% of one core\n", passes, idle);
    std::vector<std::pair<int, long>> helperTicks;
    for (const auto& process : WebKitEnginePort::RunningEngineProcesses())
        helperTicks.emplace_back(process.first, ProcessTicks(process.first));
    int paintsBefore = 0;
    for (const auto& client : clients)
        paintsBefore += client->paints;
    const double pumped = PumpAt600Hz(seconds, [&] { port.DoMessageLoopWork(); }, passes);
    int paintsAfter = 0;
    for (const auto& client : clients)
        paintsAfter += client->paints;
    long helperDelta = 0;
    for (const auto& entry : helperTicks)
        helperDelta += ProcessTicks(entry.first) - entry.second;
    std::printf("pump thread at 600 Hz, 3 pages: %ld passes, CPU %.2f %% of one core; "
                "engine helpers %.2f %% of one core; %.1f frames/s per browser (60 requested)\n",
                passes, pumped, 100.0 * helperDelta / sysconf(_SC_CLK_TCK) / seconds,
                (paintsAfter - paintsBefore) / 3.0 / seconds);

    port.Shutdown();
    return 0;
}
