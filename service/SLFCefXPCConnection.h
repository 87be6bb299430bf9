// One accepted host connection: a peer-to-peer GDBusConnection, a thread of
// its own running a GMainContext of its own (the connection's serial queue),
// the exported SLFCefOverlayXPC at the protocol's service object path, and the
// handlers that the service delegate installs.
//
// Requests of one connection run on its thread, in order. The connection's
// closing runs the invalidation handler on that thread, then the thread ends.
// resume(), invalidate() and join() belong to the listener's thread (the
// main thread), where the connection's `closed` signal is emitted.
#pragma once

#include "service/SLFCefOverlayXPC.h"
#include "windows/SLFCefCallbackProxy.h"

#include <gio/gio.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

class SLFCefXPCConnection : public std::enable_shared_from_this<SLFCefXPCConnection> {
public:
    // Takes its own reference to the connection, whose message processing
    // must not have started yet.
    static std::shared_ptr<SLFCefXPCConnection> Create(GDBusConnection* connection);
    ~SLFCefXPCConnection();
    SLFCefXPCConnection(const SLFCefXPCConnection&) = delete;
    SLFCefXPCConnection& operator=(const SLFCefXPCConnection&) = delete;

    GDBusConnection* connection() const { return m_connection; }

    void setExportedObject(std::shared_ptr<SLFCefOverlayXPC> object);
    std::shared_ptr<SLFCefOverlayXPC> exportedObject() const;
    // The connection's one callback proxy (the same object on every call).
    SLFCefCallbackProxyRef remoteObjectProxy();
    // Never called on this platform: a peer-to-peer connection is not
    // interrupted, only closed. Kept for the delegate's set-up.
    void setInterruptionHandler(std::function<void()> handler);
    // Runs once on the connection's thread when the connection closes.
    void setInvalidationHandler(std::function<void()> handler);
    // Called when the connection's thread has ended (on that thread).
    void setFinishedHandler(std::function<void()> handler);

    // Registers the exported object in the connection's own context and
    // starts its thread. The caller starts message processing afterwards.
    bool resume(GError** error);
    // Closes the connection, runs the invalidation (once) on the connection's
    // thread and waits for the thread to end.
    void invalidate();
    // The same without the wait: the invalidation is scheduled and the
    // thread ends on its own (isFinished() tells when).
    void close();
    bool isFinished() const { return m_finished || !m_thread.joinable(); }
    // Waits for the thread to end (after the connection closed).
    void join();

private:
    explicit SLFCefXPCConnection(GDBusConnection* connection);
    void threadMain();
    void scheduleInvalidation();
    void invalidateOnQueue();
    static void OnClosed(GDBusConnection* connection, gboolean remotePeerVanished, GError* error, gpointer data);
    static void OnMethodCall(GDBusConnection* connection, const gchar* sender, const gchar* objectPath,
                             const gchar* interfaceName, const gchar* methodName, GVariant* parameters,
                             GDBusMethodInvocation* invocation, gpointer data);
    void dispatch(const gchar* methodName, GVariant* parameters, GDBusMethodInvocation* invocation);

    GDBusConnection* m_connection;
    GMainContext* m_context;
    GMainLoop* m_loop;
    std::thread m_thread;
    guint m_registrationID = 0;
    guint m_greetingRegistrationID = 0;
    gulong m_closedHandlerID = 0;
    std::atomic<bool> m_invalidationScheduled {false};
    std::atomic<bool> m_finished {false};

    // Leaf lock of the members below; no handler runs while it is held.
    mutable std::mutex m_lock;
    std::shared_ptr<SLFCefOverlayXPC> m_exportedObject;
    SLFCefCallbackProxyRef m_remoteObjectProxy;
    std::function<void()> m_interruptionHandler;
    std::function<void()> m_invalidationHandler;
    std::function<void()> m_finishedHandler;
};
