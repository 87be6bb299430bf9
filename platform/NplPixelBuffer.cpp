#include "platform/NplPixelBuffer.h"

namespace {

std::atomic<int> g_nInjectedLockFailures {0};

bool TakeInjectedLockFailure()
{
    int pending = g_nInjectedLockFailures.load(std::memory_order_relaxed);
    while (pending > 0) {
        if (g_nInjectedLockFailures.compare_exchange_weak(pending, pending - 1, std::memory_order_relaxed)) {
            return true;
        }
    }
    return false;
}

} // namespace

CNplPixelBuffer::CNplPixelBuffer(CNplSharedSurface* surface, std::shared_ptr<INplPixelBufferRecycler> recycler)
    : m_pSurface(surface),
      m_pRecycler(std::move(recycler))
{
    m_pSurface->SetUseCountObserver(this);
}

CNplPixelBuffer::~CNplPixelBuffer() = default;

void CNplPixelBuffer::InjectLockFailuresForTesting(int count)
{
    g_nInjectedLockFailures.store(count < 0 ? 0 : count, std::memory_order_relaxed);
}

NplPixelBufferStatus CNplPixelBuffer::LockBaseAddress(uint64_t flags)
{
    if ((flags & ~kNplPixelBufferLock_ReadOnly) != 0) {
        return kNplPixelBufferInvalidArgument;
    }
    if (TakeInjectedLockFailure()) {
        return kNplPixelBufferError;
    }
    m_nLockCount.fetch_add(1, std::memory_order_acq_rel);
    return kNplPixelBufferSuccess;
}

NplPixelBufferStatus CNplPixelBuffer::UnlockBaseAddress(uint64_t flags)
{
    if ((flags & ~kNplPixelBufferLock_ReadOnly) != 0) {
        return kNplPixelBufferInvalidArgument;
    }
    int32_t locks = m_nLockCount.load(std::memory_order_acquire);
    do {
        if (locks <= 0) {
            return kNplPixelBufferInvalidArgument;
        }
    } while (!m_nLockCount.compare_exchange_weak(locks, locks - 1, std::memory_order_acq_rel));
    return kNplPixelBufferSuccess;
}

void CNplPixelBuffer::DropHold()
{
    if (m_nHolds.fetch_sub(1, std::memory_order_acq_rel) != 1) {
        return;
    }
    // The last holder is gone: this thread alone owns the buffer now.
    if (m_pRecycler) {
        // Keep the recycler alive through the call: handing the buffer back
        // to a pool that has been dropped frees the buffer, and with it this
        // reference.
        std::shared_ptr<INplPixelBufferRecycler> recycler = m_pRecycler;
        recycler->RecyclePixelBuffer(this);
    } else {
        delete this;
    }
}
