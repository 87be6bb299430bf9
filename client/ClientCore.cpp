#include "client/ClientCore.h"

#include <glib.h>

#include "client/BrowserChannel.h"
#include "protocol/OverlayProtocol.h"
#include "client/ServiceLauncher.h"
#include "dbg/NSLog.h"

namespace streamloft {

namespace {

using Phase = Browser::State::Phase;

// The client whose library thread this is; the audio transport's log lines
// made there go to that client's diagnostics, all others nowhere.
thread_local ClientCore* tLibraryThreadClient = nullptr;

void RouteAudioTransportLog(const char* message)
{
    if (tLibraryThreadClient)
        tLibraryThreadClient->Report(message);
}

// A reply the library thread waits for, with what it needs when it comes.
struct PendingCall {
    std::weak_ptr<ClientCore> core;
    ClientCore::StatePtr state;
    Completion done;
};

} // namespace

const char* ErrorKindName(ErrorKind kind)
{
    switch (kind) {
    case ErrorKind::InvalidURL:
        return "invalid-url";
    case ErrorKind::InvalidArgument:
        return "invalid-argument";
    case ErrorKind::ServiceUnreachable:
        return "service-unreachable";
    case ErrorKind::ConnectionClosed:
        return "connection-closed";
    case ErrorKind::EngineFailed:
        return "engine-failed";
    }
    return "unknown";
}

std::string Error::Describe() const
{
    return name.empty() ? message : message + " (" + name + ")";
}

Error MakeError(ErrorKind kind, std::string message)
{
    Error error;
    error.kind = kind;
    error.message = std::move(message);
    return error;
}

Error ErrorFromGError(const GError* gerror)
{
    if (!gerror)
        return MakeError(ErrorKind::EngineFailed, "unknown error");
    GError* copy = g_error_copy(gerror);
    Error error;
    if (gchar* name = g_dbus_error_get_remote_error(copy)) {
        error.name = name;
        g_free(name);
        g_dbus_error_strip_remote_error(copy);
    }
    error.message = copy->message;
    const bool closed = g_error_matches(copy, G_IO_ERROR, G_IO_ERROR_CLOSED);
    g_error_free(copy);
    if (error.name == protocol::kErrorInvalidURL)
        error.kind = ErrorKind::InvalidURL;
    else if (error.name == protocol::kErrorInvalidArgument || error.name == "org.freedesktop.DBus.Error.InvalidArgs")
        error.kind = ErrorKind::InvalidArgument;
    else if (closed || error.name == "org.freedesktop.DBus.Error.Disconnected" ||
             error.name == "org.freedesktop.DBus.Error.NoReply")
        error.kind = ErrorKind::ConnectionClosed;
    else
        error.kind = ErrorKind::EngineFailed;
    return error;
}

ClientCore::ClientCore(const ConnectOptions& options)
    : options_(options),
      socketPath_(options.socketPath.empty() ? DefaultServiceSocketPath() : options.socketPath),
      context_(g_main_context_new()),
      events_(EventQueue::Create(options.context ? options.context : context_))
{
    static const bool routed = [] {
        NSLogSetHandler(&RouteAudioTransportLog);
        return true;
    }();
    (void)routed;
}

ClientCore::~ClientCore()
{
    g_main_context_unref(context_);
}

void ClientCore::EnterLibraryThread()
{
    tLibraryThreadClient = this;
}

void ClientCore::RunOnLibraryThread(std::function<void()> task)
{
    GSource* source = g_idle_source_new();
    g_source_set_priority(source, G_PRIORITY_DEFAULT);
    g_source_set_callback(
        source,
        [](gpointer data) {
            (*static_cast<std::function<void()>*>(data))();
            return G_SOURCE_REMOVE;
        },
        new std::function<void()>(std::move(task)),
        [](gpointer data) { delete static_cast<std::function<void()>*>(data); });
    g_source_attach(source, context_);
    g_source_unref(source);
}

void ClientCore::Report(std::string message)
{
    if (!options_.diagnostics)
        return;
    Post([report = options_.diagnostics, message = std::move(message)] { report(message); });
}

void ClientCore::Complete(const Completion& done, std::optional<Error> error)
{
    if (!done)
        return;
    Post([done, error = std::move(error)] { done(error); });
}

void ClientCore::Deliver(const StatePtr& state, std::function<void(Browser&, BrowserEvents&)> deliver)
{
    if (!state->events)
        return;
    Post([state, deliver = std::move(deliver)] {
        if (std::shared_ptr<Browser> handle = state->handle.lock())
            deliver(*handle, *state->events);
    });
}

void ClientCore::AdoptMainChannel(std::unique_ptr<BrowserChannel> channel)
{
    main_ = std::move(channel);
    connected_ = true;
}

void ClientCore::Open(const StatePtr& state)
{
    if (state->dropped || ending)
        return;
    if (!connected_) {
        Fail(state, MakeError(ErrorKind::ConnectionClosed, "not connected to the overlay service"));
        return;
    }
    if (main_ && !main_->closed() && !main_->spent && !main_->browser) {
        SendOpen(*main_, state);
        return;
    }
    OpenOnNewChannel(state);
}

void ClientCore::OpenOnNewChannel(const StatePtr& state)
{
    gchar* escaped = g_dbus_address_escape_value(socketPath_.c_str());
    const std::string address = std::string("unix:path=") + escaped;
    g_free(escaped);
    auto* pending = new PendingCall {weak_from_this(), state, {}};
    g_dbus_connection_new_for_address(
        address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_DELAY_MESSAGE_PROCESSING),
        nullptr, nullptr,
        [](GObject*, GAsyncResult* result, gpointer data) {
            std::unique_ptr<PendingCall> call(static_cast<PendingCall*>(data));
            GError* gerror = nullptr;
            GDBusConnection* connection = g_dbus_connection_new_for_address_finish(result, &gerror);
            auto core = call->core.lock();
            if (!core || core->ending || call->state->dropped || call->state->phase != Phase::Opening) {
                if (connection) {
                    g_dbus_connection_close(connection, nullptr, nullptr, nullptr);
                    g_object_unref(connection);
                }
                if (gerror)
                    g_error_free(gerror);
                return;
            }
            if (connection && !core->connected_) {
                // Disconnected meanwhile.
                g_dbus_connection_close(connection, nullptr, nullptr, nullptr);
                g_object_unref(connection);
                core->Fail(call->state, MakeError(ErrorKind::ConnectionClosed, "not connected to the overlay service"));
                return;
            }
            if (!connection) {
                Error error = MakeError(ErrorKind::ServiceUnreachable,
                                        std::string("cannot reach the overlay service: ") + gerror->message);
                g_error_free(gerror);
                core->Fail(call->state, error);
                return;
            }
            auto channel = std::make_unique<BrowserChannel>(*core, connection);
            std::string problem;
            if (!channel->Start(&problem)) {
                core->Fail(call->state, MakeError(ErrorKind::ServiceUnreachable, problem));
                return;
            }
            core->others_.push_back(std::move(channel));
            core->SendOpen(*core->others_.back(), call->state);
        },
        pending);
}

void ClientCore::SendOpen(BrowserChannel& channel, const StatePtr& state)
{
    channel.browser = state;
    state->channel = &channel;
    const BrowserOptions& o = state->options;
    std::vector<const char*> strings;
    for (const auto& s : o.permittedFileURLStrings)
        strings.push_back(s.c_str());
    GVariant* arguments = g_variant_new("(sddd@as)", o.url.c_str(), o.width, o.height, o.framerate,
                                        g_variant_new_strv(strings.data(), static_cast<gssize>(strings.size())));
    // The reply comes when the browser is closed, however long that takes.
    g_dbus_connection_call(
        channel.connection(), nullptr, protocol::kServiceObjectPath, protocol::kServiceInterface,
        protocol::kMethodOpenBrowser, arguments, G_VARIANT_TYPE("(i)"), G_DBUS_CALL_FLAGS_NONE, G_MAXINT, nullptr,
        [](GObject* source, GAsyncResult* result, gpointer data) {
            std::unique_ptr<PendingCall> call(static_cast<PendingCall*>(data));
            GError* gerror = nullptr;
            GVariant* reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &gerror);
            auto core = call->core.lock();
            const StatePtr& state = call->state;
            if (reply)
                g_variant_unref(reply);
            if (!core || core->ending) {
                if (gerror)
                    g_error_free(gerror);
                return;
            }
            if (gerror) {
                Error error = ErrorFromGError(gerror);
                g_error_free(gerror);
                core->Fail(state, error);
                return;
            }
            if (state->phase == Phase::Closed || state->phase == Phase::Failed)
                return;
            state->phase = Phase::Closed;
            core->Deliver(state, [](Browser& b, BrowserEvents& e) { e.BrowserDidClose(b); });
            core->ReleaseChannel(state);
        },
        new PendingCall {weak_from_this(), state, {}});
}

void ClientCore::BrowserStarted(BrowserChannel& channel, int browserID)
{
    StatePtr state = channel.browser;
    if (!state || state->phase != Phase::Opening) {
        Report("BrowserDidStart for browser " + std::to_string(browserID) + " without an open request");
        return;
    }
    channel.spent = true;
    if (browserID < 0) {
        Fail(state, MakeError(ErrorKind::EngineFailed, "the overlay service could not create a browser"));
        return;
    }
    state->id = browserID;
    state->phase = Phase::Started;
    Deliver(state, [browserID](Browser& b, BrowserEvents& e) { e.BrowserDidStart(b, browserID); });
    auto waiting = std::move(state->waiting);
    for (auto& request : waiting)
        request();
    if (state->dropped)
        Close(state, {});
}

void ClientCore::Request(const StatePtr& state, const char* method, Arguments arguments, Completion done)
{
    if (state->phase == Phase::Opening) {
        state->waiting.push_back([this, state, method, arguments = std::move(arguments), done]() mutable {
            Request(state, method, std::move(arguments), std::move(done));
        });
        return;
    }
    Send(state, method, arguments(state->id), std::move(done));
}

void ClientCore::Send(const StatePtr& state, const char* method, GVariant* arguments, Completion done)
{
    if (state->phase != Phase::Started || !state->channel || state->channel->closed()) {
        g_variant_unref(g_variant_ref_sink(arguments));
        // A failed browser answers with its failure; a closed one with a
        // request that names no open browser.
        if (state->failure)
            Complete(done, state->failure);
        else if (!connected_ || (state->channel && state->channel->closed()))
            Complete(done, MakeError(ErrorKind::ConnectionClosed, std::string(method) + ": the connection is closed"));
        else
            Complete(done, MakeError(ErrorKind::InvalidArgument, std::string(method) + ": the browser is closed"));
        return;
    }
    g_dbus_connection_call(
        state->channel->connection(), nullptr, protocol::kServiceObjectPath, protocol::kServiceInterface, method,
        arguments, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr,
        [](GObject* source, GAsyncResult* result, gpointer data) {
            std::unique_ptr<PendingCall> call(static_cast<PendingCall*>(data));
            GError* gerror = nullptr;
            GVariant* reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &gerror);
            if (reply)
                g_variant_unref(reply);
            std::optional<Error> error;
            if (gerror) {
                error = ErrorFromGError(gerror);
                g_error_free(gerror);
            }
            if (auto core = call->core.lock()) {
                core->Complete(call->done, std::move(error));
                if (--call->state->inFlight == 0 && call->state->releasePending)
                    core->ReleaseChannel(call->state);
            }
        },
        new PendingCall {weak_from_this(), state, std::move(done)});
    ++state->inFlight;
}

void ClientCore::Close(const StatePtr& state, Completion done)
{
    if (state->phase == Phase::Opening) {
        state->waiting.push_back([this, state, done] { Close(state, done); });
        return;
    }
    const bool open = state->phase == Phase::Started;
    Send(state, protocol::kMethodCloseBrowser, g_variant_new("(i)", state->id.load()), std::move(done));
    if (open)
        state->phase = Phase::Closing;
}

void ClientCore::Drop(const StatePtr& state)
{
    state->dropped = true;
    if (state->phase == Phase::Started)
        Close(state, {});
}

void ClientCore::Fail(const StatePtr& state, const Error& error)
{
    if (state->phase == Phase::Closed || state->phase == Phase::Failed)
        return;
    state->phase = Phase::Failed;
    state->failure = error;
    Deliver(state, [error](Browser& b, BrowserEvents& e) { e.BrowserDidFail(b, error); });
    ReleaseChannel(state);
    // Requests still waiting for the start end with the failure.
    auto waiting = std::move(state->waiting);
    for (auto& request : waiting)
        request();
}

void ClientCore::ReleaseChannel(const StatePtr& state)
{
    // The service answers the open request (the close) before the close
    // request itself: the connection goes once every answer is in.
    state->releasePending = state->inFlight > 0;
    if (state->releasePending)
        return;
    BrowserChannel* channel = state->channel;
    state->channel = nullptr;
    if (!channel)
        return;
    channel->browser = nullptr;
    if (channel == main_.get())
        return;
    for (auto it = others_.begin(); it != others_.end(); ++it) {
        if (it->get() != channel)
            continue;
        // Destroyed from the library loop: this may run inside one of the
        // channel's own handlers.
        auto owned = std::make_shared<std::unique_ptr<BrowserChannel>>(std::move(*it));
        others_.erase(it);
        RunOnLibraryThread([owned] { owned->reset(); });
        return;
    }
}

void ClientCore::ChannelClosed(BrowserChannel& channel)
{
    if (!channel.MarkClosed())
        return;
    if (StatePtr state = channel.browser)
        Fail(state, MakeError(ErrorKind::ConnectionClosed, "the connection to the overlay service closed"));
    if (&channel == main_.get()) {
        connected_ = false;
        if (!reportedClose_ && !ending && options_.connectionClosed)
            Post(options_.connectionClosed);
        reportedClose_ = true;
    }
}

void ClientCore::CloseAll()
{
    std::vector<BrowserChannel*> channels;
    for (auto& channel : others_)
        channels.push_back(channel.get());
    for (BrowserChannel* channel : channels)
        channel->Close();
    if (main_)
        main_->Close();
}

void ClientCore::Teardown()
{
    connected_ = false;
    auto detach = [](BrowserChannel& channel) {
        if (StatePtr state = channel.browser) {
            state->channel = nullptr;
            state->phase = Phase::Failed;
            state->failure = MakeError(ErrorKind::ConnectionClosed, "the client has ended");
            state->waiting.clear(); // they hold the state: no cycle is left behind
        }
    };
    for (auto& channel : others_)
        detach(*channel);
    if (main_)
        detach(*main_);
    others_.clear();
    main_.reset();
    // What is still queued here runs now and finds the client ended (the
    // event queue's own dispatch among it, which would otherwise keep the
    // queue and this context alive).
    while (g_main_context_iteration(context_, FALSE)) {
    }
    tLibraryThreadClient = nullptr;
}

} // namespace streamloft
