// The engine port over WPE WebKit. The engine runs on the thread that calls
// Initialize (the pump thread) inside a GMainContext of its own, which only
// DoMessageLoopWork iterates. Views render through the freedesktop.org
// exportable backend into shared-memory buffers, which are handed to the
// client's render handler as packed BGRA images. Every browser, host and
// frame call from any thread is queued to that context in order.
//
// Start, task queue, browsers and shutdown are in WpeEnginePort.cpp; the
// engine's helper processes in WpeEnginePortProcesses.cpp. Each browser is a
// WpeView.
#pragma once

#include "engine/port/EnginePort.h"
#include "engine/wpe/WpeEngineServices.h"

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

// Creates the WPE port; the caller owns it and installs it with
// SetEnginePort.
EnginePort* CreateWpeEnginePort();

// The sandbox, the resource and audio threads and the page claims are
// WpeEngineServices, shared with the WebKitGTK port.
class WpeEnginePort : public EnginePort, public WpeEngineServices {
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

    // The folder from which the web processes load our module: the folder
    // "web-extensions" next to the service executable (or next to the
    // configured helper executable). Our GStreamer plugins are in
    // "gstreamer-1.0" there.
    std::string GetExtensionFolder() const;

    // Queues a task to the pump thread; it runs in a later pump pass, after
    // every task queued before it. Tasks queued after Shutdown are dropped.
    void Post(std::function<void()> task) override;

    // Pump-thread state used by the views.
    WebKitWebContext* GetWebContext() const { return m_pWebContext; }
    GMainContext* GetMainContext() const override { return m_pMainContext; }
    std::optional<double> GetDeviceScaleFactor() const { return m_DeviceScaleFactor; }
    bool IsPumpThread() const;
    // A view was closed: forget it.
    void ForgetView(int id);

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

    EngineApp* m_pApp = nullptr;
    std::string m_strModuleFolder;
    std::string m_strExtensionFolder;
    std::optional<double> m_DeviceScaleFactor;

    // Engine state, owned by the pump thread.
    std::thread::id m_PumpThread;
    GMainContext* m_pMainContext = nullptr;
    GSource* m_pTaskSource = nullptr;
    WebKitWebContext* m_pWebContext = nullptr;
    std::map<int, std::shared_ptr<WpeView>> m_Views;

    std::atomic<bool> m_bRunning {false};
    std::atomic<int> m_nNextBrowserId {1};

    // Task queue. Lock order: a leaf lock; nothing else is taken or called
    // while it is held.
    std::mutex m_TaskMutex;
    std::deque<std::function<void()>> m_Tasks;
    std::atomic<bool> m_bHasTasks {false};
};

} // namespace SLF_ChromiumEmbeddedFramework
