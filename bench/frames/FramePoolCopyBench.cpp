// Cost of the service's part of a frame: take a buffer from the pixel-buffer
// pool, copy the engine's tightly packed image into it row by row at the
// buffer's stride, hand the surface on and let go of it - compared with one
// plain memcpy of the same image in the same run.
#include "platform/NplPixelBufferPool.h"

#include <benchmark/benchmark.h>

#include <cstdio>
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

void BM_PoolCopy(benchmark::State& state)
{
    const int width = static_cast<int>(state.range(0));
    const int height = static_cast<int>(state.range(1));
    std::vector<unsigned char> image = MakeImage(width, height);
    NplPixelBufferAttributes attributes;
    attributes.width = width;
    attributes.height = height;
    attributes.openGLCompatibility = true;
    std::shared_ptr<CNplPixelBufferPool> pool;
    if (CNplPixelBufferPool::Create(nullptr, attributes, &pool) != kNplPixelBufferSuccess) {
        state.SkipWithError("pool creation failed");
        return;
    }
    NplPixelBufferPoolAuxAttributes aux;
    aux.allocationThreshold = 30;
    const size_t sourceRowLength = static_cast<size_t>(width) * 4;
    int64_t frames = 0;
    for (auto _ : state) {
        if (++frames % 10 == 0) {
            pool->Flush(0);
        }
        CNplPixelBuffer* buffer = nullptr;
        if (pool->CreatePixelBuffer(&aux, &buffer) != kNplPixelBufferSuccess) {
            state.SkipWithError("no buffer");
            return;
        }
        if (buffer->LockBaseAddress(0) == kNplPixelBufferSuccess) {
            unsigned char* destination = static_cast<unsigned char*>(buffer->GetBaseAddress());
            const size_t stride = buffer->GetBytesPerRow();
            const unsigned char* source = image.data();
            const unsigned char* end = source + static_cast<size_t>(height) * sourceRowLength;
            for (; source != end; source += sourceRowLength, destination += stride) {
                std::memcpy(destination, source, sourceRowLength);
            }
            buffer->UnlockBaseAddress(0);
        }
        // One receiver holds the surface and lets go, as a host's reply does.
        CNplSharedSurface* surface = buffer->GetIOSurface();
        surface->IncrementUseCount();
        buffer->Release();
        benchmark::DoNotOptimize(surface->GetBaseAddress());
        surface->DecrementUseCount();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(image.size()));
}

// Prints the usual table and afterwards the ratio of each size's pool copy
// to its memcpy.
// CPU time is compared: the machine may be shared, and what counts is the
// work the service does per frame.
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
            m_Times[run.run_name.function_name + "/" + run.run_name.args] = run.GetAdjustedCPUTime();
        }
    }
    void Finalize() override
    {
        ConsoleReporter::Finalize();
        for (const Size& size : kSizes) {
            const std::string suffix = "/" + std::to_string(size.width) + "/" + std::to_string(size.height);
            const auto copy = m_Times.find("BM_PoolCopy" + suffix);
            const auto plain = m_Times.find("BM_Memcpy" + suffix);
            if (copy != m_Times.end() && plain != m_Times.end() && plain->second > 0) {
                std::printf("frames: pool copy %dx%d: %.3f x one memcpy (goal <= 1.5)\n", size.width, size.height,
                            copy->second / plain->second);
            }
        }
        std::fflush(stdout);
    }

private:
    std::map<std::string, double> m_Times;
};

} // namespace

int main(int argc, char** argv)
{
    for (const Size& size : kSizes) {
        benchmark::RegisterBenchmark("BM_Memcpy", BM_Memcpy)->Args({size.width, size.height})->UseRealTime();
        benchmark::RegisterBenchmark("BM_PoolCopy", BM_PoolCopy)->Args({size.width, size.height})->UseRealTime();
    }
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
