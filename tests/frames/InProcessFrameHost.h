// A host in the same process, for frame delivery tests and benchmarks: one
// peer-to-peer D-Bus connection pair over a socketpair; the host end
// exports the callback interface and keeps every received frame (its
// properties, a read-only mapping of the surface and the pending reply)
// until the test lets go of it. Everything runs in the thread-default main
// context of the thread that made the host; Pump() iterates it.
#pragma once

#include "platform/NplSharedSurface.h"

#include <gio/gio.h>
#include <gio/gunixfdlist.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <deque>
#include <functional>
#include <string>

#ifndef SLF_SOURCE_DIR
#error "SLF_SOURCE_DIR must name the source tree"
#endif

class InProcessFrameHost {
public:
    struct Frame {
        int browserID = -1;
        NplSharedSurfaceProperties properties;
        const unsigned char* pixels = nullptr; // read-only mapping of the surface
        GDBusMethodInvocation* invocation = nullptr;

        uint32_t Pixel(uint32_t x, uint32_t y) const
        {
            const unsigned char* p = pixels + y * properties.bytesPerRow + x * 4;
            // B, G, R, A in memory: read as 0xAARRGGBB.
            return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
        }
    };

    InProcessFrameHost()
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
                              nullptr, nullptr, &InProcessFrameHost::OnHostConnection, this);
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

        gchar* xml = nullptr;
        g_file_get_contents(SLF_SOURCE_DIR "/service/com.streamloft.SLFCefOverlayXPC.xml", &xml, nullptr, nullptr);
        m_nodeInfo = g_dbus_node_info_new_for_xml(xml, nullptr);
        g_free(xml);
        static const GDBusInterfaceVTable vtable = {&InProcessFrameHost::OnMethodCall, nullptr, nullptr, {}};
        m_registration = g_dbus_connection_register_object(
            m_host, "/com/streamloft/SLFCefOverlayXPCCallbacks",
            g_dbus_node_info_lookup_interface(m_nodeInfo, "com.streamloft.SLFCefOverlayXPCCallbacksProtocol"),
            &vtable, this, nullptr, nullptr);
    }

    ~InProcessFrameHost()
    {
        CloseHostConnection();
        g_object_unref(m_service);
        if (m_nodeInfo)
            g_dbus_node_info_unref(m_nodeInfo);
        // Let finished calls run their completions.
        for (int i = 0; i < 20; ++i)
            g_main_context_iteration(nullptr, FALSE);
    }

    // The service's end, for the callback proxy.
    GDBusConnection* ServiceConnection() const { return m_service; }

    // Runs the context until pred holds; false after the time-out.
    bool PumpUntil(const std::function<bool()>& pred, std::chrono::milliseconds timeout = std::chrono::seconds(10))
    {
        const auto end = std::chrono::steady_clock::now() + timeout;
        while (!pred()) {
            if (std::chrono::steady_clock::now() > end)
                return false;
            g_main_context_iteration(nullptr, FALSE);
            if (!pred())
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

    std::deque<Frame>& Frames() { return m_frames; }
    size_t FramesReceived() const { return m_nReceived; }

    // Lets go of the oldest held frame: unmaps it and replies.
    void ReleaseOldest()
    {
        Frame frame = m_frames.front();
        m_frames.pop_front();
        Release(frame);
    }
    void ReleaseAll()
    {
        while (!m_frames.empty())
            ReleaseOldest();
    }

    // The host goes away while it may still hold frames.
    void CloseHostConnection()
    {
        if (!m_host)
            return;
        for (Frame& frame : m_frames) {
            munmap(const_cast<unsigned char*>(frame.pixels), frame.properties.allocSize);
            g_object_unref(frame.invocation);
        }
        m_frames.clear();
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
        auto* self = static_cast<InProcessFrameHost*>(userData);
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
        auto* self = static_cast<InProcessFrameHost*>(userData);
        if (g_strcmp0(method, "BrowserReceivedVideoFrame") != 0) {
            g_dbus_method_invocation_return_value(invocation, nullptr);
            return;
        }
        Frame frame;
        gint32 handle = -1;
        GVariant* properties = nullptr;
        g_variant_get(parameters, "(ih@a{sv})", &frame.browserID, &handle, &properties);
        const bool parsed = NplSharedSurface_ParsePropertiesVariant(properties, &frame.properties);
        g_variant_unref(properties);
        GUnixFDList* list = g_dbus_message_get_unix_fd_list(g_dbus_method_invocation_get_message(invocation));
        const int fd = (parsed && list) ? g_unix_fd_list_get(list, handle, nullptr) : -1;
        void* pixels = MAP_FAILED;
        if (fd >= 0) {
            pixels = mmap(nullptr, frame.properties.allocSize, PROT_READ, MAP_SHARED, fd, 0);
            close(fd);
        }
        if (pixels == MAP_FAILED) {
            std::fprintf(stderr, "frame without a usable surface\n");
            std::abort();
        }
        frame.pixels = static_cast<const unsigned char*>(pixels);
        frame.invocation = invocation; // the reply, owed until the frame is let go of
        ++self->m_nReceived;
        self->m_frames.push_back(frame);
        if (self->m_bAutoRelease)
            self->ReleaseOldest();
    }

    static void Release(Frame& frame)
    {
        munmap(const_cast<unsigned char*>(frame.pixels), frame.properties.allocSize);
        g_dbus_method_invocation_return_value(frame.invocation, nullptr); // takes the invocation
    }

public:
    // Frames are let go of as soon as they arrive.
    bool m_bAutoRelease = false;

private:
    GDBusConnection* m_service = nullptr;
    GDBusConnection* m_host = nullptr;
    GDBusNodeInfo* m_nodeInfo = nullptr;
    guint m_registration = 0;
    std::deque<Frame> m_frames;
    size_t m_nReceived = 0;
};
