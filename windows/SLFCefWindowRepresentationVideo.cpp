// Frame delivery of SLFCefWindowRepresentation: each painted image of the
// engine is copied into a pixel buffer from the representation's pool and its
// shared surface is sent to every receiver; the pool reuses the buffer once
// the service and every receiver have let go of it.
#include "windows/SLFCefWindowRepresentation.h"

#include "dbg/FlowLog.h"
#include "dbg/NSLog.h"

#include <glib.h>

#include <algorithm>
#include <cstring>

namespace {

// At most this many buffers of one pool are out at once; a host that holds
// frames longer loses frames instead of making the service grow.
constexpr int64_t kPixelBufferAllocationThreshold = 30;

} // namespace

bool SLFCefVideoFrameCallback(unsigned char* data, unsigned int bufferSize, void* context)
{
    if (!context)
        return false;
    static_cast<SLFCefWindowRepresentation*>(context)->browserVideoDataArrived(data, bufferSize);
    return true;
}

NSSize SLFCefWindowRepresentation::size() const
{
    std::lock_guard<std::recursive_mutex> monitor(m_lock);
    return m_size;
}

void SLFCefWindowRepresentation::setSize(NSSize size)
{
    std::lock_guard<std::recursive_mutex> monitor(m_lock);
    m_size = size;
    // The next frame makes a pool of the new size. Buffers of the old pool
    // that are still out stay valid and free themselves as they come back.
    m_pixelBufferPool.reset();
}

std::shared_ptr<CNplPixelBufferPool> SLFCefWindowRepresentation::pixelBufferPool() const
{
    std::lock_guard<std::recursive_mutex> monitor(m_lock);
    return m_pixelBufferPool;
}

std::shared_ptr<CNplPixelBufferPool> SLFCefWindowRepresentation::pixelBufferPoolWithSize(NSSize size)
{
    std::lock_guard<std::recursive_mutex> monitor(m_lock);
    if (m_pixelBufferPool)
        return m_pixelBufferPool;

    NplPixelBufferAttributes attributes;
    attributes.width = size.width;
    attributes.height = size.height;
    attributes.openGLCompatibility = true;
    attributes.hasIOSurfaceProperties = true;
    attributes.ioSurfaceProperties.width = size.width;
    attributes.ioSurfaceProperties.height = size.height;
    attributes.ioSurfaceProperties.bytesPerElement = 4;
    attributes.ioSurfaceProperties.pixelFormat = kNplPixelFormatType_32BGRA;
    attributes.pixelFormatType = kNplPixelFormatType_32BGRA;

    NplPixelBufferPoolAuxAttributes aux;
    aux.allocationThreshold = kPixelBufferAllocationThreshold;
    m_pixelBufferCreationAuxAttributes = aux;

    std::shared_ptr<CNplPixelBufferPool> pool;
    const NplPixelBufferStatus status = CNplPixelBufferPool::Create(nullptr, attributes, &pool);
    if (status != kNplPixelBufferSuccess) {
        NSLog("Error creating pixel buffer pool: %d", status);
        m_pixelBufferPool.reset();
        return nullptr;
    }
    m_pixelBufferPool = pool;
    return pool;
}

CNplPixelBuffer* SLFCefWindowRepresentation::createPixelBufferFromPool(const std::shared_ptr<CNplPixelBufferPool>&)
{
    // Always the current pool: a size change since the caller got its pool
    // has dropped it, and that frame is not delivered.
    std::shared_ptr<CNplPixelBufferPool> pool;
    std::optional<NplPixelBufferPoolAuxAttributes> aux;
    {
        std::lock_guard<std::recursive_mutex> monitor(m_lock);
        pool = m_pixelBufferPool;
        aux = m_pixelBufferCreationAuxAttributes;
    }
    if (!pool)
        return nullptr;
    CNplPixelBuffer* buffer = nullptr;
    if (pool->CreatePixelBuffer(aux ? &*aux : nullptr, &buffer) != kNplPixelBufferSuccess)
        return nullptr;
    return buffer;
}

void SLFCefWindowRepresentation::browserVideoDataArrived(unsigned char* data, unsigned int bufferSize)
{
    // One snapshot of the receivers for the whole frame.
    const SLFCefReceiverListRef receivers = receiverProxies();
    const int frameBrowserID = browserID();
    if (!receivers || receivers->empty()) {
        SLF_FRAMES_LOG("browser %d: frame dropped: no receiver", frameBrowserID);
        return;
    }

    // The engine's paint export calls straight through to here: now is when
    // the frame was painted, as far as anyone outside the web process can tell.
    const int64_t presentationTime = g_get_monotonic_time();
    const NSSize frameSize = size();
    const std::shared_ptr<CNplPixelBufferPool> pool = pixelBufferPoolWithSize(frameSize);

    // Frames of one browser arrive one at a time, from the painting thread.
    // The count is also the frame's sequence number: a frame dropped below
    // leaves a gap the host can see.
    ++m_numPixelBuffersArrivedSoFar;
    const uint64_t sequence = static_cast<uint64_t>(m_numPixelBuffersArrivedSoFar);
    if (m_numPixelBuffersArrivedSoFar % 10 == 0 && pool)
        pool->Flush(0);

    const NplPixelBufferPtr pixelBuffer(createPixelBufferFromPool(pool));
    if (!pixelBuffer) {
        // No pool, or the receivers hold too many frames.
        SLF_FRAMES_LOG("browser %d: frame %llu dropped: no pooled surface", frameBrowserID,
                       static_cast<unsigned long long>(sequence));
        return;
    }

    if (pixelBuffer->LockBaseAddress(0) == kNplPixelBufferSuccess) {
        // The painted image is as wide as the width truncated (the engine
        // renders whole pixels), so its rows are that many pixels long; a
        // width of 64.5 paints rows of 256 bytes, not 258.
        // (A width that is not a sane number copies nothing.)
        const uint64_t pixelsPerRow =
            frameSize.width > 0 && frameSize.width < 1e9 ? static_cast<uint64_t>(frameSize.width) : 0;
        const uint64_t sourceRowLength = pixelsPerRow * 4u;
        const size_t destinationStride = pixelBuffer->GetBytesPerRow();
        unsigned char* destination = static_cast<unsigned char*>(pixelBuffer->GetBaseAddress());
        if (destination && data && sourceRowLength > 0) {
            // The engine hands in exactly width × 4 × height bytes of the
            // current (truncated) size; the bounds below only keep a size
            // that does not match (a buffer of another pool) from reading
            // past the image or writing past the surface.
            uint64_t rows = static_cast<unsigned int>(frameSize.height);
            rows = std::min<uint64_t>(rows, bufferSize / sourceRowLength);
            rows = std::min<uint64_t>(rows, pixelBuffer->GetHeight());
            const size_t rowLength = std::min<uint64_t>(sourceRowLength, destinationStride);
            const unsigned char* source = data;
            const unsigned char* sourceEnd = data + rows * sourceRowLength;
            while (source != sourceEnd) {
                std::memcpy(destination, source, rowLength);
                source += sourceRowLength;
                destination += destinationStride;
            }
        }
        pixelBuffer->UnlockBaseAddress(0);
    }
    // A failed lock sends the surface as it came from the pool.

    CNplSharedSurface* surface = pixelBuffer->GetIOSurface();
    SLF_FRAMES_LOG("browser %d: frame %llu copied into surface %d", frameBrowserID,
                   static_cast<unsigned long long>(sequence), surface->GetFd());
    streamloft::SurfaceProperties frameProperties = surface->GetProperties();
    frameProperties.frameSequence = sequence;
    frameProperties.framePresentationTime = static_cast<uint64_t>(presentationTime);
    GVariant* properties = g_variant_ref_sink(streamloft::protocol::BuildSurfaceProperties(frameProperties));
    for (const SLFCefCallbackProxyRef& receiver : *receivers) {
        // The receiver holds the surface until its reply arrives or its
        // connection closes; the surface lives at least that long.
        surface->IncrementUseCount();
        SLF_FRAMES_LOG("browser %d: frame %llu on surface %d sent to %s", frameBrowserID,
                       static_cast<unsigned long long>(sequence), surface->GetFd(), receiver->description().c_str());
        receiver->browserReceivedVideoFrame(
            frameBrowserID, surface->GetFd(), properties, [surface, frameBrowserID, sequence] {
                SLF_FRAMES_LOG("browser %d: frame %llu on surface %d let go by a "
                               "receiver",
                               frameBrowserID, static_cast<unsigned long long>(sequence), surface->GetFd());
                surface->DecrementUseCount();
            });
    }
    g_variant_unref(properties);
    // pixelBuffer is released here; the pool takes it back once every
    // receiver has let go.
}
