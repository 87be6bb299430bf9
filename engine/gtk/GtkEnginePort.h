// The engine port over WebKitGTK (webkit2gtk-4.1, GTK 3): the second
// implementation of the engine port, beside the WPE WebKit one.
//
// Initialize starts a private headless display (GtkHeadlessDisplay) and
// opens GTK on it; each browser is a web view in a GTK offscreen window
// (GtkView). The engine runs on the pump thread inside a GMainContext of
// its own that WebKit uses as its run loop; GDK's own sources (display
// events, frame clock) live on the global default context, which the
// service's main loop runs on the same thread (DoMessageLoopWork runs it
// too when nothing else does). Browser, host and frame calls from any
// thread are queued to the pump thread in order.
//
// Scope: rendering (paced frames at the browser's size and rate, with
// transparency), loading, scripts, resize, hide/show, invalidate, process
// messages, the web-process module, input (GtkInput), the cursor, popups
// and script dialogs. The web processes' sandbox, resource interception,
// page audio and page claims are the WPE port's (WpeEngineServices, built
// against WebKitGTK).
#pragma once

#include "engine/gtk/GtkHeadlessDisplay.h"
#include "engine/gtk/GtkRetiredViews.h"
#include "engine/port/EnginePort.h"
#include "engine/wpe/WpeEngineServices.h"

#include <glib.h>

#include <atomic>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

typedef struct _WebKitWebContext WebKitWebContext;

namespace SLF_ChromiumEmbeddedFramework {

class GtkView;

// Creates the WebKitGTK port; the caller owns it and installs it with
// SetEnginePort.
EnginePort* CreateGtkEnginePort();

class GtkEnginePort : public EnginePort, public WpeEngineServices {
public:
    GtkEnginePort();
    ~GtkEnginePort() override;
    GtkEnginePort(const GtkEnginePort&) = delete;
    GtkEnginePort& operator=(const GtkEnginePort&) = delete;

    bool Initialize(const EngineSettings& settings, EngineApp* app) override;
    void DoMessageLoopWork() override;
    void Shutdown() override;
    // Closed browsers' views kept until their web processes are up and ended.
    bool HasCloseWorkLeft() override { return m_RetiredViews.Busy(); }
    bool CreateBrowser(const EngineWindowInfo& windowInfo, EngineClient* client, const std::string& url,
                       const EngineBrowserSettings& settings) override;

    // Queues a task to the pump thread (dropped after Shutdown).
    void Post(std::function<void()> task) override;

    WebKitWebContext* GetWebContext() const { return m_pWebContext; }
    GMainContext* GetMainContext() const override { return m_pMainContext; }
    void ForgetView(int id);
    // Keeps a closed browser's window and view until its web process is up,
    // then ends both (GtkRetiredViews). Pump thread.
    void RetireWebView(GtkWidget* window, WebKitWebView* view) { m_RetiredViews.Retire(window, view, m_pMainContext); }

    // ---- web processes (GtkEnginePortProcesses.cpp) ------------------------
    // The answer to the render-process-ID question names the process as it
    // knows itself, inside its sandbox's process namespace: the pid this
    // process sees goes in its place, and is kept as the view's process.
    // Pump thread.
    void CorrectProcessId(const GtkView& view, EngineProcessMessage& message);
    // The web process last known to show the view, 0 when none is; any
    // thread.
    int ProcessOf(const GtkView* view);
    // The view's web process is gone or the view closes: forgets it and
    // returns it (0 when none was known); any thread.
    int ForgetProcessOf(const GtkView* view);
    // Process ids of the web processes this process started that still run
    // (as this process sees them, also when sandboxed).
    static std::vector<int> RunningWebProcesses();
    // The same for every helper process of the engine: pid, and whether it
    // is the network process.
    static std::vector<std::pair<int, bool>> RunningEngineProcesses();

private:
    friend struct GtkTaskSource;
    bool HasTasks() const { return m_bHasTasks.load(std::memory_order_acquire); }
    void RunTasks();
    void OnInitializeWebExtensions();
    void CreateView(int id, EngineClient* client, const std::string& url, const EngineBrowserSettings& settings);
    bool IsPumpThread() const;

    EngineApp* m_pApp = nullptr;
    std::string m_strModuleFolder;
    GtkHeadlessDisplay m_Display;

    // Engine state, owned by the pump thread.
    std::thread::id m_PumpThread;
    GMainContext* m_pMainContext = nullptr;
    GSource* m_pTaskSource = nullptr;
    WebKitWebContext* m_pWebContext = nullptr;
    std::map<int, std::shared_ptr<GtkView>> m_Views;
    GtkRetiredViews m_RetiredViews;

    // The web process of each view. Lock order: a leaf lock.
    std::mutex m_ProcessMutex;
    std::map<const GtkView*, int> m_ViewProcesses;

    std::atomic<bool> m_bRunning {false};
    std::atomic<int> m_nNextBrowserId {1};

    // Task queue. Lock order: a leaf lock; nothing else is taken or called
    // while it is held.
    std::mutex m_TaskMutex;
    std::deque<std::function<void()>> m_Tasks;
    std::atomic<bool> m_bHasTasks {false};
};

} // namespace SLF_ChromiumEmbeddedFramework
