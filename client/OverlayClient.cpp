#include "streamloft/OverlayClient.h"

#include <gio/gio.h>
#include <gio/gunixfdlist.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <cstdio>
#include <future>
#include <mutex>
#include <set>
#include <thread>

#include "client/AudioStreamReceiver.h"
#include "client/ServiceLauncher.h"
#include "client/SurfaceMappingCache.h"
#include "protocol/OverlayProtocol.h"
#include "protocol/SurfaceDictionary.h"

namespace streamloft {

void OverlayCallbacks::ClientDidReportProblem(const std::string& message) {
  fprintf(stderr, "slf-overlay-client: %s\n", message.c_str());
}

namespace {

std::string TakeError(GError* error) {
  std::string text = error ? error->message : "unknown error";
  if (error) g_error_free(error);
  return text;
}

// Sends the empty reply of a callback method; the service reads it as "the
// host has let go". Safe from any thread.
void SendEmptyReply(GDBusMethodInvocation* invocation) {
  g_dbus_method_invocation_return_value(invocation, nullptr);
}

// The replies of OpenBrowser arrive when the browser is closed, possibly long
// after the request and on GDBus's own thread. Each request's serial is
// noted here when it is sent; a message filter picks the matching reply off
// the connection, queues it here and wakes the client's thread to deliver
// it. Everything the two threads share passes through `lock`.
struct OpenReply {
  bool ok = false;
  int browserID = -1;
  std::string error;
};

struct OpenReplyTracker {
  OpenReplyTracker(GMainContext* clientContext, OverlayCallbacks* clientCallbacks,
                   SurfaceMappingCache* clientSurfaces) {
    std::lock_guard<std::mutex> guard(lock);
    context = g_main_context_ref(clientContext);
    callbacks = clientCallbacks;
    surfaces = clientSurfaces;
  }
  ~OpenReplyTracker() { g_main_context_unref(context); }

  // Lock order: a leaf. Held while an OpenBrowser message is sent and while
  // the filter looks a reply up, so that a reply cannot overtake the noting
  // of its serial; never held while a callback runs. One lock for every
  // client of the process: GDBus's thread is shared by all connections and
  // may meet a tracker first through this lock, which must therefore exist
  // before any tracker does.
  static std::mutex lock;
  std::set<guint32> pending;
  std::deque<OpenReply> arrived;
  GMainContext* context = nullptr;  // the client's context, referenced
  OverlayCallbacks* callbacks = nullptr;  // null once the client is being destroyed
  SurfaceMappingCache* surfaces = nullptr;  // used on the client's thread only
};

std::mutex OpenReplyTracker::lock;

// On the client's thread.
gboolean DeliverOpenReplies(gpointer data) {
  auto& tracker = *static_cast<OpenReplyTracker*>(data);
  for (;;) {
    OpenReply reply;
    OverlayCallbacks* callbacks;
    SurfaceMappingCache* surfaces;
    {
      std::lock_guard<std::mutex> guard(tracker.lock);
      // No callbacks once the client is being destroyed.
      if (tracker.arrived.empty() || !tracker.callbacks) break;
      reply = std::move(tracker.arrived.front());
      tracker.arrived.pop_front();
      callbacks = tracker.callbacks;
      surfaces = tracker.surfaces;
    }
    if (reply.ok) {
      // The browser has closed: the service has freed its surfaces.
      surfaces->BrowserDidClose(reply.browserID);
      callbacks->OpenBrowserDidReply(reply.browserID);
    } else {
      callbacks->OpenBrowserDidFail(reply.error);
    }
  }
  return G_SOURCE_REMOVE;
}

// On GDBus's thread, for every incoming message.
GDBusMessage* FilterOpenReplies(GDBusConnection*, GDBusMessage* message, gboolean incoming, gpointer data) {
  if (!incoming) return message;
  GDBusMessageType type = g_dbus_message_get_message_type(message);
  if (type != G_DBUS_MESSAGE_TYPE_METHOD_RETURN && type != G_DBUS_MESSAGE_TYPE_ERROR) return message;
  auto& tracker = *static_cast<OpenReplyTracker*>(data);
  {
    std::lock_guard<std::mutex> guard(tracker.lock);
    if (tracker.pending.erase(g_dbus_message_get_reply_serial(message)) == 0) return message;
  }
  OpenReply reply;
  if (type == G_DBUS_MESSAGE_TYPE_METHOD_RETURN) {
    GVariant* body = g_dbus_message_get_body(message);
    if (body && g_variant_is_of_type(body, G_VARIANT_TYPE("(i)"))) {
      reply.ok = true;
      g_variant_get(body, "(i)", &reply.browserID);
    } else {
      reply.error = std::string(protocol::kMethodOpenBrowser) + " answered with an unexpected reply of type " +
                    (body ? g_variant_get_type_string(body) : "()");
    }
  } else {
    GError* error = nullptr;
    g_dbus_message_to_gerror(message, &error);
    reply.error = TakeError(error);
  }
  g_object_unref(message);
  GMainContext* context;
  {
    std::lock_guard<std::mutex> guard(tracker.lock);
    tracker.arrived.push_back(std::move(reply));
    context = tracker.context;
  }
  g_main_context_invoke(context, DeliverOpenReplies, &tracker);
  return nullptr;
}

pid_t PeerProcessID(GDBusConnection* connection) {
  GIOStream* stream = g_dbus_connection_get_stream(connection);
  if (!G_IS_SOCKET_CONNECTION(stream)) return -1;
  GSocket* socket = g_socket_connection_get_socket(G_SOCKET_CONNECTION(stream));
  GCredentials* credentials = g_socket_get_credentials(socket, nullptr);
  if (!credentials) return -1;
  pid_t pid = g_credentials_get_unix_pid(credentials, nullptr);
  g_object_unref(credentials);
  return pid;
}

}  // namespace

class OverlayClient::Impl {
 public:
  Impl(OverlayCallbacks& callbacks, const ConnectOptions& options)
      : callbacks_(callbacks), options_(options), context_(g_main_context_new()),
        loop_(g_main_loop_new(context_, FALSE)), tracker_(context_, &callbacks_, &surfaces_) {
    socketPath_ = options_.socketPath.empty() ? DefaultServiceSocketPath() : options_.socketPath;
  }

  // Ends the client: from the client's own thread (inside a callback) the
  // thread cannot be joined, so it is detached, finishes the dispatch in
  // progress without calling back, and deletes this object as its last act.
  // From any other thread: waits for a callback in progress, then deletes.
  void Destroy() {
    closing_ = true;
    {
      std::lock_guard<std::mutex> guard(tracker_.lock);
      tracker_.callbacks = nullptr;
    }
    if (thread_.joinable() && thread_.get_id() == std::this_thread::get_id()) {
      deleteWhenThreadEnds_ = true;
      thread_.detach();
      g_main_loop_quit(loop_);
      return;
    }
    delete this;
  }

  ~Impl() {
    if (thread_.joinable()) {
      // Queued rather than a direct quit, which would be lost if the loop
      // has not started running yet.
      g_main_context_invoke(
          context_,
          [](gpointer loop) {
            g_main_loop_quit(static_cast<GMainLoop*>(loop));
            return G_SOURCE_REMOVE;
          },
          loop_);
      thread_.join();
    }
    g_clear_object(&connection_);
    g_main_loop_unref(loop_);
    g_main_context_unref(context_);
  }

  bool Start(std::string* error) {
    auto ready = std::make_shared<std::promise<std::string>>();
    std::future<std::string> result = ready->get_future();
    thread_ = std::thread([this, ready] {
      Run(ready);
      // Set on this thread only, by Destroy inside a callback.
      if (deleteWhenThreadEnds_) delete this;
    });
    std::string failure = result.get();
    if (failure.empty()) return true;
    thread_.join();
    if (error) *error = failure;
    return false;
  }

  bool OpenBrowser(const std::string& url, double width, double height, double framerate,
                   const std::vector<std::string>& permitted, std::string* error) {
    if (!connected_) return NotConnected(error);
    std::vector<const char*> strings;
    for (const auto& s : permitted) strings.push_back(s.c_str());
    GDBusMessage* message =
        g_dbus_message_new_method_call(nullptr, protocol::kServiceObjectPath, protocol::kServiceInterface,
                                       protocol::kMethodOpenBrowser);
    g_dbus_message_set_body(message, g_variant_new("(sddd@as)", url.c_str(), width, height, framerate,
                                                   g_variant_new_strv(strings.data(), strings.size())));
    GError* gerror = nullptr;
    bool sent;
    {
      std::lock_guard<std::mutex> guard(tracker_.lock);
      guint32 serial = 0;
      sent = g_dbus_connection_send_message(connection_, message, G_DBUS_SEND_MESSAGE_FLAGS_NONE, &serial,
                                            &gerror);
      if (sent) tracker_.pending.insert(serial);
    }
    g_object_unref(message);
    if (!sent) {
      std::string text = TakeError(gerror);
      if (error) *error = std::string(protocol::kMethodOpenBrowser) + ": " + text;
      return false;
    }
    return true;
  }

  // Sends a request and waits for its (empty) answer. `parameters` is a
  // floating GVariant and is consumed.
  bool Call(const char* method, GVariant* parameters, std::string* error) {
    if (!connected_) {
      g_variant_unref(g_variant_ref_sink(parameters));
      return NotConnected(error);
    }
    GError* gerror = nullptr;
    GVariant* result = g_dbus_connection_call_sync(connection_, nullptr, protocol::kServiceObjectPath,
                                                   protocol::kServiceInterface, method, parameters, nullptr,
                                                   G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &gerror);
    if (!result) {
      std::string text = TakeError(gerror);
      if (error) *error = std::string(method) + ": " + text;
      return false;
    }
    g_variant_unref(result);
    return true;
  }

  void Disconnect() {
    if (connection_) g_dbus_connection_close(connection_, nullptr, nullptr, nullptr);
  }

  bool IsConnected() const { return connected_; }
  const std::string& SocketPath() const { return socketPath_; }
  pid_t ServiceProcessID() const { return servicePid_; }
  bool StartedService() const { return startedService_; }

 private:
  static bool NotConnected(std::string* error) {
    if (error) *error = "not connected to the overlay service";
    return false;
  }

  void Run(std::shared_ptr<std::promise<std::string>> ready) {
    pthread_setname_np(pthread_self(), "slf-overlay");
    g_main_context_push_thread_default(context_);
    std::string failure;
    if (Establish(&failure)) {
      ready->set_value({});
      g_main_loop_run(loop_);
      Teardown();
    } else {
      ready->set_value(failure.empty() ? "cannot connect to the overlay service" : failure);
    }
    g_main_context_pop_thread_default(context_);
  }

  GDBusConnection* TryConnect(std::string* error) {
    gchar* escaped = g_dbus_address_escape_value(socketPath_.c_str());
    std::string address = std::string("unix:path=") + escaped;
    g_free(escaped);
    GError* gerror = nullptr;
    GDBusConnection* connection = g_dbus_connection_new_for_address_sync(
        address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_DELAY_MESSAGE_PROCESSING),
        nullptr, nullptr, &gerror);
    if (!connection) *error = TakeError(gerror);
    return connection;
  }

  // Connects, starting the service when nothing answers, then sets the
  // connection up before any message of the service is processed.
  bool Establish(std::string* failure) {
    std::string firstError;
    GDBusConnection* connection = TryConnect(&firstError);
    if (!connection) {
      if (!options_.startOnDemand) {
        *failure = "cannot reach the overlay service at " + socketPath_ + ": " + firstError;
        return false;
      }
      connection = StartServiceAndConnect(firstError, failure);
      if (!connection) return false;
    }
    connection_ = connection;
    g_dbus_connection_set_exit_on_close(connection_, FALSE);

    static const GDBusInterfaceVTable vtable = {&Impl::HandleMethodCall, nullptr, nullptr, {}};
    GError* gerror = nullptr;
    registration_ = g_dbus_connection_register_object(connection_, protocol::kCallbacksObjectPath,
                                                      protocol::CallbacksInterfaceInfo(), &vtable, this, nullptr,
                                                      &gerror);
    if (registration_ == 0) {
      *failure = "cannot export the callback object: " + TakeError(gerror);
      g_dbus_connection_close_sync(connection_, nullptr, nullptr);
      g_clear_object(&connection_);
      return false;
    }
    // The tracker outlives the filter: the filter is removed only after the
    // connection has closed, when no message can reach it any more.
    filter_ = g_dbus_connection_add_filter(connection_, FilterOpenReplies, &tracker_, nullptr);
    closedHandler_ = g_signal_connect(connection_, "closed", G_CALLBACK(&Impl::HandleClosed), this);
    servicePid_ = PeerProcessID(connection_);
    connected_ = true;
    g_dbus_connection_start_message_processing(connection_);
    return true;
  }

  GDBusConnection* StartServiceAndConnect(const std::string& firstError, std::string* failure) {
    const std::string helper = ResolveServiceExecutable(options_.helperPath);
    const std::string log = ServiceLogPath(socketPath_);
    if (options_.socketPath.empty()) {
      // The default folder is private to the user; the service makes it the
      // same way when it gets there first.
      std::string folder = socketPath_.substr(0, socketPath_.rfind('/'));
      g_mkdir_with_parents(folder.c_str(), 0700);
    }
    const std::string listenPath = options_.socketPath.empty() ? std::string() : socketPath_;
    std::string spawnError;
    pid_t pid = StartServiceProcess(helper, listenPath, log, &spawnError);
    if (pid < 0) {
      *failure = "cannot reach the overlay service at " + socketPath_ + " (" + firstError + ") and " + spawnError;
      return nullptr;
    }
    startedService_ = true;
    const auto deadline = std::chrono::steady_clock::now() + options_.startTimeout;
    auto delay = std::chrono::milliseconds(10);
    bool ended = false;
    std::string lastError = firstError;
    for (;;) {
      GDBusConnection* connection = TryConnect(&lastError);
      if (connection) {
        if (!ended) ReapServiceProcessWhenItEnds(pid);
        return connection;
      }
      int status = 0;
      if (!ended && ServiceProcessHasEnded(pid, &status)) {
        ended = true;
        // A service that finds another instance on the same address leaves
        // quietly with status 0; the other one will answer.
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
          *failure = "the overlay service '" + helper + "' " + DescribeWaitStatus(status) +
                     " before it answered at " + socketPath_ + " (its log: " + log + ")";
          return nullptr;
        }
      } else if (ended) {
        // The other instance does not answer either: it was ending (an
        // idle exit gives the address up before it is gone). Start one
        // again; it takes the address once the other has let it go.
        pid = StartServiceProcess(helper, listenPath, log, &spawnError);
        if (pid < 0) {
          *failure = "cannot reach the overlay service at " + socketPath_ + " (" + lastError + ") and " + spawnError;
          return nullptr;
        }
        ended = false;
      }
      if (std::chrono::steady_clock::now() >= deadline) {
        if (!ended) ReapServiceProcessWhenItEnds(pid);
        *failure = "the overlay service '" + helper + "' did not answer at " + socketPath_ + " within " +
                   std::to_string(options_.startTimeout.count()) + " ms: " + lastError + " (its log: " + log + ")";
        return nullptr;
      }
      std::this_thread::sleep_for(delay);
      delay = std::min(delay * 2, std::chrono::milliseconds(200));
    }
  }

  void Teardown() {
    connected_ = false;
    g_signal_handler_disconnect(connection_, closedHandler_);
    g_dbus_connection_unregister_object(connection_, registration_);
    if (!g_dbus_connection_is_closed(connection_)) g_dbus_connection_close_sync(connection_, nullptr, nullptr);
    g_dbus_connection_remove_filter(connection_, filter_);
    {
      // The closed connection runs the filter no more; taking the lock once
      // orders its last use of the tracker before the tracker goes.
      std::lock_guard<std::mutex> guard(tracker_.lock);
      tracker_.pending.clear();
    }
    // The connection object itself is released by the destructor, after
    // this thread has ended, so request methods never see it dangle.
    audio_.Clear();
    surfaces_ = SurfaceMappingCache();
  }

  static void HandleClosed(GDBusConnection*, gboolean, GError*, gpointer data) {
    auto* self = static_cast<Impl*>(data);
    self->connected_ = false;
    self->audio_.Clear();
    if (!self->closing_) self->callbacks_.ConnectionDidClose();
  }

  static void HandleMethodCall(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* method,
                               GVariant* parameters, GDBusMethodInvocation* invocation, gpointer data) {
    auto* self = static_cast<Impl*>(data);
    if (self->closing_) {
      // The client is being destroyed: nothing is delivered any more, and a
      // frame or buffer is let go at once.
      SendEmptyReply(invocation);
      return;
    }
    const std::string name = method;
    if (name == protocol::kMethodBrowserReceivedVideoFrame) {
      self->ReceiveVideoFrame(parameters, invocation);
    } else if (name == protocol::kMethodBrowserDidReceiveAudioStream) {
      self->ReceiveAudioBuffer(parameters, invocation);
    } else if (name == protocol::kMethodBrowserDidStart) {
      gint32 browserID = 0;
      g_variant_get(parameters, "(i)", &browserID);
      SendEmptyReply(invocation);
      self->callbacks_.BrowserDidStart(browserID);
    } else if (name == protocol::kMethodBrowserWillStartAudioStream) {
      self->StartAudioStream(parameters, invocation);
    } else if (name == protocol::kMethodBrowserWillStopAudioStream) {
      gint32 browserID = 0, streamID = 0;
      g_variant_get(parameters, "(ii)", &browserID, &streamID);
      SendEmptyReply(invocation);
      self->audio_.StopStream(browserID, streamID);
      self->callbacks_.BrowserWillStopAudioStream(browserID, streamID);
    } else if (name == protocol::kMethodRequestSettingsDataForBrowser) {
      gint32 browserID = 0;
      g_variant_get(parameters, "(i)", &browserID);
      SendEmptyReply(invocation);
      self->callbacks_.RequestSettingsDataForBrowser(browserID);
    } else {
      g_dbus_method_invocation_return_error(invocation, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_METHOD,
                                            "No such method %s", method);
    }
  }

  void ReceiveVideoFrame(GVariant* parameters, GDBusMethodInvocation* invocation) {
    gint32 browserID = 0, fdIndex = -1;
    GVariant* dictionary = nullptr;
    g_variant_get(parameters, "(ih@a{sv})", &browserID, &fdIndex, &dictionary);
    std::string problem;
    SurfaceProperties properties;
    std::shared_ptr<const SurfaceMapping> mapping;
    if (protocol::ParseSurfaceProperties(dictionary, &properties, &problem)) {
      GUnixFDList* fds = g_dbus_message_get_unix_fd_list(g_dbus_method_invocation_get_message(invocation));
      GError* gerror = nullptr;
      int fd = fds ? g_unix_fd_list_get(fds, fdIndex, &gerror) : -1;
      if (fd < 0) {
        problem = "surface descriptor is missing" + (gerror ? ": " + TakeError(gerror) : std::string());
      } else {
        mapping = surfaces_.Map(browserID, properties, fd, &problem);
        close(fd);
      }
    }
    g_variant_unref(dictionary);
    if (!mapping) {
      SendEmptyReply(invocation);
      callbacks_.ClientDidReportProblem("frame of browser " + std::to_string(browserID) + " refused: " + problem);
      return;
    }
    auto frame = std::make_shared<const VideoFrame>(browserID, properties, mapping->base(), mapping,
                                                    [invocation] { SendEmptyReply(invocation); });
    callbacks_.BrowserReceivedVideoFrame(browserID, std::move(frame));
  }

  void StartAudioStream(GVariant* parameters, GDBusMethodInvocation* invocation) {
    gint32 browserID = 0, streamID = 0;
    GVariant* record = nullptr;
    g_variant_get(parameters, "(ii@a{sv})", &browserID, &streamID, &record);
    SendEmptyReply(invocation);
    AudioStreamFormat format;
    std::string problem;
    bool ok = audio_.StartStream(browserID, streamID, record, &format, &problem);
    g_variant_unref(record);
    if (!ok) {
      callbacks_.ClientDidReportProblem(problem);
      return;
    }
    callbacks_.BrowserWillStartAudioStream(browserID, streamID, format);
  }

  void ReceiveAudioBuffer(GVariant* parameters, GDBusMethodInvocation* invocation) {
    gint32 browserID = 0, streamID = 0;
    GVariant* record = nullptr;
    g_variant_get(parameters, "(ii@a{sv})", &browserID, &streamID, &record);
    const bool isNullBuffer = g_variant_n_children(record) == 0;
    std::string problem;
    auto buffer =
        audio_.ReceiveBuffer(browserID, streamID, record, [invocation] { SendEmptyReply(invocation); }, &problem);
    g_variant_unref(record);
    if (!problem.empty()) callbacks_.ClientDidReportProblem(problem);
    if (buffer || isNullBuffer) callbacks_.BrowserDidReceiveAudioStream(browserID, streamID, std::move(buffer));
  }

  OverlayCallbacks& callbacks_;
  const ConnectOptions options_;
  std::string socketPath_;
  GMainContext* context_;
  GMainLoop* loop_;
  std::thread thread_;
  // Set on the client's thread before Start returns (the start-up future
  // orders it before every request), released by the destructor.
  GDBusConnection* connection_ = nullptr;
  guint registration_ = 0;
  guint filter_ = 0;
  gulong closedHandler_ = 0;
  std::atomic<bool> connected_{false};
  // Set by Destroy: no callback is made from then on.
  std::atomic<bool> closing_{false};
  // Destroy ran on the client's own thread, which deletes the object when
  // it ends.
  bool deleteWhenThreadEnds_ = false;
  pid_t servicePid_ = -1;
  bool startedService_ = false;
  OpenReplyTracker tracker_;
  // Used on the client's thread only.
  SurfaceMappingCache surfaces_;
  AudioStreamReceiver audio_;
};

std::unique_ptr<OverlayClient> OverlayClient::Connect(OverlayCallbacks& callbacks, const ConnectOptions& options,
                                                      std::string* error) {
  auto impl = std::make_unique<Impl>(callbacks, options);
  if (!impl->Start(error)) return nullptr;
  return std::unique_ptr<OverlayClient>(new OverlayClient(std::move(impl)));
}

std::string OverlayClient::DefaultSocketPath() { return DefaultServiceSocketPath(); }
std::string OverlayClient::DefaultHelperPath() { return ResolveServiceExecutable({}); }

OverlayClient::OverlayClient(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
OverlayClient::~OverlayClient() { impl_.release()->Destroy(); }

bool OverlayClient::OpenBrowser(const std::string& url, double width, double height, double framerate,
                                const std::vector<std::string>& permittedFileURLStrings, std::string* error) {
  return impl_->OpenBrowser(url, width, height, framerate, permittedFileURLStrings, error);
}

bool OverlayClient::UpdateBrowserSize(int browserID, double width, double height, std::string* error) {
  return impl_->Call(protocol::kMethodUpdateBrowserSize, g_variant_new("(idd)", browserID, width, height), error);
}

bool OverlayClient::CloseBrowser(int browserID, std::string* error) {
  return impl_->Call(protocol::kMethodCloseBrowser, g_variant_new("(i)", browserID), error);
}

bool OverlayClient::UpdateBrowserSettingsData(int browserID, const std::vector<uint8_t>& settingsData,
                                              std::string* error) {
  GVariant* bytes = g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, settingsData.data(), settingsData.size(), 1);
  return impl_->Call(protocol::kMethodUpdateBrowserSettingsData, g_variant_new("(i@ay)", browserID, bytes), error);
}

bool OverlayClient::UpdateBrowserPermittedFileURLStrings(int browserID,
                                                         const std::vector<std::string>& permittedFileURLStrings,
                                                         std::string* error) {
  std::vector<const char*> strings;
  for (const auto& s : permittedFileURLStrings) strings.push_back(s.c_str());
  return impl_->Call(protocol::kMethodUpdateBrowserPermittedFileURLStrings,
                     g_variant_new("(i@as)", browserID, g_variant_new_strv(strings.data(), strings.size())), error);
}

void OverlayClient::Disconnect() { impl_->Disconnect(); }
bool OverlayClient::IsConnected() const { return impl_->IsConnected(); }
const std::string& OverlayClient::SocketPath() const { return impl_->SocketPath(); }
pid_t OverlayClient::ServiceProcessID() const { return impl_->ServiceProcessID(); }
bool OverlayClient::StartedService() const { return impl_->StartedService(); }

}  // namespace streamloft
