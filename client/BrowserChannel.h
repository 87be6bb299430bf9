// One D-Bus connection to the service and the browser bound to it: the
// callback object exported on it, and the decoding of what the service calls
// there (frames with their surfaces, audio pools and buffers, starts,
// settings requests) into the browser's events.
//
// Library thread only; frames and buffers handed to the host may be dropped
// on any thread (their replies are safe from any thread).
#pragma once

#include <gio/gio.h>

#include <memory>
#include <string>

#include "client/AudioStreamReceiver.h"
#include "client/ClientCore.h"
#include "client/SurfaceMappingCache.h"

namespace streamloft {

class BrowserChannel {
public:
    // Adopts `connection` (made with delayed message processing).
    BrowserChannel(ClientCore& core, GDBusConnection* connection);
    ~BrowserChannel();
    BrowserChannel(const BrowserChannel&) = delete;
    BrowserChannel& operator=(const BrowserChannel&) = delete;

    // Exports the callback object and starts processing messages; false and a
    // message when the object cannot be exported.
    bool Start(std::string* error);
    // Closes the connection now (the closed handling runs through
    // ClientCore::ChannelClosed, once).
    void Close();

    GDBusConnection* connection() const { return connection_; }
    bool closed() const { return closed_; }
    // Marks the closed handling as done; false when it was done before.
    bool MarkClosed();
    pid_t PeerProcessID() const;

    // The browser bound to this connection, or null.
    ClientCore::StatePtr browser;
    // A browser has started here: the service binds no second one.
    bool spent = false;

private:
    static void HandleClosed(GDBusConnection*, gboolean, GError*, gpointer data);
    static void HandleMethodCall(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* method,
                                 GVariant* parameters, GDBusMethodInvocation* invocation, gpointer data);
    // The browser the service's call names, or null (the call is then answered
    // and reported).
    ClientCore::StatePtr BrowserFor(gint32 browserID, const char* method);
    void ReceiveVideoFrame(GVariant* parameters, GDBusMethodInvocation* invocation);
    void StartAudioStream(GVariant* parameters, GDBusMethodInvocation* invocation);
    void ReceiveAudioBuffer(GVariant* parameters, GDBusMethodInvocation* invocation);

    ClientCore& core_;
    GDBusConnection* connection_;
    guint registration_ = 0;
    gulong closedHandler_ = 0;
    bool closed_ = false;
    SurfaceMappingCache surfaces_;
    AudioStreamReceiver audio_;
};

} // namespace streamloft
