// A host in the same process, for frame delivery tests and benchmarks (see
// InProcessHost for the connection pair): it keeps every received frame (its
// properties, a read-only mapping of the surface and the pending reply)
// until the test lets go of it. Everything runs in the thread-default main
// context of the thread that made the host; Pump() iterates it.
#pragma once

#include "platform/NplSharedSurface.h"
#include "tests/support/InProcessHost.h"

#include <gio/gunixfdlist.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <deque>

class InProcessFrameHost : public InProcessHost {
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

    ~InProcessFrameHost() override { CloseHostConnection(); }

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
        if (!HostConnected())
            return;
        for (Frame& frame : m_frames) {
            munmap(const_cast<unsigned char*>(frame.pixels), frame.properties.allocSize);
            g_object_unref(frame.invocation);
        }
        m_frames.clear();
        InProcessHost::CloseHostConnection();
    }

private:
    void OnMethodCall(const gchar* method, GVariant* parameters, GDBusMethodInvocation* invocation) override
    {
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
        ++m_nReceived;
        m_frames.push_back(frame);
        if (m_bAutoRelease)
            ReleaseOldest();
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
    std::deque<Frame> m_frames;
    size_t m_nReceived = 0;
};
