// The service's listener: accepts host connections on a listening Unix
// stream socket and makes each a peer-to-peer D-Bus connection, as GIO's
// GDBusServer does (server-side authentication, EXTERNAL only, the peer must
// be the same user, message processing held back until the connection's
// object is exported). Unlike GDBusServer it takes a socket that is already
// listening, so that the one code path serves a socket of its own and one
// handed over by systemd socket activation.
//
// Made, started and stopped on the main thread: the thread that runs the
// GLib main loop on the global default context.
#pragma once

#include "service/SLFCefServiceDelegate.h"
#include "service/SLFCefXPCConnection.h"

#include <gio/gio.h>

#include <functional>
#include <map>
#include <memory>

class SLFCefXPCListener : public std::enable_shared_from_this<SLFCefXPCListener> {
public:
    // Takes ownership of a bound and listening Unix stream socket.
    static std::shared_ptr<SLFCefXPCListener> CreateWithListeningSocket(int fd, GError** error);
    ~SLFCefXPCListener();
    SLFCefXPCListener(const SLFCefXPCListener&) = delete;
    SLFCefXPCListener& operator=(const SLFCefXPCListener&) = delete;

    // Not owned; must outlive the listener.
    void setDelegate(SLFCefXPCListenerDelegate* delegate) { m_delegate = delegate; }
    // Starts accepting connections.
    void start();
    // Starts accepting and runs the main loop until quit().
    void resume();
    void quit();
    // Stops accepting, closes every connection (each runs its invalidation)
    // and waits for their threads.
    void stop();
    // Stops accepting for good and closes the listening socket: connections
    // still waiting in its queue are refused, so no host is left with a
    // connection nobody will serve.
    void stopAccepting();

    // Calls `handler` (on the main thread) once there has been no connection
    // for `seconds`, counting connections still in their handshake; 0 (or no
    // handler) turns it off. The wait starts again whenever the last
    // connection goes. The handler runs with no connection in existence; a
    // listener that keeps accepting arms the wait again at the next end of
    // its last connection.
    void setIdleHandler(unsigned seconds, std::function<void()> handler);

    size_t numberOfConnections() const { return m_connections.size(); }

private:
    SLFCefXPCListener() = default;
    static gboolean OnIncoming(GSocketService* service, GSocketConnection* connection, GObject* sourceObject,
                               gpointer data);
    static void OnConnectionReady(GObject* source, GAsyncResult* result, gpointer data);
    static gboolean OnAllowMechanism(GDBusAuthObserver* observer, const gchar* mechanism, gpointer data);
    void accept(GDBusConnection* connection);
    void reap(SLFCefXPCConnection* connection);
    // Arms the idle wait when nothing is connected, disarms it otherwise.
    void updateIdleWait();
    static gboolean OnIdleTimeout(gpointer data);

    GSocketService* m_service = nullptr;
    GDBusAuthObserver* m_authObserver = nullptr;
    GCancellable* m_cancellable = nullptr;
    GMainLoop* m_loop = nullptr;
    gchar* m_guid = nullptr;
    SLFCefXPCListenerDelegate* m_delegate = nullptr;
    // Live connections; touched on the main thread only.
    std::map<SLFCefXPCConnection*, std::shared_ptr<SLFCefXPCConnection>> m_connections;
    // Main thread only: connections accepted whose handshake has not ended.
    size_t m_handshakes = 0;
    bool m_accepting = false;
    unsigned m_idleSeconds = 0;
    std::function<void()> m_idleHandler;
    GSource* m_idleSource = nullptr;
};
