#include "windows/SLFCefCallbackProxy.h"

#include "protocol/OverlayProtocol.h"

#include <gio/gunixfdlist.h>

#include <cstdio>

namespace protocol = streamloft::protocol;

std::shared_ptr<SLFCefCallbackProxy> SLFCefCallbackProxy::Create(GDBusConnection* connection)
{
    return std::shared_ptr<SLFCefCallbackProxy>(new SLFCefCallbackProxy(connection));
}

SLFCefCallbackProxy::SLFCefCallbackProxy(GDBusConnection* connection)
    : m_connection(connection ? G_DBUS_CONNECTION(g_object_ref(connection)) : nullptr),
      m_pending(std::make_shared<PendingReplies>())
{
    if (m_connection) {
        // The filter keeps its own reference to the table: GDBus may still be
        // running it on its worker thread after it has been removed.
        m_filterID = g_dbus_connection_add_filter(
            m_connection, FilterReplies, new std::shared_ptr<PendingReplies>(m_pending),
            [](gpointer data) { delete static_cast<std::shared_ptr<PendingReplies>*>(data); });
        // The connection's end also finishes every call, wherever its
        // "closed" signal is dispatched.
        m_closedHandlerID = g_signal_connect_data(
            m_connection, "closed", G_CALLBACK(+[](GDBusConnection*, gboolean, GError*, gpointer data) {
                FinishAll(**static_cast<std::shared_ptr<PendingReplies>*>(data));
            }),
            new std::shared_ptr<PendingReplies>(m_pending),
            [](gpointer data, GClosure*) { delete static_cast<std::shared_ptr<PendingReplies>*>(data); },
            GConnectFlags(0));
    }
}

SLFCefCallbackProxy::~SLFCefCallbackProxy()
{
    if (m_filterID)
        g_dbus_connection_remove_filter(m_connection, m_filterID);
    if (m_closedHandlerID)
        g_signal_handler_disconnect(m_connection, m_closedHandlerID);
    // Whatever is still out is let go with the proxy.
    connectionDidClose();
    if (m_connection)
        g_object_unref(m_connection);
}

void SLFCefCallbackProxy::connectionDidClose()
{
    FinishAll(*m_pending);
}

void SLFCefCallbackProxy::FinishAll(PendingReplies& pending)
{
    std::map<guint32, std::function<void()>> waiting;
    {
        std::lock_guard<std::mutex> guard(pending.lock);
        pending.closed = true;
        waiting.swap(pending.waiting);
    }
    for (auto& [serial, done] : waiting) {
        if (done)
            done();
    }
}

std::string SLFCefCallbackProxy::description() const
{
    char text[64];
    snprintf(text, sizeof text, "<SLFCefCallbackProxy: %p>", static_cast<const void*>(this));
    return text;
}

void SLFCefCallbackProxy::browserDidStart(int browserID)
{
    sendWithoutReply(protocol::kMethodBrowserDidStart, g_variant_new("(i)", browserID));
}

void SLFCefCallbackProxy::requestSettingsDataForBrowser(int browserID)
{
    sendWithoutReply(protocol::kMethodRequestSettingsDataForBrowser, g_variant_new("(i)", browserID));
}

void SLFCefCallbackProxy::browserWillStartAudioStream(int browserID, int streamID, GVariant* pool)
{
    sendWithoutReply(protocol::kMethodBrowserWillStartAudioStream,
                     g_variant_new("(ii@a{sv})", browserID, streamID, pool));
}

void SLFCefCallbackProxy::browserWillStopAudioStream(int browserID, int streamID)
{
    sendWithoutReply(protocol::kMethodBrowserWillStopAudioStream, g_variant_new("(ii)", browserID, streamID));
}

void SLFCefCallbackProxy::browserDidReceiveAudioStream(int browserID, int streamID, GVariant* buffer,
                                                       std::function<void()> done)
{
    callWithReply(protocol::kMethodBrowserDidReceiveAudioStream,
                  g_variant_new("(ii@a{sv})", browserID, streamID, buffer), nullptr, std::move(done));
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
    callWithReply(protocol::kMethodBrowserReceivedVideoFrame,
                  g_variant_new("(ih@a{sv})", browserID, handle, properties), fds, std::move(done));
    g_object_unref(fds);
}

void SLFCefCallbackProxy::sendWithoutReply(const char* member, GVariant* parameters)
{
    if (!m_connection) {
        g_variant_unref(g_variant_ref_sink(parameters));
        return;
    }
    GDBusMessage* message =
        g_dbus_message_new_method_call(nullptr, protocol::kCallbacksObjectPath, protocol::kCallbacksInterface, member);
    g_dbus_message_set_body(message, parameters);
    g_dbus_message_set_flags(message, G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED);
    // A closed connection fails the send; that error is swallowed on purpose.
    g_dbus_connection_send_message(m_connection, message, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
    g_object_unref(message);
}

GDBusMessage* SLFCefCallbackProxy::FilterReplies(GDBusConnection*, GDBusMessage* message, gboolean incoming,
                                                 gpointer data)
{
    if (!incoming)
        return message;
    const GDBusMessageType type = g_dbus_message_get_message_type(message);
    if (type != G_DBUS_MESSAGE_TYPE_METHOD_RETURN && type != G_DBUS_MESSAGE_TYPE_ERROR)
        return message;
    PendingReplies& pending = **static_cast<std::shared_ptr<PendingReplies>*>(data);
    std::function<void()> done;
    {
        std::lock_guard<std::mutex> guard(pending.lock);
        auto it = pending.waiting.find(g_dbus_message_get_reply_serial(message));
        if (it == pending.waiting.end())
            return message; // not one of ours
        done = std::move(it->second);
        pending.waiting.erase(it);
    }
    // A reply or an error (the host refused): the host is done either way.
    g_object_unref(message);
    if (done)
        done();
    return nullptr;
}

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
    GDBusMessage* message =
        g_dbus_message_new_method_call(nullptr, protocol::kCallbacksObjectPath, protocol::kCallbacksInterface, member);
    g_dbus_message_set_body(message, parameters);
    if (fds)
        g_dbus_message_set_unix_fd_list(message, fds);
    bool waiting = false;
    {
        std::lock_guard<std::mutex> guard(m_pending->lock);
        guint32 serial = 0;
        if (!m_pending->closed &&
            g_dbus_connection_send_message(m_connection, message, G_DBUS_SEND_MESSAGE_FLAGS_NONE, &serial, nullptr)) {
            m_pending->waiting.emplace(serial, std::move(done));
            waiting = true;
        }
    }
    g_object_unref(message);
    if (!waiting && done)
        done(); // the connection is gone: nobody holds anything
}
