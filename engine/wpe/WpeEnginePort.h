// The engine port over WPE WebKit. The engine runs on the thread that calls
// Initialize (the pump thread) inside a GMainContext of its own, which only
// DoMessageLoopWork iterates. Views render through the freedesktop.org
// exportable backend into shared-memory buffers, which are handed to the
// client's render handler as packed BGRA images. Every browser, host and
// frame call from any thread is queued to that context in order.
//
// Start, task queue, browsers and shutdown are in WpeEnginePort.cpp; the
// record of which web process shows which page, and the engine's helper
// processes, in WpeEnginePortProcesses.cpp. Each browser is a WpeView.
#pragma once

#include "engine/port/EnginePort.h"
#include "engine/wpe/WpePageClaims.h"

#include <glib.h>

#include <atomic>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

typedef struct _WebKitWebContext WebKitWebContext;
typedef struct _WebKitURISchemeRequest WebKitURISchemeRequest;

namespace SLF_ChromiumEmbeddedFramework {

class WpeView;
class WpeResourceServer;
class WpeAudioServer;

// Creates the WPE port; the caller owns it and installs it with
// SetEnginePort.
EnginePort* CreateWpeEnginePort();

class WpeEnginePort : public EnginePort {
public:
    WpeEnginePort();
    ~WpeEnginePort() override;
    WpeEnginePort(const WpeEnginePort&) = delete;
    WpeEnginePort& operator=(const WpeEnginePort&) = delete;

    bool Initialize(const EngineSettings& settings, EngineApp* app) override;
    void DoMessageLoopWork() override;
    // The earliest frame_complete due of the views.
    int64_t GetNextDueTime() override;
    void Shutdown() override;
    bool CreateBrowser(const EngineWindowInfo& windowInfo, EngineClient* client, const std::string& url,
                       const EngineBrowserSettings& settings) override;

    // Adds an entry to the web-process module's initialisation data (before
    // Initialize; the value is sunk and kept). Lets other parts of the
    // service hand their own settings to the web processes.
    void SetExtensionInitValue(const std::string& key, GVariant* value);

    // The folder from which the web processes load our module: the folder
    // "web-extensions" next to the service executable (or next to the
    // configured helper executable). Our GStreamer plugins are in
    // "gstreamer-1.0" there.
    std::string GetExtensionFolder() const;

    // Queues a task to the pump thread; it runs in a later pump pass, after
    // every task queued before it. Tasks queued after Shutdown are dropped.
    void Post(std::function<void()> task);

    // Pump-thread state used by the views.
    WebKitWebContext* GetWebContext() const { return m_pWebContext; }
    GMainContext* GetMainContext() const { return m_pMainContext; }
    std::optional<double> GetDeviceScaleFactor() const { return m_DeviceScaleFactor; }
    bool IsPumpThread() const;
    // A view was closed: forget it.
    void ForgetView(int id);

    // ---- pages and processes (WpeEnginePortProcesses.cpp); used by the
    // views, the resource and the audio thread, from any thread ------------
    // The view showing a page (by WebKit's page identifier), from any
    // thread; null when none does.
    std::shared_ptr<WpeView> FindViewForPage(uint64_t pageId);
    void RegisterPage(uint64_t pageId, const std::shared_ptr<WpeView>& view);
    void UnregisterPage(uint64_t pageId);
    // The view whose page a web process shows, from any thread (the most
    // recent claim wins); null when none is known.
    std::shared_ptr<WpeView> FindViewForProcess(int pid);
    // The two halves of a page claim (see WpePageClaims): the view's,
    // and the process's with the pid from its socket's credentials. The
    // latter is false when the claim is refused; *holder then names the
    // process that holds the token (0 when the claims are full).
    void ClaimPageFromView(uint64_t token, const std::shared_ptr<WpeView>& view);
    bool ClaimPageFromProcess(uint64_t token, int pid, int* holder);
    // Forgets the processes known to show the view's page; returns them.
    std::vector<int> UnregisterProcessesOf(const WpeView* view);
    // A sandboxed web process knows its own pid only inside its process
    // namespace: its answer to the render-process-ID question gets the pid
    // this process sees (from the page claims) when it is known.
    void CorrectProcessId(const WpeView& view, EngineProcessMessage& message);
    // True when the web process pid has claimed the page (every completed
    // claim counts, also one before a process swap), from any thread.
    bool ProcessShowsPage(int pid, uint64_t pageId);
    // Null when resource requests are not offered to the clients.
    WpeResourceServer* GetResourceServer() const { return m_pResourceServer.get(); }
    // Null when page audio is not delivered.
    WpeAudioServer* GetAudioServer() const { return m_pAudioServer.get(); }

    // Whether the web processes run in WebKit's sandbox (decided once, at
    // Initialize: where the machine can run bubblewrap).
    bool IsSandboxed() const { return m_bSandboxed; }

    // ---- the engine's helper processes (WpeEnginePortProcesses.cpp) -------
    // Process ids of the web processes this process started that still run
    // (as this process sees them, also when sandboxed).
    static std::vector<int> RunningWebProcesses();
    // The same for every helper process of the engine: pid, and whether it
    // is the network process.
    static std::vector<std::pair<int, bool>> RunningEngineProcesses();

private:
    friend struct TaskSource;
    bool HasTasks() const { return m_bHasTasks.load(std::memory_order_acquire); }
    void RunTasks();
    void OnInitializeWebExtensions();
    void CreateView(int id, EngineClient* client, const std::string& url, const EngineBrowserSettings& settings);

    static void InitializeWebExtensionsThunk(WebKitWebContext* context, gpointer self);
    static void SchemeRequestThunk(WebKitURISchemeRequest* request, gpointer self);

    EngineApp* m_pApp = nullptr;
    std::string m_strModuleFolder;
    std::string m_strExtensionFolder;
    std::optional<double> m_DeviceScaleFactor;
    std::vector<std::pair<std::string, GVariant*>> m_ExtraInitValues;

    // Engine state, owned by the pump thread.
    std::thread::id m_PumpThread;
    GMainContext* m_pMainContext = nullptr;
    GSource* m_pTaskSource = nullptr;
    WebKitWebContext* m_pWebContext = nullptr;
    std::map<int, std::shared_ptr<WpeView>> m_Views;
    std::unique_ptr<WpeResourceServer> m_pResourceServer;
    std::unique_ptr<WpeAudioServer> m_pAudioServer;

    // Views by page identifier and by web process, for the resource and
    // audio threads. Lock order: a leaf lock.
    std::mutex m_PageMutex;
    std::map<uint64_t, std::weak_ptr<WpeView>> m_Pages;
    std::map<int, std::weak_ptr<WpeView>> m_Processes;
    WpePageClaims<WpeView> m_Claims;
    // Every completed (process, view) claim, until the view closes.
    std::set<std::pair<int, const WpeView*>> m_ProcessViews;

    bool m_bSandboxed = false;
    std::atomic<bool> m_bRunning {false};
    std::atomic<int> m_nNextBrowserId {1};

    // Task queue. Lock order: a leaf lock; nothing else is taken or called
    // while it is held.
    std::mutex m_TaskMutex;
    std::deque<std::function<void()>> m_Tasks;
    std::atomic<bool> m_bHasTasks {false};
};

} // namespace SLF_ChromiumEmbeddedFramework
