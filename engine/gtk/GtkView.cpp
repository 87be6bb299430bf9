#include "engine/gtk/GtkView.h"

#include "dbg/NSLog.h"
#include "engine/gtk/GtkEnginePort.h"
#include "engine/wpe/WpeAudioWire.h"
#include "engine/wpe/WpeResourceServer.h"
#include "engine/wpe/WpeVariantCodec.h"

#include <cairo.h>
#include <gtk/gtk.h>
#include <webkit2/webkit2.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace SLF_ChromiumEmbeddedFramework {

namespace {

constexpr int kDefaultWidth = 800;
constexpr int kDefaultHeight = 600;
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

GSourceFuncs s_FrameTimerFuncs = {nullptr,
                                  nullptr,
                                  [](GSource*, GSourceFunc callback, gpointer data) -> gboolean {
                                      return callback ? callback(data) : G_SOURCE_CONTINUE;
                                  },
                                  nullptr,
                                  nullptr,
                                  nullptr};

} // namespace

GtkView::GtkView(GtkEnginePort& port, int id, EngineClient* client, const EngineBrowserSettings& settings,
                 const std::string& url)
    : m_Port(port),
      m_nId(id),
      m_pClient(client),
      m_Settings(settings),
      m_strUrl(url.empty() ? "about:blank" : url)
{
    const int rate = std::clamp(settings.windowless_frame_rate, kMinFrameRate, kMaxFrameRate);
    m_nFramePeriod = G_USEC_PER_SEC / rate;
}

GtkView::~GtkView()
{
    SetPainted(nullptr);
    if (m_pSurface)
        cairo_surface_destroy(m_pSurface);
}

template <typename Fn>
void GtkView::OnPump(Fn fn)
{
    auto self = shared_from_this();
    m_Port.Post([self, fn = std::move(fn)]() mutable {
        if (self->m_pView && !self->m_bClosed)
            fn();
    });
}

void GtkView::SetUrl(const char* uri)
{
    std::lock_guard<std::mutex> lock(m_UrlMutex);
    m_strUrl = uri ? uri : "";
}

std::string GtkView::GetURL()
{
    std::lock_guard<std::mutex> lock(m_UrlMutex);
    return m_strUrl;
}

// ---- life cycle ------------------------------------------------------------

void GtkView::Open()
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

    m_pWindow = gtk_offscreen_window_new();
    // An alpha channel all the way down, so that the page's transparency
    // reaches the image.
    if (GdkVisual* visual = gdk_screen_get_rgba_visual(gtk_widget_get_screen(m_pWindow)))
        gtk_widget_set_visual(m_pWindow, visual);
    gtk_widget_set_app_paintable(m_pWindow, TRUE);

    WebKitSettings* settings = webkit_settings_new();
    ApplyState(settings, m_Settings.javascript, webkit_settings_set_enable_javascript);
    ApplyState(settings, m_Settings.javascript_access_clipboard, webkit_settings_set_javascript_can_access_clipboard);
    ApplyState(settings, m_Settings.local_storage, webkit_settings_set_enable_html5_local_storage);
    ApplyState(settings, m_Settings.file_access_from_file_urls, webkit_settings_set_allow_file_access_from_file_urls);
    ApplyState(settings, m_Settings.universal_access_from_file_urls,
               webkit_settings_set_allow_universal_access_from_file_urls);
    ApplyState(settings, m_Settings.webgl, webkit_settings_set_enable_webgl);
    webkit_settings_set_media_playback_requires_user_gesture(settings, FALSE);
    webkit_settings_set_enable_webaudio(settings, TRUE);
    webkit_settings_set_javascript_can_open_windows_automatically(settings, TRUE);
    // Overlays play sound without anyone to click them: WebKitGTK's default
    // autoplay policy keeps audible media and WebAudio silent until a
    // gesture.
    WebKitWebsitePolicies* policies =
        webkit_website_policies_new_with_policies("autoplay", WEBKIT_AUTOPLAY_ALLOW, nullptr);
    m_pView = WEBKIT_WEB_VIEW(g_object_new(WEBKIT_TYPE_WEB_VIEW, "web-context", m_Port.GetWebContext(), "settings",
                                           settings, "website-policies", policies, nullptr));
    g_object_unref(policies);
    g_object_unref(settings);
    GdkRGBA transparent = {0.0, 0.0, 0.0, 0.0};
    webkit_web_view_set_background_color(m_pView, &transparent);
    // The resource thread answers questions about this page from now on.
    m_nPageId = webkit_web_view_get_page_id(m_pView);
    m_Port.RegisterPage(m_nPageId, shared_from_this());

    gtk_container_add(GTK_CONTAINER(m_pWindow), GTK_WIDGET(m_pView));
    ApplySize(width, height);
    gtk_widget_show_all(m_pWindow);
    // A view made again after its web process ended keeps a hidden state.
    if (m_bHidden)
        gtk_widget_hide(m_pWindow);
    // GTK does not paint the window by itself: the frame timer draws it.
    // Paced painting: GTK paints the window only when the frame timer lets
    // it (see OnFrameDue), so the web process renders at the browser's rate.
    // SLF_GTK_PACED=0 lets the window paint at its frame clock's rate (the
    // display's refresh) for comparison; frames are still delivered on the
    // browser's grid.
    m_bPaced = g_strcmp0(g_getenv("SLF_GTK_PACED"), "0") != 0;
    if (m_bPaced) {
        gdk_window_freeze_updates(gtk_widget_get_window(m_pWindow));
        m_bFrozen = true;
    }

    g_signal_connect(m_pView, "load-changed", G_CALLBACK(+[](WebKitWebView*, WebKitLoadEvent event, gpointer self) {
                         static_cast<GtkView*>(self)->OnLoadChanged(event);
                     }),
                     this);
    // WebKit clears the URI when the web process ends; the browser keeps its
    // URL, which its recovery loads again.
    g_signal_connect(m_pView, "notify::uri", G_CALLBACK(+[](WebKitWebView* view, GParamSpec*, gpointer self) {
                         const char* uri = webkit_web_view_get_uri(view);
                         if (uri && *uri)
                             static_cast<GtkView*>(self)->SetUrl(uri);
                     }),
                     this);
    ConnectUiSignals();
    g_signal_connect(m_pView, "user-message-received",
                     G_CALLBACK(+[](WebKitWebView*, WebKitUserMessage* message, gpointer self) -> gboolean {
                         return static_cast<GtkView*>(self)->OnUserMessage(message);
                     }),
                     this);
    g_signal_connect(m_pView, "close",
                     G_CALLBACK(+[](WebKitWebView*, gpointer self) { static_cast<GtkView*>(self)->Close(true); }),
                     this);
    WatchWebProcess();

    // GTK painted the window: its image is the frame.
    g_signal_connect(m_pWindow, "damage-event", G_CALLBACK(+[](GtkWidget*, GdkEvent*, gpointer self) -> gboolean {
                         static_cast<GtkView*>(self)->OnWindowPainted();
                         return FALSE;
                     }),
                     this);
    m_pFrameTimer = g_source_new(&s_FrameTimerFuncs, sizeof(GSource));
    g_source_set_callback(
        m_pFrameTimer,
        [](gpointer self) -> gboolean {
            static_cast<GtkView*>(self)->OnFrameDue();
            return G_SOURCE_CONTINUE;
        },
        this, nullptr);
    g_source_set_name(m_pFrameTimer, "SlfGtkViewFrame");
    m_Input.Attach(m_pWindow, GTK_WIDGET(m_pView));
    m_nGridStart = g_get_monotonic_time();
    m_nFrameIndex = 1;
    g_source_set_ready_time(m_pFrameTimer, m_nGridStart + m_nFramePeriod);
    g_source_attach(m_pFrameTimer, m_Port.GetMainContext());

    webkit_web_view_load_uri(m_pView, GetURL().c_str());
}

void GtkView::ApplySize(int width, int height)
{
    if (width == m_nWidth && height == m_nHeight && m_pSurface)
        return;
    m_nWidth = width;
    m_nHeight = height;
    gtk_widget_set_size_request(GTK_WIDGET(m_pView), width, height);
    gtk_window_resize(GTK_WINDOW(m_pWindow), width, height);
    // The last image stays, at its own size, until the window painted at
    // the new one: a repaint request meanwhile delivers it again.
    if (m_bHasImage && !m_pPainted)
        SetPainted(m_pSurface);
    if (m_pSurface)
        cairo_surface_destroy(m_pSurface);
    m_pSurface = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, width, height);
}

void GtkView::Close(bool notify)
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

void GtkView::ForgetPage(bool cancelHandlers)
{
    // Requests that were to stay open end with the page.
    m_Port.ForgetServedPage(this, m_nPageId, m_OpenRequests, cancelHandlers);
}

bool GtkView::KeepRequestOpen(WebKitURISchemeRequest* request, EngineResourceHandler* handler)
{
    if (m_bClosed)
        return false;
    g_object_ref(request);
    m_OpenRequests.emplace_back(request, handler);
    return true;
}

void GtkView::DestroyWebView(bool cancelHandlers)
{
    StopWatchingWebProcess();
    if (m_pFrameTimer) {
        g_source_destroy(m_pFrameTimer);
        g_source_unref(m_pFrameTimer);
        m_pFrameTimer = nullptr;
    }
    if (m_pView) {
        g_signal_handlers_disconnect_by_data(m_pView, this);
        if (!m_bProcessUp && m_pWindow) {
            // Its process may still be being launched, when ending it would
            // be lost: the port ends it once it is up. The window paints on
            // meanwhile, to nobody.
            g_signal_handlers_disconnect_by_data(m_pWindow, this);
            m_Port.RetireWebView(m_pWindow, m_pView);
            m_pWindow = nullptr;
        } else {
            // WebKitGTK keeps a web process whose last page closed, for a
            // later page; this view's process ends with it (one process per
            // view: no view here is related to another).
            webkit_web_view_terminate_web_process(m_pView);
        }
        m_pView = nullptr;
    }
    if (m_pWindow) {
        // The window takes its view with it.
        gtk_widget_destroy(m_pWindow);
        m_pWindow = nullptr;
    }
    m_Input.Detach();
    m_Port.ForgetProcessOf(this);
    ForgetPage(cancelHandlers);
    // A view made again starts without an image, at no size yet.
    SetPainted(nullptr);
    m_nWidth = 0;
    m_nHeight = 0;
    m_bHasImage = false;
    m_bNewImage = false;
    m_bFrozen = false;
    m_bCommitted = false;
    m_bProcessUp = false;
    m_bSizePending = false;
}

// ---- browser, frame and host -------------------------------------------------

void GtkView::Reload()
{
    OnPump([this]() { webkit_web_view_reload(m_pView); });
}

void GtkView::SendProcessMessage(const EngineProcessMessageRef& message)
{
    if (!message)
        return;
    OnPump([this, message]() {
        GVariant* parameters = ProcessMessageArgumentsToVariant(*message);
        webkit_web_view_send_message_to_page(m_pView, webkit_user_message_new(message->GetName().c_str(), parameters),
                                             nullptr, nullptr, nullptr);
    });
}

void GtkView::ExecuteJavaScript(const std::string& code, const std::string&, int)
{
    OnPump([this, code]() {
        webkit_web_view_evaluate_javascript(m_pView, code.c_str(), -1, nullptr, nullptr, nullptr, nullptr, nullptr);
    });
}

void GtkView::WasResized()
{
    OnPump([this]() {
        EngineRenderHandler* handler = m_pClient->GetRenderHandler();
        EngineRect rect;
        if (!handler || !handler->GetViewRect(shared_from_this(), rect) || rect.width <= 0 || rect.height <= 0)
            return;
        const int width = std::min(rect.width, kMaxEdge);
        const int height = std::min(rect.height, kMaxEdge);
        if (width == m_nWidth && height == m_nHeight)
            return;
        ApplySize(width, height);
        // No frame at the new size before the web process rendered one.
        m_bSizePending = true;
        m_nSizePendingSince = g_get_monotonic_time();
    });
}

void GtkView::WasHidden(bool hidden)
{
    OnPump([this, hidden]() {
        m_bHidden = hidden;
        // A hidden view renders nothing: the wait for a resized frame
        // starts again when it is shown.
        m_nSizePendingSince = g_get_monotonic_time();
        // An unmapped view is one WebKit does not render.
        gtk_widget_set_visible(m_pWindow, !hidden);
    });
}

void GtkView::Invalidate()
{
    OnPump([this]() { Deliver(); });
}

void GtkView::SendMouseClickEvent(const EngineMouseEvent& event, EngineMouseButtonType type, bool mouseUp,
                                  int clickCount)
{
    OnPump([this, event, type, mouseUp, clickCount]() { m_Input.Click(event, type, mouseUp, clickCount); });
}

void GtkView::SendMouseMoveEvent(const EngineMouseEvent& event, bool mouseLeave)
{
    OnPump([this, event, mouseLeave]() { m_Input.Move(event, mouseLeave); });
}

void GtkView::SendMouseWheelEvent(const EngineMouseEvent& event, int deltaX, int deltaY)
{
    OnPump([this, event, deltaX, deltaY]() { m_Input.Wheel(event, deltaX, deltaY); });
}

void GtkView::SendKeyEvent(const EngineKeyEvent& event)
{
    OnPump([this, event]() { m_Input.Key(event); });
}

void GtkView::CloseBrowser(bool forceClose)
{
    // Also a browser given up after its crashes (no web view) closes.
    auto self = shared_from_this();
    m_Port.Post([self, forceClose]() {
        if (self->m_bClosed)
            return;
        if (forceClose || !self->m_pView)
            self->Close(true);
        else
            webkit_web_view_try_close(self->m_pView);
    });
}

// ---- WebKit signals ----------------------------------------------------------

void GtkView::OnLoadChanged(int loadEvent)
{
    if (loadEvent == WEBKIT_LOAD_STARTED)
        m_bCommitted = false;
    else if (loadEvent == WEBKIT_LOAD_COMMITTED)
        m_bCommitted = m_bProcessUp = true;
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
        handler->OnLoadEnd(self, self, status == 0 ? 200 : status);
    }
}

bool GtkView::OnUserMessage(WebKitUserMessage* userMessage)
{
    // The page's web process runs: from now on it is pinged.
    m_bPinging = true;
    const char* name = webkit_user_message_get_name(userMessage);
    // The web process tells which process shows this page (for its audio
    // and resource questions); the port's own business, not the client's.
    if (name && std::strcmp(name, kPageProcessMessage) == 0) {
        m_bProcessUp = true;
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
        NSLog("GtkView - browser %d: message from the web process dropped: %s", m_nId, error.c_str());
        return true;
    }
    m_Port.CorrectProcessId(*this, *message);
    return m_pClient->OnProcessMessageReceived(shared_from_this(), message);
}

} // namespace SLF_ChromiumEmbeddedFramework
