#include "engine/wpe/WpeView.h"

#include "dbg/NSLog.h"
#include "engine/wpe/WpeEnginePort.h"
#include "engine/wpe/WpeAudioServer.h"
#include "engine/wpe/WpeAudioWire.h"
#include "engine/wpe/WpeInput.h"
#include "engine/wpe/WpeResourceServer.h"
#include "engine/wpe/WpeVariantCodec.h"

#include <wayland-server.h>
#include <wpe/fdo.h>
#include <wpe/unstable/fdo-shm.h>
#include <wpe/webkit.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace SLF_ChromiumEmbeddedFramework {

struct WpeView::HeldBuffer {
    // Notified when the buffer's resource is destroyed (its web process
    // ended); set up once the buffer is held.
    struct wl_listener destroyListener;
    WpeView* view;
    struct wpe_fdo_shm_exported_buffer* exported;
    struct wl_shm_buffer* shm;
    int width;
    int height;
};

namespace {

constexpr int kDefaultWidth = 800;
constexpr int kDefaultHeight = 600;
// Larger views are cut to this edge length (the renderer's texture limit).
constexpr int kMaxEdge = 16384;
constexpr int kMinFrameRate = 1;
constexpr int kMaxFrameRate = 240;
// Two presses closer than this (and a few pixels) make one double click.
constexpr int64_t kDoubleClickMicroseconds = 500 * 1000;
constexpr int kDoubleClickDistance = 4;
// A wheel call larger than this is cut to it.
constexpr int kMaxWheelSteps = 100;

// The backend's destroy notification keeps the view object alive as long as
// WebKit may call its export callback.
struct BackendHolder {
    std::shared_ptr<WpeView> view;
    struct wpe_view_backend_exportable_fdo* exportable;
};

void ApplyState(WebKitSettings* settings, EngineState state, void (*setter)(WebKitSettings*, gboolean))
{
    if (state == STATE_ENABLED)
        setter(settings, TRUE);
    else if (state == STATE_DISABLED)
        setter(settings, FALSE);
}

GSourceFuncs s_FrameTimerFuncs = {nullptr, nullptr,
                                  [](GSource*, GSourceFunc callback, gpointer data) -> gboolean {
                                      return callback ? callback(data) : G_SOURCE_CONTINUE;
                                  },
                                  nullptr, nullptr, nullptr};

} // namespace

WpeView::WpeView(WpeEnginePort& port, int id, EngineClient* client, const EngineBrowserSettings& settings,
                 const std::string& url)
    : m_Port(port), m_nId(id), m_pClient(client), m_Settings(settings), m_strUrl(url.empty() ? "about:blank" : url)
{
    m_nFrameRate = std::clamp(settings.windowless_frame_rate, kMinFrameRate, kMaxFrameRate);
}

WpeView::~WpeView()
{
    // A buffer still held (the view never closed) leaves its resource's
    // listeners; it cannot be given back without the backend.
    if (m_pHeldBuffer)
        wl_list_remove(&m_pHeldBuffer->destroyListener.link);
}

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
    return m_pExportable ? wpe_view_backend_exportable_fdo_get_view_backend(m_pExportable) : nullptr;
}

uint32_t WpeView::EventTime() const
{
    return static_cast<uint32_t>(g_get_monotonic_time() / 1000);
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

    static const struct wpe_view_backend_exportable_fdo_client client = {nullptr, nullptr, ExportShmBufferThunk,
                                                                          nullptr, nullptr};
    m_pExportable = wpe_view_backend_exportable_fdo_create(&client, this, static_cast<uint32_t>(width),
                                                           static_cast<uint32_t>(height));
    struct wpe_view_backend* backend = wpe_view_backend_exportable_fdo_get_view_backend(m_pExportable);
    // A view made again after its web process ended keeps a hidden state.
    wpe_view_backend_add_activity_state(backend, (m_bHidden ? 0 : wpe_view_activity_state_visible) |
                                                     wpe_view_activity_state_focused |
                                                     wpe_view_activity_state_in_window);
    auto* holder = new BackendHolder{shared_from_this(), m_pExportable};
    WebKitWebViewBackend* viewBackend = webkit_web_view_backend_new(backend, DestroyBackendThunk, holder);

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

    m_pFrameTimer = g_source_new(&s_FrameTimerFuncs, sizeof(GSource));
    g_source_set_callback(m_pFrameTimer, FrameTimerThunk, this, nullptr);
    // Above the engine's own sources, so that the pass run at the due time
    // dispatches it whatever else is ready.
    g_source_set_priority(m_pFrameTimer, G_PRIORITY_HIGH);
    g_source_set_name(m_pFrameTimer, "SlfViewFrameComplete");
    g_source_attach(m_pFrameTimer, m_Port.GetMainContext());

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
    g_signal_connect(m_pView, "close", G_CALLBACK(+[](WebKitWebView*, gpointer self) {
                         static_cast<WpeView*>(self)->Close(true);
                     }),
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
    if (m_pFrameTimer) {
        g_source_destroy(m_pFrameTimer);
        g_source_unref(m_pFrameTimer);
        m_pFrameTimer = nullptr;
    }
    m_nFrameDue = -1;
    // Given back while the backend exists: it goes with the view.
    ReleaseHeldBuffer();
    if (m_pView) {
        WebKitWebView* view = m_pView;
        m_pView = nullptr;
        g_signal_handlers_disconnect_by_data(view, this);
        // The last reference: the page closes and its backend goes with it.
        g_object_unref(view);
    }
    m_LastImage.clear();
    m_LastImage.shrink_to_fit();
    m_bFramePending = false;
    m_PressedKeys.clear();
    if (m_nPageId)
        m_Port.UnregisterPage(m_nPageId);
    m_nPageId = 0;
    m_Port.UnregisterProcessesOf(this);

    // Requests that were to stay open end with the view; their handlers
    // hear of it on the resource thread.
    std::vector<EngineResourceHandler*> handlers;
    for (auto& open : m_OpenRequests) {
        GError* error = g_error_new_literal(G_IO_ERROR, G_IO_ERROR_CANCELLED, "the browser closed");
        webkit_uri_scheme_request_finish_error(open.first, error);
        g_error_free(error);
        g_object_unref(open.first);
        if (open.second)
            handlers.push_back(open.second);
    }
    m_OpenRequests.clear();
    if (!handlers.empty() && cancelHandlers && m_Port.GetResourceServer())
        m_Port.GetResourceServer()->CancelRequests(handlers);
}

bool WpeView::KeepRequestOpen(WebKitURISchemeRequest* request, EngineResourceHandler* handler)
{
    if (m_bClosed)
        return false;
    g_object_ref(request);
    m_OpenRequests.emplace_back(request, handler);
    return true;
}

void WpeView::DestroyBackendThunk(gpointer data)
{
    auto* holder = static_cast<BackendHolder*>(data);
    wpe_view_backend_exportable_fdo_destroy(holder->exportable);
    if (holder->view->m_pExportable == holder->exportable)
        holder->view->m_pExportable = nullptr;
    delete holder;
}

// ---- web-process recovery ------------------------------------------------------

namespace {

const char* TerminationText(EngineTerminationStatus status)
{
    switch (status) {
    case TS_PROCESS_CRASHED:
        return "crashed";
    case TS_PROCESS_OOM:
        return "exceeded its memory limit";
    case TS_PROCESS_WAS_KILLED:
        return "was unresponsive for 10 s and was ended";
    default:
        return "ended";
    }
}

} // namespace

void WpeView::OnWebProcessTerminated(int reason)
{
    // Inside WebKit's own handling of the process's end: the view itself is
    // made again from a later pump pass.
    EngineTerminationStatus status = TS_ABNORMAL_TERMINATION;
    if (reason == WEBKIT_WEB_PROCESS_CRASHED)
        status = TS_PROCESS_CRASHED;
    else if (reason == WEBKIT_WEB_PROCESS_EXCEEDED_MEMORY_LIMIT)
        status = TS_PROCESS_OOM;
    RecoverWebProcess(status);
}

void WpeView::OnResponsivenessChanged()
{
    if (!m_pView || m_bClosed || m_bRecovering)
        return;
    if (webkit_web_view_get_is_web_process_responsive(m_pView)) {
        StopHangTimer();
        return;
    }
    if (m_pHangTimer)
        return;
    m_pHangTimer = g_timeout_source_new(static_cast<guint>(kUnresponsiveLimit / 1000));
    g_source_set_callback(m_pHangTimer, HangTimerThunk, this, nullptr);
    g_source_set_name(m_pHangTimer, "SlfViewUnresponsive");
    g_source_attach(m_pHangTimer, m_Port.GetMainContext());
}

void WpeView::StopHangTimer()
{
    if (!m_pHangTimer)
        return;
    g_source_destroy(m_pHangTimer);
    g_source_unref(m_pHangTimer);
    m_pHangTimer = nullptr;
}

gboolean WpeView::HangTimerThunk(gpointer data)
{
    auto* self = static_cast<WpeView*>(data);
    self->StopHangTimer();
    if (self->m_pView && !webkit_web_view_get_is_web_process_responsive(self->m_pView))
        self->RecoverWebProcess(TS_PROCESS_WAS_KILLED);
    return G_SOURCE_REMOVE;
}

void WpeView::RecoverWebProcess(EngineTerminationStatus status)
{
    if (m_bClosed || m_bRecovering || !m_pView)
        return;
    m_bRecovering = true;
    StopHangTimer();
    // The processes that showed the page: their audio belongs to nobody now.
    const std::vector<int> pids = m_Port.UnregisterProcessesOf(this);
    const int pid = pids.empty() ? 0 : pids.front();

    const int64_t now = g_get_monotonic_time();
    while (!m_Recoveries.empty() && now - m_Recoveries.front() >= kRecoveryWindow)
        m_Recoveries.pop_front();
    const bool giveUp = m_Recoveries.size() >= kMaxRecoveries;
    if (giveUp) {
        NSLog("WpeView - browser %d: web process %d %s; given up after %zu recoveries within a minute, the "
              "browser stays open without frames",
              m_nId, pid, TerminationText(status), m_Recoveries.size());
    } else {
        m_Recoveries.push_back(now);
        NSLog("WpeView - browser %d: web process %d %s; loading the page again in a new web process (recovery "
              "%zu of %zu within a minute)",
              m_nId, pid, TerminationText(status), m_Recoveries.size(), kMaxRecoveries);
    }
    // A hung process would not notice its page going away.
    if (status == TS_PROCESS_WAS_KILLED)
        webkit_web_view_terminate_web_process(m_pView);

    // The streams of the ended processes stop first (on the audio thread,
    // as any stream end does); the view is made again afterwards.
    auto self = shared_from_this();
    auto rebuild = [self, status, giveUp]() {
        self->m_Port.Post([self, status, giveUp]() { self->RebuildWebView(status, giveUp); });
    };
    if (WpeAudioServer* audio = m_Port.GetAudioServer())
        audio->EndStreamsOfProcesses(pids, rebuild);
    else
        rebuild();
}

void WpeView::RebuildWebView(EngineTerminationStatus status, bool giveUp)
{
    if (m_bClosed)
        return;
    // Requests of the old page end here; the client hears of those it kept.
    DestroyWebView(true);
    m_bGivenUp = giveUp;
    if (!giveUp)
        Open();
    m_bRecovering = false;
    if (EngineRequestHandler* handler = m_pClient->GetRequestHandler())
        handler->OnRenderProcessTerminated(shared_from_this(), status);
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
    OnPump([this]() {
        if (!DeliverHeldBuffer() && !m_LastImage.empty())
            DeliverPaint(m_LastImage.data(), m_nLastWidth, m_nLastHeight);
    });
}

void WpeView::SendMouseClickEvent(const EngineMouseEvent& event, EngineMouseButtonType type, bool mouseUp,
                                  int clickCount)
{
    OnPump([this, event, type, mouseUp, clickCount]() { DoClick(event, type, mouseUp, clickCount); });
}

void WpeView::DoClick(const EngineMouseEvent& event, EngineMouseButtonType type, bool mouseUp, int clickCount)
{
    struct wpe_view_backend* backend = Backend();
    if (!backend)
        return;
    const uint32_t button = WpePointerButton(type);
    const uint32_t modifiers = WpePointerModifiers(event.modifiers);
    auto send = [&](bool pressed) {
        struct wpe_input_pointer_event pointer = {wpe_input_pointer_event_type_button,
                                                  EventTime(),
                                                  event.x,
                                                  event.y,
                                                  button,
                                                  pressed ? 1u : 0u,
                                                  modifiers};
        wpe_view_backend_dispatch_pointer_event(backend, &pointer);
    };

    if (!mouseUp) {
        const int64_t now = g_get_monotonic_time();
        // WebKit counts clicks itself from their timing: a double click that
        // does not follow a press of its own is sent as two clicks.
        const bool recentPress = now - m_nLastPressTime < kDoubleClickMicroseconds &&
                                 std::abs(event.x - m_nLastPressX) <= kDoubleClickDistance &&
                                 std::abs(event.y - m_nLastPressY) <= kDoubleClickDistance;
        if (clickCount >= 2 && !recentPress) {
            send(true);
            send(false);
        }
        m_nLastPressTime = now;
        m_nLastPressX = event.x;
        m_nLastPressY = event.y;
    }
    send(!mouseUp);
}

void WpeView::SendMouseMoveEvent(const EngineMouseEvent& event, bool)
{
    OnPump([this, event]() {
        struct wpe_view_backend* backend = Backend();
        if (!backend)
            return;
        struct wpe_input_pointer_event pointer = {wpe_input_pointer_event_type_motion,
                                                  EventTime(),
                                                  event.x,
                                                  event.y,
                                                  0,
                                                  0,
                                                  WpePointerModifiers(event.modifiers)};
        wpe_view_backend_dispatch_pointer_event(backend, &pointer);
    });
}

void WpeView::SendMouseWheelEvent(const EngineMouseEvent& event, int deltaX, int deltaY)
{
    OnPump([this, event, deltaX, deltaY]() {
        struct wpe_view_backend* backend = Backend();
        if (!backend)
            return;
        // One axis event is one wheel step; positive values scroll up and
        // left, as the deltas of the port's wheel events do.
        auto steps = [&](uint32_t axis, int delta) {
            const int count = std::min(std::abs(delta), kMaxWheelSteps);
            for (int i = 0; i < count; ++i) {
                struct wpe_input_axis_event axisEvent = {wpe_input_axis_event_type_motion,
                                                         EventTime(),
                                                         event.x,
                                                         event.y,
                                                         axis,
                                                         delta > 0 ? 1 : -1,
                                                         WpeKeyboardModifiers(event.modifiers)};
                wpe_view_backend_dispatch_axis_event(backend, &axisEvent);
            }
        };
        steps(0, deltaY);
        steps(1, deltaX);
    });
}

void WpeView::SendKeyEvent(const EngineKeyEvent& event)
{
    OnPump([this, event]() { DoKey(event); });
}

void WpeView::DoKey(const EngineKeyEvent& event)
{
    struct wpe_input_xkb_context* xkb = wpe_input_xkb_context_get_default();
    const bool pressed = event.type != KEYEVENT_KEYUP;
    const bool shift = (event.modifiers & EVENTFLAG_SHIFT_DOWN) != 0;
    uint32_t hardwareKeyCode = event.native_key_code > 0 ? static_cast<uint32_t>(event.native_key_code) : 0;

    uint32_t keysym = 0;
    if (event.type == KEYEVENT_CHAR) {
        // A character event carries the character (also in the key code).
        uint32_t character = event.character;
        if (!character && event.windows_key_code >= 0x20)
            character = static_cast<uint32_t>(event.windows_key_code);
        keysym = KeysymForCharacter(character);
    } else if (event.windows_key_code) {
        keysym = KeysymForWindowsKeyCode(event.windows_key_code, shift);
    }
    if (!keysym && hardwareKeyCode)
        keysym = wpe_input_xkb_context_get_key_code(xkb, hardwareKeyCode, pressed);
    if (!keysym && event.character)
        keysym = KeysymForCharacter(event.character);
    if (!keysym) {
        NSLog("WpeView::SendKeyEvent - no key for key code %d (native %d); dropped", event.windows_key_code,
              event.native_key_code);
        return;
    }
    if (!hardwareKeyCode) {
        struct wpe_input_xkb_keymap_entry* entries = nullptr;
        uint32_t count = 0;
        wpe_input_xkb_context_get_entries_for_key_code(xkb, keysym, &entries, &count);
        if (count > 0)
            hardwareKeyCode = entries[0].hardware_key_code;
        free(entries);
    }

    const uint32_t modifiers = WpeKeyboardModifiers(event.modifiers);
    const uint32_t key = hardwareKeyCode ? hardwareKeyCode : (keysym | 0x80000000u);
    switch (event.type) {
    case KEYEVENT_RAWKEYDOWN:
    case KEYEVENT_KEYDOWN:
        m_PressedKeys.insert(key);
        DispatchKey(keysym, hardwareKeyCode, true, modifiers);
        break;
    case KEYEVENT_KEYUP:
        m_PressedKeys.erase(key);
        DispatchKey(keysym, hardwareKeyCode, false, modifiers);
        break;
    case KEYEVENT_CHAR:
        // The press of a held key has typed its character already; a
        // character on its own is typed as a press and a release.
        if (m_PressedKeys.count(key))
            break;
        DispatchKey(keysym, hardwareKeyCode, true, modifiers);
        DispatchKey(keysym, hardwareKeyCode, false, modifiers);
        break;
    }
}

void WpeView::DispatchKey(uint32_t keysym, uint32_t hardwareKeyCode, bool pressed, uint32_t modifiers)
{
    struct wpe_view_backend* backend = Backend();
    if (!backend)
        return;
    struct wpe_input_keyboard_event key = {EventTime(), keysym, hardwareKeyCode, pressed, modifiers};
    wpe_view_backend_dispatch_keyboard_event(backend, &key);
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

// ---- painting --------------------------------------------------------------

void WpeView::ExportShmBufferThunk(void* data, struct wpe_fdo_shm_exported_buffer* buffer)
{
    static_cast<WpeView*>(data)->OnExportedBuffer(buffer);
}

void WpeView::OnExportedBuffer(struct wpe_fdo_shm_exported_buffer* buffer)
{
    bool copied = false;
    bool held = false;
    struct wl_shm_buffer* shm = wpe_fdo_shm_exported_buffer_get_shm_buffer(buffer);
    struct wl_resource* resource = wpe_fdo_shm_exported_buffer_get_resource(buffer);
    if (!m_bClosed && shm) {
        const uint32_t format = wl_shm_buffer_get_format(shm);
        const int width = wl_shm_buffer_get_width(shm);
        const int height = wl_shm_buffer_get_height(shm);
        const int stride = wl_shm_buffer_get_stride(shm);
        const bool opaque = format == WL_SHM_FORMAT_XRGB8888;
        const size_t row = static_cast<size_t>(width) * 4;
        if ((format == WL_SHM_FORMAT_ARGB8888 || opaque) && width > 0 && height > 0 &&
            stride >= width * 4) {
            if (!opaque && static_cast<size_t>(stride) == row && resource && m_pExportable) {
                // Already a tightly packed BGRA image: delivered straight
                // from the buffer, which stays with us as the last image
                // until the next one arrives (the web process renders into
                // another buffer meanwhile).
                ReleaseHeldBuffer();
                m_LastImage.clear();
                m_LastImage.shrink_to_fit();
                m_pHeldBuffer.reset(new HeldBuffer{{}, this, buffer, shm, width, height});
                m_pHeldBuffer->destroyListener.notify = HeldBufferDestroyed;
                wl_resource_add_destroy_listener(resource, &m_pHeldBuffer->destroyListener);
                held = true;
            } else {
                wl_shm_buffer_begin_access(shm);
                const auto* source = static_cast<const uint8_t*>(wl_shm_buffer_get_data(shm));
                if (source) {
                    ReleaseHeldBuffer();
                    m_LastImage.resize(row * static_cast<size_t>(height));
                    for (int y = 0; y < height; ++y)
                        std::memcpy(m_LastImage.data() + row * y, source + static_cast<size_t>(stride) * y, row);
                    if (opaque) {
                        for (size_t i = 3; i < m_LastImage.size(); i += 4)
                            m_LastImage[i] = 0xFF;
                    }
                    m_nLastWidth = width;
                    m_nLastHeight = height;
                    copied = true;
                }
                wl_shm_buffer_end_access(shm);
            }
        }
        if (!held && !copied)
            NSLog("WpeView - browser %d: unusable frame (format %u, %d x %d, stride %d) dropped", m_nId, format,
                  width, height, stride);
    }
    if (!held && m_pExportable)
        wpe_view_backend_exportable_fdo_dispatch_release_shm_exported_buffer(m_pExportable, buffer);
    m_bFramePending = true;
    ScheduleFrameComplete();
    if (held)
        DeliverHeldBuffer();
    else if (copied)
        DeliverPaint(m_LastImage.data(), m_nLastWidth, m_nLastHeight);
}

bool WpeView::DeliverHeldBuffer()
{
    if (!m_pHeldBuffer)
        return false;
    struct wl_shm_buffer* shm = m_pHeldBuffer->shm;
    wl_shm_buffer_begin_access(shm);
    if (const void* pixels = wl_shm_buffer_get_data(shm))
        DeliverPaint(pixels, m_pHeldBuffer->width, m_pHeldBuffer->height);
    wl_shm_buffer_end_access(shm);
    return true;
}

void WpeView::ReleaseHeldBuffer()
{
    if (!m_pHeldBuffer)
        return;
    std::unique_ptr<HeldBuffer> held = std::move(m_pHeldBuffer);
    wl_list_remove(&held->destroyListener.link);
    if (m_pExportable)
        wpe_view_backend_exportable_fdo_dispatch_release_shm_exported_buffer(m_pExportable, held->exported);
}

void WpeView::HeldBufferDestroyed(struct wl_listener* listener, void*)
{
    HeldBuffer* held = wl_container_of(listener, held, destroyListener);
    WpeView* self = held->view;
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

void WpeView::DeliverPaint(const void* pixels, int width, int height)
{
    if (m_bClosed)
        return;
    if (EngineRenderHandler* handler = m_pClient->GetRenderHandler())
        handler->OnPaint(shared_from_this(), pixels, width, height);
}

int64_t WpeView::FrameSlotTime(int64_t slot) const
{
    return m_nFrameOrigin + slot * G_USEC_PER_SEC / m_nFrameRate;
}

void WpeView::ScheduleFrameComplete()
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
    // pass at that time (GetFrameDueTime).
    g_source_set_ready_time(m_pFrameTimer, m_nFrameDue);
}

gboolean WpeView::FrameTimerThunk(gpointer data)
{
    static_cast<WpeView*>(data)->DispatchFrameComplete();
    return G_SOURCE_CONTINUE;
}

void WpeView::DispatchFrameComplete()
{
    if (m_pFrameTimer)
        g_source_set_ready_time(m_pFrameTimer, -1);
    m_nFrameDue = -1;
    if (!m_bFramePending || !m_pExportable || m_bClosed)
        return;
    m_bFramePending = false;
    wpe_view_backend_exportable_fdo_dispatch_frame_complete(m_pExportable);
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
    const WebKitScriptDialogType type = webkit_script_dialog_get_dialog_type(dialog);
    if (type == WEBKIT_SCRIPT_DIALOG_BEFORE_UNLOAD_CONFIRM) {
        // Nobody can answer; leaving the page is always allowed.
        webkit_script_dialog_confirm_set_confirmed(dialog, TRUE);
        return true;
    }
    if (EngineJSDialogHandler* handler = m_pClient->GetJSDialogHandler()) {
        EngineJSDialogType dialogType = JSDIALOGTYPE_ALERT;
        std::string defaultText;
        if (type == WEBKIT_SCRIPT_DIALOG_CONFIRM) {
            dialogType = JSDIALOGTYPE_CONFIRM;
        } else if (type == WEBKIT_SCRIPT_DIALOG_PROMPT) {
            dialogType = JSDIALOGTYPE_PROMPT;
            if (const char* text = webkit_script_dialog_prompt_get_default_text(dialog))
                defaultText = text;
        }
        const char* message = webkit_script_dialog_get_message(dialog);
        bool suppress = false;
        handler->OnJSDialog(shared_from_this(), GetURL(), dialogType, message ? message : "", defaultText, suppress);
    }
    // No dialog can be shown off screen: every dialog ends unanswered
    // (confirm is false, prompt null).
    if (type == WEBKIT_SCRIPT_DIALOG_CONFIRM)
        webkit_script_dialog_confirm_set_confirmed(dialog, FALSE);
    return true;
}

void WpeView::OnMouseTargetChanged(WebKitHitTestResult* hit)
{
    EngineCursorType cursor = CT_POINTER;
    if (webkit_hit_test_result_context_is_link(hit))
        cursor = CT_HAND;
    else if (webkit_hit_test_result_context_is_editable(hit))
        cursor = CT_IBEAM;
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
        NSLog("WpeView - browser %d: popup to %s refused; off-screen browsers open no windows", m_nId,
              target.c_str());
}

} // namespace SLF_ChromiumEmbeddedFramework
