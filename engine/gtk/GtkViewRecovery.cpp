// Web-process crash and hang recovery of a GtkView. A view whose web process
// ended (crashed, over its memory limit) or stopped responding for
// WebProcessRecoveries::kUnresponsiveLimit is made again in a new web
// process. A process counts as unresponsive when WebKit says so (it checks
// when it sends input, which an off-screen browser rarely gets) or when it
// leaves a ping of ours unanswered: once a second, from the page's first
// message or committed load on (before, its process may still be
// starting), a message the page does not handle goes to it, and
// WebKit answers it from the web process's main thread, which a page stuck
// in a script holds. Everything here runs on the pump thread.
#include "engine/gtk/GtkView.h"

#include "dbg/NSLog.h"
#include "engine/gtk/GtkEnginePort.h"
#include "engine/wpe/WpeAudioServer.h"

#include <gtk/gtk.h>
#include <webkit2/webkit2.h>

namespace SLF_ChromiumEmbeddedFramework {

namespace {

// Handled by nobody in the web process: WebKit answers it with an error.
const char kPingMessage[] = "SlfGtk_Ping";
constexpr guint kWatchIntervalMs = 1000;
// A watch tick this late means the pump itself stood still: outstanding
// pings get a new chance rather than counting the standstill against the
// web process.
constexpr int64_t kLateTick = 3 * G_USEC_PER_SEC;

struct PingCall {
    std::weak_ptr<GtkView> view;
    uint64_t generation;
};

} // namespace

void GtkView::WatchWebProcess()
{
    g_signal_connect(m_pView, "web-process-terminated",
                     G_CALLBACK(+[](WebKitWebView*, WebKitWebProcessTerminationReason reason, gpointer self) {
                         static_cast<GtkView*>(self)->OnWebProcessTerminated(reason);
                     }),
                     this);
    g_signal_connect(m_pView, "notify::is-web-process-responsive",
                     G_CALLBACK(+[](WebKitWebView* view, GParamSpec*, gpointer data) {
                         auto* self = static_cast<GtkView*>(data);
                         if (webkit_web_view_get_is_web_process_responsive(view))
                             self->m_nUnresponsiveSince = 0;
                         else if (!self->m_nUnresponsiveSince)
                             self->m_nUnresponsiveSince = g_get_monotonic_time();
                     }),
                     this);
    g_signal_connect(m_pView, "load-changed", G_CALLBACK(+[](WebKitWebView*, WebKitLoadEvent event, gpointer self) {
                         // Until then the process may still be starting.
                         if (event == WEBKIT_LOAD_COMMITTED)
                             static_cast<GtkView*>(self)->m_bPinging = true;
                     }),
                     this);
    m_pPingCancel = g_cancellable_new();
    m_pWatchTimer = g_timeout_source_new(kWatchIntervalMs);
    g_source_set_callback(
        m_pWatchTimer,
        [](gpointer self) -> gboolean {
            static_cast<GtkView*>(self)->OnWatchTick();
            return G_SOURCE_CONTINUE;
        },
        this, nullptr);
    g_source_set_name(m_pWatchTimer, "SlfGtkViewWatch");
    g_source_attach(m_pWatchTimer, m_Port.GetMainContext());
}

void GtkView::StopWatchingWebProcess()
{
    if (m_pWatchTimer) {
        g_source_destroy(m_pWatchTimer);
        g_source_unref(m_pWatchTimer);
        m_pWatchTimer = nullptr;
    }
    if (m_pPingCancel) {
        g_cancellable_cancel(m_pPingCancel);
        g_object_unref(m_pPingCancel);
        m_pPingCancel = nullptr;
    }
    ++m_nWatchGeneration;
    m_nPingSent = 0;
    m_nUnresponsiveSince = 0;
    m_nLastTick = 0;
    m_bPinging = false;
}

void GtkView::OnWatchTick()
{
    const int64_t now = g_get_monotonic_time();
    const bool late = m_nLastTick && now - m_nLastTick > kLateTick;
    m_nLastTick = now;
    if (!m_pView || m_bClosed || m_bRecovering)
        return;
    if (late) {
        m_nPingSent = m_nPingSent ? now : 0;
        m_nUnresponsiveSince = m_nUnresponsiveSince ? now : 0;
    }
    const int64_t limit = WebProcessRecoveries::kUnresponsiveLimit;
    if ((m_nPingSent && now - m_nPingSent >= limit) || (m_nUnresponsiveSince && now - m_nUnresponsiveSince >= limit)) {
        RecoverWebProcess(TS_PROCESS_WAS_KILLED);
        return;
    }
    if (!m_bPinging || m_nPingSent)
        return;
    m_nPingSent = now;
    auto* call = new PingCall {shared_from_this(), m_nWatchGeneration};
    webkit_web_view_send_message_to_page(
        m_pView, webkit_user_message_new(kPingMessage, nullptr), m_pPingCancel,
        [](GObject* source, GAsyncResult* result, gpointer data) {
            auto* call = static_cast<PingCall*>(data);
            GError* error = nullptr;
            if (WebKitUserMessage* reply =
                    webkit_web_view_send_message_to_page_finish(WEBKIT_WEB_VIEW(source), result, &error))
                g_object_unref(reply);
            // An error answer (the message was not handled) is an answer
            // too; a cancelled ping belongs to a web view that is gone.
            const bool cancelled = error && g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED);
            if (error)
                g_error_free(error);
            if (auto view = call->view.lock(); view && !cancelled)
                view->OnPingAnswered(call->generation);
            delete call;
        },
        call);
}

void GtkView::OnPingAnswered(uint64_t generation)
{
    if (generation == m_nWatchGeneration)
        m_nPingSent = 0;
}

void GtkView::OnWebProcessTerminated(int reason)
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

void GtkView::RecoverWebProcess(EngineTerminationStatus status)
{
    if (m_bClosed || m_bRecovering || !m_pView)
        return;
    m_bRecovering = true;
    // The processes that showed the page: their audio belongs to nobody now.
    const std::vector<int> pids = m_Port.UnregisterProcessesOf(this);
    const int known = m_Port.ForgetProcessOf(this);
    const int pid = known ? known : (pids.empty() ? 0 : pids.front());
    const bool giveUp = m_Recoveries.GiveUp(g_get_monotonic_time());
    NSLog("GtkView - browser %d: %s", m_nId, DescribeWebProcessEnd(pid, status, giveUp, m_Recoveries.Count()).c_str());
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

void GtkView::RebuildWebView(EngineTerminationStatus status, bool giveUp)
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

} // namespace SLF_ChromiumEmbeddedFramework
