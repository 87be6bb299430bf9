// One browser of the WPE port: a WebKitWebView on an exportable
// shared-memory view backend. The object is the browser, its host and its
// main frame at once. Calls from any thread are queued to the pump thread;
// the WebKit objects are touched only there.
#pragma once

#include "engine/port/EnginePort.h"

#include <glib.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

typedef struct _WebKitWebView WebKitWebView;
typedef struct _WebKitUserMessage WebKitUserMessage;
typedef struct _WebKitHitTestResult WebKitHitTestResult;
typedef struct _WebKitScriptDialog WebKitScriptDialog;
typedef struct _WebKitNavigationAction WebKitNavigationAction;
typedef struct _WebKitURISchemeRequest WebKitURISchemeRequest;
struct wpe_view_backend;
struct wpe_view_backend_exportable_fdo;
struct wpe_fdo_shm_exported_buffer;
struct wl_listener;

namespace SLF_ChromiumEmbeddedFramework {

class WpeEnginePort;

class WpeView : public EngineBrowser,
                public EngineBrowserHost,
                public EngineFrame,
                public std::enable_shared_from_this<WpeView> {
public:
    // url is the view's URL from the start ("about:blank" for none), so
    // GetURL answers it as soon as the client learns the browser.
    WpeView(WpeEnginePort& port, int id, EngineClient* client, const EngineBrowserSettings& settings,
            const std::string& url);
    ~WpeView() override;
    WpeView(const WpeView&) = delete;
    WpeView& operator=(const WpeView&) = delete;

    // Pump thread: creates the WebKit view at the size the render handler
    // reports and starts loading the URL the view was made with.
    void Open();
    // Pump thread: destroys the WebKit view (idempotent). With notify, the
    // client's OnBeforeClose follows from a later pump pass.
    void Close(bool notify);
    // Pump thread: the view's web process is gone (or is ended because it
    // stopped responding). The view is made again at the browser's size,
    // rate and URL in a new web process, under the same identifier and
    // for the same client; after more than kMaxRecoveries within
    // kRecoveryWindow the browser is given up: it stays open and paints
    // nothing more. Its audio streams get their stop first.
    void RecoverWebProcess(EngineTerminationStatus status);
    bool IsGivenUp() const { return m_bGivenUp; }

    // Recoveries allowed within the window; one more crash gives up.
    static constexpr size_t kMaxRecoveries = 3;
    static constexpr int64_t kRecoveryWindow = 60 * G_USEC_PER_SEC;
    // How long the web process may stay unresponsive before it is ended.
    static constexpr int64_t kUnresponsiveLimit = 10 * G_USEC_PER_SEC;

    EngineClient* GetClient() const { return m_pClient; }
    // Pump thread: when the view's next frame_complete is due (microseconds
    // of g_get_monotonic_time), or -1 when none is waiting.
    int64_t GetFrameDueTime() const { return m_nFrameDue; }
    // Engine context: keeps a request for the internal scheme open until
    // the view closes (false when it has closed already).
    bool KeepRequestOpen(WebKitURISchemeRequest* request, EngineResourceHandler* handler);

    // EngineBrowser
    int GetIdentifier() override { return m_nId; }
    EngineBrowserHostRef GetHost() override { return shared_from_this(); }
    EngineFrameRef GetMainFrame() override { return shared_from_this(); }
    void Reload() override;
    void SendProcessMessage(const EngineProcessMessageRef& message) override;

    // EngineBrowserHost
    void WasResized() override;
    void WasHidden(bool hidden) override;
    void Invalidate() override;
    void SendMouseClickEvent(const EngineMouseEvent& event, EngineMouseButtonType type, bool mouseUp,
                             int clickCount) override;
    void SendMouseMoveEvent(const EngineMouseEvent& event, bool mouseLeave) override;
    void SendMouseWheelEvent(const EngineMouseEvent& event, int deltaX, int deltaY) override;
    void SendKeyEvent(const EngineKeyEvent& event) override;
    void CloseBrowser(bool forceClose) override;

    // EngineFrame
    std::string GetURL() override;
    void ExecuteJavaScript(const std::string& code, const std::string& scriptUrl, int startLine) override;

private:
    // Runs fn on the pump thread while the WebKit view exists.
    template <typename Fn>
    void OnPump(Fn fn);

    struct wpe_view_backend* Backend() const;
    uint32_t EventTime() const;
    void SetUrl(const char* uri);
    void DoResize();
    void DoClick(const EngineMouseEvent& event, EngineMouseButtonType type, bool mouseUp, int clickCount);
    void DoKey(const EngineKeyEvent& event);
    void DispatchKey(uint32_t keysym, uint32_t hardwareKeyCode, bool pressed, uint32_t modifiers);
    void DeliverPaint(const void* pixels, int width, int height);
    // Delivers the held shared-memory image (false without one).
    bool DeliverHeldBuffer();
    // Gives the held buffer back to the web process.
    void ReleaseHeldBuffer();
    // The held buffer's resource goes away with its web process: its image
    // is kept as a copy.
    static void HeldBufferDestroyed(struct wl_listener* listener, void* data);

    // Tears the WebKit view down with everything that belongs to its page
    // (timers, held image, page and process records, requests kept open;
    // their handlers are cancelled with cancelHandlers).
    void DestroyWebView(bool cancelHandlers);
    // After a web process ended: the view is made anew (or not, given up).
    void RebuildWebView(EngineTerminationStatus status, bool giveUp);
    void OnWebProcessTerminated(int reason);
    void OnResponsivenessChanged();
    void StopHangTimer();
    static gboolean HangTimerThunk(gpointer data);

    // Frame pacing: WebKit renders the next frame only after frame_complete,
    // which goes out on a fixed grid of slots, slot k at m_nFrameOrigin +
    // k seconds / rate, so that the frame rate is the one asked for.
    void ScheduleFrameComplete();
    int64_t FrameSlotTime(int64_t slot) const;
    void DispatchFrameComplete();

    // WebKit and backend callbacks.
    void OnExportedBuffer(struct wpe_fdo_shm_exported_buffer* buffer);
    void OnLoadChanged(int loadEvent);
    bool OnScriptDialog(WebKitScriptDialog* dialog);
    void OnMouseTargetChanged(WebKitHitTestResult* hit);
    bool OnUserMessage(WebKitUserMessage* message);
    void OnPopupRequest(WebKitNavigationAction* action);
    static void ExportShmBufferThunk(void* data, struct wpe_fdo_shm_exported_buffer* buffer);
    static void DestroyBackendThunk(gpointer data);
    static gboolean FrameTimerThunk(gpointer data);

    WpeEnginePort& m_Port;
    const int m_nId;
    EngineClient* const m_pClient;
    const EngineBrowserSettings m_Settings;

    // Pump-thread state.
    WebKitWebView* m_pView = nullptr;
    struct wpe_view_backend_exportable_fdo* m_pExportable = nullptr;
    GSource* m_pFrameTimer = nullptr;
    bool m_bClosed = false;
    bool m_bFramePending = false;
    int m_nFrameRate = 0;         // frames a second
    int64_t m_nFrameOrigin = -1;  // monotonic microseconds of slot 0; -1 before the first frame
    int64_t m_nFrameSlot = 0;     // the slot of the last frame_complete scheduled
    int64_t m_nFrameDue = -1;     // when the scheduled frame_complete is due; -1 for none
    // The last painted image, for Invalidate: either the web process's
    // shared-memory buffer itself, held (not given back) until the next one
    // arrives, or, when that buffer cannot be delivered as it is (another
    // row stride, no alpha), a tightly packed copy.
    struct HeldBuffer;
    std::unique_ptr<HeldBuffer> m_pHeldBuffer;
    std::vector<uint8_t> m_LastImage;
    int m_nLastWidth = 0;
    int m_nLastHeight = 0;
    int m_nCursor = -1;
    std::set<uint32_t> m_PressedKeys;
    int64_t m_nLastPressTime = 0;
    int m_nLastPressX = 0;
    int m_nLastPressY = 0;
    uint64_t m_nPageId = 0;
    std::vector<std::pair<WebKitURISchemeRequest*, EngineResourceHandler*>> m_OpenRequests;
    // Web-process recovery: the hang timer runs while WebKit reports the
    // process unresponsive; m_bRecovering from the end of a process until
    // its view is made again; the times of the recent recoveries.
    GSource* m_pHangTimer = nullptr;
    bool m_bRecovering = false;
    bool m_bGivenUp = false;
    bool m_bHidden = false;
    std::deque<int64_t> m_Recoveries; // monotonic microseconds

    // The view's URL, readable from any thread. Lock order: a leaf lock.
    std::mutex m_UrlMutex;
    std::string m_strUrl;
};

} // namespace SLF_ChromiumEmbeddedFramework
