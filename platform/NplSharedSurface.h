// Shared graphics surfaces: the memory behind every video frame that the
// service hands to a host.
//
// A surface is a sealed memfd holding a BGRA image (4 bytes a pixel, B, G,
// R, A in memory, premultiplied alpha), `height` rows of `bytesPerRow` bytes;
// a row may end in padding beyond width × 4 bytes. The memfd's size is
// sealed (no shrink, no grow, no further seals), so a host can map it
// read-only without fearing that it shrinks under its mapping.
//
// With every frame the surface travels as a file descriptor plus its
// property dictionary (a{sv}); the keys, the properties record and the one
// builder, parser and validator of the dictionary are the protocol's
// (protocol/SurfaceDictionary.h).
#pragma once

#include "protocol/SurfaceDictionary.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

// The surfaces' only format, 'BGRA', and its bytes per pixel.
inline constexpr uint32_t kNplPixelFormatType_32BGRA = streamloft::kPixelFormatBGRA;
inline constexpr uint64_t kNplSharedSurfaceBytesPerElement = streamloft::kBytesPerPixelBGRA;

// One shared surface, owned by the service side (the pixel-buffer pool
// keeps one per pixel buffer). The memory is mapped read-write here for the
// whole life of the object.
//
// The use count says how many holders other than the owning pixel buffer
// still read the surface: the service adds one for every receiver it sends
// the surface to and takes it away when that receiver lets go (its reply
// arrives or its connection closes). The owner learns of every change
// through its observer, which is how the pool knows when a buffer may be
// reused. Incrementing and decrementing are thread safe.
class CNplSharedSurface {
public:
    // Told of every change of the use count; called on the thread that made
    // the change, without any lock of the surface.
    class IUseCountObserver {
    public:
        virtual void SharedSurfaceUseCountIncremented(CNplSharedSurface* surface) = 0;
        virtual void SharedSurfaceUseCountDecremented(CNplSharedSurface* surface) = 0;

    protected:
        ~IUseCountObserver() = default;
    };

    // Creates, sizes, seals and maps a surface of height rows of bytesPerRow
    // bytes. Null when the sizes are zero, width or height is over the
    // protocol's kMaximumEdge, bytesPerRow < width × 4 or does not fit 32 bits
    // (its properties could not describe it), or the system refuses (errno
    // tells why).
    static CNplSharedSurface* Create(uint32_t width, uint32_t height, uint64_t bytesPerRow);
    ~CNplSharedSurface();
    CNplSharedSurface(const CNplSharedSurface&) = delete;
    CNplSharedSurface& operator=(const CNplSharedSurface&) = delete;

    // The memfd; stays owned by the surface (senders duplicate it).
    int GetFd() const { return m_nFd; }
    uint32_t GetWidth() const { return m_nWidth; }
    uint32_t GetHeight() const { return m_nHeight; }
    uint64_t GetBytesPerRow() const { return m_nBytesPerRow; }
    uint64_t GetBytesPerElement() const { return kNplSharedSurfaceBytesPerElement; }
    uint32_t GetPixelFormat() const { return kNplPixelFormatType_32BGRA; }
    uint64_t GetID() const { return m_nID; }
    uint64_t GetAllocSize() const { return m_nAllocSize; }
    void* GetBaseAddress() const { return m_pBase; }

    // The surface's properties (without a frame's timing).
    streamloft::SurfaceProperties GetProperties() const;

    void IncrementUseCount();
    void DecrementUseCount();
    int32_t GetUseCount() const { return m_nUseCount.load(std::memory_order_acquire); }
    bool IsInUse() const { return GetUseCount() > 0; }

    // Set once by the owner before the surface is handed out.
    void SetUseCountObserver(IUseCountObserver* observer) { m_pObserver = observer; }

private:
    CNplSharedSurface() = default;

    int m_nFd = -1;
    uint32_t m_nWidth = 0;
    uint32_t m_nHeight = 0;
    uint64_t m_nBytesPerRow = 0;
    uint64_t m_nAllocSize = 0;
    uint64_t m_nID = 0;
    void* m_pBase = nullptr;
    std::atomic<int32_t> m_nUseCount {0};
    IUseCountObserver* m_pObserver = nullptr;
};
