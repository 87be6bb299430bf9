// One browser of the WebKitGTK port: a web view in a GTK offscreen window on
// the private headless display. The object is the browser, its host and its
// main frame at once; WebKit and GTK objects are touched on the pump thread
// only.
//
// Painting: the offscreen window's painting is frozen between frames. A
// per-view timer on a fixed grid at the browser's frame rate delivers the
// window's newest painted image (on Wayland its surface is an image in
// client memory: cairo ARGB32, B, G, R, A in memory, premultiplied, rows of
// width * 4 bytes; on X the view is drawn again into client memory) and
// then lets the window paint once more, drawing the view. WebKit's web
// process sends its next frame only after the view drew the last one, so
// painting follows the browser's rate, not the display's refresh. The page's
// requestAnimationFrame does not: WebKit runs it from its own timer at the
// display's refresh (60 Hz on the headless display), about two callbacks per
// frame drawn, so up to 60 a second.
#pragma once

#include "engine/gtk/GtkInput.h"
#include "engine/port/EnginePort.h"
#include "engine/wpe/WpeServedView.h"
#include "engine/port/EngineRecovery.h"

#include <glib.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

typedef struct _GtkWidget GtkWidget;
typedef struct _WebKitWebView WebKitWebView;
typedef struct _WebKitUserMessage WebKitUserMessage;
typedef struct _WebKitHitTestResult WebKitHitTestResult;
typedef struct _WebKitScriptDialog WebKitScriptDialog;
typedef struct _WebKitNavigationAction WebKitNavigationAction;
typedef struct _cairo_surface cairo_surface_t;
typedef struct _GCancellable GCancellable;

namespace SLF_ChromiumEmbeddedFramework {

class GtkEnginePort;

class GtkView : public WpeServedView, public std::enable_shared_from_this<GtkView> {
public:
    GtkView(GtkEnginePort& port, int id, EngineClient* client, const EngineBrowserSettings& settings,
            const std::string& url);
    ~GtkView() override;
    GtkView(const GtkView&) = delete;
    GtkView& operator=(const GtkView&) = delete;

    // Pump thread: makes the window and the view and starts loading.
    void Open();
    // Pump thread: destroys the view (idempotent); with notify the client's
    // OnBeforeClose follows from a later pump pass.
    void Close(bool notify);

    // The resource and audio threads' side (WpeServedView).
    EngineClient* GetClient() const override { return m_pClient; }
    bool KeepRequestOpen(WebKitURISchemeRequest* request, EngineResourceHandler* handler) override;
    // ---- web-process recovery (GtkViewRecovery.cpp); pump thread ----------
    // The view's web process is gone (or is ended because it stopped
    // responding): the view is made again at the browser's size, rate and
    // URL in a new web process, under the same identifier and for the same
    // client, and the client's OnRenderProcessTerminated follows. After
    // WebProcessRecoveries::kMaxRecoveries within its window the browser is
    // given up: it stays open and paints nothing more.
    void RecoverWebProcess(EngineTerminationStatus status);
    bool IsGivenUp() const { return m_bGivenUp; }

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
    template <typename Fn>
    void OnPump(Fn fn);

    void SetUrl(const char* uri);
    void ApplySize(int width, int height);
    // The frame timer: lets the window paint once.
    void OnFrameDue();
    // The window painted: its image goes to the client.
    void OnWindowPainted();
    void SetPainted(cairo_surface_t* surface);
    // Draws the view into m_pSurface.
    bool DrawFrame();
    // The view's frame fills the browser's size (after a resize: WebKit's
    // frame is at the new size), or the wait for it is over.
    bool ViewFrameFillsSize();
    void Deliver();
    void OnLoadChanged(int loadEvent);
    bool OnUserMessage(WebKitUserMessage* message);

    // The page's requests to the user interface (GtkViewUi.cpp): popups,
    // script dialogs, menus and the cursor.
    void ConnectUiSignals();
    void OnPopupRequest(WebKitNavigationAction* action);
    bool OnScriptDialog(WebKitScriptDialog* dialog);
    void OnMouseTargetChanged(WebKitHitTestResult* hit);
    // The page's records with the port go (page, processes, claims), and
    // its requests kept open end; their handlers are cancelled with
    // cancelHandlers.
    void ForgetPage(bool cancelHandlers);
    // Tears the window and the web view down (the browser stays); the
    // page's records go (ForgetPage).
    void DestroyWebView(bool cancelHandlers);

    // ---- web-process recovery (GtkViewRecovery.cpp) ------------------------
    // Watches the web view's process: its end, WebKit's responsiveness
    // notice, and a ping of our own once a second.
    void WatchWebProcess();
    void StopWatchingWebProcess();
    void OnWebProcessTerminated(int reason);
    void OnWatchTick();
    void OnPingAnswered(uint64_t generation);
    void RebuildWebView(EngineTerminationStatus status, bool giveUp);

    GtkEnginePort& m_Port;
    const int m_nId;
    EngineClient* const m_pClient;
    const EngineBrowserSettings m_Settings;

    // Pump-thread state.
    GtkWidget* m_pWindow = nullptr;
    WebKitWebView* m_pView = nullptr;
    cairo_surface_t* m_pSurface = nullptr;
    GSource* m_pFrameTimer = nullptr;
    int m_nWidth = 0;
    int m_nHeight = 0;
    int64_t m_nFramePeriod = 0; // microseconds
    int64_t m_nGridStart = 0;   // monotonic microseconds of frame 0
    int64_t m_nFrameIndex = 0;
    bool m_bHasImage = false;
    bool m_bHidden = false;
    bool m_bClosed = false;
    bool m_bPaced = false;
    bool m_bFrozen = false;
    bool m_bNewImage = false;
    // The current navigation committed: its web process renders, so drawing
    // the view does not wait for it (see OnFrameDue).
    bool m_bCommitted = false;
    // The page's web process came up (it reported the page, or a load
    // committed): ending it now is not lost in its launch.
    bool m_bProcessUp = false;
    // Resized: no image at the new size goes out before WebKit's frame
    // fills it (see OnWindowPainted), for at most kResizeWait from
    // m_nSizePendingSince (monotonic microseconds; restarted when shown).
    bool m_bSizePending = false;
    int64_t m_nSizePendingSince = 0;
    int m_nCursor = -1; // the cursor last reported to the render handler
    GtkInput m_Input;
    // WebKit's page identifier, registered with the port (0 when none).
    uint64_t m_nPageId = 0;
    // Requests for the internal scheme kept open until the view goes.
    OpenSchemeRequests m_OpenRequests;
    // The image of the last frame: the window's own surface (referenced)
    // or, when that is not in client memory, m_pSurface (null here).
    cairo_surface_t* m_pPainted = nullptr;

    // Web-process recovery; pump thread. A ping is outstanding since
    // m_nPingSent (0: none); WebKit has found the process unresponsive since
    // m_nUnresponsiveSince (0: it has not). m_nWatchGeneration tells the
    // answers of an old web view's pings from the current one's.
    GSource* m_pWatchTimer = nullptr;
    GCancellable* m_pPingCancel = nullptr;
    uint64_t m_nWatchGeneration = 0;
    int64_t m_nPingSent = 0;
    int64_t m_nUnresponsiveSince = 0;
    int64_t m_nLastTick = 0;
    bool m_bPinging = false; // from the page's first message or committed load on
    bool m_bRecovering = false;
    bool m_bGivenUp = false;
    WebProcessRecoveries m_Recoveries;

    // The view's URL, readable from any thread. Lock order: a leaf lock.
    std::mutex m_UrlMutex;
    std::string m_strUrl;
};

} // namespace SLF_ChromiumEmbeddedFramework
