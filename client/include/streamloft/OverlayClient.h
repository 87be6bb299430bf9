// The host library of the Streamloft overlay helper.
//
// A streaming application (the host) links this library to have web pages
// rendered off screen by the overlay service StreamloftCEFOverlayHelper: it
// connects, opens a browser with a URL, a size and a frame rate, and receives
// the browser's frames (BGRA surfaces in shared memory), its audio (PCM in
// shared-memory slots) and its requests for settings data through an
// OverlayCallbacks object it implements.
//
// Threads: every OverlayClient runs one thread of its own with its own GLib
// main context for the connection. All OverlayCallbacks methods are called on
// that thread, one at a time, in the order the service sent them. A callback
// may call the OverlayClient's request methods. A callback that blocks holds
// up every later callback of that client, so hand long work to another thread.
// The request methods may be called from any thread; requests are sent in the
// order they are made.
//
// Destruction: an OverlayClient may be destroyed from any thread, also from
// inside one of its own callbacks. From another thread the destructor waits
// for a callback in progress to return (so a callback must not wait for the
// thread that destroys its client) and no callback is made after it has
// returned. Inside a callback the destructor returns at once; the callback in
// progress runs to its end, no further callback is made, and the library
// thread then ends on its own.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "streamloft/AudioBuffer.h"
#include "streamloft/Export.h"
#include "streamloft/VideoFrame.h"

namespace streamloft {

// What the service sends back. Every method has an empty default, so a host
// overrides only what it needs. Frames and audio buffers that the host does
// not keep are given back to the service as soon as the call returns.
class SLF_OVERLAY_EXPORT OverlayCallbacks {
 public:
  virtual ~OverlayCallbacks() = default;

  // An OpenBrowser request was carried out. -1 means that the service could
  // not create a browser (for example because it has no web engine).
  virtual void BrowserDidStart(int browserID) { (void)browserID; }
  // A painted frame. Holding `frame` keeps its surface from being reused.
  virtual void BrowserReceivedVideoFrame(int browserID, std::shared_ptr<const VideoFrame> frame) {
    (void)browserID; (void)frame;
  }
  virtual void BrowserWillStartAudioStream(int browserID, int streamID, const AudioStreamFormat& format) {
    (void)browserID; (void)streamID; (void)format;
  }
  // A block of PCM audio. `buffer` is null for the empty delivery that comes
  // right before BrowserWillStopAudioStream.
  virtual void BrowserDidReceiveAudioStream(int browserID, int streamID, std::shared_ptr<const AudioBuffer> buffer) {
    (void)browserID; (void)streamID; (void)buffer;
  }
  virtual void BrowserWillStopAudioStream(int browserID, int streamID) { (void)browserID; (void)streamID; }
  // The page asked for its settings data; answer with
  // OverlayClient::UpdateBrowserSettingsData (the page waits up to 120 s).
  virtual void RequestSettingsDataForBrowser(int browserID) { (void)browserID; }

  // The reply of OpenBrowser: it arrives when this connection closes the
  // browser with CloseBrowser, carrying the browser's ID.
  virtual void OpenBrowserDidReply(int browserID) { (void)browserID; }
  // The service refused an OpenBrowser request (for example a URL that does
  // not parse). `error` is the D-Bus error name and message.
  virtual void OpenBrowserDidFail(const std::string& error) { (void)error; }
  // The connection to the service is gone (service ended, or Disconnect).
  virtual void ConnectionDidClose() {}
  // Something the service sent was refused by the library (a frame whose
  // properties do not fit its surface, an audio record that does not decode).
  // The default writes the message to standard error.
  virtual void ClientDidReportProblem(const std::string& message);
};

struct ConnectOptions {
  // Socket of the service; empty means the default address,
  // $XDG_RUNTIME_DIR/streamloft/overlay-helper.sock.
  std::string socketPath;
  // When nothing answers at the socket, start the service and connect again.
  // The service then runs in a session of its own and writes its log to
  // "<socketPath>.log".
  bool startOnDemand = true;
  // Service executable; empty means $SLF_OVERLAY_HELPER, else the installed
  // StreamloftCEFOverlayHelper.
  std::string helperPath;
  // How long to wait for a service that was just started.
  std::chrono::milliseconds startTimeout{5000};
};

class SLF_OVERLAY_EXPORT OverlayClient {
 public:
  // Connects to the service (starting it when needed, see ConnectOptions).
  // Returns null and writes a message to `error` when the service cannot be
  // reached. `callbacks` must outlive the returned client.
  static std::unique_ptr<OverlayClient> Connect(OverlayCallbacks& callbacks, const ConnectOptions& options = {},
                                                std::string* error = nullptr);
  // The default socket address and the service executable that Connect uses.
  static std::string DefaultSocketPath();
  static std::string DefaultHelperPath();

  // Disconnects and ends the library thread (see "Destruction" above).
  // Frames and buffers the host still holds stay valid.
  ~OverlayClient();
  OverlayClient(const OverlayClient&) = delete;
  OverlayClient& operator=(const OverlayClient&) = delete;

  // Asks for a browser. The ID arrives through BrowserDidStart; the reply of
  // this request arrives through OpenBrowserDidReply when the browser is
  // closed, or OpenBrowserDidFail. Returns false when not connected.
  bool OpenBrowser(const std::string& url, double width, double height, double framerate,
                   const std::vector<std::string>& permittedFileURLStrings, std::string* error = nullptr);
  // The remaining requests wait for the service's answer; false and `error`
  // when it refused the request or the connection is gone.
  bool UpdateBrowserSize(int browserID, double width, double height, std::string* error = nullptr);
  bool CloseBrowser(int browserID, std::string* error = nullptr);
  bool UpdateBrowserSettingsData(int browserID, const std::vector<uint8_t>& settingsData,
                                 std::string* error = nullptr);
  bool UpdateBrowserPermittedFileURLStrings(int browserID, const std::vector<std::string>& permittedFileURLStrings,
                                            std::string* error = nullptr);

  // Closes the connection; the service stops browsers this connection was the
  // last receiver of. ConnectionDidClose follows on the library thread.
  void Disconnect();
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

}  // namespace streamloft
