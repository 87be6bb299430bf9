#include "engine/wpe/WpeFrameExporter.h"

#include "dbg/NSLog.h"

#include <wayland-server.h>
#include <wpe/fdo.h>
#include <wpe/unstable/fdo-shm.h>
#include <wpe/webkit.h>

#include <algorithm>
#include <cstring>

namespace SLF_ChromiumEmbeddedFramework {

struct WpeFrameExporter::HeldBuffer {
    // Notified when the buffer's resource is destroyed (its web process
    // ended); set up once the buffer is held.
    struct wl_listener destroyListener;
    WpeFrameExporter* exporter;
    struct wpe_fdo_shm_exported_buffer* exported;
    struct wl_shm_buffer* shm;
    int width;
    int height;
};

// The callback data of one exportable backend, alive until WebKit drops the
// backend: it keeps the owner (and so the exporter) alive as long as WebKit
// may call the export callback.
struct WpeFrameExporter::BackendHolder {
    WpeFrameExporter* exporter;
    std::shared_ptr<void> keepAlive;
    struct wpe_view_backend_exportable_fdo* exportable;
};

namespace {

GSourceFuncs s_FrameTimerFuncs = {nullptr,
                                  nullptr,
                                  [](GSource*, GSourceFunc callback, gpointer data) -> gboolean {
                                      return callback ? callback(data) : G_SOURCE_CONTINUE;
                                  },
                                  nullptr,
                                  nullptr,
                                  nullptr};

// How long the first frame after the view grew waits for the next one before
// it goes out as it is (microseconds).
constexpr int64_t kResizeWait = G_USEC_PER_SEC;

} // namespace

WpeFrameExporter::WpeFrameExporter(GMainContext* context, int browserId, int frameRate, PaintFn paint)
    : m_pContext(context),
      m_nBrowserId(browserId),
      m_nFrameRate(frameRate),
      m_Paint(std::move(paint))
{
}

WpeFrameExporter::~WpeFrameExporter()
{
    // A buffer still held (the view never closed) leaves its resource's
    // listeners; it cannot be given back without the backend.
    if (m_pHeldBuffer)
        wl_list_remove(&m_pHeldBuffer->destroyListener.link);
    if (m_pFrameTimer) {
        g_source_destroy(m_pFrameTimer);
        g_source_unref(m_pFrameTimer);
    }
}

// ---- life cycle ------------------------------------------------------------

WebKitWebViewBackend* WpeFrameExporter::Start(uint32_t width, uint32_t height, std::shared_ptr<void> keepAlive)
{
    static const struct wpe_view_backend_exportable_fdo_client client = {nullptr, nullptr, ExportShmBufferThunk,
                                                                         nullptr, nullptr};
    auto* holder = new BackendHolder {this, std::move(keepAlive), nullptr};
    holder->exportable = wpe_view_backend_exportable_fdo_create(&client, holder, width, height);
    m_pExportable = holder->exportable;
    m_bRunning = true;

    m_pFrameTimer = g_source_new(&s_FrameTimerFuncs, sizeof(GSource));
    g_source_set_callback(m_pFrameTimer, FrameTimerThunk, this, nullptr);
    // Above the engine's own sources, so that the pass run at the due time
    // dispatches it whatever else is ready.
    g_source_set_priority(m_pFrameTimer, G_PRIORITY_HIGH);
    g_source_set_name(m_pFrameTimer, "SlfViewFrameComplete");
    g_source_attach(m_pFrameTimer, m_pContext);

    return webkit_web_view_backend_new(wpe_view_backend_exportable_fdo_get_view_backend(m_pExportable),
                                       DestroyBackendThunk, holder);
}

void WpeFrameExporter::Stop()
{
    m_bRunning = false;
    if (m_pFrameTimer) {
        g_source_destroy(m_pFrameTimer);
        g_source_unref(m_pFrameTimer);
        m_pFrameTimer = nullptr;
    }
    m_nFrameDue = -1;
    m_bFramePending = false;
    m_Withheld.clear();
    m_nFrameWidth = 0;
    m_nFrameHeight = 0;
    // Given back while the backend exists: it goes with the view.
    ReleaseHeldBuffer();
    DropLastImage();
}

struct wpe_view_backend* WpeFrameExporter::Backend() const
{
    return m_pExportable ? wpe_view_backend_exportable_fdo_get_view_backend(m_pExportable) : nullptr;
}

void WpeFrameExporter::DestroyBackendThunk(gpointer data)
{
    auto* holder = static_cast<BackendHolder*>(data);
    wpe_view_backend_exportable_fdo_destroy(holder->exportable);
    if (holder->exporter->m_pExportable == holder->exportable)
        holder->exporter->m_pExportable = nullptr;
    delete holder;
}

// ---- export ----------------------------------------------------------------

void WpeFrameExporter::ExportShmBufferThunk(void* data, struct wpe_fdo_shm_exported_buffer* buffer)
{
    auto* holder = static_cast<BackendHolder*>(data);
    holder->exporter->OnExportedBuffer(holder, buffer);
}

void WpeFrameExporter::OnExportedBuffer(BackendHolder* holder, struct wpe_fdo_shm_exported_buffer* buffer)
{
    if (!m_bRunning || holder->exportable != m_pExportable) {
        // A backend on its way out: nobody shows its frames.
        wpe_view_backend_exportable_fdo_dispatch_release_shm_exported_buffer(holder->exportable, buffer);
        return;
    }
    bool copied = false;
    bool held = false;
    bool withheld = false;
    struct wl_shm_buffer* shm = wpe_fdo_shm_exported_buffer_get_shm_buffer(buffer);
    struct wl_resource* resource = wpe_fdo_shm_exported_buffer_get_resource(buffer);
    if (shm) {
        const uint32_t format = wl_shm_buffer_get_format(shm);
        const int width = wl_shm_buffer_get_width(shm);
        const int height = wl_shm_buffer_get_height(shm);
        const int stride = wl_shm_buffer_get_stride(shm);
        const bool opaque = format == WL_SHM_FORMAT_XRGB8888;
        if ((format == WL_SHM_FORMAT_ARGB8888 || opaque) && width > 0 && height > 0 && stride >= width * 4) {
            // A newer frame replaces one withheld.
            m_Withheld.clear();
            const bool grew = m_nFrameWidth > 0 && (width > m_nFrameWidth || height > m_nFrameHeight);
            m_nFrameWidth = width;
            m_nFrameHeight = height;
            if (grew) {
                // The first frame after the view grew: WebKit's compositor
                // renders one at the new size as soon as it hears of it,
                // still from the page's layers at the old size, so that only
                // the old area is painted. The next frame has the page laid
                // out at the new size; this one goes out only if none comes
                // (DispatchFrameComplete).
                withheld = CopyImage(shm, m_Withheld);
                m_nWithheldSince = g_get_monotonic_time();
            } else if (!opaque && stride == width * 4 && resource) {
                // Already a tightly packed BGRA image: delivered straight
                // from the buffer, which stays with us as the last image
                // until the next one arrives (the web process renders into
                // another buffer meanwhile).
                ReleaseHeldBuffer();
                DropLastImage();
                m_pHeldBuffer.reset(new HeldBuffer {{}, this, buffer, shm, width, height});
                m_pHeldBuffer->destroyListener.notify = HeldBufferDestroyed;
                wl_resource_add_destroy_listener(resource, &m_pHeldBuffer->destroyListener);
                held = true;
            } else if (CopyImage(shm, m_LastImage)) {
                ReleaseHeldBuffer();
                m_nLastWidth = width;
                m_nLastHeight = height;
                copied = true;
            }
        }
        if (!held && !copied && !withheld)
            NSLog("WpeView - browser %d: unusable frame (format %u, %d x %d, stride %d) dropped", m_nBrowserId, format,
                  width, height, stride);
    }
    if (!held)
        wpe_view_backend_exportable_fdo_dispatch_release_shm_exported_buffer(m_pExportable, buffer);
    m_bFramePending = true;
    ScheduleFrameComplete();
    if (held)
        DeliverHeldBuffer();
    else if (copied)
        m_Paint(m_LastImage.data(), m_nLastWidth, m_nLastHeight);
}

bool WpeFrameExporter::CopyImage(struct wl_shm_buffer* shm, std::vector<uint8_t>& image)
{
    const int width = wl_shm_buffer_get_width(shm);
    const int height = wl_shm_buffer_get_height(shm);
    const int stride = wl_shm_buffer_get_stride(shm);
    const size_t row = static_cast<size_t>(width) * 4;
    wl_shm_buffer_begin_access(shm);
    const auto* source = static_cast<const uint8_t*>(wl_shm_buffer_get_data(shm));
    if (source) {
        image.resize(row * static_cast<size_t>(height));
        for (int y = 0; y < height; ++y)
            std::memcpy(image.data() + row * y, source + static_cast<size_t>(stride) * y, row);
        if (wl_shm_buffer_get_format(shm) == WL_SHM_FORMAT_XRGB8888) {
            for (size_t i = 3; i < image.size(); i += 4)
                image[i] = 0xFF;
        }
    }
    wl_shm_buffer_end_access(shm);
    return source != nullptr;
}

// ---- the last image --------------------------------------------------------

bool WpeFrameExporter::Redeliver()
{
    if (DeliverHeldBuffer())
        return true;
    if (m_LastImage.empty())
        return false;
    m_Paint(m_LastImage.data(), m_nLastWidth, m_nLastHeight);
    return true;
}

bool WpeFrameExporter::DeliverHeldBuffer()
{
    if (!m_pHeldBuffer)
        return false;
    struct wl_shm_buffer* shm = m_pHeldBuffer->shm;
    wl_shm_buffer_begin_access(shm);
    if (const void* pixels = wl_shm_buffer_get_data(shm))
        m_Paint(pixels, m_pHeldBuffer->width, m_pHeldBuffer->height);
    wl_shm_buffer_end_access(shm);
    return true;
}

void WpeFrameExporter::ReleaseHeldBuffer()
{
    if (!m_pHeldBuffer)
        return;
    std::unique_ptr<HeldBuffer> held = std::move(m_pHeldBuffer);
    wl_list_remove(&held->destroyListener.link);
    if (m_pExportable)
        wpe_view_backend_exportable_fdo_dispatch_release_shm_exported_buffer(m_pExportable, held->exported);
}

void WpeFrameExporter::DropLastImage()
{
    m_LastImage.clear();
    m_LastImage.shrink_to_fit();
}

void WpeFrameExporter::HeldBufferDestroyed(struct wl_listener* listener, void*)
{
    HeldBuffer* held = wl_container_of(listener, held, destroyListener);
    WpeFrameExporter* self = held->exporter;
    // The buffer's memory is still there while its resource is being
    // destroyed: the image is copied so that Invalidate still has it. The
    // exported buffer cannot be given back any more (the backend's record
    // of it is lost with it).
    struct wl_shm_buffer* shm = held->shm;
    wl_shm_buffer_begin_access(shm);
    if (const auto* source = static_cast<const uint8_t*>(wl_shm_buffer_get_data(shm))) {
        self->m_LastImage.assign(source, source + static_cast<size_t>(held->width) * 4 * held->height);
        self->m_nLastWidth = held->width;
        self->m_nLastHeight = held->height;
    }
    wl_shm_buffer_end_access(shm);
    // The listener is off the resource's list already.
    self->m_pHeldBuffer.reset();
}

// ---- pacing ----------------------------------------------------------------

int64_t WpeFrameExporter::FrameSlotTime(int64_t slot) const
{
    return m_nFrameOrigin + slot * G_USEC_PER_SEC / m_nFrameRate;
}

void WpeFrameExporter::ScheduleFrameComplete()
{
    if (!m_pFrameTimer || m_nFrameDue >= 0)
        return;
    const int64_t now = g_get_monotonic_time();
    if (m_nFrameOrigin < 0) {
        // The grid starts with the first frame.
        m_nFrameOrigin = now;
        m_nFrameSlot = 0;
    }
    // The next slot that has not passed: a frame that rendered past its
    // slot waits for the following one instead of going out at once, and a
    // page that paints again after a pause joins the grid where it stands.
    int64_t slot = (now - m_nFrameOrigin) * m_nFrameRate / G_USEC_PER_SEC;
    if (FrameSlotTime(slot) < now)
        ++slot;
    slot = std::max(slot, m_nFrameSlot + 1);
    m_nFrameSlot = slot;
    m_nFrameDue = FrameSlotTime(slot);
    // The pump asks for the earliest due time after every pass and runs a
    // pass at that time (WpeEnginePort::GetNextDueTime).
    g_source_set_ready_time(m_pFrameTimer, m_nFrameDue);
}

gboolean WpeFrameExporter::FrameTimerThunk(gpointer data)
{
    static_cast<WpeFrameExporter*>(data)->DispatchFrameComplete();
    return G_SOURCE_CONTINUE;
}

void WpeFrameExporter::DispatchFrameComplete()
{
    if (m_pFrameTimer)
        g_source_set_ready_time(m_pFrameTimer, -1);
    m_nFrameDue = -1;
    if (!m_bRunning)
        return;
    if (!m_Withheld.empty()) {
        if (g_get_monotonic_time() - m_nWithheldSince >= kResizeWait) {
            NSLog("WpeView - browser %d: no other frame at %d x %d from the web process within %d ms; the first one "
                  "goes out as it is",
                  m_nBrowserId, m_nFrameWidth, m_nFrameHeight, static_cast<int>(kResizeWait / 1000));
            ReleaseHeldBuffer();
            m_LastImage = std::move(m_Withheld);
            m_Withheld.clear();
            m_nLastWidth = m_nFrameWidth;
            m_nLastHeight = m_nFrameHeight;
            m_Paint(m_LastImage.data(), m_nLastWidth, m_nLastHeight);
        } else {
            // The slots go on while a frame is withheld, so that it goes
            // out on one of them if no other frame comes.
            ScheduleFrameComplete();
        }
    }
    if (!m_bFramePending || !m_pExportable)
        return;
    m_bFramePending = false;
    wpe_view_backend_exportable_fdo_dispatch_frame_complete(m_pExportable);
}

} // namespace SLF_ChromiumEmbeddedFramework
