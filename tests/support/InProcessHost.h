// The common part of the in-process hosts of the delivery tests: one
// peer-to-peer D-Bus connection pair over a socketpair, the host end
// exporting the callback interface. A derived host says what it does with
// each callback (OnMethodCall) and, before it goes away, lets go of what it
// holds and calls CloseHostConnection. Everything runs in the default main
// context of the test thread; Pump* iterates it.
#pragma once

#include <gio/gio.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>

#ifndef SLF_SOURCE_DIR
#error "SLF_SOURCE_DIR must name the source tree"
#endif

class InProcessHost {
public:
    InProcessHost()
    {
        int fds[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) {
            std::perror("socketpair");
            std::abort();
        }
        GSocket* serviceSocket = g_socket_new_from_fd(fds[0], nullptr);
        GSocket* hostSocket = g_socket_new_from_fd(fds[1], nullptr);
        GSocketConnection* serviceStream = g_socket_connection_factory_create_connection(serviceSocket);
        GSocketConnection* hostStream = g_socket_connection_factory_create_connection(hostSocket);
        g_object_unref(serviceSocket);
        g_object_unref(hostSocket);

        // The service side authenticates as the server; both hand-shakes run
        // at once, so the host side is made asynchronously.
        gchar* guid = g_dbus_generate_guid();
        g_dbus_connection_new(G_IO_STREAM(hostStream), nullptr, G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT,
                              nullptr, nullptr, &InProcessHost::OnHostConnection, this);
        GError* error = nullptr;
        m_service = g_dbus_connection_new_sync(G_IO_STREAM(serviceStream), guid,
                                               static_cast<GDBusConnectionFlags>(
                                                   G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_SERVER |
                                                   G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_ALLOW_ANONYMOUS),
                                               nullptr, nullptr, &error);
        g_free(guid);
        g_object_unref(serviceStream);
        g_object_unref(hostStream);
        if (!m_service) {
            std::fprintf(stderr, "service connection: %s\n", error->message);
            std::abort();
        }
        if (!PumpUntil([this] { return m_host != nullptr; })) {
            std::fprintf(stderr, "host connection did not come up\n");
            std::abort();
        }

        // Calls arrive only while the context runs, so never before the
        // derived host is complete.
        gchar* xml = nullptr;
        g_file_get_contents(SLF_SOURCE_DIR "/service/com.streamloft.SLFCefOverlayXPC.xml", &xml, nullptr, nullptr);
        m_nodeInfo = g_dbus_node_info_new_for_xml(xml, nullptr);
        g_free(xml);
        static const GDBusInterfaceVTable vtable = {&InProcessHost::OnMethodCallThunk, nullptr, nullptr, {}};
        m_registration = g_dbus_connection_register_object(
            m_host, "/com/streamloft/SLFCefOverlayXPCCallbacks",
            g_dbus_node_info_lookup_interface(m_nodeInfo, "com.streamloft.SLFCefOverlayXPCCallbacksProtocol"),
            &vtable, this, nullptr, nullptr);
    }

    virtual ~InProcessHost()
    {
        CloseHostConnection();
        g_object_unref(m_service);
        if (m_nodeInfo)
            g_dbus_node_info_unref(m_nodeInfo);
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
        const auto end = std::chrono::steady_clock::now() + timeout;
        while (!pred()) {
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
    // A callback of the service arrived; the host answers invocation now or
    // later.
    virtual void OnMethodCall(const gchar* method, GVariant* parameters, GDBusMethodInvocation* invocation) = 0;

    bool HostConnected() const { return m_host != nullptr; }
    // Unexports the callbacks and closes the host end; what the derived host
    // held must be let go of first.
    void CloseHostConnection()
    {
        if (!m_host)
            return;
        if (m_registration)
            g_dbus_connection_unregister_object(m_host, m_registration);
        m_registration = 0;
        g_dbus_connection_close_sync(m_host, nullptr, nullptr);
        g_object_unref(m_host);
        m_host = nullptr;
    }

private:
    static void OnHostConnection(GObject*, GAsyncResult* result, gpointer userData)
    {
        auto* self = static_cast<InProcessHost*>(userData);
        GError* error = nullptr;
        self->m_host = g_dbus_connection_new_finish(result, &error);
        if (!self->m_host) {
            std::fprintf(stderr, "host connection: %s\n", error->message);
            std::abort();
        }
    }

    static void OnMethodCallThunk(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* method,
                                  GVariant* parameters, GDBusMethodInvocation* invocation, gpointer userData)
    {
        static_cast<InProcessHost*>(userData)->OnMethodCall(method, parameters, invocation);
    }

    GDBusConnection* m_service = nullptr;
    GDBusConnection* m_host = nullptr;
    GDBusNodeInfo* m_nodeInfo = nullptr;
    guint m_registration = 0;
};
