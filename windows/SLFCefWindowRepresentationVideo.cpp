// Frame delivery of SLFCefWindowRepresentation: the engine's painted images
// reach the representation here.
#include "windows/SLFCefWindowRepresentation.h"

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
    // The pixel-buffer pool of the old size is dropped here once frames are
    // delivered through one.
}

void SLFCefWindowRepresentation::browserVideoDataArrived(unsigned char* data, unsigned int bufferSize)
{
    // Frames are not delivered to receivers yet.
    (void)data;
    (void)bufferSize;
}
