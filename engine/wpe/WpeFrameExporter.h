// Frame export and pacing of one view of the WPE port: the freedesktop.org
// exportable backend WebKit renders into, the last image (the web process's
// shared-memory buffer held, or a packed copy) and the timer that lets
// WebKit render the next frame on a fixed grid of slots. Owned by its
// WpeView; everything here runs on the pump thread.
#pragma once

#include <glib.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

typedef struct _WebKitWebViewBackend WebKitWebViewBackend;
struct wpe_view_backend;
struct wpe_view_backend_exportable_fdo;
struct wpe_fdo_shm_exported_buffer;
struct wl_listener;
struct wl_shm_buffer;

namespace SLF_ChromiumEmbeddedFramework {

class WpeFrameExporter {
public:
    // Receives every image (packed BGRA, width x height), on the pump thread.
    using PaintFn = std::function<void(const void* pixels, int width, int height)>;

    // frameRate: frames a second, already within the port's range.
    // browserId names the browser in log lines.
    WpeFrameExporter(GMainContext* context, int browserId, int frameRate, PaintFn paint);
    ~WpeFrameExporter();
    WpeFrameExporter(const WpeFrameExporter&) = delete;
    WpeFrameExporter& operator=(const WpeFrameExporter&) = delete;

    // ---- life cycle; used by WpeView (Open, DestroyWebView) -----------------
    // Makes the exportable backend at width x height, the WebKit backend on
    // it and the frame timer. keepAlive is held until WebKit lets the backend
    // go, since it may export into it until then (WpeView passes itself).
    WebKitWebViewBackend* Start(uint32_t width, uint32_t height, std::shared_ptr<void> keepAlive);
    // Stops pacing and lets go of the last image (the held buffer goes back
    // while the backend still exists). The backend itself goes when WebKit
    // drops it; frames it exports meanwhile are given back unseen. Start
    // may follow (a view made again keeps its grid).
    void Stop();
    // The view backend for input, size and activity state; null before
    // Start and once WebKit has dropped the backend.
    struct wpe_view_backend* Backend() const;

    // ---- repaint; used by WpeView::Invalidate -------------------------------
    // Delivers the last image again; false when there is none.
    bool Redeliver();

    // ---- pacing; used by the port's pump (WpeEnginePort::GetNextDueTime) ---
    // When the next frame_complete is due (microseconds of
    // g_get_monotonic_time), or -1 when none is waiting.
    int64_t GetDueTime() const { return m_nFrameDue; }

private:
    struct HeldBuffer;
    struct BackendHolder;

    // Backend callbacks (WebKit's rendering, on the pump thread).
    void OnExportedBuffer(BackendHolder* holder, struct wpe_fdo_shm_exported_buffer* buffer);
    static void ExportShmBufferThunk(void* data, struct wpe_fdo_shm_exported_buffer* buffer);
    static void DestroyBackendThunk(gpointer data);

    // The last image: the held buffer, or a copy in m_LastImage.
    bool DeliverHeldBuffer();
    // Copies the buffer's image, tightly packed and with alpha; false when
    // its memory cannot be read.
    static bool CopyImage(struct wl_shm_buffer* shm, std::vector<uint8_t>& image);
    void ReleaseHeldBuffer();
    void DropLastImage();
    // The held buffer's resource goes away with its web process: its image
    // is kept as a copy.
    static void HeldBufferDestroyed(struct wl_listener* listener, void* data);

    // Pacing: WebKit renders the next frame only after frame_complete,
    // which goes out on a fixed grid of slots, slot k at m_nFrameOrigin +
    // k seconds / rate (CLOCK_MONOTONIC), so that the frame rate is the one
    // asked for; a frame that misses its slot waits for the next one.
    void ScheduleFrameComplete();
    int64_t FrameSlotTime(int64_t slot) const;
    void DispatchFrameComplete();
    static gboolean FrameTimerThunk(gpointer data);

    GMainContext* const m_pContext;
    const int m_nBrowserId;
    const int m_nFrameRate; // frames a second
    const PaintFn m_Paint;

    // The backend: owned jointly with WebKit, destroyed when WebKit drops
    // its WebKitWebViewBackend (DestroyBackendThunk).
    struct wpe_view_backend_exportable_fdo* m_pExportable = nullptr;
    bool m_bRunning = false; // between Start and Stop

    // The last image, for Invalidate: either the web process's
    // shared-memory buffer itself, held (not given back) until the next one
    // arrives, or, when that buffer cannot be delivered as it is (another
    // row stride, no alpha), a tightly packed copy.
    std::unique_ptr<HeldBuffer> m_pHeldBuffer;
    std::vector<uint8_t> m_LastImage;
    int m_nLastWidth = 0;
    int m_nLastHeight = 0;

    // The first frame after the view grew, withheld until the next one (see
    // OnExportedBuffer), and the size of the newest frame exported.
    std::vector<uint8_t> m_Withheld;
    int64_t m_nWithheldSince = 0; // monotonic microseconds
    int m_nFrameWidth = 0;
    int m_nFrameHeight = 0;

    // Pacing state; the grid outlives a Stop and Start.
    GSource* m_pFrameTimer = nullptr;
    bool m_bFramePending = false; // a frame came that frame_complete has not answered yet
    int64_t m_nFrameOrigin = -1;  // monotonic microseconds of slot 0; -1 before the first frame
    int64_t m_nFrameSlot = 0;     // the slot of the last frame_complete scheduled
    int64_t m_nFrameDue = -1;     // when the scheduled frame_complete is due; -1 for none
};

} // namespace SLF_ChromiumEmbeddedFramework
