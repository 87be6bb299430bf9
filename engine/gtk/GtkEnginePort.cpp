#include "engine/gtk/GtkEnginePort.h"

#include "dbg/NSLog.h"
#include "engine/gtk/GtkView.h"
#include "engine/wpe/WpeVariantCodec.h"
#include "platform/NplFile.h"

#include <gtk/gtk.h>
#include <webkit2/webkit2.h>

#include <signal.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <dirent.h>
#include <fstream>
#include <vector>

namespace SLF_ChromiumEmbeddedFramework {

namespace {

// GTK and WebKit exist once per process: the engine is initialised once.
std::atomic<bool> g_bEngineClaimed {false};

const char kRendererProcessType[] = "renderer";
// Shutdown runs inside the wrapper's 2000 ms stop wait: the web processes
// get 1000 ms to end with their views, then what is left of the engine's
// processes gets SIGTERM and 200 ms, then SIGKILL and 100 ms.
constexpr gint64 kShutdownWaitMicroseconds = 1000 * 1000;
constexpr gint64 kTerminateWaitMicroseconds = 200 * 1000;
constexpr gint64 kKillWaitMicroseconds = 100 * 1000;

// Child processes of this process other than `except` that still run (the
// engine's web and network processes, their sandbox launchers and proxies).
std::vector<int> RunningChildren(int except)
{
    std::vector<int> result;
    DIR* tasks = opendir("/proc/self/task");
    if (!tasks)
        return result;
    while (struct dirent* entry = readdir(tasks)) {
        if (entry->d_name[0] == '.')
            continue;
        std::ifstream children(std::string("/proc/self/task/") + entry->d_name + "/children");
        int pid = 0;
        while (children >> pid) {
            if (pid == except)
                continue;
            std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
            std::string line;
            std::getline(stat, line);
            const size_t close = line.rfind(')');
            if (close == std::string::npos || close + 2 >= line.size())
                continue;
            const char state = line[close + 2];
            if (state != 'Z' && state != 'X')
                result.push_back(pid);
        }
    }
    closedir(tasks);
    return result;
}

// Whether pids holds nothing but network processes. Every other child
// (web processes, their sandbox launchers and D-Bus proxies) ends with the
// views and the context; ending one of them while WebKit still starts a
// web process makes WebKit abort.
bool OnlyNetworkLeft(const std::vector<int>& pids)
{
    for (int pid : pids) {
        std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
        std::string name;
        std::getline(comm, name);
        if (!name.empty() && name.rfind("WebKitNetwork", 0) != 0)
            return false;
    }
    return true;
}

} // namespace

struct GtkTaskSource {
    GSource source;
    GtkEnginePort* port;

    static gboolean Prepare(GSource* source, gint* timeout)
    {
        *timeout = -1;
        return reinterpret_cast<GtkTaskSource*>(source)->port->HasTasks();
    }
    static gboolean Check(GSource* source) { return reinterpret_cast<GtkTaskSource*>(source)->port->HasTasks(); }
    static gboolean Dispatch(GSource* source, GSourceFunc, gpointer)
    {
        reinterpret_cast<GtkTaskSource*>(source)->port->RunTasks();
        return G_SOURCE_CONTINUE;
    }
};

static GSourceFuncs s_GtkTaskSourceFuncs = {
    GtkTaskSource::Prepare, GtkTaskSource::Check, GtkTaskSource::Dispatch, nullptr, nullptr, nullptr};

EnginePort* CreateGtkEnginePort()
{
    return new GtkEnginePort();
}

GtkEnginePort::GtkEnginePort() = default;
GtkEnginePort::~GtkEnginePort()
{
    // The threads post to this port: they end while it is whole.
    StopWebProcessServices();
}

bool GtkEnginePort::IsPumpThread() const
{
    return m_bRunning.load() && std::this_thread::get_id() == m_PumpThread;
}

bool GtkEnginePort::Initialize(const EngineSettings& settings, EngineApp* app)
{
    bool expected = false;
    if (!g_bEngineClaimed.compare_exchange_strong(expected, true)) {
        NSLog("GtkEnginePort::Initialize - the engine was already initialised in this process");
        return false;
    }
    m_pApp = app;
    EngineCommandLine commandLine;
    if (m_pApp)
        m_pApp->OnBeforeCommandLineProcessing(std::string(), commandLine);
    m_strModuleFolder = settings.browser_subprocess_path.empty() ? NplFile_ExecutableFolder()
                                                                 : NplFile_FolderOf(settings.browser_subprocess_path);

    // The private display first: GTK cannot start without one.
    const GtkHeadlessDisplay::Kind kind = GtkHeadlessDisplay::KindFromEnvironment();
    if (!m_Display.Start(kind)) {
        NSLog("GtkEnginePort::Initialize - the headless display did not start");
        return false;
    }
    g_setenv("GDK_BACKEND", m_Display.GetBackend(), TRUE);
    // A service without a runtime folder (started outside a login session)
    // gets the display's private folder as its own: GDK's Wayland backend
    // does not start without one.
    if (!g_getenv("XDG_RUNTIME_DIR"))
        g_setenv("XDG_RUNTIME_DIR", m_Display.GetFolder().c_str(), TRUE);
    if (kind == GtkHeadlessDisplay::Kind::Weston) {
        g_setenv("WAYLAND_DISPLAY", m_Display.GetName().c_str(), TRUE);
        g_unsetenv("DISPLAY");
    } else {
        g_setenv("DISPLAY", m_Display.GetName().c_str(), TRUE);
        g_unsetenv("WAYLAND_DISPLAY");
    }
    g_setenv("NO_AT_BRIDGE", "1", FALSE);
    // Keys come from the host as finished events: a desktop input method
    // (IBus and the like, named in the user's environment) must not take
    // them over, so GTK's built-in one handles them.
    g_setenv("GTK_IM_MODULE", "gtk-im-context-simple", TRUE);
    // Without a GPU, Skia's GPU painting runs on Mesa's software GL; its CPU
    // raster paints the same pages for about a fifth less processor time
    // (measured with bench_engines). WebGL and compositing keep using GL.
    g_setenv("WEBKIT_SKIA_ENABLE_CPU_RENDERING", "1", FALSE);

    m_PumpThread = std::this_thread::get_id();
    m_pMainContext = g_main_context_new();
    g_main_context_push_thread_default(m_pMainContext);

    if (!gtk_init_check(nullptr, nullptr)) {
        NSLog("GtkEnginePort::Initialize - GTK cannot open the headless display %s", m_Display.GetName().c_str());
        g_main_context_pop_thread_default(m_pMainContext);
        m_Display.Stop();
        return false;
    }
    NSLog("GtkEnginePort::Initialize - WebKitGTK %u.%u.%u on a private %s display (%s)", webkit_get_major_version(),
          webkit_get_minor_version(), webkit_get_micro_version(),
          kind == GtkHeadlessDisplay::Kind::Weston ? "weston" : "Xvfb", m_Display.GetName().c_str());

    m_pTaskSource = g_source_new(&s_GtkTaskSourceFuncs, sizeof(GtkTaskSource));
    reinterpret_cast<GtkTaskSource*>(m_pTaskSource)->port = this;
    g_source_set_name(m_pTaskSource, "SlfGtkEngineTasks");
    g_source_attach(m_pTaskSource, m_pMainContext);

    // The sandbox (where the machine runs it), the resource and audio
    // threads, and our GStreamer sink on the web processes' plugin path.
    const std::string pluginFolder = m_strModuleFolder + "/gstreamer-1.0";
    StartWebProcessServices("GtkEnginePort::Initialize", pluginFolder, true);

    m_pWebContext = webkit_web_context_new_ephemeral();
    // The module built for this engine has a folder of its own: WebKit loads
    // every library of the folder, and the WPE module cannot live in a
    // WebKitGTK web process.
    const std::string extensionFolder = m_strModuleFolder + "/web-extensions-gtk";
    ApplyWebProcessServices(m_pWebContext, {extensionFolder, pluginFolder});
    // Sandboxed web processes open the display too (the socket is by
    // absolute path, which the sandbox does not bring in by itself); they
    // write nothing there.
    if (IsSandboxed())
        webkit_web_context_add_path_to_sandbox(m_pWebContext, m_Display.GetFolder().c_str(), TRUE);
    webkit_web_context_set_cache_model(m_pWebContext, WEBKIT_CACHE_MODEL_DOCUMENT_VIEWER);
    webkit_web_context_set_web_extensions_directory(m_pWebContext, extensionFolder.c_str());
    g_signal_connect(m_pWebContext, "initialize-web-extensions", G_CALLBACK(+[](WebKitWebContext*, gpointer self) {
                         static_cast<GtkEnginePort*>(self)->OnInitializeWebExtensions();
                     }),
                     this);
    m_bRunning.store(true);
    return true;
}

void GtkEnginePort::OnInitializeWebExtensions()
{
    EngineCommandLine commandLine;
    if (m_pApp) {
        if (EngineBrowserProcessHandler* handler = m_pApp->GetBrowserProcessHandler())
            handler->OnBeforeChildProcessLaunch(commandLine);
    }
    // The resource thread's socket travels with the command line.
    webkit_web_context_set_web_extensions_initialization_user_data(
        m_pWebContext, AddExtensionInitValues(ExtensionInitDataToVariant(kRendererProcessType, commandLine)));
}

void GtkEnginePort::DoMessageLoopWork()
{
    if (!IsPumpThread())
        return;
    g_main_context_iteration(m_pMainContext, FALSE);
    // GDK's sources are on the global default context. Inside the service's
    // main loop that loop runs them; a pump thread outside any loop runs
    // them here.
    GMainContext* defaultContext = g_main_context_default();
    if (g_main_depth() == 0 && g_main_context_acquire(defaultContext)) {
        g_main_context_iteration(defaultContext, FALSE);
        g_main_context_release(defaultContext);
    }
}

void GtkEnginePort::Post(std::function<void()> task)
{
    {
        std::lock_guard<std::mutex> lock(m_TaskMutex);
        if (!m_bRunning.load())
            return;
        m_Tasks.push_back(std::move(task));
        m_bHasTasks.store(true, std::memory_order_release);
    }
    if (m_pMainContext)
        g_main_context_wakeup(m_pMainContext);
}

void GtkEnginePort::RunTasks()
{
    std::deque<std::function<void()>> batch;
    {
        std::lock_guard<std::mutex> lock(m_TaskMutex);
        batch.swap(m_Tasks);
        m_bHasTasks.store(false, std::memory_order_release);
    }
    for (auto& task : batch)
        task();
}

bool GtkEnginePort::CreateBrowser(const EngineWindowInfo&, EngineClient* client, const std::string& url,
                                  const EngineBrowserSettings& settings)
{
    if (!m_bRunning.load() || !client)
        return false;
    const int id = m_nNextBrowserId.fetch_add(1);
    Post([this, id, client, url, settings]() { CreateView(id, client, url, settings); });
    return true;
}

void GtkEnginePort::CreateView(int id, EngineClient* client, const std::string& url,
                               const EngineBrowserSettings& settings)
{
    auto view = std::make_shared<GtkView>(*this, id, client, settings, url);
    m_Views[id] = view;
    if (EngineLifeSpanHandler* handler = client->GetLifeSpanHandler())
        handler->OnAfterCreated(view);
    view->Open();
}

void GtkEnginePort::ForgetView(int id)
{
    m_Views.erase(id);
}

void GtkEnginePort::Shutdown()
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
    m_RetiredViews.EndAll();
    StopWebProcessServices();
    if (m_pWebContext) {
        g_signal_handlers_disconnect_by_data(m_pWebContext, this);
        g_object_unref(m_pWebContext);
        m_pWebContext = nullptr;
    }

    const int display = m_Display.GetPid();
    // Once the engine's leftovers are being ended, its contexts no longer
    // run: WebKit would take the network process's end for a crash and
    // start another one.
    auto runUntilGone = [&](gint64 bound, bool networkMayStay) {
        const gint64 deadline = g_get_monotonic_time() + bound;
        GMainContext* defaultContext = g_main_context_default();
        for (;;) {
            while (networkMayStay && g_main_context_iteration(m_pMainContext, FALSE)) {
            }
            if (networkMayStay && g_main_context_acquire(defaultContext)) {
                while (g_main_context_iteration(defaultContext, FALSE)) {
                }
                g_main_context_release(defaultContext);
            }
            const std::vector<int> children = RunningChildren(display);
            if (networkMayStay ? OnlyNetworkLeft(children) : children.empty())
                return true;
            if (g_get_monotonic_time() >= deadline)
                return false;
            g_usleep(5000);
        }
    };
    // The web processes (with their sandbox launchers and proxies) end with
    // their views and the context; what is left then (the network process,
    // which outlives the context) holds nothing worth keeping.
    if (!runUntilGone(kShutdownWaitMicroseconds, true))
        NSLog("GtkEnginePort::Shutdown - web processes or their helpers still running after %d ms; terminating them",
              static_cast<int>(kShutdownWaitMicroseconds / 1000));
    if (!RunningChildren(display).empty()) {
        for (int pid : RunningChildren(display))
            kill(pid, SIGTERM);
        if (!runUntilGone(kTerminateWaitMicroseconds, false)) {
            for (int pid : RunningChildren(display))
                kill(pid, SIGKILL);
            if (!runUntilGone(kKillWaitMicroseconds, false))
                NSLog("GtkEnginePort::Shutdown - engine processes still running after SIGKILL");
        }
    }
    // GDK leaves the display before the server goes (a lost connection would
    // end the process).
    if (GdkDisplay* gdkDisplay = gdk_display_get_default())
        gdk_display_close(gdkDisplay);
    m_Display.Stop();

    if (m_pTaskSource) {
        g_source_destroy(m_pTaskSource);
        g_source_unref(m_pTaskSource);
        m_pTaskSource = nullptr;
    }
    g_main_context_pop_thread_default(m_pMainContext);
}

} // namespace SLF_ChromiumEmbeddedFramework
