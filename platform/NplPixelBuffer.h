// Pixel buffers backed by shared surfaces, as handed out by a pixel-buffer
// pool (platform/NplPixelBufferPool.h). They behave as Core Video's pixel
// buffers do: reference counted, base address locked around CPU access,
// rows of GetBytesPerRow() bytes that may end in padding.
#pragma once

#include "platform/NplSharedSurface.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

// Status of pixel-buffer and pool calls; the numbers are Core Video's, so
// logged statuses read the same.
typedef int32_t NplPixelBufferStatus;
inline constexpr NplPixelBufferStatus kNplPixelBufferSuccess = 0;
inline constexpr NplPixelBufferStatus kNplPixelBufferError = -6660;
inline constexpr NplPixelBufferStatus kNplPixelBufferInvalidArgument = -6661;
inline constexpr NplPixelBufferStatus kNplPixelBufferAllocationFailed = -6662;
inline constexpr NplPixelBufferStatus kNplPixelBufferInvalidPixelFormat = -6680;
inline constexpr NplPixelBufferStatus kNplPixelBufferInvalidSize = -6681;
inline constexpr NplPixelBufferStatus kNplPixelBufferWouldExceedAllocationThreshold = -6689;
inline constexpr NplPixelBufferStatus kNplPixelBufferPoolAllocationFailed = -6690;

// Lock flags: 0 (read and write) or read-only.
inline constexpr uint64_t kNplPixelBufferLock_ReadOnly = 1;

class CNplPixelBuffer;

// Takes pixel buffers back when their last holder has let go (the pool).
class INplPixelBufferRecycler {
public:
    virtual void RecyclePixelBuffer(CNplPixelBuffer* buffer) = 0;

protected:
    ~INplPixelBufferRecycler() = default;
};

class CNplPixelBuffer final : private CNplSharedSurface::IUseCountObserver {
public:
    // A buffer owning the given surface, with one reference held by the
    // caller. The recycler, if any, is given the buffer when the last
    // reference and the surface's last use are gone; without one the buffer
    // deletes itself then.
    CNplPixelBuffer(CNplSharedSurface* surface, std::shared_ptr<INplPixelBufferRecycler> recycler);
    ~CNplPixelBuffer();
    CNplPixelBuffer(const CNplPixelBuffer&) = delete;
    CNplPixelBuffer& operator=(const CNplPixelBuffer&) = delete;

    void Retain() { AddHold(); }
    // Gives up one reference. The buffer must not be used afterwards unless
    // another reference is still held.
    void Release() { DropHold(); }

    // Flags 0 or kNplPixelBufferLock_ReadOnly; any other bit is an invalid
    // argument. Locks nest; each lock needs its unlock with the same flags.
    NplPixelBufferStatus LockBaseAddress(uint64_t flags);
    // Unlocking a buffer that is not locked is an invalid argument.
    NplPixelBufferStatus UnlockBaseAddress(uint64_t flags);

    // Start of the first row. As with Core Video the address is returned
    // whether locked or not; only locked access is meaningful.
    void* GetBaseAddress() const { return m_pSurface->GetBaseAddress(); }
    size_t GetBytesPerRow() const { return static_cast<size_t>(m_pSurface->GetBytesPerRow()); }
    size_t GetWidth() const { return m_pSurface->GetWidth(); }
    size_t GetHeight() const { return m_pSurface->GetHeight(); }
    size_t GetDataSize() const { return static_cast<size_t>(m_pSurface->GetAllocSize()); }
    uint32_t GetPixelFormatType() const { return m_pSurface->GetPixelFormat(); }
    // The backing surface; not an extra reference (it lives as long as the
    // buffer).
    CNplSharedSurface* GetIOSurface() const { return m_pSurface.get(); }

    // References plus surface uses still outstanding (0 while in the pool).
    int32_t GetHoldCount() const { return m_nHolds.load(std::memory_order_acquire); }
    bool IsLocked() const { return m_nLockCount.load(std::memory_order_acquire) > 0; }

    // The pool's bookkeeping, touched only under the pool's lock.
    int64_t m_nFreeSinceNanoseconds = 0;

    // Makes the next `count` base-address locks of any buffer in the process
    // fail with kNplPixelBufferError, so that the delivery path for a failed
    // lock can be exercised.
    static void InjectLockFailuresForTesting(int count);

    // Called by the recycler, under its lock, when it hands the buffer out
    // again: one reference for the new caller.
    void ReviveFromPool() { m_nHolds.store(1, std::memory_order_release); }

private:
    void AddHold() { m_nHolds.fetch_add(1, std::memory_order_relaxed); }
    void DropHold();
    void SharedSurfaceUseCountIncremented(CNplSharedSurface*) override { AddHold(); }
    void SharedSurfaceUseCountDecremented(CNplSharedSurface*) override { DropHold(); }

    std::unique_ptr<CNplSharedSurface> m_pSurface;
    std::shared_ptr<INplPixelBufferRecycler> m_pRecycler;
    // References and surface uses together: whoever drops the last one
    // hands the buffer back, so exactly one thread ever does.
    std::atomic<int32_t> m_nHolds {1};
    std::atomic<int32_t> m_nLockCount {0};
};

// Releases a pixel buffer when a holder goes out of scope.
struct NplPixelBufferReleaser {
    void operator()(CNplPixelBuffer* buffer) const
    {
        if (buffer) {
            buffer->Release();
        }
    }
};
using NplPixelBufferPtr = std::unique_ptr<CNplPixelBuffer, NplPixelBufferReleaser>;
