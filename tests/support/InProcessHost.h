// The common part of the in-process hosts of the delivery tests: a
// peer-to-peer D-Bus connection pair over a socketpair, the host end
// exporting the callback interface. A derived host handles each callback
// (OnMethodCall) and, before it goes away, lets go of what it holds and calls
// CloseHostConnection. Everything runs in the test thread's default context.
#pragma once

#include "protocol/OverlayProtocol.h"

#include <gio/gio.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdlib>
#include <functional>

class InProcessHost {
public:
    InProcessHost()
    {
        int fds[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0)
            std::abort();
        GSocketConnection* streams[2];
        for (int i = 0; i < 2; ++i) {
            GSocket* socket = g_socket_new_from_fd(fds[i], nullptr);
            streams[i] = g_socket_connection_factory_create_connection(socket);
            g_object_unref(socket);
        }
        // Both hand-shakes run at once, so the host end is made asynchronously.
        g_dbus_connection_new(
            G_IO_STREAM(streams[1]), nullptr, G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT, nullptr, nullptr,
            [](GObject*, GAsyncResult* result, gpointer self) {
                static_cast<InProcessHost*>(self)->m_host = g_dbus_connection_new_finish(result, nullptr);
            },
            this);
        gchar* guid = g_dbus_generate_guid();
        const auto flags = GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_SERVER |
                                                G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_ALLOW_ANONYMOUS);
        m_service = g_dbus_connection_new_sync(G_IO_STREAM(streams[0]), guid, flags, nullptr, nullptr, nullptr);
        g_free(guid);
        g_object_unref(streams[0]);
        g_object_unref(streams[1]);
        if (!m_service || !PumpUntil([this] { return m_host != nullptr; }))
            std::abort(); // the connection pair did not come up

        // Calls arrive only while the context runs, so never before the
        // derived host is complete.
        static const GDBusInterfaceVTable vtable = {
            [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* method, GVariant* parameters,
               GDBusMethodInvocation* invocation,
               gpointer self) { static_cast<InProcessHost*>(self)->OnMethodCall(method, parameters, invocation); },
            nullptr,
            nullptr,
            {}};
        m_registration = g_dbus_connection_register_object(m_host, streamloft::protocol::kCallbacksObjectPath,
                                                           streamloft::protocol::CallbacksInterfaceInfo(), &vtable,
                                                           this, nullptr, nullptr);
    }
    virtual ~InProcessHost()
    {
        CloseHostConnection();
        g_object_unref(m_service);
        // Let finished calls run their completions.
        for (int i = 0; i < 20; ++i)
            g_main_context_iteration(nullptr, FALSE);
    }
    InProcessHost(const InProcessHost&) = delete;
    InProcessHost& operator=(const InProcessHost&) = delete;

    // The service's end, for a callback proxy.
    GDBusConnection* ServiceConnection() const { return m_service; }

    // Runs the context until pred holds; false after the time-out.
    bool PumpUntil(const std::function<bool()>& pred, std::chrono::milliseconds timeout = std::chrono::seconds(10))
    {
        for (const auto end = std::chrono::steady_clock::now() + timeout; !pred();) {
            if (std::chrono::steady_clock::now() > end)
                return false;
            if (!g_main_context_iteration(nullptr, FALSE) && !pred())
                g_usleep(200);
        }
        return true;
    }
    // Runs the context for a while, for things that must not happen.
    void PumpFor(std::chrono::milliseconds time)
    {
        PumpUntil([] { return false; }, time);
    }
    void Pump()
    {
        while (g_main_context_iteration(nullptr, FALSE)) {
        }
    }

protected:
    // A callback of the service arrived; the host answers invocation now or later.
    virtual void OnMethodCall(const gchar* method, GVariant* parameters, GDBusMethodInvocation* invocation) = 0;

    bool HostConnected() const { return m_host != nullptr; }
    void CloseHostConnection()
    {
        if (!m_host)
            return;
        g_dbus_connection_unregister_object(m_host, m_registration);
        g_dbus_connection_close_sync(m_host, nullptr, nullptr);
        g_clear_object(&m_host);
    }

private:
    GDBusConnection* m_service = nullptr;
    GDBusConnection* m_host = nullptr;
    guint m_registration = 0;
};
