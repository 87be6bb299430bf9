// A host in the same process for audio delivery tests: one peer-to-peer
// D-Bus connection pair over a socketpair. The host end exports the callback
// interface and records the audio messages in the order they arrive; it
// opens each announced pool read-only (as a real host does) so buffer bytes
// can be checked, and keeps the reply of every buffer delivery until the
// test lets go of it. Everything runs in the global default main context;
// the test thread iterates it with Pump*.
#pragma once

#include "audio_transport/NVKXPCAudioBufferPool.h"

#include <gio/gio.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#ifndef SLF_SOURCE_DIR
#error "SLF_SOURCE_DIR must name the source tree"
#endif

class InProcessAudioHost {
public:
    enum class Kind { Start, Buffer, Stop };
    struct Event {
        Kind kind = Kind::Start;
        int browserID = -1;
        int streamID = -1;
        // Start: the host's view of the announced pool.
        std::shared_ptr<NVKXPCAudioBufferPool> pool;
        // Buffer: the decoded record (null for "no buffer") and its bytes.
        std::shared_ptr<NVKXPCAudioBuffer> buffer;
        std::vector<uint8_t> bytes;
    };

    InProcessAudioHost()
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
        // Both hand-shakes run at once: the host side is made asynchronously.
        gchar* guid = g_dbus_generate_guid();
        g_dbus_connection_new(G_IO_STREAM(hostStream), nullptr, G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT, nullptr,
                              nullptr, &InProcessAudioHost::OnHostConnection, this);
        GError* error = nullptr;
        m_service = g_dbus_connection_new_sync(
            G_IO_STREAM(serviceStream), guid,
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_SERVER |
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
        gchar* xml = nullptr;
        g_file_get_contents(SLF_SOURCE_DIR "/service/com.streamloft.SLFCefOverlayXPC.xml", &xml, nullptr, nullptr);
        m_nodeInfo = g_dbus_node_info_new_for_xml(xml, nullptr);
        g_free(xml);
        static const GDBusInterfaceVTable vtable = {&InProcessAudioHost::OnMethodCall, nullptr, nullptr, {}};
        m_registration = g_dbus_connection_register_object(
            m_host, "/com/streamloft/SLFCefOverlayXPCCallbacks",
            g_dbus_node_info_lookup_interface(m_nodeInfo, "com.streamloft.SLFCefOverlayXPCCallbacksProtocol"),
            &vtable, this, nullptr, nullptr);
    }

    ~InProcessAudioHost()
    {
        CloseHostConnection();
        g_object_unref(m_service);
        if (m_nodeInfo)
            g_dbus_node_info_unref(m_nodeInfo);
        for (int i = 0; i < 20; ++i)
            g_main_context_iteration(nullptr, FALSE);
    }
    InProcessAudioHost(const InProcessAudioHost&) = delete;
    InProcessAudioHost& operator=(const InProcessAudioHost&) = delete;

    // The service's end, for a callback proxy.
    GDBusConnection* ServiceConnection() const { return m_service; }

    bool PumpUntil(const std::function<bool()>& pred, std::chrono::milliseconds timeout = std::chrono::seconds(10))
    {
        const auto end = std::chrono::steady_clock::now() + timeout;
        while (!pred()) {
            if (std::chrono::steady_clock::now() > end)
                return false;
            if (!g_main_context_iteration(nullptr, FALSE))
                g_usleep(200);
        }
        return true;
    }
    // Runs the context for a while, for things that must not happen.
    void PumpFor(std::chrono::milliseconds time)
    {
        PumpUntil([] { return false; }, time);
    }
    // Waits until n messages have arrived in all.
    bool WaitForEvents(size_t n) { return PumpUntil([&] { return m_events.size() >= n; }); }

    std::vector<Event>& Events() { return m_events; }
    size_t HeldReplies() const { return m_heldReplies.size(); }

    // Answers the oldest held buffer delivery: the host is done with it.
    void ReleaseOldest()
    {
        GDBusMethodInvocation* invocation = m_heldReplies.front();
        m_heldReplies.pop_front();
        g_dbus_method_invocation_return_value(invocation, nullptr);
    }
    // Answers the newest held buffer delivery.
    void ReleaseNewest()
    {
        GDBusMethodInvocation* invocation = m_heldReplies.back();
        m_heldReplies.pop_back();
        g_dbus_method_invocation_return_value(invocation, nullptr);
    }
    void ReleaseAll()
    {
        while (!m_heldReplies.empty())
            ReleaseOldest();
    }

    // The host goes away without answering what it holds.
    void CloseHostConnection()
    {
        if (!m_host)
            return;
        for (GDBusMethodInvocation* invocation : m_heldReplies)
            g_object_unref(invocation);
        m_heldReplies.clear();
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
        auto* self = static_cast<InProcessAudioHost*>(userData);
        GError* error = nullptr;
        self->m_host = g_dbus_connection_new_finish(result, &error);
        if (!self->m_host) {
            std::fprintf(stderr, "host connection: %s\n", error->message);
            std::abort();
        }
    }

    static void OnMethodCall(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* method,
                             GVariant* parameters, GDBusMethodInvocation* invocation, gpointer userData)
    {
        auto* self = static_cast<InProcessAudioHost*>(userData);
        Event event;
        GVariant* record = nullptr;
        if (g_strcmp0(method, "BrowserWillStartAudioStream") == 0) {
            g_variant_get(parameters, "(ii@a{sv})", &event.browserID, &event.streamID, &record);
            event.kind = Kind::Start;
            event.pool = NVKXPCAudioBufferPool::initWithRecord(record);
            self->m_pools[event.streamID] = event.pool;
            g_variant_unref(record);
            g_dbus_method_invocation_return_value(invocation, nullptr); // sent without a reply: nothing goes out
        } else if (g_strcmp0(method, "BrowserDidReceiveAudioStream") == 0) {
            g_variant_get(parameters, "(ii@a{sv})", &event.browserID, &event.streamID, &record);
            event.kind = Kind::Buffer;
            event.buffer = NVKXPCAudioBuffer::initWithRecord(record);
            g_variant_unref(record);
            const auto pool = self->m_pools.find(event.streamID);
            if (event.buffer && pool != self->m_pools.end() && pool->second &&
                event.buffer->offset() + event.buffer->length() <= pool->second->shmemSize()) {
                const auto* base = static_cast<const uint8_t*>(pool->second->mappedMemory()) + event.buffer->offset();
                event.bytes.assign(base, base + event.buffer->length());
            }
            self->m_heldReplies.push_back(invocation); // answered when the test lets go
        } else if (g_strcmp0(method, "BrowserWillStopAudioStream") == 0) {
            g_variant_get(parameters, "(ii)", &event.browserID, &event.streamID);
            event.kind = Kind::Stop;
            g_dbus_method_invocation_return_value(invocation, nullptr);
        } else {
            g_dbus_method_invocation_return_value(invocation, nullptr);
            return;
        }
        self->m_events.push_back(std::move(event));
    }

    GDBusConnection* m_service = nullptr;
    GDBusConnection* m_host = nullptr;
    GDBusNodeInfo* m_nodeInfo = nullptr;
    guint m_registration = 0;
    std::vector<Event> m_events;
    std::map<int, std::shared_ptr<NVKXPCAudioBufferPool>> m_pools;
    std::deque<GDBusMethodInvocation*> m_heldReplies;
};
