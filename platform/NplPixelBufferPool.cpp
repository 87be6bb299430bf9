#include "platform/NplPixelBufferPool.h"

#include "dbg/FlowLog.h"

#include <cerrno>
#include <cmath>
#include <ctime>
#include <mutex>
#include <vector>

namespace {

int64_t MonotonicNanoseconds()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// A whole number of pixels in 1...max from a double, fractions dropped;
// 0 when the value is not usable.
uint32_t PixelDimension(double value)
{
    if (!std::isfinite(value) || value < 1.0 || value >= CNplPixelBufferPool::kMaximumDimension + 1.0) {
        return 0;
    }
    return static_cast<uint32_t>(value);
}

} // namespace

// The part of the pool that buffers out of it keep alive.
class CNplPixelBufferPool::State final : public INplPixelBufferRecycler {
public:
    State(uint32_t width, uint32_t height, size_t bytesPerRow, int64_t maximumAgeNanoseconds)
        : m_nWidth(width),
          m_nHeight(height),
          m_nBytesPerRow(bytesPerRow),
          m_nMaximumAgeNanoseconds(maximumAgeNanoseconds)
    {
        m_Free.reserve(64);
    }

    ~State()
    {
        for (CNplPixelBuffer* buffer : m_Free) {
            delete buffer;
        }
    }

    void RecyclePixelBuffer(CNplPixelBuffer* buffer) override
    {
        bool freeIt = false;
        size_t out = 0;
        const int fd = buffer->GetIOSurface()->GetFd();
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            out = --m_nOut;
            if (m_bAbandoned) {
                freeIt = true;
            } else {
                buffer->m_nFreeSinceNanoseconds = MonotonicNanoseconds();
                m_Free.push_back(buffer);
            }
        }
        // Logged after the pool's lock, which is a leaf.
        SLF_FRAMES_LOG("surface %d %s (%zu out)", fd, freeIt ? "freed: its pool is gone" : "back in its pool", out);
        if (freeIt) {
            // The caller keeps this state alive until it returns.
            delete buffer;
        }
    }

    // Lock order: the pool's lock is the innermost lock of the frame path;
    // it may be taken under the window representation's lock and nothing
    // else is taken while it is held.
    mutable std::mutex m_Mutex;
    // Free buffers, the most recently returned last.
    std::vector<CNplPixelBuffer*> m_Free;
    size_t m_nOut = 0;
    uint64_t m_nCreated = 0;
    bool m_bAbandoned = false;

    const uint32_t m_nWidth;
    const uint32_t m_nHeight;
    const size_t m_nBytesPerRow;
    const int64_t m_nMaximumAgeNanoseconds;
};

size_t CNplPixelBufferPool::BytesPerRowForWidth(uint32_t width)
{
    const size_t tight = static_cast<size_t>(width) * kNplSharedSurfaceBytesPerElement;
    return (tight + 63) & ~static_cast<size_t>(63);
}

NplPixelBufferStatus CNplPixelBufferPool::Create(const NplPixelBufferPoolAttributes* poolAttributes,
                                                 const NplPixelBufferAttributes& attributes,
                                                 std::shared_ptr<CNplPixelBufferPool>* poolOut)
{
    if (!poolOut) {
        return kNplPixelBufferInvalidArgument;
    }
    poolOut->reset();
    const uint32_t width = PixelDimension(attributes.width);
    const uint32_t height = PixelDimension(attributes.height);
    if (width == 0 || height == 0) {
        return kNplPixelBufferInvalidSize;
    }
    if (attributes.pixelFormatType != kNplPixelFormatType_32BGRA) {
        return kNplPixelBufferInvalidPixelFormat;
    }
    if (attributes.hasIOSurfaceProperties) {
        const NplIOSurfaceAttributes& s = attributes.ioSurfaceProperties;
        if (s.pixelFormat != kNplPixelFormatType_32BGRA ||
            s.bytesPerElement != static_cast<int64_t>(kNplSharedSurfaceBytesPerElement)) {
            return kNplPixelBufferInvalidPixelFormat;
        }
        if (PixelDimension(s.width) != width || PixelDimension(s.height) != height) {
            return kNplPixelBufferInvalidSize;
        }
    }
    double maximumAge = poolAttributes ? poolAttributes->maximumBufferAgeSeconds : 1.0;
    if (!std::isfinite(maximumAge) || maximumAge < 0) {
        return kNplPixelBufferInvalidArgument;
    }
    poolOut->reset(new CNplPixelBufferPool(attributes, width, height, static_cast<int64_t>(maximumAge * 1e9)));
    return kNplPixelBufferSuccess;
}

CNplPixelBufferPool::CNplPixelBufferPool(const NplPixelBufferAttributes& attributes, uint32_t width, uint32_t height,
                                         int64_t maximumAgeNanoseconds)
    : m_Attributes(attributes),
      m_nWidth(width),
      m_nHeight(height),
      m_nBytesPerRow(BytesPerRowForWidth(width)),
      m_pState(std::make_shared<State>(width, height, m_nBytesPerRow, maximumAgeNanoseconds))
{
}

CNplPixelBufferPool::~CNplPixelBufferPool()
{
    std::vector<CNplPixelBuffer*> toFree;
    {
        std::lock_guard<std::mutex> lock(m_pState->m_Mutex);
        m_pState->m_bAbandoned = true;
        toFree.swap(m_pState->m_Free);
    }
    // Free buffers hold a reference to the state too; m_pState keeps it
    // alive while they go.
    for (CNplPixelBuffer* buffer : toFree) {
        delete buffer;
    }
}

NplPixelBufferStatus CNplPixelBufferPool::CreatePixelBuffer(const NplPixelBufferPoolAuxAttributes* auxAttributes,
                                                            CNplPixelBuffer** bufferOut)
{
    if (!bufferOut) {
        return kNplPixelBufferInvalidArgument;
    }
    *bufferOut = nullptr;
    const int64_t threshold = auxAttributes ? auxAttributes->allocationThreshold : 0;
    State& state = *m_pState;
    size_t out = 0;
    // The log lines come after the pool's lock, which is a leaf.
    {
        std::unique_lock<std::mutex> lock(state.m_Mutex);
        if (threshold > 0 && state.m_nOut >= static_cast<uint64_t>(threshold)) {
            lock.unlock();
            SLF_FRAMES_LOG("pool %p: threshold of %lld surfaces out reached: no surface", static_cast<void*>(this),
                           static_cast<long long>(threshold));
            return kNplPixelBufferWouldExceedAllocationThreshold;
        }
        out = ++state.m_nOut;
        if (!state.m_Free.empty()) {
            CNplPixelBuffer* buffer = state.m_Free.back();
            state.m_Free.pop_back();
            buffer->ReviveFromPool();
            *bufferOut = buffer;
            lock.unlock();
            SLF_FRAMES_LOG("pool %p: surface %d reused (%zu out)", static_cast<void*>(this),
                           buffer->GetIOSurface()->GetFd(), out);
            return kNplPixelBufferSuccess;
        }
        // The slot is counted as out while the new buffer is made outside
        // the lock, so concurrent requests respect the threshold.
        ++state.m_nCreated;
    }
    CNplSharedSurface* surface = CNplSharedSurface::Create(m_nWidth, m_nHeight, m_nBytesPerRow);
    if (!surface) {
        std::lock_guard<std::mutex> lock(state.m_Mutex);
        --state.m_nOut;
        --state.m_nCreated;
        return kNplPixelBufferAllocationFailed;
    }
    *bufferOut = new CNplPixelBuffer(surface, m_pState);
    SLF_FRAMES_LOG("pool %p: new surface %d (%zu out)", static_cast<void*>(this), surface->GetFd(), out);
    return kNplPixelBufferSuccess;
}

void CNplPixelBufferPool::Flush(uint64_t flags)
{
    const bool everything = (flags & kNplPixelBufferPoolFlushExcessBuffers) != 0;
    State& state = *m_pState;
    std::lock_guard<std::mutex> lock(state.m_Mutex);
    const int64_t now = MonotonicNanoseconds();
    // The oldest free buffers are at the front; keep the order of the rest.
    size_t kept = 0;
    for (size_t i = 0; i < state.m_Free.size(); ++i) {
        CNplPixelBuffer* buffer = state.m_Free[i];
        if (everything || now - buffer->m_nFreeSinceNanoseconds > state.m_nMaximumAgeNanoseconds) {
            // Not the state's last reference: this pool holds one.
            delete buffer;
        } else {
            state.m_Free[kept++] = buffer;
        }
    }
    state.m_Free.resize(kept);
}

size_t CNplPixelBufferPool::GetFreeBufferCount() const
{
    std::lock_guard<std::mutex> lock(m_pState->m_Mutex);
    return m_pState->m_Free.size();
}

size_t CNplPixelBufferPool::GetOutstandingBufferCount() const
{
    std::lock_guard<std::mutex> lock(m_pState->m_Mutex);
    return m_pState->m_nOut;
}

uint64_t CNplPixelBufferPool::GetCreatedBufferCount() const
{
    std::lock_guard<std::mutex> lock(m_pState->m_Mutex);
    return m_pState->m_nCreated;
}
