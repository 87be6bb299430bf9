#include "platform/NplSharedSurface.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>

namespace {

// IDs are unique within the process and only grow; 0 is never used.
std::atomic<uint64_t> g_nNextSurfaceID {1};

} // namespace

CNplSharedSurface* CNplSharedSurface::Create(uint32_t width, uint32_t height, uint64_t bytesPerRow)
{
    if (width == 0 || height == 0 || width > streamloft::protocol::kMaximumEdge ||
        height > streamloft::protocol::kMaximumEdge || bytesPerRow / kNplSharedSurfaceBytesPerElement < width ||
        bytesPerRow > UINT32_MAX) {
        errno = EINVAL;
        return nullptr;
    }
    const uint64_t allocSize = bytesPerRow * height;
    if (allocSize > static_cast<uint64_t>(INT64_MAX)) {
        errno = EINVAL;
        return nullptr;
    }

    const int fd = memfd_create("slf-surface", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (fd < 0) {
        return nullptr;
    }
    if (ftruncate(fd, static_cast<off_t>(allocSize)) != 0 ||
        fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) != 0) {
        const int saved = errno;
        close(fd);
        errno = saved;
        return nullptr;
    }
    void* base = mmap(nullptr, allocSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (base == MAP_FAILED) {
        const int saved = errno;
        close(fd);
        errno = saved;
        return nullptr;
    }

    CNplSharedSurface* surface = new CNplSharedSurface();
    surface->m_nFd = fd;
    surface->m_nWidth = width;
    surface->m_nHeight = height;
    surface->m_nBytesPerRow = bytesPerRow;
    surface->m_nAllocSize = allocSize;
    surface->m_nID = g_nNextSurfaceID.fetch_add(1, std::memory_order_relaxed);
    surface->m_pBase = base;
    return surface;
}

CNplSharedSurface::~CNplSharedSurface()
{
    if (m_pBase) {
        munmap(m_pBase, m_nAllocSize);
    }
    if (m_nFd >= 0) {
        close(m_nFd);
    }
}

streamloft::SurfaceProperties CNplSharedSurface::GetProperties() const
{
    streamloft::SurfaceProperties p;
    p.width = m_nWidth;
    p.height = m_nHeight;
    p.bytesPerRow = static_cast<uint32_t>(m_nBytesPerRow); // fits: checked at creation
    p.bytesPerElement = kNplSharedSurfaceBytesPerElement;
    p.pixelFormat = kNplPixelFormatType_32BGRA;
    p.surfaceID = m_nID;
    p.allocSize = m_nAllocSize;
    return p;
}

void CNplSharedSurface::IncrementUseCount()
{
    m_nUseCount.fetch_add(1, std::memory_order_acq_rel);
    if (m_pObserver) {
        m_pObserver->SharedSurfaceUseCountIncremented(this);
    }
}

void CNplSharedSurface::DecrementUseCount()
{
    // The observer may recycle or free the surface once the last holder has
    // gone, so nothing of this object is touched after telling it.
    IUseCountObserver* observer = m_pObserver;
    m_nUseCount.fetch_sub(1, std::memory_order_acq_rel);
    if (observer) {
        observer->SharedSurfaceUseCountDecremented(this);
    }
}
