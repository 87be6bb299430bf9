// A pool of pixel buffers of one size, each backed by a shared surface
// (platform/NplSharedSurface.h); it behaves as Core Video's pixel-buffer
// pool does.
//
// - Buffers are BGRA, 4 bytes a pixel; bytesPerRow is width × 4 rounded up
//   to a multiple of 64, so rows can end in padding.
// - A buffer goes back to the pool only when every holder has let go: the
//   last reference to the pixel buffer is released and the surface's use
//   count is 0 (receivers that were sent the surface hold it until they
//   answer). Only then is it reused.
// - The allocation threshold of the auxiliary attributes counts the buffers
//   out of the pool; a request that would exceed it fails with
//   kNplPixelBufferWouldExceedAllocationThreshold.
// - Flush with flags 0 frees the free buffers that have been unused for
//   longer than the maximum buffer age (one second unless the pool
//   attributes say otherwise); with kNplPixelBufferPoolFlushExcessBuffers it
//   frees every free buffer.
// - Dropping the pool while buffers are out is safe: those buffers stay
//   valid for their holders and are freed as they come back; the pool's
//   memory goes with the last of them.
//
// Thread safe: buffers come back on any thread while others are taken.
#pragma once

#include "platform/NplPixelBuffer.h"

#include <cstdint>
#include <memory>

// The surface properties requested for the buffers.
struct NplIOSurfaceAttributes {
    double width = 0;
    double height = 0;
    int64_t bytesPerElement = static_cast<int64_t>(kNplSharedSurfaceBytesPerElement);
    uint32_t pixelFormat = kNplPixelFormatType_32BGRA;
};

// The pixel-buffer attributes of a pool. Width and height are whole pixels
// given as doubles (fractions are dropped). Only 32-bit BGRA is supported.
// The GL-compatibility flag is kept as given; it changes nothing here.
struct NplPixelBufferAttributes {
    double width = 0;
    double height = 0;
    uint32_t pixelFormatType = kNplPixelFormatType_32BGRA;
    bool openGLCompatibility = false;
    bool hasIOSurfaceProperties = false;
    NplIOSurfaceAttributes ioSurfaceProperties;
};

// Attributes of the pool itself.
struct NplPixelBufferPoolAttributes {
    // Free buffers older than this are freed by a flush with flags 0.
    double maximumBufferAgeSeconds = 1.0;
};

// Auxiliary attributes of one buffer request.
struct NplPixelBufferPoolAuxAttributes {
    // At most this many buffers out of the pool at once; 0 means no limit.
    int64_t allocationThreshold = 0;
};

inline constexpr uint64_t kNplPixelBufferPoolFlushExcessBuffers = 1;

class CNplPixelBufferPool {
public:
    // Largest width or height accepted: the protocol's largest surface.
    static constexpr uint32_t kMaximumDimension = streamloft::protocol::kMaximumEdge;

    // Creates a pool. Invalid size (zero, negative, not finite, above the
    // maximum): kNplPixelBufferInvalidSize; another pixel format, or surface
    // properties that disagree with 32-bit BGRA at 4 bytes per element:
    // kNplPixelBufferInvalidPixelFormat. poolAttributes may be null.
    static NplPixelBufferStatus Create(const NplPixelBufferPoolAttributes* poolAttributes,
                                       const NplPixelBufferAttributes& pixelBufferAttributes,
                                       std::shared_ptr<CNplPixelBufferPool>* poolOut);

    // Dropping the pool frees its free buffers; buffers still out are freed
    // when they come back.
    ~CNplPixelBufferPool();
    CNplPixelBufferPool(const CNplPixelBufferPool&) = delete;
    CNplPixelBufferPool& operator=(const CNplPixelBufferPool&) = delete;

    // Takes a free buffer or makes a new one; the caller owns one reference.
    // auxAttributes may be null (no threshold). On failure *bufferOut is null.
    NplPixelBufferStatus CreatePixelBuffer(const NplPixelBufferPoolAuxAttributes* auxAttributes,
                                           CNplPixelBuffer** bufferOut);
    void Flush(uint64_t flags);

    const NplPixelBufferAttributes& GetPixelBufferAttributes() const { return m_Attributes; }
    uint32_t GetWidth() const { return m_nWidth; }
    uint32_t GetHeight() const { return m_nHeight; }
    size_t GetBytesPerRow() const { return m_nBytesPerRow; }

    // Counts, for tests and diagnostics.
    size_t GetFreeBufferCount() const;
    size_t GetOutstandingBufferCount() const;
    // Buffers ever created by this pool.
    uint64_t GetCreatedBufferCount() const;

    // bytesPerRow of a BGRA buffer of the given width.
    static size_t BytesPerRowForWidth(uint32_t width);

private:
    class State;
    CNplPixelBufferPool(const NplPixelBufferAttributes& attributes, uint32_t width, uint32_t height,
                        int64_t maximumAgeNanoseconds);

    NplPixelBufferAttributes m_Attributes;
    uint32_t m_nWidth;
    uint32_t m_nHeight;
    size_t m_nBytesPerRow;
    // Shared with every buffer that is out, so that it outlives this object
    // until the last of them has come back.
    std::shared_ptr<State> m_pState;
};
