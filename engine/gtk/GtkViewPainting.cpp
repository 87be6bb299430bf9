// GtkView's painting: the frame timer's slots, the window's painted images
// and their delivery to the client (see GtkView.h for how frames are paced).
#include "engine/gtk/GtkView.h"

#include "dbg/NSLog.h"
#include "engine/gtk/GtkEnginePort.h"

#include <cairo.h>
#include <gtk/gtk.h>
#include <webkit2/webkit2.h>

#include <algorithm>

namespace SLF_ChromiumEmbeddedFramework {

namespace {

// How long a resized view waits for the web process's frame at its new size
// before the window's image goes out anyway (microseconds).
constexpr int64_t kResizeWait = G_USEC_PER_SEC;

} // namespace

void GtkView::SetPainted(cairo_surface_t* surface)
{
    // A reference of our own: the window may replace its surface.
    if (surface)
        cairo_surface_reference(surface);
    if (m_pPainted)
        cairo_surface_destroy(m_pPainted);
    m_pPainted = surface;
}

void GtkView::OnFrameDue()
{
    // The next slot on the grid: a late tick skips the slots it missed.
    const int64_t now = g_get_monotonic_time();
    m_nFrameIndex = std::max(m_nFrameIndex + 1, (now - m_nGridStart) / m_nFramePeriod + 1);
    g_source_set_ready_time(m_pFrameTimer, m_nGridStart + m_nFrameIndex * m_nFramePeriod);
    if (m_bHidden || !m_pWindow)
        return;
    // The newest painted image, if the window painted since the last slot.
    if (m_bNewImage) {
        m_bNewImage = false;
        Deliver();
    }
    if (m_bPaced && m_bFrozen) {
        // The window may paint once more: when WebKit has a new frame (the
        // window is invalid), the window's frame clock paints it on its next
        // cycle; that paint tells the web process that its frame was shown.
        m_bFrozen = false;
        gdk_window_thaw_updates(gtk_widget_get_window(m_pWindow));
    }
    // The view is drawn at every slot, new frame or not: waiting for WebKit
    // to invalidate the window is not enough. On a page animated with
    // requestAnimationFrame at 30 fps the window, once thawed, often stayed
    // valid (a paint of nothing) while the page kept animating, and no
    // frame reached the window for seconds. Drawing the view shows its newest
    // frame, which lets the web process go on. Not before the navigation
    // committed: until its web process has rendered, WebKit's draw waits up
    // to half a second for it, and a draw at every slot kept the page from
    // loading at all.
    if (m_bPaced && !m_bFrozen && m_bCommitted)
        gtk_widget_queue_draw(GTK_WIDGET(m_pView));
}

void GtkView::OnWindowPainted()
{
    if (m_bClosed || !m_pWindow)
        return;
    if (m_bPaced && !m_bFrozen) {
        gdk_window_freeze_updates(gtk_widget_get_window(m_pWindow));
        m_bFrozen = true;
    }
    cairo_surface_t* surface = gtk_offscreen_window_get_surface(GTK_OFFSCREEN_WINDOW(m_pWindow));
    // The window's own image in client memory (a Wayland display) is the
    // frame, read as it stands at the next slot; any other window surface
    // (an X pixmap) would be a round trip to read: the view is drawn again,
    // into client memory.
    const bool inMemory = surface && cairo_surface_get_type(surface) == CAIRO_SURFACE_TYPE_IMAGE &&
                          cairo_image_surface_get_format(surface) == CAIRO_FORMAT_ARGB32;
    GtkAllocation allocation;
    gtk_widget_get_allocation(GTK_WIDGET(m_pView), &allocation);
    if (inMemory &&
        (cairo_image_surface_get_width(surface) != m_nWidth || cairo_image_surface_get_height(surface) != m_nHeight)) {
        // Right after WasResized the window may still paint at the old size
        // (GTK sizes it on its next layout): the page at the old size, which
        // goes out at that size.
        SetPainted(surface);
    } else if (!inMemory && (allocation.width != m_nWidth || allocation.height != m_nHeight)) {
        return;
    } else {
        // A window resized paints WebKit's newest frame, which may still be
        // one the web process rendered at the old size: an empty or partly
        // painted image at the new size. It does not go out.
        const bool firstAtNewSize = m_bSizePending;
        if (m_bSizePending && !ViewFrameFillsSize())
            return;
        m_bSizePending = false;
        // The window's first image at the new size need not hold the view
        // yet (GTK draws a widget once it has its new size): the view drawn
        // into our own image is the frame just found to fill the size.
        if (inMemory && !firstAtNewSize) {
            SetPainted(surface);
        } else {
            SetPainted(nullptr);
            DrawFrame();
        }
    }
    m_bHasImage = true;
    m_bNewImage = true;
}

bool GtkView::ViewFrameFillsSize()
{
    if (g_get_monotonic_time() - m_nSizePendingSince > kResizeWait) {
        NSLog("GtkView - browser %d: no frame at %d x %d from the web process within %d ms; the window's image goes "
              "out as it is",
              m_nId, m_nWidth, m_nHeight, static_cast<int>(kResizeWait / 1000));
        return true;
    }
    // WebKit draws its frame at the size the web process rendered it,
    // whatever the view's size: the view drawn once more into a recording
    // tells the frame's extent (the same frame as the window's paint: no
    // new one is taken in between).
    cairo_rectangle_t bounds = {0, 0, static_cast<double>(m_nWidth), static_cast<double>(m_nHeight)};
    cairo_surface_t* recording = cairo_recording_surface_create(CAIRO_CONTENT_COLOR_ALPHA, &bounds);
    cairo_t* cr = cairo_create(recording);
    gtk_widget_draw(GTK_WIDGET(m_pView), cr);
    cairo_destroy(cr);
    double x = 0, y = 0, width = 0, height = 0;
    cairo_recording_surface_ink_extents(recording, &x, &y, &width, &height);
    cairo_surface_destroy(recording);
    return x <= 0 && y <= 0 && x + width >= m_nWidth && y + height >= m_nHeight;
}

bool GtkView::DrawFrame()
{
    if (!m_pSurface || cairo_surface_status(m_pSurface) != CAIRO_STATUS_SUCCESS)
        return false;
    cairo_t* cr = cairo_create(m_pSurface);
    cairo_set_operator(cr, CAIRO_OPERATOR_CLEAR);
    cairo_paint(cr);
    cairo_set_operator(cr, CAIRO_OPERATOR_OVER);
    gtk_widget_draw(GTK_WIDGET(m_pView), cr);
    cairo_destroy(cr);
    cairo_surface_flush(m_pSurface);
    return true;
}

void GtkView::Deliver()
{
    if (m_bClosed || !m_bHasImage)
        return;
    cairo_surface_t* image = m_pPainted ? m_pPainted : m_pSurface;
    if (!image)
        return;
    cairo_surface_flush(image);
    // The image's own size, which is the browser's but for the paints
    // between a resize and the window's first paint at the new size.
    const int width = cairo_image_surface_get_width(image);
    const int height = cairo_image_surface_get_height(image);
    // ARGB32 rows are width * 4 bytes: the surface is the packed image.
    if (cairo_image_surface_get_stride(image) != width * 4)
        return;
    if (EngineRenderHandler* handler = m_pClient->GetRenderHandler())
        handler->OnPaint(shared_from_this(), cairo_image_surface_get_data(image), width, height);
}

} // namespace SLF_ChromiumEmbeddedFramework
