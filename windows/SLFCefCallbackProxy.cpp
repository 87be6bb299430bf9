#include "windows/SLFCefCallbackProxy.h"

#include <gio/gunixfdlist.h>

#include <cstdio>

std::shared_ptr<SLFCefCallbackProxy> SLFCefCallbackProxy::Create(GDBusConnection* connection)
{
    return std::shared_ptr<SLFCefCallbackProxy>(new SLFCefCallbackProxy(connection));
}

SLFCefCallbackProxy::SLFCefCallbackProxy(GDBusConnection* connection)
    : m_connection(connection ? G_DBUS_CONNECTION(g_object_ref(connection)) : nullptr)
{
}

SLFCefCallbackProxy::~SLFCefCallbackProxy()
{
    if (m_connection)
        g_object_unref(m_connection);
}

std::string SLFCefCallbackProxy::description() const
{
    char text[64];
    snprintf(text, sizeof text, "<SLFCefCallbackProxy: %p>", static_cast<const void*>(this));
    return text;
}

void SLFCefCallbackProxy::browserDidStart(int browserID)
{
    sendWithoutReply("BrowserDidStart", g_variant_new("(i)", browserID));
}

void SLFCefCallbackProxy::requestSettingsDataForBrowser(int browserID)
{
    sendWithoutReply("RequestSettingsDataForBrowser", g_variant_new("(i)", browserID));
}

void SLFCefCallbackProxy::browserWillStartAudioStream(int browserID, int streamID, GVariant* pool)
{
    sendWithoutReply("BrowserWillStartAudioStream", g_variant_new("(ii@a{sv})", browserID, streamID, pool));
}

void SLFCefCallbackProxy::browserWillStopAudioStream(int browserID, int streamID)
{
    sendWithoutReply("BrowserWillStopAudioStream", g_variant_new("(ii)", browserID, streamID));
}

void SLFCefCallbackProxy::browserDidReceiveAudioStream(int browserID, int streamID, GVariant* buffer,
                                                       std::function<void()> done)
{
    callWithReply("BrowserDidReceiveAudioStream", g_variant_new("(ii@a{sv})", browserID, streamID, buffer), nullptr,
                  std::move(done));
}

void SLFCefCallbackProxy::browserReceivedVideoFrame(int browserID, int surfaceFd, GVariant* properties,
                                                    std::function<void()> done)
{
    GUnixFDList* fds = g_unix_fd_list_new();
    GError* error = nullptr;
    int handle = g_unix_fd_list_append(fds, surfaceFd, &error);
    if (handle < 0) {
        // Nothing can be sent without the descriptor; the host is "done" at once.
        g_clear_error(&error);
        g_object_unref(fds);
        g_variant_unref(g_variant_ref_sink(properties));
        if (done)
            done();
        return;
    }
    callWithReply("BrowserReceivedVideoFrame", g_variant_new("(ih@a{sv})", browserID, handle, properties), fds,
                  std::move(done));
    g_object_unref(fds);
}

void SLFCefCallbackProxy::sendWithoutReply(const char* member, GVariant* parameters)
{
    if (!m_connection) {
        g_variant_unref(g_variant_ref_sink(parameters));
        return;
    }
    GDBusMessage* message = g_dbus_message_new_method_call(nullptr, kObjectPath, kInterfaceName, member);
    g_dbus_message_set_body(message, parameters);
    g_dbus_message_set_flags(message, G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED);
    // A closed connection fails the send; that error is swallowed on purpose.
    g_dbus_connection_send_message(m_connection, message, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
    g_object_unref(message);
}

namespace {

struct PendingCall {
    std::function<void()> done;
};

void OnCallFinished(GObject* source, GAsyncResult* result, gpointer userData)
{
    auto* pending = static_cast<PendingCall*>(userData);
    GError* error = nullptr;
    GVariant* reply =
        g_dbus_connection_call_with_unix_fd_list_finish(G_DBUS_CONNECTION(source), nullptr, result, &error);
    if (reply)
        g_variant_unref(reply);
    g_clear_error(&error); // the host went away or refused: swallowed
    if (pending->done)
        pending->done();
    delete pending;
}

} // namespace

void SLFCefCallbackProxy::callWithReply(const char* member, GVariant* parameters, GUnixFDList* fds,
                                        std::function<void()> done)
{
    if (!m_connection) {
        g_variant_unref(g_variant_ref_sink(parameters));
        if (done)
            done();
        return;
    }
    // No time-out: a host may hold a frame or an audio buffer as long as it
    // likes; the connection's end finishes the call.
    g_dbus_connection_call_with_unix_fd_list(m_connection, nullptr, kObjectPath, kInterfaceName, member, parameters,
                                             nullptr, G_DBUS_CALL_FLAGS_NONE, G_MAXINT, fds, nullptr,
                                             OnCallFinished, new PendingCall{std::move(done)});
}
