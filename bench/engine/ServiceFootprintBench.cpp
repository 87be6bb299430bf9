// The service's footprint on the real engine, measured through the host
// library over the real socket, each figure against a baseline taken in the
// same run:
//   - open latency: OpenBrowser until BrowserDidStart, cold (the first open
//     starts the engine) and warm, against the round trip of a request that
//     the service answers without the engine;
//   - memory: the service's resident memory and the proportional memory of
//     the service with its web processes, with one and with three browsers,
//     against the running engine with no browser;
//   - idle processor use of the service process, as a share of one core,
//     with no browser once the engine has run (goal: at most 0.3 %: the pump
//     rests) and with three static pages (goal: at most 1 %), against the
//     service before its engine ever started; the share of the service with
//     its web processes is printed alongside.
//
//   bench_service_footprint [--seconds=S] [--settle=S] [--opens=N]
// Google Benchmark options (from scripts/bench) are ignored.
#include "streamloft/OverlayClient.h"
#include "support/ProcessTree.h"

#include <sys/prctl.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

struct Settings {
    double seconds = 10; // each processor-use window
    double settle = 3;   // after opening, before memory is read
    int opens = 5;       // warm open/close cycles
};

// A host that waits for the ID of its open request.
class WaitingHost : public streamloft::BrowserEvents {
public:
    void BrowserDidStart(streamloft::Browser&, int browserID) override { Started(browserID); }
    void BrowserDidFail(streamloft::Browser&, const streamloft::Error& error) override
    {
        if (!quiet)
            std::fprintf(stderr, "footprint: open refused: %s\n", error.Describe().c_str());
        Started(-1);
    }
    void Started(int browserID)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_started = browserID;
        m_startedAt = Clock::now();
        m_changed.notify_all();
    }
    void Reset()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_started = kNone;
    }
    // The ID and the time it arrived; kNone after 30 s.
    int Wait(Clock::time_point* at)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait_for(lock, 30s, [&] { return m_started != kNone; });
        *at = m_startedAt;
        return m_started;
    }
    static constexpr int kNone = -1000;
    bool quiet = false; // refusals are expected (round trips)

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_started = kNone;
    Clock::time_point m_startedAt;
};

struct Host {
    WaitingHost callbacks;
    std::unique_ptr<streamloft::OverlayClient> client;
    std::shared_ptr<streamloft::Browser> browser;
    int browserID = -1;
    std::shared_ptr<streamloft::BrowserEvents> events() { return {std::shared_ptr<void>(), &callbacks}; }
};

bool Connect(Host& host, const std::string& socket)
{
    streamloft::ConnectOptions options;
    options.socketPath = socket;
    options.startOnDemand = false;
    for (int attempt = 0; attempt < 100 && !host.client; ++attempt) {
        host.client = streamloft::OverlayClient::Connect(options);
        if (!host.client)
            std::this_thread::sleep_for(100ms);
    }
    return host.client != nullptr;
}

// Opens the page; the milliseconds until BrowserDidStart, or a negative
// value when no browser came.
double Open(Host& host, const std::string& url)
{
    host.callbacks.Reset();
    const auto start = Clock::now();
    host.browser = host.client->OpenBrowser({url, 1280, 720, 30, {"file://" SLF_BENCH_PAGES_DIR "/"}}, host.events());
    Clock::time_point at;
    host.browserID = host.callbacks.Wait(&at);
    if (host.browserID <= 0)
        return -1;
    return std::chrono::duration<double, std::milli>(at - start).count();
}

void Close(Host& host)
{
    if (host.browser)
        host.browser->Close();
    host.browser.reset();
    host.browserID = -1;
}

// Mean milliseconds of a request the service answers without the engine
// (an open of a URL that does not parse, refused with its typed error).
double RoundTrip(Host& host, int count)
{
    host.callbacks.quiet = true;
    const auto start = Clock::now();
    for (int i = 0; i < count; ++i) {
        host.callbacks.Reset();
        auto probe = host.client->OpenBrowser({"not a url", 64, 64, 30, {}}, host.events());
        Clock::time_point at;
        host.callbacks.Wait(&at);
    }
    host.callbacks.quiet = false;
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count() / count;
}

struct Memory {
    long serviceKiB = 0; // resident memory of the service process
    long treeKiB = 0;    // proportional memory of the service and its web processes
};

Memory ReadMemory(pid_t service)
{
    return {slfbench::ResidentKilobytes(service), slfbench::TreeProportionalKilobytes(service)};
}

struct Cpu {
    double service = 0; // share of one core, service process (scheduler's account, to the nanosecond)
    double tree = 0;    // share of one core, service and web processes (clock ticks)
};

Cpu MeasureCpu(pid_t service, double seconds)
{
    const slfbench::TreeTicks before = slfbench::ReadTreeTicks(service);
    const double serviceBefore = slfbench::ProcessCpuSeconds(service);
    const auto start = Clock::now();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    const slfbench::TreeTicks after = slfbench::ReadTreeTicks(service);
    const double serviceAfter = slfbench::ProcessCpuSeconds(service);
    const double wall = std::chrono::duration<double>(Clock::now() - start).count();
    Cpu cpu;
    cpu.tree = slfbench::CpuBetween(before, after, nullptr) / wall;
    cpu.service = (serviceAfter - serviceBefore) / wall;
    return cpu;
}

const char* Verdict(double share, double goal)
{
    return share <= goal ? "met" : "MISSED";
}

double Ratio(double value, double baseline)
{
    return baseline > 0 ? value / baseline : 0;
}

// A connection of its own for every browser: a connection that has closed
// its browser gets no further browser announced.
std::unique_ptr<Host> Connect(const std::string& socket)
{
    auto host = std::make_unique<Host>();
    if (!Connect(*host, socket)) {
        std::fprintf(stderr, "footprint: cannot connect to the service at %s\n", socket.c_str());
        return nullptr;
    }
    return host;
}

int Run(const Settings& settings, pid_t service, const std::string& socket)
{
    const std::string url = "file://" SLF_BENCH_PAGES_DIR "/static.html";
    std::unique_ptr<Host> first = Connect(socket);
    if (!first)
        return 1;
    const double roundTrip = RoundTrip(*first, 50);
    // The floor: a service with a connection whose engine never started.
    const Cpu neverCpu = MeasureCpu(service, settings.seconds);

    // Cold: the first open starts the engine.
    const double cold = Open(*first, url);
    if (cold < 0) {
        std::fprintf(stderr, "footprint: no browser (service log: %s.log)\n", socket.c_str());
        return 1;
    }
    Close(*first);

    // Warm opens, each on a new connection and closed again before the next.
    std::vector<double> warm;
    for (int i = 0; i < settings.opens; ++i) {
        std::unique_ptr<Host> host = Connect(socket);
        const double ms = host ? Open(*host, url) : -1;
        if (ms < 0) {
            std::fprintf(stderr, "footprint: warm open %d brought no browser\n", i + 1);
            return 1;
        }
        warm.push_back(ms);
        Close(*host);
    }
    std::sort(warm.begin(), warm.end());
    double warmMean = 0;
    for (double ms : warm)
        warmMean += ms / static_cast<double>(warm.size());

    // The running engine without a browser: the baseline of memory and
    // processor use (the closed views' web processes have had time to end).
    std::this_thread::sleep_for(std::chrono::duration<double>(settings.settle));
    const Memory idleMemory = ReadMemory(service);
    const Cpu idleCpu = MeasureCpu(service, settings.seconds);

    std::vector<std::unique_ptr<Host>> hosts;
    Memory oneMemory;
    for (int i = 0; i < 3; ++i) {
        hosts.push_back(Connect(socket));
        if (!hosts.back() || Open(*hosts.back(), url) < 0) {
            std::fprintf(stderr, "footprint: browser %d did not start\n", i + 1);
            return 1;
        }
        if (i == 0) {
            std::this_thread::sleep_for(std::chrono::duration<double>(settings.settle));
            oneMemory = ReadMemory(service);
        }
    }
    std::this_thread::sleep_for(std::chrono::duration<double>(settings.settle));
    const Memory threeMemory = ReadMemory(service);
    const Cpu threeCpu = MeasureCpu(service, settings.seconds);
    for (auto& host : hosts)
        Close(*host);

    std::printf("footprint: static overlay page, 1280x720 at 30 fps; service process %d\n", static_cast<int>(service));
    std::printf("footprint: request round trip (baseline)      %8.2f ms\n", roundTrip);
    std::printf("footprint: open -> BrowserDidStart, cold       %8.1f ms  (%.0fx round trip)\n", cold,
                Ratio(cold, roundTrip));
    std::printf(
        "footprint: open -> BrowserDidStart, warm       %8.1f ms mean, %.1f ms longest of %zu  (%.0fx round trip)\n",
        warmMean, warm.back(), warm.size(), Ratio(warmMean, roundTrip));
    std::printf(
        "footprint: memory, engine without browser      service RSS %6ld MiB, with web processes PSS %6ld MiB\n",
        idleMemory.serviceKiB / 1024, idleMemory.treeKiB / 1024);
    std::printf("footprint: memory, 1 browser                   service RSS %6ld MiB (%.2fx), with web processes PSS "
                "%6ld MiB (%.2fx)\n",
                oneMemory.serviceKiB / 1024, Ratio(oneMemory.serviceKiB, idleMemory.serviceKiB),
                oneMemory.treeKiB / 1024, Ratio(oneMemory.treeKiB, idleMemory.treeKiB));
    std::printf("footprint: memory, 3 browsers                  service RSS %6ld MiB (%.2fx), with web processes PSS "
                "%6ld MiB (%.2fx)\n",
                threeMemory.serviceKiB / 1024, Ratio(threeMemory.serviceKiB, idleMemory.serviceKiB),
                threeMemory.treeKiB / 1024, Ratio(threeMemory.treeKiB, idleMemory.treeKiB));
    std::printf("footprint: CPU, engine never started (baseline) service %5.3f %% of a core\n", 100 * neverCpu.service);
    std::printf("footprint: CPU, engine without browser         service %5.3f %% of a core (goal <= 0.3 %%: %s; "
                "baseline + %.3f), with web processes %5.2f %%\n",
                100 * idleCpu.service, Verdict(idleCpu.service, 0.003), 100 * (idleCpu.service - neverCpu.service),
                100 * idleCpu.tree);
    std::printf("footprint: CPU, 3 static pages                 service %5.3f %% of a core (goal <= 1 %%: %s; "
                "baseline + %.3f), with web processes %5.2f %% (%.2fx without browser)\n",
                100 * threeCpu.service, Verdict(threeCpu.service, 0.01), 100 * (threeCpu.service - neverCpu.service),
                100 * threeCpu.tree, Ratio(threeCpu.tree, idleCpu.tree));
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    Settings settings;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg.rfind("--seconds=", 0) == 0)
            settings.seconds = std::atof(arg.c_str() + 10);
        else if (arg.rfind("--settle=", 0) == 0)
            settings.settle = std::atof(arg.c_str() + 9);
        else if (arg.rfind("--opens=", 0) == 0)
            settings.opens = std::max(1, std::atoi(arg.c_str() + 8));
        else if (arg.rfind("--benchmark", 0) != 0) {
            std::fprintf(stderr, "usage: %s [--seconds=S] [--settle=S] [--opens=N]\n", argv[0]);
            return 2;
        }
    }
    // The service's web processes come back to this program when the
    // service ends, so nothing is left behind.
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    char pattern[] = "/tmp/slf-footprint-bench-XXXXXX";
    const std::string dir = mkdtemp(pattern);
    const std::string socket = dir + "/overlay-helper.sock";
    const pid_t service = slfbench::SpawnService(SLF_BENCH_HELPER_PATH, socket);
    const int status = Run(settings, service, socket);
    kill(service, SIGTERM);
    slfbench::ReapDescendants(5s);
    std::filesystem::remove_all(dir);
    return status;
}
