// The WPE port's knowledge of its web processes: which page each one
// shows (page claims, asked by the resource and audio threads) and which
// helper processes of the engine still run (for shutdown and tests).
#include "engine/wpe/WpeEnginePort.h"

#include "engine/CBrowserApp.h"
#include "engine/port/EngineProcesses.h"
#include "engine/wpe/WpeResourceServer.h"
#include "engine/wpe/WpeView.h"

#include <string>

namespace SLF_ChromiumEmbeddedFramework {

// ---- pages and processes; any thread, under m_PageMutex ------------------

std::shared_ptr<WpeView> WpeEnginePort::FindViewForPage(uint64_t pageId)
{
    std::lock_guard<std::mutex> lock(m_PageMutex);
    auto found = m_Pages.find(pageId);
    return found == m_Pages.end() ? nullptr : found->second.lock();
}

void WpeEnginePort::RegisterPage(uint64_t pageId, const std::shared_ptr<WpeView>& view)
{
    std::lock_guard<std::mutex> lock(m_PageMutex);
    m_Pages[pageId] = view;
}

void WpeEnginePort::UnregisterPage(uint64_t pageId)
{
    std::lock_guard<std::mutex> lock(m_PageMutex);
    m_Pages.erase(pageId);
}

std::shared_ptr<WpeView> WpeEnginePort::FindViewForProcess(int pid)
{
    std::lock_guard<std::mutex> lock(m_PageMutex);
    auto found = m_Processes.find(pid);
    return found == m_Processes.end() ? nullptr : found->second.lock();
}

void WpeEnginePort::ClaimPageFromView(uint64_t token, const std::shared_ptr<WpeView>& view)
{
    int claimed = 0;
    {
        std::lock_guard<std::mutex> lock(m_PageMutex);
        if ((claimed = m_Claims.FromView(token, view))) {
            m_Processes[claimed] = view;
            m_ProcessViews.emplace(claimed, view.get());
        }
    }
    // Questions of that process may have been waiting for this claim.
    if (claimed && m_pResourceServer)
        m_pResourceServer->PagesChanged();
}

bool WpeEnginePort::ClaimPageFromProcess(uint64_t token, int pid, int* holder)
{
    bool complete = false;
    {
        std::lock_guard<std::mutex> lock(m_PageMutex);
        std::shared_ptr<WpeView> view;
        if (!m_Claims.FromProcess(token, pid, &view)) {
            *holder = m_Claims.HolderOf(token);
            return false;
        }
        if (view) {
            m_Processes[pid] = view;
            m_ProcessViews.emplace(pid, view.get());
            complete = true;
        }
    }
    if (complete && m_pResourceServer)
        m_pResourceServer->PagesChanged();
    return true;
}

void WpeEnginePort::CorrectProcessId(const WpeView& view, EngineProcessMessage& message)
{
    if (!m_bSandboxed || message.GetName() != kResponseGetRenderProcessId || !message.HasArgumentList() ||
        message.GetArgumentList().empty() || !std::holds_alternative<int>(message.GetArgumentList()[0]))
        return;
    std::lock_guard<std::mutex> lock(m_PageMutex);
    for (const auto& [pid, known] : m_Processes) {
        if (known.lock().get() == &view)
            message.GetArgumentList()[0] = pid;
    }
}

std::vector<int> WpeEnginePort::UnregisterProcessesOf(const WpeView* view)
{
    std::vector<int> pids;
    {
        std::lock_guard<std::mutex> lock(m_PageMutex);
        std::erase_if(m_Processes, [view, &pids](const auto& entry) {
            auto known = entry.second.lock();
            if (known && known.get() == view)
                pids.push_back(entry.first);
            return !known || known.get() == view;
        });
        std::erase_if(m_ProcessViews, [view](const auto& entry) { return entry.second == view; });
        m_Claims.Forget(view);
    }
    if (m_pResourceServer)
        m_pResourceServer->PagesChanged();
    return pids;
}

bool WpeEnginePort::ProcessShowsPage(int pid, uint64_t pageId)
{
    std::lock_guard<std::mutex> lock(m_PageMutex);
    auto page = m_Pages.find(pageId);
    const std::shared_ptr<WpeView> view = page == m_Pages.end() ? nullptr : page->second.lock();
    return view && m_ProcessViews.count({pid, view.get()}) != 0;
}

// ---- the engine's helper processes ---------------------------------------

std::vector<int> WpeEnginePort::RunningWebProcesses()
{
    std::vector<int> result;
    for (const auto& process : RunningEngineProcesses()) {
        if (!process.second)
            result.push_back(process.first);
    }
    return result;
}

std::vector<std::pair<int, bool>> WpeEnginePort::RunningEngineProcesses()
{
    return RunningChildProcessesNamed("WPE", "WPENetwork");
}

} // namespace SLF_ChromiumEmbeddedFramework
