// Machine CPU time per delivered frame of an animated overlay page at
// 1280x720 and 30 frames a second: this service (WebKit engine, frame
// delivery over the socket, a host that receives and maps every frame)
// against GStreamer's wpevideosrc rendering the same page into a fakesink
// (the pipeline `gst-launch-1.0 wpevideosrc location=... !
// video/x-raw,width=1280,height=720,framerate=30/1 ! fakesink`), run in the
// same run, one after the other.
//
// CPU time is that of every process of the run (this program, the service
// or the GStreamer process, the web processes they start), read from /proc
// at the start and the end of a measuring window after a warm-up; frames
// are those that reached the host or the sink in that window.
//
//   bench_frames_end_to_end [--warmup=S] [--seconds=S] [--transparent-reference]
// --transparent-reference runs wpevideosrc with draw-background=false, the
// way an overlay page is rendered (transparent where the page draws nothing).
// Google Benchmark options (from scripts/bench) are ignored.
#include "streamloft/OverlayClient.h"
#include "support/ProcessTree.h"

#include <gst/gst.h>

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>

using namespace std::chrono_literals;

namespace {

constexpr int kWidth = 1280;
constexpr int kHeight = 720;
constexpr int kFps = 30;

struct Window {
    double warmupSeconds = 4;
    double seconds = 10;
    // The reference renders without its default white background, as an
    // overlay is rendered.
    bool transparentReference = false;
};

using slfbench::CpuBetween;
using slfbench::ReadTreeTicks;
using slfbench::TreeTicks;

struct Result {
    bool ok = false;
    uint64_t frames = 0;
    double cpuSeconds = 0;
    double wallSeconds = 0;
};

// Measures in the calling process while `frames` counts; root is the run's
// top process.
Result Measure(const char* run, pid_t root, const std::atomic<uint64_t>& frames, const Window& window)
{
    std::this_thread::sleep_for(std::chrono::duration<double>(window.warmupSeconds));
    Result r;
    const auto start = std::chrono::steady_clock::now();
    const TreeTicks cpu0 = ReadTreeTicks(root);
    const uint64_t frames0 = frames.load();
    std::this_thread::sleep_for(std::chrono::duration<double>(window.seconds));
    r.frames = frames.load() - frames0;
    std::map<std::string, double> byName;
    r.cpuSeconds = CpuBetween(cpu0, ReadTreeTicks(root), &byName);
    // The split by process goes to the error stream of the measuring child.
    std::fprintf(stderr, "frames e2e: %s, CPU by process:\n", run);
    for (const auto& [name, seconds] : byName) {
        if (seconds > 0)
            std::fprintf(stderr, "frames e2e:   %-20s %6.2f s CPU, %6.2f ms per frame\n", name.c_str(), seconds,
                         r.frames ? 1000.0 * seconds / static_cast<double>(r.frames) : 0.0);
    }
    r.wallSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    r.ok = r.frames > 0;
    return r;
}

class CountingHost : public streamloft::BrowserEvents {
public:
    void BrowserDidStart(streamloft::Browser&, int browserID) override { started = browserID; }
    void BrowserDidFail(streamloft::Browser&, const streamloft::Error& error) override
    {
        std::fprintf(stderr, "frames e2e: the browser failed: %s\n", error.Describe().c_str());
    }
    void BrowserReceivedVideoFrame(streamloft::Browser&, std::shared_ptr<const streamloft::VideoFrame> frame) override
    {
        // The frame is mapped by the library; touch it as a host would.
        volatile uint8_t sink = frame->row(frame->height() / 2)[0];
        (void)sink;
        ++frames;
    }
    std::atomic<int> started {-2};
    std::atomic<uint64_t> frames {0};
};

int RunServiceHost(pid_t root, const std::string& socket, const std::string& url, const Window& window)
{
    CountingHost host;
    streamloft::ConnectOptions options;
    options.socketPath = socket;
    options.startOnDemand = false;
    std::unique_ptr<streamloft::OverlayClient> client;
    for (int attempt = 0; attempt < 100 && !client; ++attempt) {
        client = streamloft::OverlayClient::Connect(options);
        if (!client)
            std::this_thread::sleep_for(100ms);
    }
    if (!client) {
        std::fprintf(stderr, "frames e2e: cannot connect to the service at %s\n", socket.c_str());
        return 1;
    }
    auto browser =
        client->OpenBrowser({url, double(kWidth), double(kHeight), double(kFps), {"file://" SLF_BENCH_PAGES_DIR "/"}},
                            std::shared_ptr<streamloft::BrowserEvents>(std::shared_ptr<void>(), &host));
    const Result r = Measure("service + host library", root, host.frames, window);
    std::printf("%d %llu %.3f %.3f\n", r.ok, static_cast<unsigned long long>(r.frames), r.cpuSeconds, r.wallSeconds);
    std::fflush(stdout);
    return 0;
}

void OnHandoff(GstElement*, GstBuffer*, GstPad*, gpointer counter)
{
    ++*static_cast<std::atomic<uint64_t>*>(counter);
}

int RunWpeVideoSrc(pid_t root, const std::string& url, const Window& window)
{
    gst_init(nullptr, nullptr);
    const std::string description =
        "wpevideosrc location=\"" + url + "\"" + (window.transparentReference ? " draw-background=false" : "") +
        " ! video/x-raw,width=" + std::to_string(kWidth) + ",height=" + std::to_string(kHeight) +
        ",framerate=" + std::to_string(kFps) + "/1 ! fakesink name=sink sync=true signal-handoffs=true";
    GError* error = nullptr;
    GstElement* pipeline = gst_parse_launch(description.c_str(), &error);
    if (!pipeline) {
        std::fprintf(stderr, "frames e2e: %s\n", error ? error->message : "no pipeline");
        return 1;
    }
    std::atomic<uint64_t> frames {0};
    GstElement* sink = gst_bin_get_by_name(GST_BIN(pipeline), "sink");
    g_signal_connect(sink, "handoff", G_CALLBACK(OnHandoff), &frames);
    gst_object_unref(sink);
    if (gst_element_set_state(pipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
        std::fprintf(stderr, "frames e2e: wpevideosrc pipeline does not play\n");
        return 1;
    }
    const Result r = Measure("wpevideosrc ! fakesink", root, frames, window);
    std::printf("%d %llu %.3f %.3f\n", r.ok, static_cast<unsigned long long>(r.frames), r.cpuSeconds, r.wallSeconds);
    std::fflush(stdout);
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(pipeline);
    return 0;
}

// Runs fn in a child whose standard output is read back as the result.
Result RunChild(const std::function<int()>& fn)
{
    int fds[2];
    if (pipe(fds) != 0)
        return {};
    const pid_t child = fork();
    if (child == 0) {
        close(fds[0]);
        dup2(fds[1], STDOUT_FILENO);
        _exit(fn());
    }
    close(fds[1]);
    std::string text;
    char buffer[256];
    ssize_t n;
    while ((n = read(fds[0], buffer, sizeof buffer)) > 0)
        text.append(buffer, static_cast<size_t>(n));
    close(fds[0]);
    int status = 0;
    waitpid(child, &status, 0);
    Result r;
    int ok = 0;
    unsigned long long frames = 0;
    if (std::sscanf(text.c_str(), "%d %llu %lf %lf", &ok, &frames, &r.cpuSeconds, &r.wallSeconds) == 4) {
        r.ok = ok != 0;
        r.frames = frames;
    }
    return r;
}

void Print(const char* name, const Result& r)
{
    std::printf("frames e2e: %-34s %5llu frames in %5.2f s (%5.1f fps), CPU %6.2f s, %6.2f ms CPU per frame\n", name,
                static_cast<unsigned long long>(r.frames), r.wallSeconds, r.frames / r.wallSeconds, r.cpuSeconds,
                r.frames ? 1000.0 * r.cpuSeconds / static_cast<double>(r.frames) : 0.0);
}

} // namespace

int main(int argc, char** argv)
{
    Window window;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg.rfind("--warmup=", 0) == 0)
            window.warmupSeconds = std::atof(arg.c_str() + 9);
        else if (arg.rfind("--seconds=", 0) == 0)
            window.seconds = std::atof(arg.c_str() + 10);
        else if (arg == "--transparent-reference")
            window.transparentReference = true;
        else if (arg.rfind("--benchmark", 0) != 0) {
            std::fprintf(stderr, "usage: %s [--warmup=S] [--seconds=S] [--transparent-reference]\n", argv[0]);
            return 2;
        }
    }
    // Orphans of the run (a service's web processes) come back to this
    // program, so their CPU time is counted and nothing is left behind.
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    const pid_t root = getpid();
    const std::string url = "file://" SLF_BENCH_PAGES_DIR "/animated.html";

    char pattern[] = "/tmp/slf-frames-bench-XXXXXX";
    const std::string dir = mkdtemp(pattern);
    const std::string socket = dir + "/overlay-helper.sock";
    const pid_t service = slfbench::SpawnService(SLF_BENCH_HELPER_PATH, socket);
    const Result ours = RunChild([&] { return RunServiceHost(root, socket, url, window); });
    kill(service, SIGTERM);
    slfbench::ReapDescendants(5s);
    std::filesystem::remove_all(dir);

    const Result reference = RunChild([&] { return RunWpeVideoSrc(root, url, window); });
    slfbench::ReapDescendants(5s);

    std::printf("frames e2e: animated overlay page, %dx%d at %d fps, %.0f s warm-up, %.0f s measured\n", kWidth,
                kHeight, kFps, window.warmupSeconds, window.seconds);
    if (!ours.ok || !reference.ok) {
        std::printf("frames e2e: no result (service run %s, wpevideosrc run %s)\n", ours.ok ? "ok" : "failed",
                    reference.ok ? "ok" : "failed");
        return 1;
    }
    Print("service + host library", ours);
    Print(window.transparentReference ? "wpevideosrc (transparent) ! fakesink" : "wpevideosrc ! fakesink", reference);
    const double ratio = (ours.cpuSeconds / static_cast<double>(ours.frames)) /
                         (reference.cpuSeconds / static_cast<double>(reference.frames));
    std::printf("frames e2e: CPU per delivered frame, service / wpevideosrc: %.2f\n", ratio);
    return 0;
}
