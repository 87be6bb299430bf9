// Delivery cost of a frame from the engine's painted image to a host that
// has it mapped (pool buffer, row copy, the surface sent over a real D-Bus
// connection, the host's read-only mapping and its reply), compared with
// one plain memcpy of the same image in the same run.
#include "protocol/SurfaceDictionary.h"
#include "tests/support/InProcessHost.h"
#include "windows/SLFCefWindowRepresentation.h"

#include <gio/gunixfdlist.h>
#include <sys/mman.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <ctime>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace {

struct Size {
    int width;
    int height;
};
constexpr Size kSizes[] = {{1280, 720}, {1920, 1080}};

std::vector<unsigned char> MakeImage(int width, int height)
{
    std::vector<unsigned char> image(static_cast<size_t>(width) * height * 4);
    for (size_t i = 0; i < image.size(); ++i) {
        image[i] = static_cast<unsigned char>(i * 7);
    }
    return image;
}

void BM_Memcpy(benchmark::State& state)
{
    const int width = static_cast<int>(state.range(0));
    const int height = static_cast<int>(state.range(1));
    std::vector<unsigned char> image = MakeImage(width, height);
    std::vector<unsigned char> destination(image.size());
    for (auto _ : state) {
        std::memcpy(destination.data(), image.data(), image.size());
        benchmark::DoNotOptimize(destination.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(image.size()));
}

double ProcessCpuNanoseconds()
{
    timespec now {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

// A host on the other end of a real peer-to-peer D-Bus connection: it maps
// each frame's surface read-only, lets go of it at once and replies.
class MappingHost : public InProcessHost {
public:
    ~MappingHost() override { CloseHostConnection(); }
    uint64_t framesMapped = 0;

private:
    void OnMethodCall(const gchar*, GVariant* parameters, GDBusMethodInvocation* invocation) override
    {
        gint32 browserID = -1;
        gint32 handle = -1;
        GVariant* properties = nullptr;
        g_variant_get(parameters, "(ih@a{sv})", &browserID, &handle, &properties);
        streamloft::SurfaceProperties surface;
        const bool parsed = streamloft::protocol::ParseSurfaceProperties(properties, &surface);
        g_variant_unref(properties);
        GUnixFDList* list = g_dbus_message_get_unix_fd_list(g_dbus_method_invocation_get_message(invocation));
        const int fd = parsed && list ? g_unix_fd_list_get(list, handle, nullptr) : -1;
        if (fd >= 0) {
            void* pixels = mmap(nullptr, surface.allocSize, PROT_READ, MAP_SHARED, fd, 0);
            close(fd);
            if (pixels != MAP_FAILED) {
                ++framesMapped;
                munmap(pixels, surface.allocSize);
            }
        }
        g_dbus_method_invocation_return_value(invocation, nullptr);
    }
};

// The service's whole part of a frame, as the engine's paint hands it over:
// the representation takes a pool buffer, copies the image in row by row at
// the buffer's stride and sends the surface to its receiver; the iteration
// ends when the host has the frame mapped.
void BM_Deliver(benchmark::State& state)
{
    const int width = static_cast<int>(state.range(0));
    const int height = static_cast<int>(state.range(1));
    std::vector<unsigned char> image = MakeImage(width, height);
    MappingHost host;
    SLFCefCallbackProxyRef proxy = SLFCefCallbackProxy::Create(host.ServiceConnection());
    auto representation = std::make_shared<SLFCefWindowRepresentation>();
    representation->setBrowserID(1);
    representation->setSize({static_cast<double>(width), static_cast<double>(height)});
    representation->addReceiverProxiesObject(proxy, [](int) {});
    const double cpuStart = ProcessCpuNanoseconds();
    for (auto _ : state) {
        const uint64_t before = host.framesMapped;
        SLFCefVideoFrameCallback(image.data(), static_cast<unsigned int>(image.size()), representation.get());
        while (host.framesMapped == before)
            g_main_context_iteration(nullptr, TRUE);
    }
    // Every thread's share: this one, GDBus's workers and the host's.
    state.counters["process_cpu_ns"] =
        benchmark::Counter((ProcessCpuNanoseconds() - cpuStart) / static_cast<double>(state.iterations()));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(image.size()));
    representation->removeReceiverProxiesObject(proxy);
    // Let the last replies come back before the connection goes.
    host.PumpUntil(
        [&] {
            return !representation->pixelBufferPool() ||
                   representation->pixelBufferPool()->GetOutstandingBufferCount() == 0;
        },
        std::chrono::seconds(2));
}

// Prints the usual table and afterwards, per size, the delivery against its
// memcpy twice: the processor time of the whole process per frame (the
// delivery's work is spread over this thread, GDBus's worker thread and the
// host) and the real time until the host has the frame (which adds the
// hand-overs between those threads).
class RatioReporter : public benchmark::ConsoleReporter {
public:
    RatioReporter() : ConsoleReporter(OO_Tabular) {}

    void ReportRuns(const std::vector<Run>& runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.error_occurred || run.run_type != Run::RT_Iteration) {
                continue;
            }
            const std::string name = run.run_name.function_name + "/" + run.run_name.args;
            m_RealTimes[name] = run.GetAdjustedRealTime();
            const auto processCpu = run.counters.find("process_cpu_ns");
            m_CpuTimes[name] = processCpu != run.counters.end() ? double(processCpu->second) : run.GetAdjustedCPUTime();
        }
    }
    void Finalize() override
    {
        ConsoleReporter::Finalize();
        for (const Size& size : kSizes) {
            const std::string suffix = "/" + std::to_string(size.width) + "/" + std::to_string(size.height);
            const std::string deliver = "BM_Deliver" + suffix;
            const std::string plain = "BM_Memcpy" + suffix;
            if (m_CpuTimes.count(deliver) && m_CpuTimes.count(plain) && m_CpuTimes[plain] > 0) {
                std::printf("frames: delivery %dx%d to a host that has it mapped: processor time %.3f x one memcpy "
                            "(goal <= 1.5), real time %.3f x\n",
                            size.width, size.height, m_CpuTimes[deliver] / m_CpuTimes[plain],
                            m_RealTimes[deliver] / m_RealTimes[plain]);
            }
        }
        std::fflush(stdout);
    }

private:
    std::map<std::string, double> m_RealTimes;
    std::map<std::string, double> m_CpuTimes;
};

} // namespace

int main(int argc, char** argv)
{
    for (const Size& size : kSizes) {
        benchmark::RegisterBenchmark("BM_Memcpy", BM_Memcpy)->Args({size.width, size.height})->UseRealTime();
        benchmark::RegisterBenchmark("BM_Deliver", BM_Deliver)->Args({size.width, size.height})->UseRealTime();
    }
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
