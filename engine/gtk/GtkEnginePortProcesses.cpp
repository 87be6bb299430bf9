// The WebKitGTK port's knowledge of its web processes: which one shows each
// view (for the service's log and the render-process-ID question) and which
// helper processes of the engine still run (for shutdown and tests).
#include "engine/gtk/GtkEnginePort.h"

#include "engine/CBrowserApp.h"
#include "engine/gtk/GtkView.h"
#include "engine/port/EngineProcesses.h"

namespace SLF_ChromiumEmbeddedFramework {

void GtkEnginePort::CorrectProcessId(const GtkView& view, EngineProcessMessage& message)
{
    if (message.GetName() != kResponseGetRenderProcessId || !message.HasArgumentList())
        return;
    auto& arguments = message.GetArgumentList();
    const int* reported = arguments.empty() ? nullptr : std::get_if<int>(&arguments[0]);
    const std::string* space = arguments.size() < 2 ? nullptr : std::get_if<std::string>(&arguments[1]);
    if (!reported || *reported <= 0)
        return;
    const int inner = *reported;
    // The pid the process's page claims were checked with (its credentials
    // on the engine's socket), when it made them.
    WpeEngineServices::CorrectProcessId(view, message);
    int pid = std::get<int>(arguments[0]);
    // WebKitGTK starts every web process in a sandbox with a process
    // namespace of its own, where it is one of the first pids: without a
    // claim, only the namespace tells it from the others.
    if (pid == inner && space && *space != PidNamespaceOf(0)) {
        pid = FindProcessByInnerPid(RunningWebProcesses(), inner, *space);
        if (!pid)
            return;
        arguments[0] = pid;
    }
    std::lock_guard<std::mutex> lock(m_ProcessMutex);
    m_ViewProcesses[&view] = pid;
}

int GtkEnginePort::ProcessOf(const GtkView* view)
{
    std::lock_guard<std::mutex> lock(m_ProcessMutex);
    auto found = m_ViewProcesses.find(view);
    return found == m_ViewProcesses.end() ? 0 : found->second;
}

int GtkEnginePort::ForgetProcessOf(const GtkView* view)
{
    std::lock_guard<std::mutex> lock(m_ProcessMutex);
    auto found = m_ViewProcesses.find(view);
    if (found == m_ViewProcesses.end())
        return 0;
    const int pid = found->second;
    m_ViewProcesses.erase(found);
    return pid;
}

std::vector<int> GtkEnginePort::RunningWebProcesses()
{
    std::vector<int> result;
    for (const auto& process : RunningEngineProcesses()) {
        if (!process.second)
            result.push_back(process.first);
    }
    return result;
}

std::vector<std::pair<int, bool>> GtkEnginePort::RunningEngineProcesses()
{
    // WebKitWebProcess and WebKitNetworkProcess ("WebKitNetworkPr" as the
    // kernel shortens it), the web processes below their bubblewrap
    // launchers.
    return RunningChildProcessesNamed("WebKit", "WebKitNetwork");
}

} // namespace SLF_ChromiumEmbeddedFramework
