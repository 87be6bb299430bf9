// The service's steady-state audio cycle per block: take a slot, append one
// 3840-byte block (10 ms of 48 kHz stereo 16-bit PCM), encode the buffer
// record, give the slot back. Also counts heap allocations per block, split
// into the record encoding and everything else, and compares the cycle with a
// plain 3840-byte memcpy measured in the same run.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

#include "audio_transport/NVKXPCAudioBuffer.h"
#include "audio_transport/NVKXPCAudioBufferPool.h"

// Every heap allocation of this process goes through these (operator new of
// the C++ library and GLib's g_malloc both end in malloc).
namespace {
std::atomic<uint64_t> g_allocations {0};
}

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);
void __libc_free(void* memory);

void* malloc(size_t size)
{
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(size);
}

void* calloc(size_t count, size_t size)
{
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_calloc(count, size);
}

void* realloc(void* memory, size_t size)
{
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_realloc(memory, size);
}

void free(void* memory)
{
    __libc_free(memory);
}
}

namespace {

constexpr uint64_t kBlockBytes = 3840;
constexpr uint64_t kSlots = 200;

uint64_t Allocations()
{
    return g_allocations.load(std::memory_order_relaxed);
}

std::vector<uint8_t> Block()
{
    std::vector<uint8_t> block(kBlockBytes);
    for (size_t i = 0; i < block.size(); ++i)
        block[i] = static_cast<uint8_t>(i * 7);
    return block;
}

std::shared_ptr<NVKXPCAudioBufferPool> StreamPool()
{
    auto pool = NVKXPCAudioBufferPool::initWithBufferSize(kBlockBytes, kSlots);
    if (pool) {
        pool->setSampleRate(48000);
        pool->setChannelCount(2);
        pool->setBitsPerSample(16);
    }
    return pool;
}

// Baseline: the one copy into shared memory that the cycle cannot avoid.
void BM_Memcpy3840(benchmark::State& state)
{
    std::vector<uint8_t> source = Block();
    std::vector<uint8_t> target(kBlockBytes);
    for (auto _ : state) {
        memcpy(target.data(), source.data(), kBlockBytes);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBlockBytes));
}
BENCHMARK(BM_Memcpy3840);

void BM_SteadyStateCycle(benchmark::State& state)
{
    auto pool = StreamPool();
    if (!pool) {
        state.SkipWithError("no pool");
        return;
    }
    const std::string name = pool->shmemName();
    std::vector<uint8_t> source = Block();
    uint64_t outside = 0;
    uint64_t encoding = 0;
    for (auto _ : state) {
        uint64_t a0 = Allocations();
        std::shared_ptr<NVKXPCAudioBuffer> buffer = pool->bufferFromPool();
        buffer->appendBytes(source.data(), kBlockBytes);
        uint64_t a1 = Allocations();
        GVariant* record = g_variant_ref_sink(buffer->encodeRecord());
        benchmark::DoNotOptimize(g_variant_get_data(record));
        g_variant_unref(record);
        uint64_t a2 = Allocations();
        buffer->returnToPool();
        buffer.reset();
        uint64_t a3 = Allocations();
        outside += (a1 - a0) + (a3 - a2);
        encoding += a2 - a1;
    }
    const double blocks = static_cast<double>(state.iterations());
    state.counters["allocs_per_block"] = static_cast<double>(outside + encoding) / blocks;
    state.counters["allocs_outside_encoding"] = static_cast<double>(outside) / blocks;
    state.counters["allocs_encoding"] = static_cast<double>(encoding) / blocks;
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBlockBytes));
    pool.reset();
    shm_unlink(name.c_str());
}
BENCHMARK(BM_SteadyStateCycle);

// The same cycle without the record: what the transport itself costs.
void BM_SlotCycleWithoutRecord(benchmark::State& state)
{
    auto pool = StreamPool();
    if (!pool) {
        state.SkipWithError("no pool");
        return;
    }
    const std::string name = pool->shmemName();
    std::vector<uint8_t> source = Block();
    uint64_t before = Allocations();
    for (auto _ : state) {
        std::shared_ptr<NVKXPCAudioBuffer> buffer = pool->bufferFromPool();
        buffer->appendBytes(source.data(), kBlockBytes);
        benchmark::DoNotOptimize(buffer->length());
        buffer->returnToPool();
    }
    state.counters["allocs_per_block"] =
        static_cast<double>(Allocations() - before) / static_cast<double>(state.iterations());
    pool.reset();
    shm_unlink(name.c_str());
}
BENCHMARK(BM_SlotCycleWithoutRecord);

// Prints the usual table, then each cycle's time as a multiple of the
// memcpy baseline of the same run.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    // Colours only on a terminal.
    RatioReporter() : ConsoleReporter(isatty(STDOUT_FILENO) ? OO_Defaults : OO_Tabular) {}

    void ReportRuns(const std::vector<Run>& runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.run_type == Run::RT_Iteration && !run.error_occurred)
                m_times.emplace(run.benchmark_name(), Times {run.GetAdjustedRealTime() * Scale(run.time_unit),
                                                             run.GetAdjustedCPUTime() * Scale(run.time_unit)});
        }
    }

    void PrintRatios() const
    {
        auto baseline = m_times.find("BM_Memcpy3840");
        if (baseline == m_times.end() || baseline->second.real <= 0 || baseline->second.cpu <= 0)
            return;
        const Times& base = baseline->second;
        printf("Against BM_Memcpy3840 (%.1f ns real, %.1f ns CPU) of this run:\n", base.real, base.cpu);
        for (const auto& [name, t] : m_times) {
            if (name != baseline->first)
                printf("  %-26s %8.1f ns real = %6.2f x   %8.1f ns CPU = %6.2f x\n", name.c_str(), t.real,
                       t.real / base.real, t.cpu, t.cpu / base.cpu);
        }
    }

private:
    static double Scale(benchmark::TimeUnit unit)
    {
        switch (unit) {
        case benchmark::kSecond:
            return 1e9;
        case benchmark::kMillisecond:
            return 1e6;
        case benchmark::kMicrosecond:
            return 1e3;
        default:
            return 1.0;
        }
    }

    struct Times {
        double real;
        double cpu;
    };
    std::map<std::string, Times> m_times;
};

} // namespace

int main(int argc, char** argv)
{
    // GLib must allocate through malloc so that the record's allocations are
    // counted too, not hidden in its slice allocator. GLib reads the setting
    // when the process starts, so start again with it set.
    if (!getenv("G_SLICE")) {
        setenv("G_SLICE", "always-malloc", 1);
        execv("/proc/self/exe", argv);
        perror("execv /proc/self/exe");
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.PrintRatios();
    benchmark::Shutdown();
    return 0;
}
