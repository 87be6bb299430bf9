// The service's handle on one host connection's callback side: calls go to
// the protocol's callback interface at its object path on that connection
// (protocol/OverlayProtocol.h).
//
// One proxy is made per host connection. It is shared (reference counted)
// and compared by identity: the same proxy is the connection's key in every
// receiver list and reply table. Calls may be made from any thread. Errors
// of callback calls are swallowed: a host that has gone away is noticed only
// through its connection's closing.
#pragma once

#include <gio/gio.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

class SLFCefCallbackProxy {
public:
    // Takes its own reference to the connection. Without a connection every
    // call is dropped (and `done` runs at once).
    static std::shared_ptr<SLFCefCallbackProxy> Create(GDBusConnection* connection);
    ~SLFCefCallbackProxy();
    SLFCefCallbackProxy(const SLFCefCallbackProxy&) = delete;
    SLFCefCallbackProxy& operator=(const SLFCefCallbackProxy&) = delete;

    GDBusConnection* connection() const { return m_connection; }
    // The host's connection has ended: every call still waiting for its
    // reply is finished (its `done` runs now) and later calls finish at once.
    void connectionDidClose();
    // "<SLFCefCallbackProxy: 0x...>" for log lines.
    std::string description() const;

    // Calls nobody waits for: sent with the no-reply flag.
    void browserDidStart(int browserID);
    void requestSettingsDataForBrowser(int browserID);
    // pool: an a{sv} value (a floating reference is consumed).
    void browserWillStartAudioStream(int browserID, int streamID, GVariant* pool);
    void browserWillStopAudioStream(int browserID, int streamID);

    // Calls whose empty reply means "the host is done with it". `done` runs
    // exactly once: when the reply (or an error) arrives, when the message
    // cannot be sent, or when the connection closes (connectionDidClose or
    // the proxy's end). It does not depend on any main context running: the
    // reply is caught by a filter on the connection's own worker thread and
    // `done` runs there, so `done` must be safe on any thread.
    // buffer: an a{sv} value (floating reference consumed; empty = no buffer).
    void browserDidReceiveAudioStream(int browserID, int streamID, GVariant* buffer, std::function<void()> done);
    // surfaceFd is duplicated for the message; the caller keeps its own.
    // properties: an a{sv} value (floating reference consumed).
    void browserReceivedVideoFrame(int browserID, int surfaceFd, GVariant* properties, std::function<void()> done);

private:
    explicit SLFCefCallbackProxy(GDBusConnection* connection);
    void sendWithoutReply(const char* member, GVariant* parameters);
    void callWithReply(const char* member, GVariant* parameters, GUnixFDList* fds, std::function<void()> done);

    // The calls waiting for their replies, by serial. Shared with the
    // connection's filter, which may outlive the proxy by a moment.
    struct PendingReplies {
        // Leaf lock: nothing else is locked while it is held, and no `done`
        // runs under it. It is held across the send so that a reply cannot
        // be looked for before its serial is recorded.
        std::mutex lock;
        std::map<guint32, std::function<void()>> waiting;
        bool closed = false;
    };
    static void FinishAll(PendingReplies& pending);
    static GDBusMessage* FilterReplies(GDBusConnection*, GDBusMessage* message, gboolean incoming, gpointer data);

    GDBusConnection* m_connection;
    std::shared_ptr<PendingReplies> m_pending;
    guint m_filterID = 0;
    gulong m_closedHandlerID = 0;
};

using SLFCefCallbackProxyRef = std::shared_ptr<SLFCefCallbackProxy>;
