#include "service/SLFCefXPCListener.h"

#include "dbg/NSLog.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <unistd.h>

namespace {

struct Handshake {
    std::weak_ptr<SLFCefXPCListener> listener;
};

} // namespace

std::shared_ptr<SLFCefXPCListener> SLFCefXPCListener::CreateWithListeningSocket(int fd, GError** error)
{
    GSocket* socket = g_socket_new_from_fd(fd, error);
    if (!socket) {
        close(fd);
        return nullptr;
    }
    std::shared_ptr<SLFCefXPCListener> listener(new SLFCefXPCListener());
    // Inactive until start(): nothing is accepted before a delegate is set.
    listener->m_service = G_SOCKET_SERVICE(g_object_new(G_TYPE_SOCKET_SERVICE, "active", FALSE, nullptr));
    if (!g_socket_listener_add_socket(G_SOCKET_LISTENER(listener->m_service), socket, nullptr, error)) {
        g_object_unref(socket);
        return nullptr;
    }
    g_object_unref(socket);
    listener->m_guid = g_dbus_generate_guid();
    listener->m_cancellable = g_cancellable_new();
    listener->m_authObserver = g_dbus_auth_observer_new();
    g_signal_connect(listener->m_authObserver, "allow-mechanism", G_CALLBACK(OnAllowMechanism), nullptr);
    g_signal_connect(listener->m_service, "incoming", G_CALLBACK(OnIncoming), listener.get());
    listener->m_loop = g_main_loop_new(g_main_context_default(), FALSE);
    return listener;
}

SLFCefXPCListener::~SLFCefXPCListener()
{
    stop();
    m_idleHandler = nullptr;
    updateIdleWait();
    if (m_service) {
        g_signal_handlers_disconnect_by_data(m_service, this);
        g_socket_listener_close(G_SOCKET_LISTENER(m_service));
        g_object_unref(m_service);
    }
    if (m_authObserver)
        g_object_unref(m_authObserver);
    if (m_cancellable)
        g_object_unref(m_cancellable);
    if (m_loop)
        g_main_loop_unref(m_loop);
    g_free(m_guid);
}

void SLFCefXPCListener::start()
{
    if (!m_service)
        return;
    g_socket_service_start(m_service);
    m_accepting = true;
    updateIdleWait();
}

void SLFCefXPCListener::stopAccepting()
{
    m_accepting = false;
    updateIdleWait();
    if (!m_service)
        return;
    g_socket_service_stop(m_service);
    g_signal_handlers_disconnect_by_data(m_service, this);
    // Closes the listening socket: the kernel resets connections queued on
    // it that were never accepted.
    g_socket_listener_close(G_SOCKET_LISTENER(m_service));
    g_object_unref(m_service);
    m_service = nullptr;
}

void SLFCefXPCListener::setIdleHandler(unsigned seconds, std::function<void()> handler)
{
    m_idleSeconds = seconds;
    m_idleHandler = std::move(handler);
    // Started afresh with the new period.
    if (m_idleSource) {
        g_source_destroy(m_idleSource);
        g_source_unref(m_idleSource);
        m_idleSource = nullptr;
    }
    updateIdleWait();
}

void SLFCefXPCListener::updateIdleWait()
{
    const bool idle = m_accepting && m_idleHandler && m_idleSeconds > 0 && m_connections.empty() && m_handshakes == 0;
    if (idle && !m_idleSource) {
        // Millisecond timing: a whole-second source may fire up to a second
        // late.
        m_idleSource =
            g_timeout_source_new(static_cast<guint>(std::min<uint64_t>(uint64_t(m_idleSeconds) * 1000u, G_MAXUINT)));
        g_source_set_callback(m_idleSource, OnIdleTimeout, this, nullptr);
        g_source_attach(m_idleSource, g_main_context_default());
    } else if (!idle && m_idleSource) {
        g_source_destroy(m_idleSource);
        g_source_unref(m_idleSource);
        m_idleSource = nullptr;
    }
}

gboolean SLFCefXPCListener::OnIdleTimeout(gpointer data)
{
    auto* listener = static_cast<SLFCefXPCListener*>(data);
    g_source_unref(listener->m_idleSource);
    listener->m_idleSource = nullptr;
    // Accepting and the handshakes' ends run on this thread too, so nothing
    // can have arrived since the wait was armed without disarming it.
    if (listener->m_idleHandler)
        listener->m_idleHandler();
    return G_SOURCE_REMOVE;
}

void SLFCefXPCListener::resume()
{
    start();
    g_main_loop_run(m_loop);
}

void SLFCefXPCListener::quit()
{
    g_main_loop_quit(m_loop);
}

void SLFCefXPCListener::stop()
{
    if (m_service)
        g_socket_service_stop(m_service);
    if (m_cancellable)
        g_cancellable_cancel(m_cancellable);
    // Taken out first: invalidation may post reaps for these connections.
    auto connections = std::move(m_connections);
    m_connections.clear();
    for (auto& entry : connections)
        entry.second->close();
    // A connection's thread may be waiting for the main context (an engine
    // start, a browser's close that the pump reports): keep running it here
    // while the threads end, when this thread may run it.
    GMainContext* mainContext = g_main_context_default();
    const bool running = g_main_context_acquire(mainContext);
    for (auto& entry : connections) {
        while (!entry.second->isFinished()) {
            if (!running || !g_main_context_iteration(mainContext, FALSE))
                g_usleep(1000);
        }
        entry.second->join();
    }
    if (running)
        g_main_context_release(mainContext);
}

gboolean SLFCefXPCListener::OnAllowMechanism(GDBusAuthObserver*, const gchar* mechanism, gpointer)
{
    // Only the kernel's word on the peer's user counts.
    return strcmp(mechanism, "EXTERNAL") == 0;
}

gboolean SLFCefXPCListener::OnIncoming(GSocketService*, GSocketConnection* connection, GObject*, gpointer data)
{
    auto* listener = static_cast<SLFCefXPCListener*>(data);
    // A connection from its first byte: the service does not go idle while a
    // host is in its handshake.
    ++listener->m_handshakes;
    listener->updateIdleWait();
    auto flags = static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_SERVER |
                                                   G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_REQUIRE_SAME_USER |
                                                   G_DBUS_CONNECTION_FLAGS_DELAY_MESSAGE_PROCESSING);
    // The handshake runs in GDBus's worker; its end comes back to this thread.
    g_dbus_connection_new(G_IO_STREAM(connection), listener->m_guid, flags, listener->m_authObserver,
                          listener->m_cancellable, OnConnectionReady, new Handshake {listener->weak_from_this()});
    return TRUE;
}

void SLFCefXPCListener::OnConnectionReady(GObject*, GAsyncResult* result, gpointer data)
{
    auto* handshake = static_cast<Handshake*>(data);
    std::shared_ptr<SLFCefXPCListener> listener = handshake->listener.lock();
    delete handshake;
    GError* error = nullptr;
    GDBusConnection* connection = g_dbus_connection_new_finish(result, &error);
    if (listener)
        --listener->m_handshakes;
    if (!connection) {
        if (!g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED))
            NSLog("%s - Refused a host connection: %s", "-[SLFCefXPCListener accept]", error->message);
        g_error_free(error);
        if (listener)
            listener->updateIdleWait();
        return;
    }
    if (listener)
        listener->accept(connection);
    else
        g_dbus_connection_close(connection, nullptr, nullptr, nullptr);
    g_object_unref(connection);
    if (listener)
        listener->updateIdleWait();
}

void SLFCefXPCListener::accept(GDBusConnection* connection)
{
    // Closed connections are not dropped: their invalidation runs instead.
    g_dbus_connection_set_exit_on_close(connection, FALSE);
    std::shared_ptr<SLFCefXPCConnection> xpcConnection = SLFCefXPCConnection::Create(connection);
    std::weak_ptr<SLFCefXPCListener> weakListener = weak_from_this();
    SLFCefXPCConnection* key = xpcConnection.get();
    xpcConnection->setFinishedHandler([weakListener, key] {
        // On the connection's thread, which is ending: the join happens on
        // the listener's thread.
        struct Reap {
            std::weak_ptr<SLFCefXPCListener> listener;
            SLFCefXPCConnection* key;
        };
        GSource* source = g_idle_source_new();
        g_source_set_callback(
            source,
            [](gpointer data) -> gboolean {
                auto* reap = static_cast<Reap*>(data);
                if (auto listener = reap->listener.lock())
                    listener->reap(reap->key);
                return G_SOURCE_REMOVE;
            },
            new Reap {weakListener, key}, [](gpointer data) { delete static_cast<Reap*>(data); });
        g_source_attach(source, g_main_context_default());
        g_source_unref(source);
    });
    if (!m_delegate || !m_delegate->listenerShouldAcceptNewConnection(*this, xpcConnection)) {
        g_dbus_connection_close(connection, nullptr, nullptr, nullptr);
        xpcConnection->invalidate();
        // The finished handler never ran when the thread never started.
        xpcConnection->setFinishedHandler(nullptr);
        return;
    }
    m_connections[key] = xpcConnection;
    g_dbus_connection_start_message_processing(connection);
}

void SLFCefXPCListener::reap(SLFCefXPCConnection* connection)
{
    auto entry = m_connections.find(connection);
    if (entry == m_connections.end())
        return;
    std::shared_ptr<SLFCefXPCConnection> ended = std::move(entry->second);
    m_connections.erase(entry);
    ended->join();
    updateIdleWait();
}
