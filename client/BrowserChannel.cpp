#include "client/BrowserChannel.h"

#include <gio/gunixfdlist.h>
#include <unistd.h>

#include "protocol/OverlayProtocol.h"
#include "protocol/SurfaceDictionary.h"

namespace streamloft {

namespace {

// The empty reply of a callback method; the service reads it as "the host
// has let go". Safe from any thread.
void SendEmptyReply(GDBusMethodInvocation* invocation)
{
    g_dbus_method_invocation_return_value(invocation, nullptr);
}

std::string TakeMessage(GError* error)
{
    std::string text = error ? error->message : "unknown error";
    if (error)
        g_error_free(error);
    return text;
}

} // namespace

BrowserChannel::BrowserChannel(ClientCore& core, GDBusConnection* connection) : core_(core), connection_(connection)
{
    g_dbus_connection_set_exit_on_close(connection_, FALSE);
}

BrowserChannel::~BrowserChannel()
{
    if (closedHandler_)
        g_signal_handler_disconnect(connection_, closedHandler_);
    if (registration_)
        g_dbus_connection_unregister_object(connection_, registration_);
    // On the library thread, which the close does not wait for: short.
    if (!g_dbus_connection_is_closed(connection_))
        g_dbus_connection_close_sync(connection_, nullptr, nullptr);
    g_object_unref(connection_);
}

bool BrowserChannel::Start(std::string* error)
{
    static const GDBusInterfaceVTable vtable = {&BrowserChannel::HandleMethodCall, nullptr, nullptr, {}};
    GError* gerror = nullptr;
    registration_ =
        g_dbus_connection_register_object(connection_, protocol::kCallbacksObjectPath,
                                          protocol::CallbacksInterfaceInfo(), &vtable, this, nullptr, &gerror);
    if (registration_ == 0) {
        *error = "cannot export the callback object: " + TakeMessage(gerror);
        return false;
    }
    closedHandler_ = g_signal_connect(connection_, "closed", G_CALLBACK(&BrowserChannel::HandleClosed), this);
    g_dbus_connection_start_message_processing(connection_);
    return true;
}

void BrowserChannel::Close()
{
    if (!g_dbus_connection_is_closed(connection_))
        g_dbus_connection_close_sync(connection_, nullptr, nullptr);
    core_.ChannelClosed(*this);
}

bool BrowserChannel::MarkClosed()
{
    if (closed_)
        return false;
    closed_ = true;
    // Pools and mappings the host does not hold go now; held ones stay valid.
    audio_.Clear();
    surfaces_ = SurfaceMappingCache();
    return true;
}

pid_t BrowserChannel::PeerProcessID() const
{
    GIOStream* stream = g_dbus_connection_get_stream(connection_);
    if (!G_IS_SOCKET_CONNECTION(stream))
        return -1;
    GSocket* socket = g_socket_connection_get_socket(G_SOCKET_CONNECTION(stream));
    GCredentials* credentials = g_socket_get_credentials(socket, nullptr);
    if (!credentials)
        return -1;
    pid_t pid = g_credentials_get_unix_pid(credentials, nullptr);
    g_object_unref(credentials);
    return pid;
}

void BrowserChannel::HandleClosed(GDBusConnection*, gboolean, GError*, gpointer data)
{
    auto* self = static_cast<BrowserChannel*>(data);
    self->core_.ChannelClosed(*self);
}

ClientCore::StatePtr BrowserChannel::BrowserFor(gint32 browserID, const char* method)
{
    ClientCore::StatePtr state = browser;
    if (state && state->id == browserID &&
        (state->phase == Browser::State::Phase::Started || state->phase == Browser::State::Phase::Closing))
        return state;
    // Frames of a browser that is closing may still be on their way.
    if (!state || state->id != browserID)
        core_.Report(std::string(method) + " for browser " + std::to_string(browserID) + ", which is not open here");
    return nullptr;
}

void BrowserChannel::HandleMethodCall(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* method,
                                      GVariant* parameters, GDBusMethodInvocation* invocation, gpointer data)
{
    auto* self = static_cast<BrowserChannel*>(data);
    const std::string name = method;
    if (self->core_.ending) {
        // The client is being destroyed: a frame or buffer is let go at once.
        SendEmptyReply(invocation);
        return;
    }
    if (name == protocol::kMethodBrowserReceivedVideoFrame) {
        self->ReceiveVideoFrame(parameters, invocation);
    } else if (name == protocol::kMethodBrowserDidReceiveAudioStream) {
        self->ReceiveAudioBuffer(parameters, invocation);
    } else if (name == protocol::kMethodBrowserDidStart) {
        gint32 browserID = 0;
        g_variant_get(parameters, "(i)", &browserID);
        SendEmptyReply(invocation);
        self->core_.BrowserStarted(*self, browserID);
    } else if (name == protocol::kMethodBrowserWillStartAudioStream) {
        self->StartAudioStream(parameters, invocation);
    } else if (name == protocol::kMethodBrowserWillStopAudioStream) {
        gint32 browserID = 0, streamID = 0;
        g_variant_get(parameters, "(ii)", &browserID, &streamID);
        SendEmptyReply(invocation);
        self->audio_.StopStream(browserID, streamID);
        if (auto state = self->BrowserFor(browserID, method))
            self->core_.Deliver(
                state, [streamID](Browser& b, BrowserEvents& e) { e.BrowserWillStopAudioStream(b, streamID); });
    } else if (name == protocol::kMethodRequestSettingsDataForBrowser) {
        gint32 browserID = 0;
        g_variant_get(parameters, "(i)", &browserID);
        SendEmptyReply(invocation);
        if (auto state = self->BrowserFor(browserID, method))
            self->core_.Deliver(state, [](Browser& b, BrowserEvents& e) { e.RequestSettingsDataForBrowser(b); });
    } else {
        g_dbus_method_invocation_return_error(invocation, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_METHOD,
                                              "No such method %s", method);
    }
}

void BrowserChannel::ReceiveVideoFrame(GVariant* parameters, GDBusMethodInvocation* invocation)
{
    gint32 browserID = 0, fdIndex = -1;
    GVariant* dictionary = nullptr;
    g_variant_get(parameters, "(ih@a{sv})", &browserID, &fdIndex, &dictionary);
    auto state = BrowserFor(browserID, protocol::kMethodBrowserReceivedVideoFrame);
    std::string problem;
    SurfaceProperties properties;
    std::shared_ptr<const SurfaceMapping> mapping;
    if (state && protocol::ParseSurfaceProperties(dictionary, &properties, &problem)) {
        GUnixFDList* fds = g_dbus_message_get_unix_fd_list(g_dbus_method_invocation_get_message(invocation));
        GError* gerror = nullptr;
        int fd = fds ? g_unix_fd_list_get(fds, fdIndex, &gerror) : -1;
        if (fd < 0) {
            problem = "surface descriptor is missing" + (gerror ? ": " + TakeMessage(gerror) : std::string());
        } else {
            mapping = surfaces_.Map(browserID, properties, fd, &problem);
            close(fd);
        }
    }
    g_variant_unref(dictionary);
    if (!mapping) {
        SendEmptyReply(invocation);
        if (state)
            core_.Report("frame of browser " + std::to_string(browserID) + " refused: " + problem);
        return;
    }
    auto frame = std::make_shared<const VideoFrame>(browserID, properties, mapping->base(), mapping,
                                                    [invocation] { SendEmptyReply(invocation); });
    core_.Deliver(state, [frame = std::move(frame)](Browser& b, BrowserEvents& e) mutable {
        e.BrowserReceivedVideoFrame(b, std::move(frame));
    });
}

void BrowserChannel::StartAudioStream(GVariant* parameters, GDBusMethodInvocation* invocation)
{
    gint32 browserID = 0, streamID = 0;
    GVariant* record = nullptr;
    g_variant_get(parameters, "(ii@a{sv})", &browserID, &streamID, &record);
    SendEmptyReply(invocation);
    AudioStreamFormat format;
    std::string problem;
    auto state = BrowserFor(browserID, protocol::kMethodBrowserWillStartAudioStream);
    bool ok = state && audio_.StartStream(browserID, streamID, record, &format, &problem);
    g_variant_unref(record);
    if (!ok) {
        if (state)
            core_.Report(problem);
        return;
    }
    core_.Deliver(state, [streamID, format](Browser& b, BrowserEvents& e) {
        e.BrowserWillStartAudioStream(b, streamID, format);
    });
}

void BrowserChannel::ReceiveAudioBuffer(GVariant* parameters, GDBusMethodInvocation* invocation)
{
    gint32 browserID = 0, streamID = 0;
    GVariant* record = nullptr;
    g_variant_get(parameters, "(ii@a{sv})", &browserID, &streamID, &record);
    const bool isNullBuffer = g_variant_n_children(record) == 0;
    std::string problem;
    auto buffer = audio_.ReceiveBuffer(
        browserID, streamID, record, [invocation] { SendEmptyReply(invocation); }, &problem);
    g_variant_unref(record);
    auto state = BrowserFor(browserID, protocol::kMethodBrowserDidReceiveAudioStream);
    if (!state)
        return;
    if (!problem.empty())
        core_.Report(problem);
    if (buffer || isNullBuffer)
        core_.Deliver(state, [streamID, buffer = std::move(buffer)](Browser& b, BrowserEvents& e) mutable {
            e.BrowserDidReceiveAudioStream(b, streamID, std::move(buffer));
        });
}

} // namespace streamloft
