// One browser of the WPE port: a WebKitWebView on an exportable
// shared-memory view backend. The object is the browser, its host and its
// main frame at once. Calls from any thread are queued to the pump thread;
// the WebKit objects are touched only there.
//
// Owned by the port (WpeEnginePort::m_Views) and by the client's browser
// references. The view keeps its life cycle and WebKit's signals here
// (WpeView.cpp) and its web-process recovery in WpeViewRecovery.cpp; it owns
// its frame export and pacing (WpeFrameExporter) and its input synthesis
// (WpeInput).
#pragma once

#include "engine/port/EnginePort.h"
#include "engine/port/EngineRecovery.h"
#include "engine/wpe/WpeInput.h"
#include "engine/wpe/WpeServedView.h"

#include <glib.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

typedef struct _WebKitWebView WebKitWebView;
typedef struct _WebKitUserMessage WebKitUserMessage;
typedef struct _WebKitHitTestResult WebKitHitTestResult;
typedef struct _WebKitScriptDialog WebKitScriptDialog;
typedef struct _WebKitNavigationAction WebKitNavigationAction;
typedef struct _WebKitURISchemeRequest WebKitURISchemeRequest;
struct wpe_view_backend;

namespace SLF_ChromiumEmbeddedFramework {

class WpeEnginePort;
class WpeFrameExporter;

class WpeView : public WpeServedView, public std::enable_shared_from_this<WpeView> {
public:
    // url is the view's URL from the start ("about:blank" for none), so
    // GetURL answers it as soon as the client learns the browser.
    WpeView(WpeEnginePort& port, int id, EngineClient* client, const EngineBrowserSettings& settings,
            const std::string& url);
    ~WpeView() override;
    WpeView(const WpeView&) = delete;
    WpeView& operator=(const WpeView&) = delete;

    // ---- life cycle; used by the port (CreateView, Shutdown) --------------
    // Pump thread: creates the WebKit view at the size the render handler
    // reports and starts loading the URL the view was made with.
    void Open();
    // Pump thread: destroys the WebKit view (idempotent). With notify, the
    // client's OnBeforeClose follows from a later pump pass.
    void Close(bool notify);
    // ---- web-process recovery (WpeViewRecovery.cpp); pump thread ----------
    // Pump thread: the view's web process is gone (or is ended because it
    // stopped responding). The view is made again at the browser's size,
    // rate and URL in a new web process, under the same identifier and
    // for the same client; after more than kMaxRecoveries within
    // kRecoveryWindow the browser is given up: it stays open and paints
    // nothing more. Its audio streams get their stop first.
    void RecoverWebProcess(EngineTerminationStatus status);
    bool IsGivenUp() const { return m_bGivenUp; }

    // Recoveries allowed within the window; one more crash gives up.
    static constexpr size_t kMaxRecoveries = WebProcessRecoveries::kMaxRecoveries;
    static constexpr int64_t kRecoveryWindow = WebProcessRecoveries::kWindow;
    // How long the web process may stay unresponsive before it is ended.
    static constexpr int64_t kUnresponsiveLimit = WebProcessRecoveries::kUnresponsiveLimit;

    // ---- used by the port, its resource and audio servers -----------------
    EngineClient* GetClient() const override { return m_pClient; }
    // Pump thread (the port asks after every pump pass): when the view's
    // next frame_complete is due (microseconds of g_get_monotonic_time), or
    // -1 when none is waiting.
    int64_t GetFrameDueTime() const;
    // Engine context: keeps a request for the internal scheme open until
    // the view closes (false when it has closed already).
    bool KeepRequestOpen(WebKitURISchemeRequest* request, EngineResourceHandler* handler) override;

    // ---- the port's interfaces; used by the client, from any thread (queued
    // to the pump thread) -----------------------------------------------------
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
    // ---- life cycle (WpeView.cpp) ------------------------------------------
    // Runs fn on the pump thread while the WebKit view exists.
    template <typename Fn>
    void OnPump(Fn fn);
    struct wpe_view_backend* Backend() const;
    void SetUrl(const char* uri);
    void DoResize();
    // Hands an image to the client's render handler (the exporter's sink).
    void DeliverPaint(const void* pixels, int width, int height);
    // Tears the WebKit view down with everything that belongs to its page
    // (frame export, page and process records, requests kept open; their
    // handlers are cancelled with cancelHandlers).
    void DestroyWebView(bool cancelHandlers);

    // ---- WebKit signals (WpeView.cpp), on the pump thread -----------------
    void OnLoadChanged(int loadEvent);
    bool OnScriptDialog(WebKitScriptDialog* dialog);
    void OnMouseTargetChanged(WebKitHitTestResult* hit);
    bool OnUserMessage(WebKitUserMessage* message);
    void OnPopupRequest(WebKitNavigationAction* action);

    // ---- web-process recovery (WpeViewRecovery.cpp) ------------------------
    // After a web process ended: the view is made anew (or not, given up).
    void RebuildWebView(EngineTerminationStatus status, bool giveUp);
    void OnWebProcessTerminated(int reason);
    void OnResponsivenessChanged();
    void StopHangTimer();
    static gboolean HangTimerThunk(gpointer data);

    // ---- identity; set at construction, read from any thread --------------
    WpeEnginePort& m_Port;
    const int m_nId;
    EngineClient* const m_pClient;
    const EngineBrowserSettings m_Settings;

    // ---- the WebKit view; pump thread ---------------------------------------
    WebKitWebView* m_pView = nullptr;
    bool m_bClosed = false;
    bool m_bHidden = false; // kept for a view made again
    int m_nCursor = -1;     // the cursor last reported to the render handler
    uint64_t m_nPageId = 0; // WebKit's page identifier, registered with the port
    // Requests for the internal scheme kept open until the view goes.
    OpenSchemeRequests m_OpenRequests;

    // ---- frames; owned here, pump thread (see WpeFrameExporter) ------------
    std::unique_ptr<WpeFrameExporter> m_pFrames;

    // ---- input; owned here, pump thread (see WpeInput) ---------------------
    WpeInput m_Input;

    // ---- web-process recovery; pump thread ---------------------------------
    // The hang timer runs while WebKit reports the process unresponsive;
    // m_bRecovering from the end of a process until its view is made again;
    // the times of the recent recoveries.
    GSource* m_pHangTimer = nullptr;
    bool m_bRecovering = false;
    bool m_bGivenUp = false;
    WebProcessRecoveries m_Recoveries;

    // ---- the view's URL, readable from any thread -------------------------
    // Lock order: a leaf lock.
    std::mutex m_UrlMutex;
    std::string m_strUrl;
};

} // namespace SLF_ChromiumEmbeddedFramework
