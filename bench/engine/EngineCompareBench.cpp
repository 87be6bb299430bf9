// The two engine ports side by side: the service on WPE WebKit
// (StreamloftCEFOverlayHelper) against the service on WebKitGTK
// (StreamloftCEFOverlayHelperGtk), run one after the other in pairs.
//
// Per run: the service renders the animated overlay page at 1280x720 at the
// requested rate to a host in this program; after a warm-up, a window of
// --seconds counts the frames that reached the host and the processor time
// of the service's whole process tree (the service, its web and network
// processes, the WebKitGTK port's display server and sandbox helpers; not
// this program). Also: time from the open request to the first frame, and
// proportional memory (Pss) of the service, its web processes and the rest.
//
// With --modern=BASE_URL, each engine also opens BASE_URL + webgl2.html,
// importmap.html and three.html (pages that turn green when the feature
// works and red when it does not) and the centre pixel is reported, and
// raf.html at 10 and 30 frames a second gives the page's animation rate.
//
//   bench_engines [--seconds=S] [--warmup=S] [--repeat=N] [--fps=30,60] [--modern=URL]
#include "streamloft/OverlayClient.h"
#include "support/ProcessTree.h"

#include <sys/prctl.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;

namespace {

constexpr int kWidth = 1280;
constexpr int kHeight = 720;

struct Engine {
    const char* name;
    const char* helper;
};
const Engine kEngines[] = {{"wpe", SLF_BENCH_WPE_HELPER_PATH}, {"gtk", SLF_BENCH_GTK_HELPER_PATH}};

struct Options {
    double seconds = 10;
    double warmup = 4;
    int repeat = 3;
    std::vector<int> rates {30, 60};
    std::string modernBase;
    // The animation rate alone (with --modern), at the --fps rates when given.
    bool animationOnly = false;
    bool ratesGiven = false;
};

class Host : public streamloft::BrowserEvents {
public:
    // A non-owning handle for OpenBrowser: the host outlives its client.
    std::shared_ptr<streamloft::BrowserEvents> events() { return {std::shared_ptr<void>(), this}; }
    void BrowserReceivedVideoFrame(streamloft::Browser&, std::shared_ptr<const streamloft::VideoFrame> frame) override
    {
        // Touch the frame as a host would, and keep its centre pixel.
        const uint8_t* p = frame->row(frame->height() / 2) + (frame->width() / 2) * 4;
        uint32_t pixel = static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
                         static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
        centre.store(pixel);
        if (frames.fetch_add(1) == 0)
            firstFrame = std::chrono::steady_clock::now();
    }
    std::atomic<uint64_t> frames {0};
    std::atomic<uint32_t> centre {0};
    std::chrono::steady_clock::time_point firstFrame;
};

struct Run {
    bool ok = false;
    uint64_t frames = 0;
    double wall = 0;
    double cpu = 0;
    double firstFrameMs = 0;
    std::map<std::string, double> cpuByGroup;
    std::map<std::string, double> pssMiB;
    double Fps() const { return wall > 0 ? frames / wall : 0; }
    double MsPerFrame() const { return frames ? 1000.0 * cpu / static_cast<double>(frames) : 0; }
};

// Process groups of a service's tree, by command name.
std::string GroupOf(const std::string& name, pid_t pid, pid_t service)
{
    if (pid == service)
        return "service";
    if (name.rfind("WPEWebProcess", 0) == 0 || name.rfind("WebKitWebProces", 0) == 0)
        return "web";
    if (name.rfind("WPENetwork", 0) == 0 || name.rfind("WebKitNetworkPr", 0) == 0)
        return "network";
    if (name == "weston" || name == "Xvfb")
        return "display";
    return "other"; // sandbox launchers, D-Bus proxies
}

struct Service {
    pid_t pid = -1;
    std::string dir;
    std::string socket;
};

Service Start(const Engine& engine)
{
    Service s;
    char pattern[] = "/tmp/slf-engines-bench-XXXXXX";
    s.dir = mkdtemp(pattern);
    s.socket = s.dir + "/overlay-helper.sock";
    // Each executable runs the other when the other engine is asked for, and
    // its own only when asked for or by default: the engine is named.
    s.pid = slfbench::SpawnService(engine.helper, s.socket, engine.name);
    return s;
}

void Stop(const Service& s)
{
    kill(s.pid, SIGTERM);
    slfbench::ReapDescendants(5s);
    std::error_code ignored;
    std::filesystem::remove_all(s.dir, ignored);
}

std::unique_ptr<streamloft::OverlayClient> Connect(const Service& s)
{
    streamloft::ConnectOptions options;
    options.socketPath = s.socket;
    options.startOnDemand = false;
    for (int attempt = 0; attempt < 100; ++attempt) {
        if (auto client = streamloft::OverlayClient::Connect(options))
            return client;
        std::this_thread::sleep_for(100ms);
    }
    return nullptr;
}

Run Measure(const Engine& engine, int fps, const Options& o)
{
    Run r;
    const Service s = Start(engine);
    Host host;
    auto client = Connect(s);
    const std::string url = "file://" SLF_BENCH_PAGES_DIR "/animated.html";
    const auto opened = std::chrono::steady_clock::now();
    std::shared_ptr<streamloft::Browser> browser;
    if (!client || !(browser = client->OpenBrowser(
                         {url, double(kWidth), double(kHeight), double(fps), {"file://" SLF_BENCH_PAGES_DIR "/"}},
                         host.events()))) {
        std::fprintf(stderr, "engines: %s: cannot connect to the service\n", engine.name);
        client.reset();
        Stop(s);
        return r;
    }
    for (int i = 0; i < 300 && host.frames.load() == 0; ++i)
        std::this_thread::sleep_for(100ms);
    if (host.frames.load() > 0)
        r.firstFrameMs = std::chrono::duration<double, std::milli>(host.firstFrame - opened).count();
    std::this_thread::sleep_for(std::chrono::duration<double>(o.warmup));

    const auto start = std::chrono::steady_clock::now();
    const slfbench::TreeTicks before = slfbench::ReadTreeTicks(s.pid);
    const uint64_t frames0 = host.frames.load();
    std::this_thread::sleep_for(std::chrono::duration<double>(o.seconds));
    r.frames = host.frames.load() - frames0;
    const slfbench::TreeTicks after = slfbench::ReadTreeTicks(s.pid);
    r.wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    for (const auto& [pid, t] : after) {
        auto it = before.find(pid);
        const unsigned long long base = it != before.end() && it->second.name == t.name ? it->second.ticks : 0;
        const double spent = slfbench::TicksToSeconds(t.ticks >= base ? t.ticks - base : 0);
        r.cpu += spent;
        const std::string group = GroupOf(t.name, pid, s.pid);
        r.cpuByGroup[group] += spent;
        r.pssMiB[group] += slfbench::ReadKilobytes(pid, "smaps_rollup", "Pss") / 1024.0;
    }
    r.ok = r.frames > 0;
    client.reset();
    Stop(s);
    return r;
}

// The page's requestAnimationFrame rate at a requested frame rate: the red
// channel of raf.html after 8 s, with the delivered rate of the last 4 s.
std::string ProbeAnimationRate(const Engine& engine, const std::string& url, int fps)
{
    const Service s = Start(engine);
    Host host;
    auto client = Connect(s);
    std::string result = "no frame";
    std::shared_ptr<streamloft::Browser> browser;
    if (client && (browser = client->OpenBrowser({url, 64, 64, double(fps), {}}, host.events()))) {
        std::this_thread::sleep_for(4s);
        const uint64_t frames0 = host.frames.load();
        std::this_thread::sleep_for(4s);
        const uint64_t frames = host.frames.load() - frames0;
        if (frames > 0) {
            char text[96];
            std::snprintf(text, sizeof text, "%u rAF/s, %.1f frames/s delivered",
                          static_cast<unsigned>((host.centre.load() >> 16) & 0xFF), frames / 4.0);
            result = text;
        }
    }
    client.reset();
    Stop(s);
    return result;
}

// Opens a feature page and reads the centre pixel after it had time to run.
std::string Probe(const Engine& engine, const std::string& url)
{
    const Service s = Start(engine);
    Host host;
    auto client = Connect(s);
    std::string result = "no frame";
    std::shared_ptr<streamloft::Browser> browser;
    if (client && (browser = client->OpenBrowser({url, 640, 360, 30, {}}, host.events()))) {
        // Up to 20 s for green; red or another colour is kept as it stands.
        for (int i = 0; i < 200; ++i) {
            std::this_thread::sleep_for(100ms);
            if (host.frames.load() == 0)
                continue;
            const uint32_t p = host.centre.load();
            const int b = p & 0xFF, g = (p >> 8) & 0xFF, r = (p >> 16) & 0xFF, a = p >> 24;
            char text[64];
            std::snprintf(text, sizeof text, "BGRA %d,%d,%d,%d", b, g, r, a);
            const bool green = g > 200 && r < 60 && b < 60;
            result = std::string(green ? "works" : (r > 200 && g < 60 ? "FAILS" : "unclear")) + " (" + text + ")";
            if (green)
                break;
        }
    }
    client.reset();
    Stop(s);
    return result;
}

double Median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : (v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2);
}

void PrintRun(const char* engine, int fps, int rep, const Run& r)
{
    std::printf(
        "engines: %-3s @%d #%d: %4llu frames in %5.2f s = %5.1f fps, CPU %6.2f s = %6.2f ms/frame "
        "(service %.2f, web %.2f, network %.2f, display %.2f, other %.2f s), first frame %6.0f ms, "
        "Pss MiB service %.0f web %.0f network %.0f display %.0f other %.0f\n",
        engine, fps, rep, static_cast<unsigned long long>(r.frames), r.wall, r.Fps(), r.cpu, r.MsPerFrame(),
        r.cpuByGroup.count("service") ? r.cpuByGroup.at("service") : 0.0,
        r.cpuByGroup.count("web") ? r.cpuByGroup.at("web") : 0.0,
        r.cpuByGroup.count("network") ? r.cpuByGroup.at("network") : 0.0,
        r.cpuByGroup.count("display") ? r.cpuByGroup.at("display") : 0.0,
        r.cpuByGroup.count("other") ? r.cpuByGroup.at("other") : 0.0, r.firstFrameMs,
        r.pssMiB.count("service") ? r.pssMiB.at("service") : 0.0, r.pssMiB.count("web") ? r.pssMiB.at("web") : 0.0,
        r.pssMiB.count("network") ? r.pssMiB.at("network") : 0.0,
        r.pssMiB.count("display") ? r.pssMiB.at("display") : 0.0, r.pssMiB.count("other") ? r.pssMiB.at("other") : 0.0);
    std::fflush(stdout);
}

} // namespace

int main(int argc, char** argv)
{
    Options o;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg.rfind("--seconds=", 0) == 0)
            o.seconds = std::atof(arg.c_str() + 10);
        else if (arg.rfind("--warmup=", 0) == 0)
            o.warmup = std::atof(arg.c_str() + 9);
        else if (arg.rfind("--repeat=", 0) == 0)
            o.repeat = std::max(1, std::atoi(arg.c_str() + 9));
        else if (arg.rfind("--fps=", 0) == 0) {
            o.rates.clear();
            o.ratesGiven = true;
            std::stringstream list(arg.substr(6));
            std::string item;
            while (std::getline(list, item, ','))
                o.rates.push_back(std::atoi(item.c_str()));
        } else if (arg.rfind("--modern=", 0) == 0)
            o.modernBase = arg.substr(9);
        else if (arg == "--animation-only")
            o.animationOnly = true;
        else if (arg.rfind("--benchmark", 0) != 0) {
            std::fprintf(stderr,
                         "usage: %s [--seconds=S] [--warmup=S] [--repeat=N] [--fps=30,60] [--modern=URL] "
                         "[--animation-only]\n",
                         argv[0]);
            return 2;
        }
    }
    // Orphans of a run (web processes, sandbox helpers) come back to this
    // program: their time is counted and nothing is left behind.
    prctl(PR_SET_CHILD_SUBREAPER, 1);

    int status = 0;
    for (int fps : o.animationOnly ? std::vector<int>() : o.rates) {
        std::map<std::string, std::vector<double>> msPerFrame, rate, first;
        std::vector<double> ratios;
        for (int rep = 1; rep <= o.repeat; ++rep) {
            // Pairs back to back, the order alternating, so a change in the
            // machine's load falls on both.
            const bool gtkFirst = rep % 2 == 0;
            Run runs[2];
            for (int k = 0; k < 2; ++k) {
                const int e = gtkFirst ? 1 - k : k;
                runs[e] = Measure(kEngines[e], fps, o);
                PrintRun(kEngines[e].name, fps, rep, runs[e]);
            }
            for (int e = 0; e < 2; ++e) {
                if (!runs[e].ok)
                    continue;
                msPerFrame[kEngines[e].name].push_back(runs[e].MsPerFrame());
                rate[kEngines[e].name].push_back(runs[e].Fps());
                first[kEngines[e].name].push_back(runs[e].firstFrameMs);
            }
            if (runs[0].ok && runs[1].ok)
                ratios.push_back(runs[1].MsPerFrame() / runs[0].MsPerFrame());
            else
                status = 1;
        }
        for (const char* name : {"wpe", "gtk"}) {
            const auto& m = msPerFrame[name];
            if (m.empty())
                continue;
            std::printf("engines: %-3s @%d summary: %.2f ms CPU/frame median (%.2f to %.2f), %.1f fps median "
                        "(%.1f to %.1f), first frame %.0f ms median\n",
                        name, fps, Median(m), *std::min_element(m.begin(), m.end()),
                        *std::max_element(m.begin(), m.end()), Median(rate[name]),
                        *std::min_element(rate[name].begin(), rate[name].end()),
                        *std::max_element(rate[name].begin(), rate[name].end()), Median(first[name]));
        }
        if (!ratios.empty())
            std::printf("engines: @%d CPU per delivered frame, gtk / wpe (pairs): %.2f median (%.2f to %.2f)\n", fps,
                        Median(ratios), *std::min_element(ratios.begin(), ratios.end()),
                        *std::max_element(ratios.begin(), ratios.end()));
        std::fflush(stdout);
    }

    if (!o.modernBase.empty()) {
        for (const char* page : {"webgl2.html", "importmap.html", "three.html"}) {
            if (o.animationOnly)
                break;
            for (const Engine& engine : kEngines)
                std::printf("engines: modern %-15s %-3s %s\n", page, engine.name,
                            Probe(engine, o.modernBase + page).c_str());
            std::fflush(stdout);
        }
        const std::vector<int> animationRates = o.animationOnly && o.ratesGiven ? o.rates : std::vector<int> {10, 30};
        for (int fps : animationRates) {
            for (const Engine& engine : kEngines)
                std::printf("engines: animation rate @%-2d %-3s %s\n", fps, engine.name,
                            ProbeAnimationRate(engine, o.modernBase + "raf.html", fps).c_str());
            std::fflush(stdout);
        }
    }
    return status;
}
