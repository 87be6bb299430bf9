// A host in the same process for audio delivery tests (see InProcessHost
// for the connection pair). It records the audio messages in the order they
// arrive; it opens each announced pool read-only (as a real host does) so
// buffer bytes can be checked, and keeps the reply of every buffer delivery
// until the test lets go of it. Everything runs in the global default main
// context; the test thread iterates it with Pump*.
#pragma once

#include "audio_transport/NVKXPCAudioBufferPool.h"
#include "tests/support/InProcessHost.h"

#include <deque>
#include <map>
#include <memory>
#include <vector>

class InProcessAudioHost : public InProcessHost {
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

    ~InProcessAudioHost() override { CloseHostConnection(); }

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
        if (!HostConnected())
            return;
        for (GDBusMethodInvocation* invocation : m_heldReplies)
            g_object_unref(invocation);
        m_heldReplies.clear();
        InProcessHost::CloseHostConnection();
    }

private:
    void OnMethodCall(const gchar* method, GVariant* parameters, GDBusMethodInvocation* invocation) override
    {
        Event event;
        GVariant* record = nullptr;
        if (g_strcmp0(method, "BrowserWillStartAudioStream") == 0) {
            g_variant_get(parameters, "(ii@a{sv})", &event.browserID, &event.streamID, &record);
            event.kind = Kind::Start;
            event.pool = NVKXPCAudioBufferPool::initWithRecord(record);
            m_pools[event.streamID] = event.pool;
            g_variant_unref(record);
            g_dbus_method_invocation_return_value(invocation, nullptr); // sent without a reply: nothing goes out
        } else if (g_strcmp0(method, "BrowserDidReceiveAudioStream") == 0) {
            g_variant_get(parameters, "(ii@a{sv})", &event.browserID, &event.streamID, &record);
            event.kind = Kind::Buffer;
            event.buffer = NVKXPCAudioBuffer::initWithRecord(record);
            g_variant_unref(record);
            const auto pool = m_pools.find(event.streamID);
            if (event.buffer && pool != m_pools.end() && pool->second &&
                event.buffer->offset() + event.buffer->length() <= pool->second->shmemSize()) {
                const auto* base = static_cast<const uint8_t*>(pool->second->mappedMemory()) + event.buffer->offset();
                event.bytes.assign(base, base + event.buffer->length());
            }
            m_heldReplies.push_back(invocation); // answered when the test lets go
        } else if (g_strcmp0(method, "BrowserWillStopAudioStream") == 0) {
            g_variant_get(parameters, "(ii)", &event.browserID, &event.streamID);
            event.kind = Kind::Stop;
            g_dbus_method_invocation_return_value(invocation, nullptr);
        } else {
            g_dbus_method_invocation_return_value(invocation, nullptr);
            return;
        }
        m_events.push_back(std::move(event));
    }

    std::vector<Event> m_events;
    std::map<int, std::shared_ptr<NVKXPCAudioBufferPool>> m_pools;
    std::deque<GDBusMethodInvocation*> m_heldReplies;
};
