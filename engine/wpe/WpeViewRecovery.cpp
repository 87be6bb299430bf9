// Web-process crash and hang recovery of a WpeView: a view whose web process
// ended (crashed, over its memory limit) or stayed unresponsive for
// kUnresponsiveLimit is made again in a new web process; the audio streams
// of the ended processes stop first. Everything here runs on the pump
// thread.
#include "engine/wpe/WpeView.h"

#include "dbg/NSLog.h"
#include "engine/wpe/WpeAudioServer.h"
#include "engine/wpe/WpeEnginePort.h"

#include <wpe/webkit.h>

namespace SLF_ChromiumEmbeddedFramework {

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

    const bool giveUp = m_Recoveries.GiveUp(g_get_monotonic_time());
    NSLog("WpeView - browser %d: %s", m_nId, DescribeWebProcessEnd(pid, status, giveUp, m_Recoveries.Count()).c_str());
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

} // namespace SLF_ChromiumEmbeddedFramework
