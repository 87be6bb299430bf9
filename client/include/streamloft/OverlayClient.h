// The host library of the Streamloft overlay helper.
//
// A streaming application (the host) links this library to have web pages
// rendered off screen by the overlay service StreamloftCEFOverlayHelper: it
// connects, opens browsers (see Browser.h) with a URL, a size and a frame
// rate, and receives each browser's frames (BGRA surfaces in shared memory),
// its audio (PCM in shared-memory slots) and its requests for settings data
// through the BrowserEvents object it gave for that browser.
//
// Threads: every OverlayClient runs one thread of its own with its own GLib
// main context for the connection. Events (browser events, completions,
// ConnectOptions::connectionClosed, ::diagnostics and Disconnect's `done`)
// are dispatched one at a time, in the order they arose, on the client's
// event context: the host's own GMainContext when it gave one in
// ConnectOptions::context, else the library's thread. A callback may make
// requests (they never block). A callback that blocks holds up every later
// event of that client, so hand long work to another thread.
//
// Destruction: an OverlayClient may be destroyed from any thread, also from
// inside one of its own callbacks. From another thread the destructor waits
// for a callback in progress to return (so a callback must not wait for the
// thread that destroys its client) and no event is delivered after it has
// returned. Inside a callback the destructor returns without waiting for the
// callback in progress, and no further event is delivered.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "streamloft/AudioBuffer.h"
#include "streamloft/Browser.h"
#include "streamloft/Error.h"
#include "streamloft/Export.h"
#include "streamloft/VideoFrame.h"

typedef struct _GMainContext GMainContext;

namespace streamloft {

struct ConnectOptions {
    // Socket of the service; empty means the default address,
    // $XDG_RUNTIME_DIR/streamloft/overlay-helper.sock.
    std::string socketPath;
    // When nothing answers at the socket, start the service and connect again.
    // The service then runs detached from the host, in a session of its own,
    // and writes its log to "<socketPath>.log".
    bool startOnDemand = true;
    // Service executable; empty means $SLF_OVERLAY_HELPER, else the installed
    // StreamloftCEFOverlayHelper.
    std::string helperPath;
    // How long to wait for a service that was just started.
    std::chrono::milliseconds startTimeout {5000};
    // The host's main context on which every event is dispatched; null means
    // the library's own thread. The client keeps a reference to it.
    GMainContext* context = nullptr;
    // The library's diagnostics (something the service sent that it refused,
    // and what the audio transport reports); one line each, no line feed. By
    // default they are dropped: the library never writes to standard error.
    std::function<void(const std::string& message)> diagnostics;
    // The connection to the service is gone (the service ended, or
    // Disconnect). The browsers that were open fail with ConnectionClosed.
    std::function<void()> connectionClosed;
};

class SLF_OVERLAY_EXPORT OverlayClient {
public:
    // Connects to the service (starting it when needed, see ConnectOptions).
    // Returns null and fills `error` (kind ServiceUnreachable) when the service
    // cannot be reached. Blocks until connected or failed.
    static std::unique_ptr<OverlayClient> Connect(const ConnectOptions& options = {}, Error* error = nullptr);
    // The default socket address and the service executable that Connect uses.
    static std::string DefaultSocketPath();
    static std::string DefaultHelperPath();

    // Disconnects and ends the library thread (see "Destruction" above).
    // Frames and buffers the host still holds stay valid.
    ~OverlayClient();
    OverlayClient(const OverlayClient&) = delete;
    OverlayClient& operator=(const OverlayClient&) = delete;

    // Asks for a browser and returns its handle at once; `events` receives its
    // events from BrowserDidStart (or BrowserDidFail) on. Never null: when the
    // client is not connected, the handle fails with ConnectionClosed.
    std::shared_ptr<Browser> OpenBrowser(const BrowserOptions& options, std::shared_ptr<BrowserEvents> events);

    // Closes the connection; the service stops the browsers of this client.
    // Open browsers fail with ConnectionClosed, connectionClosed follows, and
    // then `done`, all on the event context.
    void Disconnect(std::function<void()> done = {});
    bool IsConnected() const;
    // The socket this client is connected to.
    const std::string& SocketPath() const;
    // Process ID of the service (from the connection's peer credentials), -1
    // when unknown.
    pid_t ServiceProcessID() const;
    // True when Connect had to start the service.
    bool StartedService() const;

    class Impl;

private:
    explicit OverlayClient(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

} // namespace streamloft
