// The client's connection and thread: connecting (starting the service on
// demand), the library thread's life, and the public OverlayClient calls.
// Browsers and their events: ClientCore and BrowserChannel.
#include "streamloft/OverlayClient.h"

#include <gio/gio.h>
#include <pthread.h>

#include <algorithm>
#include <future>
#include <thread>

#include "client/BrowserChannel.h"
#include "client/ClientCore.h"
#include "client/ServiceLauncher.h"

namespace streamloft {

namespace {

std::string TakeMessage(GError* error)
{
    std::string text = error ? error->message : "unknown error";
    if (error)
        g_error_free(error);
    return text;
}

// What the library thread found while connecting; handed over through the
// start-up promise.
struct ConnectResult {
    std::string failure; // empty when connected
    pid_t servicePid = -1;
    bool startedService = false;
};

GDBusConnection* TryConnect(const std::string& socketPath, std::string* error)
{
    gchar* escaped = g_dbus_address_escape_value(socketPath.c_str());
    std::string address = std::string("unix:path=") + escaped;
    g_free(escaped);
    GError* gerror = nullptr;
    GDBusConnection* connection = g_dbus_connection_new_for_address_sync(
        address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_DELAY_MESSAGE_PROCESSING),
        nullptr, nullptr, &gerror);
    if (!connection)
        *error = TakeMessage(gerror);
    return connection;
}

// A service that ends again and again without answering has failed.
constexpr int kMaxServiceStarts = 8;

GDBusConnection* StartServiceAndConnect(ClientCore& core, const std::string& firstError, ConnectResult* result)
{
    const ConnectOptions& options = core.options();
    const std::string& socketPath = core.socketPath();
    const std::string helper = ResolveServiceExecutable(options.helperPath);
    const std::string log = ServiceLogPath(socketPath);
    if (options.socketPath.empty()) {
        // The default folder is private to the user; the service makes it the
        // same way when it gets there first.
        std::string folder = socketPath.substr(0, socketPath.rfind('/'));
        g_mkdir_with_parents(folder.c_str(), 0700);
    }
    const std::string listenPath = options.socketPath.empty() ? std::string() : socketPath;
    std::string spawnError;
    StartedService service;
    if (!StartServiceProcess(helper, listenPath, log, &service, &spawnError)) {
        result->failure =
            "cannot reach the overlay service at " + socketPath + " (" + firstError + ") and " + spawnError;
        return nullptr;
    }
    result->startedService = true;
    const auto deadline = std::chrono::steady_clock::now() + options.startTimeout;
    auto delay = std::chrono::milliseconds(10);
    std::string lastError = firstError;
    int starts = 1;
    for (;;) {
        GDBusConnection* connection = TryConnect(socketPath, &lastError);
        if (connection) {
            ForgetServiceProcess(&service);
            return connection;
        }
        if (ServiceProcessHasEnded(service)) {
            ForgetServiceProcess(&service);
            // A service that finds another instance on the same address leaves
            // quietly, and the other one answers, unless it was ending (an idle
            // exit gives the address up before it is gone): then one is started
            // again, which takes the address once the other has let it go.
            if (starts == kMaxServiceStarts) {
                result->failure = "the overlay service '" + helper + "' ended " + std::to_string(starts) +
                                  " times before it answered at " + socketPath + " (its log: " + log + ")";
                return nullptr;
            }
            if (!StartServiceProcess(helper, listenPath, log, &service, &spawnError)) {
                result->failure =
                    "cannot reach the overlay service at " + socketPath + " (" + lastError + ") and " + spawnError;
                return nullptr;
            }
            ++starts;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            ForgetServiceProcess(&service);
            result->failure = "the overlay service '" + helper + "' did not answer at " + socketPath + " within " +
                              std::to_string(options.startTimeout.count()) + " ms: " + lastError + " (its log: " + log +
                              ")";
            return nullptr;
        }
        std::this_thread::sleep_for(delay);
        delay = std::min(delay * 2, std::chrono::milliseconds(200));
    }
}

// Connects, starting the service when nothing answers, then sets the
// connection up before any message of the service is processed.
bool Establish(ClientCore& core, ConnectResult* result)
{
    const std::string& socketPath = core.socketPath();
    std::string firstError;
    GDBusConnection* connection = TryConnect(socketPath, &firstError);
    if (!connection) {
        if (!core.options().startOnDemand) {
            result->failure = "cannot reach the overlay service at " + socketPath + ": " + firstError;
            return false;
        }
        connection = StartServiceAndConnect(core, firstError, result);
        if (!connection)
            return false;
    }
    auto channel = std::make_unique<BrowserChannel>(core, connection);
    if (!channel->Start(&result->failure))
        return false;
    result->servicePid = channel->PeerProcessID();
    core.AdoptMainChannel(std::move(channel));
    return true;
}

// The library thread: connects, then runs the client's context until the
// client ends. Owns a reference to the core and the loop for its whole life.
void RunLibraryThread(std::shared_ptr<ClientCore> core, GMainLoop* loop,
                      std::shared_ptr<std::promise<ConnectResult>> ready)
{
    pthread_setname_np(pthread_self(), "slf-overlay");
    g_main_context_push_thread_default(core->context());
    core->EnterLibraryThread();
    ConnectResult result;
    const bool connected = Establish(*core, &result);
    if (!connected && result.failure.empty())
        result.failure = "cannot connect to the overlay service";
    ready->set_value(result); // the client may be gone from here on
    if (connected)
        g_main_loop_run(loop);
    core->Teardown();
    g_main_context_pop_thread_default(core->context());
    g_main_loop_unref(loop);
}

} // namespace

class OverlayClient::Impl {
public:
    explicit Impl(const ConnectOptions& options)
        : core_(std::make_shared<ClientCore>(options)),
          loop_(g_main_loop_new(core_->context(), FALSE))
    {
    }

    ~Impl() { g_main_loop_unref(loop_); }

    bool Start(Error* error)
    {
        // Shared: the thread may still be inside set_value when this returns.
        auto ready = std::make_shared<std::promise<ConnectResult>>();
        std::future<ConnectResult> started = ready->get_future();
        thread_ = std::thread(RunLibraryThread, core_, g_main_loop_ref(loop_), ready);
        ConnectResult result = started.get();
        if (result.failure.empty()) {
            servicePid_ = result.servicePid;
            startedService_ = result.startedService;
            return true;
        }
        thread_.join();
        if (error)
            *error = MakeError(ErrorKind::ServiceUnreachable, result.failure);
        return false;
    }

    // Ends the client. Inside an event on the library thread the thread cannot
    // be joined: it is detached and ends on its own once the event returns.
    void Destroy()
    {
        core_->ending = true;
        core_->events().Stop();
        // Queued rather than a direct quit, which would be lost if the loop has
        // not started running yet.
        core_->RunOnLibraryThread([loop = g_main_loop_ref(loop_)] {
            g_main_loop_quit(loop);
            g_main_loop_unref(loop);
        });
        if (thread_.get_id() == std::this_thread::get_id())
            thread_.detach();
        else if (thread_.joinable())
            thread_.join();
    }

    std::shared_ptr<Browser> OpenBrowser(const BrowserOptions& options, std::shared_ptr<BrowserEvents> events)
    {
        auto state = std::make_shared<Browser::State>(core_, options, std::move(events));
        auto handle = std::make_shared<Browser>(state);
        state->handle = handle;
        core_->RunOnLibraryThread([weak = std::weak_ptr<ClientCore>(core_), state] {
            if (auto core = weak.lock())
                core->Open(state);
        });
        return handle;
    }

    void Disconnect(std::function<void()> done)
    {
        core_->RunOnLibraryThread([weak = std::weak_ptr<ClientCore>(core_), done = std::move(done)] {
            auto core = weak.lock();
            if (!core)
                return;
            core->CloseAll();
            if (done)
                core->Post(done);
        });
    }

    bool IsConnected() const { return core_->connected(); }
    const std::string& SocketPath() const { return core_->socketPath(); }
    pid_t ServiceProcessID() const { return servicePid_; }
    bool StartedService() const { return startedService_; }

private:
    std::shared_ptr<ClientCore> core_;
    GMainLoop* loop_;
    std::thread thread_;
    pid_t servicePid_ = -1;
    bool startedService_ = false;
};

std::unique_ptr<OverlayClient> OverlayClient::Connect(const ConnectOptions& options, Error* error)
{
    auto impl = std::make_unique<Impl>(options);
    if (!impl->Start(error))
        return nullptr;
    return std::unique_ptr<OverlayClient>(new OverlayClient(std::move(impl)));
}

std::string OverlayClient::DefaultSocketPath()
{
    return DefaultServiceSocketPath();
}
std::string OverlayClient::DefaultHelperPath()
{
    return ResolveServiceExecutable({});
}

OverlayClient::OverlayClient(std::unique_ptr<Impl> impl) : impl_(std::move(impl))
{
}
OverlayClient::~OverlayClient()
{
    impl_->Destroy();
}

std::shared_ptr<Browser> OverlayClient::OpenBrowser(const BrowserOptions& options,
                                                    std::shared_ptr<BrowserEvents> events)
{
    return impl_->OpenBrowser(options, std::move(events));
}

void OverlayClient::Disconnect(std::function<void()> done)
{
    impl_->Disconnect(std::move(done));
}
bool OverlayClient::IsConnected() const
{
    return impl_->IsConnected();
}
const std::string& OverlayClient::SocketPath() const
{
    return impl_->SocketPath();
}
pid_t OverlayClient::ServiceProcessID() const
{
    return impl_->ServiceProcessID();
}
bool OverlayClient::StartedService() const
{
    return impl_->StartedService();
}

} // namespace streamloft
