// The service's handle on one host connection's callback side: calls go to
// the interface com.streamloft.SLFCefOverlayXPCCallbacksProtocol at
// /com/streamloft/SLFCefOverlayXPCCallbacks on that connection.
//
// One proxy is made per host connection. It is shared (reference counted)
// and compared by identity: the same proxy is the connection's key in every
// receiver list and reply table. Calls may be made from any thread. Errors
// of callback calls are swallowed: a host that has gone away is noticed only
// through its connection's closing.
#pragma once

#include <gio/gio.h>

#include <functional>
#include <memory>
#include <string>

class SLFCefCallbackProxy {
public:
    static constexpr const char* kObjectPath = "/com/streamloft/SLFCefOverlayXPCCallbacks";
    static constexpr const char* kInterfaceName = "com.streamloft.SLFCefOverlayXPCCallbacksProtocol";

    // Takes its own reference to the connection. Without a connection every
    // call is dropped (and `done` runs at once).
    static std::shared_ptr<SLFCefCallbackProxy> Create(GDBusConnection* connection);
    ~SLFCefCallbackProxy();
    SLFCefCallbackProxy(const SLFCefCallbackProxy&) = delete;
    SLFCefCallbackProxy& operator=(const SLFCefCallbackProxy&) = delete;

    GDBusConnection* connection() const { return m_connection; }
    // "<SLFCefCallbackProxy: 0x...>" for log lines.
    std::string description() const;

    // Calls nobody waits for: sent with the no-reply flag.
    void browserDidStart(int browserID);
    void requestSettingsDataForBrowser(int browserID);
    // pool: an a{sv} value (a floating reference is consumed).
    void browserWillStartAudioStream(int browserID, int streamID, GVariant* pool);
    void browserWillStopAudioStream(int browserID, int streamID);

    // Calls whose empty reply means "the host is done with it". `done` runs
    // exactly once: when the reply arrives, or when the call fails (the host
    // went away). It runs in the thread-default main context of the calling
    // thread (the global default context for threads that pushed none).
    // buffer: an a{sv} value (floating reference consumed; empty = no buffer).
    void browserDidReceiveAudioStream(int browserID, int streamID, GVariant* buffer, std::function<void()> done);
    // surfaceFd is duplicated for the message; the caller keeps its own.
    // properties: an a{sv} value (floating reference consumed).
    void browserReceivedVideoFrame(int browserID, int surfaceFd, GVariant* properties, std::function<void()> done);

private:
    explicit SLFCefCallbackProxy(GDBusConnection* connection);
    void sendWithoutReply(const char* member, GVariant* parameters);
    void callWithReply(const char* member, GVariant* parameters, GUnixFDList* fds, std::function<void()> done);

    GDBusConnection* m_connection;
};

using SLFCefCallbackProxyRef = std::shared_ptr<SLFCefCallbackProxy>;
