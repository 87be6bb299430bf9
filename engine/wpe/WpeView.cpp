#include "engine/wpe/WpeView.h"

#include "dbg/NSLog.h"
#include "engine/wpe/WpeEnginePort.h"
#include "engine/wpe/WpeAudioWire.h"
#include "engine/wpe/WpeFrameExporter.h"
#include "engine/wpe/WpePageUi.h"
#include "engine/wpe/WpeResourceServer.h"
#include "engine/wpe/WpeVariantCodec.h"

#include <wpe/webkit.h>

#include <algorithm>
#include <cstring>

namespace SLF_ChromiumEmbeddedFramework {

namespace {

constexpr int kDefaultWidth = 800;
constexpr int kDefaultHeight = 600;
// Larger views are cut to this edge length (the renderer's texture limit).
constexpr int kMaxEdge = 16384;
constexpr int kMinFrameRate = 1;
constexpr int kMaxFrameRate = 240;

void ApplyState(WebKitSettings* settings, EngineState state, void (*setter)(WebKitSettings*, gboolean))
{
    if (state == STATE_ENABLED)
        setter(settings, TRUE);
    else if (state == STATE_DISABLED)
        setter(settings, FALSE);
}

} // namespace

WpeView::WpeView(WpeEnginePort& port, int id, EngineClient* client, const EngineBrowserSettings& settings,
                 const std::string& url)
    : m_Port(port),
      m_nId(id),
      m_pClient(client),
      m_Settings(settings),
      m_strUrl(url.empty() ? "about:blank" : url)
{
    m_pFrames = std::make_unique<WpeFrameExporter>(
        port.GetMainContext(), id, std::clamp(settings.windowless_frame_rate, kMinFrameRate, kMaxFrameRate),
        [this](const void* pixels, int width, int height) { DeliverPaint(pixels, width, height); });
}

WpeView::~WpeView() = default;

template <typename Fn>
void WpeView::OnPump(Fn fn)
{
    auto self = shared_from_this();
    m_Port.Post([self, fn = std::move(fn)]() mutable {
        if (self->m_pView && !self->m_bClosed)
            fn();
    });
}

struct wpe_view_backend* WpeView::Backend() const
{
    return m_pFrames->Backend();
}

int64_t WpeView::GetFrameDueTime() const
{
    return m_pFrames->GetDueTime();
}

void WpeView::SetUrl(const char* uri)
{
    std::lock_guard<std::mutex> lock(m_UrlMutex);
    m_strUrl = uri ? uri : "";
}

// ---- life cycle ------------------------------------------------------------

void WpeView::Open()
{
    if (m_bClosed || m_pView)
        return;

    int width = kDefaultWidth;
    int height = kDefaultHeight;
    if (EngineRenderHandler* handler = m_pClient->GetRenderHandler()) {
        EngineRect rect;
        if (handler->GetViewRect(shared_from_this(), rect) && rect.width > 0 && rect.height > 0) {
            width = std::min(rect.width, kMaxEdge);
            height = std::min(rect.height, kMaxEdge);
        }
    }

    // The backend keeps this object alive while WebKit may render into it.
    WebKitWebViewBackend* viewBackend =
        m_pFrames->Start(static_cast<uint32_t>(width), static_cast<uint32_t>(height), shared_from_this());
    struct wpe_view_backend* backend = m_pFrames->Backend();
    // A view made again after its web process ended keeps a hidden state.
    wpe_view_backend_add_activity_state(backend, (m_bHidden ? 0 : wpe_view_activity_state_visible) |
                                                     wpe_view_activity_state_focused |
                                                     wpe_view_activity_state_in_window);

    WebKitSettings* settings = webkit_settings_new();
    ApplyState(settings, m_Settings.javascript, webkit_settings_set_enable_javascript);
    ApplyState(settings, m_Settings.javascript_access_clipboard, webkit_settings_set_javascript_can_access_clipboard);
    ApplyState(settings, m_Settings.local_storage, webkit_settings_set_enable_html5_local_storage);
    ApplyState(settings, m_Settings.file_access_from_file_urls, webkit_settings_set_allow_file_access_from_file_urls);
    ApplyState(settings, m_Settings.universal_access_from_file_urls,
               webkit_settings_set_allow_universal_access_from_file_urls);
    ApplyState(settings, m_Settings.webgl, webkit_settings_set_enable_webgl);
    // Overlays play media and sound without anyone to click them.
    webkit_settings_set_media_playback_requires_user_gesture(settings, FALSE);
    webkit_settings_set_enable_webaudio(settings, TRUE);
    // Window requests reach the client's popup handler (and are refused
    // there) instead of being blocked silently.
    webkit_settings_set_javascript_can_open_windows_automatically(settings, TRUE);

    m_pView = WEBKIT_WEB_VIEW(g_object_new(WEBKIT_TYPE_WEB_VIEW, "backend", viewBackend, "web-context",
                                           m_Port.GetWebContext(), "settings", settings, nullptr));
    g_object_unref(settings);

    if (auto scale = m_Port.GetDeviceScaleFactor())
        wpe_view_backend_dispatch_set_device_scale_factor(backend, static_cast<float>(*scale));

    m_nPageId = webkit_web_view_get_page_id(m_pView);
    m_Port.RegisterPage(m_nPageId, shared_from_this());

    WebKitColor transparent = {0.0, 0.0, 0.0, 0.0};
    webkit_web_view_set_background_color(m_pView, &transparent);

    g_signal_connect(m_pView, "load-changed", G_CALLBACK(+[](WebKitWebView*, WebKitLoadEvent event, gpointer self) {
                         static_cast<WpeView*>(self)->OnLoadChanged(event);
                     }),
                     this);
    // WebKit clears the URI when the web process ends; the browser keeps
    // its URL, which its recovery loads again.
    g_signal_connect(m_pView, "notify::uri", G_CALLBACK(+[](WebKitWebView* view, GParamSpec*, gpointer self) {
                         const char* uri = webkit_web_view_get_uri(view);
                         if (uri && *uri)
                             static_cast<WpeView*>(self)->SetUrl(uri);
                     }),
                     this);
    g_signal_connect(m_pView, "create",
                     G_CALLBACK(+[](WebKitWebView*, WebKitNavigationAction* action, gpointer self) -> WebKitWebView* {
                         static_cast<WpeView*>(self)->OnPopupRequest(action);
                         return nullptr;
                     }),
                     this);
    g_signal_connect(m_pView, "script-dialog",
                     G_CALLBACK(+[](WebKitWebView*, WebKitScriptDialog* dialog, gpointer self) -> gboolean {
                         return static_cast<WpeView*>(self)->OnScriptDialog(dialog);
                     }),
                     this);
    g_signal_connect(m_pView, "mouse-target-changed",
                     G_CALLBACK(+[](WebKitWebView*, WebKitHitTestResult* hit, guint, gpointer self) {
                         static_cast<WpeView*>(self)->OnMouseTargetChanged(hit);
                     }),
                     this);
    g_signal_connect(m_pView, "user-message-received",
                     G_CALLBACK(+[](WebKitWebView*, WebKitUserMessage* message, gpointer self) -> gboolean {
                         return static_cast<WpeView*>(self)->OnUserMessage(message);
                     }),
                     this);
    g_signal_connect(m_pView, "close",
                     G_CALLBACK(+[](WebKitWebView*, gpointer self) { static_cast<WpeView*>(self)->Close(true); }),
                     this);
    g_signal_connect(m_pView, "web-process-terminated",
                     G_CALLBACK(+[](WebKitWebView*, WebKitWebProcessTerminationReason reason, gpointer self) {
                         static_cast<WpeView*>(self)->OnWebProcessTerminated(reason);
                     }),
                     this);
    g_signal_connect(m_pView, "notify::is-web-process-responsive",
                     G_CALLBACK(+[](WebKitWebView*, GParamSpec*, gpointer self) {
                         static_cast<WpeView*>(self)->OnResponsivenessChanged();
                     }),
                     this);

    webkit_web_view_load_uri(m_pView, GetURL().c_str());
}

void WpeView::Close(bool notify)
{
    if (m_bClosed)
        return;
    m_bClosed = true;
    DestroyWebView(notify);

    auto self = shared_from_this();
    m_Port.ForgetView(m_nId);
    if (notify) {
        m_Port.Post([self]() {
            if (EngineLifeSpanHandler* handler = self->m_pClient->GetLifeSpanHandler())
                handler->OnBeforeClose(self);
        });
    }
}

void WpeView::DestroyWebView(bool cancelHandlers)
{
    StopHangTimer();
    // Pacing stops and the last image goes while the backend exists.
    m_pFrames->Stop();
    if (m_pView) {
        WebKitWebView* view = m_pView;
        m_pView = nullptr;
        g_signal_handlers_disconnect_by_data(view, this);
        // The last reference: the page closes and its backend goes with it.
        g_object_unref(view);
    }
    m_Input.Reset();
    // Requests that were to stay open end with the view.
    m_Port.ForgetServedPage(this, m_nPageId, m_OpenRequests, cancelHandlers);
}

bool WpeView::KeepRequestOpen(WebKitURISchemeRequest* request, EngineResourceHandler* handler)
{
    if (m_bClosed)
        return false;
    g_object_ref(request);
    m_OpenRequests.emplace_back(request, handler);
    return true;
}

// ---- browser and frame -----------------------------------------------------

void WpeView::Reload()
{
    OnPump([this]() { webkit_web_view_reload(m_pView); });
}

void WpeView::SendProcessMessage(const EngineProcessMessageRef& message)
{
    if (!message)
        return;
    OnPump([this, message]() {
        GVariant* parameters = ProcessMessageArgumentsToVariant(*message);
        WebKitUserMessage* userMessage = webkit_user_message_new(message->GetName().c_str(), parameters);
        webkit_web_view_send_message_to_page(m_pView, userMessage, nullptr, nullptr, nullptr);
    });
}

std::string WpeView::GetURL()
{
    std::lock_guard<std::mutex> lock(m_UrlMutex);
    return m_strUrl;
}

void WpeView::ExecuteJavaScript(const std::string& code, const std::string&, int)
{
    OnPump([this, code]() { webkit_web_view_run_javascript(m_pView, code.c_str(), nullptr, nullptr, nullptr); });
}

// ---- host ------------------------------------------------------------------

void WpeView::WasResized()
{
    OnPump([this]() { DoResize(); });
}

void WpeView::DoResize()
{
    EngineRenderHandler* handler = m_pClient->GetRenderHandler();
    EngineRect rect;
    if (!handler || !handler->GetViewRect(shared_from_this(), rect) || rect.width <= 0 || rect.height <= 0)
        return;
    if (rect.width > kMaxEdge || rect.height > kMaxEdge) {
        NSLog("WpeView::WasResized - browser %d: %d x %d is larger than the engine renders; cut to %d", m_nId,
              rect.width, rect.height, kMaxEdge);
        rect.width = std::min(rect.width, kMaxEdge);
        rect.height = std::min(rect.height, kMaxEdge);
    }
    if (struct wpe_view_backend* backend = Backend())
        wpe_view_backend_dispatch_set_size(backend, static_cast<uint32_t>(rect.width),
                                           static_cast<uint32_t>(rect.height));
}

void WpeView::WasHidden(bool hidden)
{
    OnPump([this, hidden]() {
        m_bHidden = hidden;
        struct wpe_view_backend* backend = Backend();
        if (!backend)
            return;
        if (hidden)
            wpe_view_backend_remove_activity_state(backend, wpe_view_activity_state_visible);
        else
            wpe_view_backend_add_activity_state(backend, wpe_view_activity_state_visible);
    });
}

void WpeView::Invalidate()
{
    OnPump([this]() { m_pFrames->Redeliver(); });
}

void WpeView::SendMouseClickEvent(const EngineMouseEvent& event, EngineMouseButtonType type, bool mouseUp,
                                  int clickCount)
{
    OnPump([this, event, type, mouseUp, clickCount]() { m_Input.Click(Backend(), event, type, mouseUp, clickCount); });
}

void WpeView::SendMouseMoveEvent(const EngineMouseEvent& event, bool mouseLeave)
{
    OnPump([this, event, mouseLeave]() { m_Input.Move(Backend(), event, mouseLeave); });
}

void WpeView::SendMouseWheelEvent(const EngineMouseEvent& event, int deltaX, int deltaY)
{
    OnPump([this, event, deltaX, deltaY]() { m_Input.Wheel(Backend(), event, deltaX, deltaY); });
}

void WpeView::SendKeyEvent(const EngineKeyEvent& event)
{
    OnPump([this, event]() { m_Input.Key(Backend(), event); });
}

void WpeView::CloseBrowser(bool forceClose)
{
    // Also a browser given up after its crashes (no WebKit view) closes.
    auto self = shared_from_this();
    m_Port.Post([self, forceClose]() {
        if (self->m_bClosed)
            return;
        if (forceClose || !self->m_pView)
            self->Close(true);
        else
            webkit_web_view_try_close(self->m_pView); // "close" follows unless the page objects
    });
}

void WpeView::DeliverPaint(const void* pixels, int width, int height)
{
    if (m_bClosed)
        return;
    if (EngineRenderHandler* handler = m_pClient->GetRenderHandler())
        handler->OnPaint(shared_from_this(), pixels, width, height);
}

// ---- WebKit signals ----------------------------------------------------------

void WpeView::OnLoadChanged(int loadEvent)
{
    EngineLoadHandler* handler = m_pClient->GetLoadHandler();
    if (!handler)
        return;
    auto self = shared_from_this();
    if (loadEvent == WEBKIT_LOAD_STARTED) {
        handler->OnLoadStart(self, self);
    } else if (loadEvent == WEBKIT_LOAD_FINISHED) {
        int status = 0;
        if (WebKitWebResource* resource = webkit_web_view_get_main_resource(m_pView)) {
            if (WebKitURIResponse* response = webkit_web_resource_get_response(resource))
                status = static_cast<int>(webkit_uri_response_get_status_code(response));
        }
        // Local documents have no HTTP status; a finished load of one is a
        // success.
        if (status == 0)
            status = 200;
        handler->OnLoadEnd(self, self, status);
    }
}

bool WpeView::OnScriptDialog(WebKitScriptDialog* dialog)
{
    return AnswerScriptDialog(dialog, m_pClient, shared_from_this(), GetURL());
}

void WpeView::OnMouseTargetChanged(WebKitHitTestResult* hit)
{
    const EngineCursorType cursor = CursorForHitTest(hit);
    if (cursor == m_nCursor)
        return;
    m_nCursor = cursor;
    if (EngineRenderHandler* handler = m_pClient->GetRenderHandler())
        handler->OnCursorChange(shared_from_this(), cursor);
}

bool WpeView::OnUserMessage(WebKitUserMessage* userMessage)
{
    const char* name = webkit_user_message_get_name(userMessage);
    // The web process tells which process shows this page (for its audio);
    // this is the port's own business, not the client's.
    if (name && std::strcmp(name, kPageProcessMessage) == 0) {
        GVariant* parameters = webkit_user_message_get_parameters(userMessage);
        guint64 token = 0;
        if (parameters && g_variant_is_of_type(parameters, G_VARIANT_TYPE("(t)")))
            g_variant_get(parameters, "(t)", &token);
        m_Port.ClaimPageFromView(token, shared_from_this());
        return true;
    }
    std::string error;
    EngineProcessMessageRef message =
        ProcessMessageFromVariant(name ? name : "", webkit_user_message_get_parameters(userMessage), error);
    if (!message) {
        NSLog("WpeView - browser %d: message from the web process dropped: %s", m_nId, error.c_str());
        return true;
    }
    m_Port.CorrectProcessId(*this, *message);
    return m_pClient->OnProcessMessageReceived(shared_from_this(), message);
}

void WpeView::OnPopupRequest(WebKitNavigationAction* action)
{
    std::string target;
    if (WebKitURIRequest* request = webkit_navigation_action_get_request(action)) {
        if (const char* uri = webkit_uri_request_get_uri(request))
            target = uri;
    }
    bool cancelled = true;
    if (EngineLifeSpanHandler* handler = m_pClient->GetLifeSpanHandler())
        cancelled = handler->OnBeforePopup(shared_from_this(), target);
    if (!cancelled)
        NSLog("WpeView - browser %d: popup to %s refused; off-screen browsers open no windows", m_nId, target.c_str());
}

} // namespace SLF_ChromiumEmbeddedFramework
