#include "engine/wpe/WpeEnginePort.h"

#include "dbg/NSLog.h"
#include "engine/CBrowserApp.h"
#include "engine/wpe/WpeVariantCodec.h"
#include "engine/wpe/WpeView.h"
#include "platform/NplFile.h"

#include <wpe/fdo.h>
#include <wpe/unstable/fdo-shm.h>
#include <wpe/webkit.h>

#include <signal.h>
#include <unistd.h>

#include <climits>
#include <sstream>

namespace SLF_ChromiumEmbeddedFramework {

namespace {

// WebKit, its run loop and the backend loader exist once per process, so
// the engine can be initialised only once, whatever the port object.
std::atomic<bool> g_bEngineClaimed {false};

const char kBackendLibrary[] = "libWPEBackend-fdo-1.0.so.1";
const char kRendererProcessType[] = "renderer";
// Shutdown runs inside the wrapper's 2000 ms stop wait (the worker's
// clean-up), so all of it stays well below that: web processes get 1200 ms
// to end by themselves, leftovers 200 ms after SIGTERM and 100 ms after
// SIGKILL.
constexpr gint64 kShutdownWaitMicroseconds = 1200 * 1000;
constexpr gint64 kTerminateWaitMicroseconds = 200 * 1000;
constexpr gint64 kKillWaitMicroseconds = 100 * 1000;

} // namespace

// The GSource that runs queued tasks on the engine context.
struct TaskSource {
    GSource source;
    WpeEnginePort* port;

    static gboolean Prepare(GSource* source, gint* timeout)
    {
        *timeout = -1;
        return reinterpret_cast<TaskSource*>(source)->port->HasTasks();
    }
    static gboolean Check(GSource* source) { return reinterpret_cast<TaskSource*>(source)->port->HasTasks(); }
    static gboolean Dispatch(GSource* source, GSourceFunc, gpointer)
    {
        reinterpret_cast<TaskSource*>(source)->port->RunTasks();
        return G_SOURCE_CONTINUE;
    }
};

static GSourceFuncs s_TaskSourceFuncs = {
    TaskSource::Prepare, TaskSource::Check, TaskSource::Dispatch, nullptr, nullptr, nullptr};

EnginePort* CreateWpeEnginePort()
{
    return new WpeEnginePort();
}

WpeEnginePort::WpeEnginePort() = default;

WpeEnginePort::~WpeEnginePort()
{
    // The threads post to this port: they end while it is whole.
    StopWebProcessServices();
}

std::string WpeEnginePort::GetExtensionFolder() const
{
    return m_strExtensionFolder;
}

bool WpeEnginePort::IsPumpThread() const
{
    return m_bRunning.load() && std::this_thread::get_id() == m_PumpThread;
}

bool WpeEnginePort::Initialize(const EngineSettings& settings, EngineApp* app)
{
    bool expected = false;
    if (!g_bEngineClaimed.compare_exchange_strong(expected, true)) {
        NSLog("WpeEnginePort::Initialize - the engine was already initialised in this process");
        return false;
    }

    m_pApp = app;
    EngineCommandLine commandLine;
    if (m_pApp)
        m_pApp->OnBeforeCommandLineProcessing(std::string(), commandLine);
    m_DeviceScaleFactor = ForcedDeviceScaleFactor(commandLine);
    if (commandLine.HasSwitch("force-device-scale-factor") && !m_DeviceScaleFactor)
        NSLog("WpeEnginePort::Initialize - ignoring force-device-scale-factor \"%s\": not a positive number",
              commandLine.GetSwitchValue("force-device-scale-factor").c_str());
    m_strModuleFolder = settings.browser_subprocess_path.empty() ? NplFile_ExecutableFolder()
                                                                 : NplFile_FolderOf(settings.browser_subprocess_path);
    m_strExtensionFolder = m_strModuleFolder + "/web-extensions";
    if (settings.multi_threaded_message_loop)
        NSLog("WpeEnginePort::Initialize - a multi-threaded message loop is not offered; the caller pumps");

    // No accessibility bus exists for an off-screen service; this keeps the
    // engine from looking for one (also in its web processes).
    g_setenv("NO_AT_BRIDGE", "1", FALSE);

    // The engine's own context becomes the thread default before WebKit is
    // first touched, so WebKit's run loop lives in it.
    m_PumpThread = std::this_thread::get_id();
    m_pMainContext = g_main_context_new();
    g_main_context_push_thread_default(m_pMainContext);

    if (!wpe_loader_init(kBackendLibrary)) {
        NSLog("WpeEnginePort::Initialize - could not load the view backend %s", kBackendLibrary);
        g_main_context_pop_thread_default(m_pMainContext);
        return false;
    }
    if (!wpe_fdo_initialize_shm()) {
        NSLog("WpeEnginePort::Initialize - could not initialise shared-memory rendering");
        g_main_context_pop_thread_default(m_pMainContext);
        return false;
    }

    m_pTaskSource = g_source_new(&s_TaskSourceFuncs, sizeof(TaskSource));
    reinterpret_cast<TaskSource*>(m_pTaskSource)->port = this;
    g_source_set_priority(m_pTaskSource, G_PRIORITY_DEFAULT);
    g_source_set_name(m_pTaskSource, "SlfEngineTasks");
    g_source_attach(m_pTaskSource, m_pMainContext);

    StartWebProcessServices("WpeEnginePort::Initialize", m_strModuleFolder + "/gstreamer-1.0", false);

    m_pWebContext = webkit_web_context_new_ephemeral();
    ApplyWebProcessServices(m_pWebContext, {m_strExtensionFolder, m_strModuleFolder + "/gstreamer-1.0"});
    // One page per view and no page kept for later: a closed view's web
    // process ends instead of waiting in a cache.
    webkit_web_context_set_cache_model(m_pWebContext, WEBKIT_CACHE_MODEL_DOCUMENT_VIEWER);
    webkit_web_context_set_web_extensions_directory(m_pWebContext, m_strExtensionFolder.c_str());
    g_signal_connect(m_pWebContext, "initialize-web-extensions", G_CALLBACK(InitializeWebExtensionsThunk), this);

    m_bRunning.store(true);
    return true;
}

void WpeEnginePort::InitializeWebExtensionsThunk(WebKitWebContext*, gpointer self)
{
    static_cast<WpeEnginePort*>(self)->OnInitializeWebExtensions();
}

void WpeEnginePort::OnInitializeWebExtensions()
{
    // A web process is about to start: its command line is made now, and
    // travels in the module's initialisation data.
    EngineCommandLine commandLine;
    if (m_pApp) {
        if (EngineBrowserProcessHandler* handler = m_pApp->GetBrowserProcessHandler())
            handler->OnBeforeChildProcessLaunch(commandLine);
    }
    GVariant* data = AddExtensionInitValues(ExtensionInitDataToVariant(kRendererProcessType, commandLine));
    webkit_web_context_set_web_extensions_initialization_user_data(m_pWebContext, data);
}

void WpeEnginePort::DoMessageLoopWork()
{
    if (!IsPumpThread())
        return;
    g_main_context_iteration(m_pMainContext, FALSE);
}

int64_t WpeEnginePort::GetNextDueTime()
{
    if (!IsPumpThread())
        return -1;
    int64_t earliest = -1;
    for (const auto& entry : m_Views) {
        const int64_t due = entry.second->GetFrameDueTime();
        if (due >= 0 && (earliest < 0 || due < earliest))
            earliest = due;
    }
    return earliest;
}

void WpeEnginePort::Post(std::function<void()> task)
{
    {
        std::lock_guard<std::mutex> lock(m_TaskMutex);
        if (!m_bRunning.load())
            return;
        m_Tasks.push_back(std::move(task));
        m_bHasTasks.store(true, std::memory_order_release);
    }
    // Wakes the context when the pump thread blocks in it (shutdown).
    if (m_pMainContext)
        g_main_context_wakeup(m_pMainContext);
}

void WpeEnginePort::RunTasks()
{
    // Only the tasks queued so far run now; tasks they queue run in a later
    // pass, which is what "reported from a later pump pass" relies on.
    std::deque<std::function<void()>> batch;
    {
        std::lock_guard<std::mutex> lock(m_TaskMutex);
        batch.swap(m_Tasks);
        m_bHasTasks.store(false, std::memory_order_release);
    }
    for (auto& task : batch)
        task();
}

bool WpeEnginePort::CreateBrowser(const EngineWindowInfo& windowInfo, EngineClient* client, const std::string& url,
                                  const EngineBrowserSettings& settings)
{
    if (!m_bRunning.load() || !client)
        return false;
    if (!windowInfo.windowless_rendering_enabled)
        NSLog("WpeEnginePort::CreateBrowser - only windowless browsers exist; rendering off screen");
    const int id = m_nNextBrowserId.fetch_add(1);
    Post([this, id, client, url, settings]() { CreateView(id, client, url, settings); });
    return true;
}

void WpeEnginePort::CreateView(int id, EngineClient* client, const std::string& url,
                               const EngineBrowserSettings& settings)
{
    // The view holds its URL before the client learns it: the creator may
    // ask for it as soon as OnAfterCreated wakes it.
    auto view = std::make_shared<WpeView>(*this, id, client, settings, url);
    m_Views[id] = view;
    // The client learns the browser first, so that it can answer
    // GetViewRect for it when the view is made.
    if (EngineLifeSpanHandler* handler = client->GetLifeSpanHandler())
        handler->OnAfterCreated(view);
    view->Open();
}

void WpeEnginePort::ForgetView(int id)
{
    m_Views.erase(id);
}

void WpeEnginePort::Shutdown()
{
    if (!IsPumpThread())
        return;
    {
        std::lock_guard<std::mutex> lock(m_TaskMutex);
        m_bRunning.store(false);
        m_Tasks.clear();
        m_bHasTasks.store(false);
    }

    auto views = m_Views;
    for (auto& entry : views)
        entry.second->Close(false);
    m_Views.clear();
    StopWebProcessServices();

    if (m_pWebContext) {
        g_signal_handlers_disconnect_by_data(m_pWebContext, this);
        g_object_unref(m_pWebContext);
        m_pWebContext = nullptr;
    }

    // The web processes end once their pages and the context are gone; the
    // context keeps running until then, for a bounded time.
    auto runUntilGone = [this](bool networkToo, gint64 bound) {
        const gint64 deadline = g_get_monotonic_time() + bound;
        for (;;) {
            while (g_main_context_iteration(m_pMainContext, FALSE)) {
            }
            bool running = false;
            for (const auto& process : RunningEngineProcesses())
                running = running || networkToo || !process.second;
            if (!running)
                return true;
            if (g_get_monotonic_time() >= deadline)
                return false;
            g_usleep(5000);
        }
    };
    auto signalAll = [](int signalNumber) {
        for (const auto& process : RunningEngineProcesses())
            kill(process.first, signalNumber);
    };
    if (!runUntilGone(false, kShutdownWaitMicroseconds))
        NSLog("WpeEnginePort::Shutdown - web processes still running after %d ms; terminating them",
              static_cast<int>(kShutdownWaitMicroseconds / 1000));
    // What is left (the network process of the ephemeral session, which
    // outlives the context in the engine's own bookkeeping, and web
    // processes that did not end, say hanging in a script) holds nothing
    // worth keeping.
    signalAll(SIGTERM);
    if (!runUntilGone(true, kTerminateWaitMicroseconds)) {
        signalAll(SIGKILL);
        if (!runUntilGone(true, kKillWaitMicroseconds))
            NSLog("WpeEnginePort::Shutdown - engine processes still running after SIGKILL");
    }

    if (m_pTaskSource) {
        g_source_destroy(m_pTaskSource);
        g_source_unref(m_pTaskSource);
        m_pTaskSource = nullptr;
    }
    // WebKit's run loop keeps its reference to the context; it only stops
    // being the thread default.
    g_main_context_pop_thread_default(m_pMainContext);
}

} // namespace SLF_ChromiumEmbeddedFramework
