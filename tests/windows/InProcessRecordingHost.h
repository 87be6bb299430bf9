// An in-process host for the delivery tests: keeps every frame (mapped
// read-only, reply held) and records the audio messages in order, opening
// each announced pool as a real host does; buffer replies are held too.
#pragma once

#include "audio_transport/NVKXPCAudioBufferPool.h"
#include "protocol/SurfaceDictionary.h"
#include "tests/support/InProcessHost.h"

#include <gio/gunixfdlist.h>
#include <sys/mman.h>
#include <unistd.h>

#include <deque>
#include <map>
#include <memory>
#include <vector>

class InProcessRecordingHost : public InProcessHost {
public:
    struct Frame {
        int browserID = -1;
        streamloft::SurfaceProperties properties;
        const unsigned char* pixels = nullptr; // read-only mapping of the surface
        GDBusMethodInvocation* invocation = nullptr;
        // B, G, R, A in memory: read as 0xAARRGGBB.
        uint32_t Pixel(uint32_t x, uint32_t y) const
        {
            const unsigned char* p = pixels + y * properties.bytesPerRow + x * 4;
            return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
        }
    };
    enum class Kind { Start, Buffer, Stop };
    struct Event {
        Kind kind = Kind::Start;
        int browserID = -1;
        int streamID = -1;
        std::shared_ptr<NVKXPCAudioBufferPool> pool; // Start: the host's view of the pool
        std::shared_ptr<NVKXPCAudioBuffer> buffer;   // Buffer: null for "no buffer"
        std::vector<uint8_t> bytes;
    };

    ~InProcessRecordingHost() override { CloseHostConnection(); }

    std::deque<Frame>& Frames() { return m_frames; }
    size_t FramesReceived() const { return m_nReceived; }
    std::vector<Event>& Events() { return m_events; }
    bool WaitForEvents(size_t n)
    {
        return PumpUntil([&] { return m_events.size() >= n; });
    }
    size_t HeldBuffers() const { return m_heldBuffers.size(); }

    void ReleaseOldestFrame()
    {
        LetGo(m_frames.front(), true);
        m_frames.pop_front();
    }
    // Answers the oldest (or newest) held audio buffer delivery.
    void ReleaseBuffer(bool newest = false)
    {
        g_dbus_method_invocation_return_value(newest ? m_heldBuffers.back() : m_heldBuffers.front(), nullptr);
        newest ? m_heldBuffers.pop_back() : m_heldBuffers.pop_front();
    }
    void ReleaseAll()
    {
        while (!m_frames.empty())
            ReleaseOldestFrame();
        while (!m_heldBuffers.empty())
            ReleaseBuffer();
    }
    // The host goes away without answering what it holds.
    void CloseHostConnection()
    {
        if (!HostConnected())
            return;
        for (Frame& frame : m_frames)
            LetGo(frame, false);
        for (GDBusMethodInvocation* invocation : m_heldBuffers)
            g_object_unref(invocation);
        m_frames.clear();
        m_heldBuffers.clear();
        InProcessHost::CloseHostConnection();
    }

private:
    static void LetGo(Frame& frame, bool answer)
    {
        munmap(const_cast<unsigned char*>(frame.pixels), frame.properties.allocSize);
        answer ? g_dbus_method_invocation_return_value(frame.invocation, nullptr) : g_object_unref(frame.invocation);
    }
    void OnMethodCall(const gchar* method, GVariant* parameters, GDBusMethodInvocation* invocation) override
    {
        Event event;
        GVariant* record = nullptr;
        if (g_strcmp0(method, streamloft::protocol::kMethodBrowserReceivedVideoFrame) == 0) {
            Frame frame;
            gint32 handle = -1;
            g_variant_get(parameters, "(ih@a{sv})", &frame.browserID, &handle, &record);
            const bool parsed = streamloft::protocol::ParseSurfaceProperties(record, &frame.properties);
            g_variant_unref(record);
            GUnixFDList* list = g_dbus_message_get_unix_fd_list(g_dbus_method_invocation_get_message(invocation));
            const int fd = (parsed && list) ? g_unix_fd_list_get(list, handle, nullptr) : -1;
            void* pixels =
                fd >= 0 ? mmap(nullptr, frame.properties.allocSize, PROT_READ, MAP_SHARED, fd, 0) : MAP_FAILED;
            if (fd >= 0)
                close(fd);
            if (pixels == MAP_FAILED)
                g_error("frame without a usable surface");
            frame.pixels = static_cast<const unsigned char*>(pixels);
            frame.invocation = invocation;
            ++m_nReceived;
            m_frames.push_back(frame);
            return;
        }
        if (g_strcmp0(method, streamloft::protocol::kMethodBrowserWillStopAudioStream) == 0) {
            g_variant_get(parameters, "(ii)", &event.browserID, &event.streamID);
            event.kind = Kind::Stop;
        } else if (g_str_has_suffix(method, "AudioStream")) {
            g_variant_get(parameters, "(ii@a{sv})", &event.browserID, &event.streamID, &record);
        }
        if (g_strcmp0(method, streamloft::protocol::kMethodBrowserWillStartAudioStream) == 0)
            event.pool = m_pools[event.streamID] = NVKXPCAudioBufferPool::initWithRecord(record);
        else if (g_strcmp0(method, streamloft::protocol::kMethodBrowserDidReceiveAudioStream) == 0) {
            event.kind = Kind::Buffer;
            event.buffer = NVKXPCAudioBuffer::initWithRecord(record);
            const auto& pool = m_pools[event.streamID];
            if (event.buffer && pool && event.buffer->offset() + event.buffer->length() <= pool->shmemSize()) {
                const auto* base = static_cast<const uint8_t*>(pool->mappedMemory()) + event.buffer->offset();
                event.bytes.assign(base, base + event.buffer->length());
            }
        }
        if (record)
            g_variant_unref(record);
        if (event.kind == Kind::Buffer)
            m_heldBuffers.push_back(invocation); // answered when the test lets go
        else
            g_dbus_method_invocation_return_value(invocation, nullptr);
        if (event.streamID >= 0)
            m_events.push_back(std::move(event));
    }

    std::deque<Frame> m_frames;
    size_t m_nReceived = 0;
    std::vector<Event> m_events;
    std::map<int, std::shared_ptr<NVKXPCAudioBufferPool>> m_pools;
    std::deque<GDBusMethodInvocation*> m_heldBuffers;
};
