#include "tests/client/FakeOverlayService.h"

#include <gio/gunixfdlist.h>

#include <algorithm>
#include <cstdio>
#include <future>

#include "client/OverlayIntrospection.h"

using streamloft::kOverlayCallbacksInterface;
using streamloft::kOverlayCallbacksObjectPath;
using streamloft::kOverlayInterface;
using streamloft::kOverlayObjectPath;

FakeOverlayService::FakeOverlayService(std::string socketPath)
    : socketPath_(std::move(socketPath)), context_(g_main_context_new()), loop_(g_main_loop_new(context_, FALSE)) {
  node_ = g_dbus_node_info_new_for_xml(streamloft::kOverlayIntrospectionXml, nullptr);
  auto ready = std::make_shared<std::promise<void>>();
  auto started = ready->get_future();
  thread_ = std::thread([this, ready] {
    g_main_context_push_thread_default(context_);
    gchar* guid = g_dbus_generate_guid();
    gchar* escaped = g_dbus_address_escape_value(socketPath_.c_str());
    std::string address = std::string("unix:path=") + escaped;
    GError* error = nullptr;
    server_ = g_dbus_server_new_sync(address.c_str(), G_DBUS_SERVER_FLAGS_NONE, guid, nullptr, nullptr, &error);
    g_free(escaped);
    g_free(guid);
    if (!server_) {
      fprintf(stderr, "fake service: %s\n", error->message);
      g_error_free(error);
    } else {
      g_signal_connect(server_, "new-connection", G_CALLBACK(&FakeOverlayService::OnNewConnection), this);
      g_dbus_server_start(server_);
    }
    ready->set_value();
    g_main_loop_run(loop_);
    if (server_) g_dbus_server_stop(server_);
    g_main_context_pop_thread_default(context_);
  });
  started.wait();
}

FakeOverlayService::~FakeOverlayService() {
  closeConnections();
  g_main_loop_quit(loop_);
  thread_.join();
  g_clear_object(&server_);
  for (auto& [id, invocation] : openInvocations_) g_object_unref(invocation);
  for (auto& r : requests_) g_variant_unref(r.parameters);
  g_dbus_node_info_unref(node_);
  g_main_loop_unref(loop_);
  g_main_context_unref(context_);
}

// Runs `work` on the service's thread and waits for it. The job and its
// completion pass through lock_, so that they are ordered for every checker.
void FakeOverlayService::RunOnThread(std::function<void()> work) {
  bool done = false;
  {
    std::lock_guard<std::mutex> guard(lock_);
    jobs_.push_back([&] {
      work();
      std::lock_guard<std::mutex> doneGuard(lock_);
      done = true;
      changed_.notify_all();
    });
  }
  g_main_context_invoke(
      context_,
      [](gpointer data) {
        auto* self = static_cast<FakeOverlayService*>(data);
        for (;;) {
          std::function<void()> job;
          {
            std::lock_guard<std::mutex> guard(self->lock_);
            if (self->jobs_.empty()) break;
            job = std::move(self->jobs_.front());
            self->jobs_.pop_front();
          }
          job();
        }
        return G_SOURCE_REMOVE;
      },
      this);
  std::unique_lock<std::mutex> guard(lock_);
  changed_.wait(guard, [&] { return done; });
}

gboolean FakeOverlayService::OnNewConnection(GDBusServer*, GDBusConnection* connection, gpointer data) {
  auto* self = static_cast<FakeOverlayService*>(data);
  static const GDBusInterfaceVTable vtable = {&FakeOverlayService::OnMethodCall, nullptr, nullptr, {}};
  g_dbus_connection_register_object(connection, kOverlayObjectPath,
                                    g_dbus_node_info_lookup_interface(self->node_, kOverlayInterface), &vtable,
                                    self, nullptr, nullptr);
  g_object_set_data(G_OBJECT(connection), "slf-fake", self);
  {
    std::lock_guard<std::mutex> guard(self->lock_);
    self->connections_.push_back(G_DBUS_CONNECTION(g_object_ref(connection)));
  }
  self->changed_.notify_all();
  return TRUE;
}

void FakeOverlayService::OnMethodCall(GDBusConnection* connection, const gchar*, const gchar*, const gchar*,
                                      const gchar* method, GVariant* parameters, GDBusMethodInvocation* invocation,
                                      gpointer data) {
  auto* self = static_cast<FakeOverlayService*>(data);
  const std::string name = method;
  int announce = 0;
  bool announceNow = false;
  GDBusMethodInvocation* openReply = nullptr;
  int closedID = 0;
  {
    std::lock_guard<std::mutex> guard(self->lock_);
    self->requests_.push_back({name, g_variant_ref(parameters)});
    if (name == "OpenBrowser") {
      const gchar* url = nullptr;
      g_variant_get_child(parameters, 0, "&s", &url);
      if (std::find(self->refusedURLs_.begin(), self->refusedURLs_.end(), url) != self->refusedURLs_.end()) {
        g_dbus_method_invocation_return_dbus_error(invocation, "com.streamloft.Error.InvalidURL", "URL does not parse");
      } else {
        announce = self->nextBrowserID_++;
        announceNow = true;
        self->openInvocations_[announce] = invocation;
      }
    } else if (name == "CloseBrowser") {
      g_variant_get(parameters, "(i)", &closedID);
      auto it = self->openInvocations_.find(closedID);
      if (it != self->openInvocations_.end()) {
        openReply = it->second;
        self->openInvocations_.erase(it);
      }
    }
  }
  self->changed_.notify_all();
  if (announceNow)
    g_dbus_connection_call(connection, nullptr, kOverlayCallbacksObjectPath, kOverlayCallbacksInterface,
                           "BrowserDidStart", g_variant_new("(i)", announce), nullptr,
                           G_DBUS_CALL_FLAGS_NO_AUTO_START, -1, nullptr, nullptr, nullptr);
  if (openReply) g_dbus_method_invocation_return_value(openReply, g_variant_new("(i)", closedID));
  if (name != "OpenBrowser") g_dbus_method_invocation_return_value(invocation, nullptr);
}

void FakeOverlayService::setNextBrowserID(int id) {
  std::lock_guard<std::mutex> guard(lock_);
  nextBrowserID_ = id;
}

void FakeOverlayService::refuseURL(const std::string& url) {
  std::lock_guard<std::mutex> guard(lock_);
  refusedURLs_.push_back(url);
}

std::vector<std::string> FakeOverlayService::waitForRequests(size_t count, std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> guard(lock_);
  changed_.wait_for(guard, timeout, [&] { return requests_.size() >= count; });
  std::vector<std::string> names;
  for (const auto& r : requests_) names.push_back(r.method);
  return names;
}

GVariant* FakeOverlayService::requestParameters(size_t n) {
  std::lock_guard<std::mutex> guard(lock_);
  return n < requests_.size() ? g_variant_ref(requests_[n].parameters) : nullptr;
}

bool FakeOverlayService::waitForHost(std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> guard(lock_);
  return changed_.wait_for(guard, timeout, [&] { return !connections_.empty(); });
}

int FakeOverlayService::callHost(const char* method, GVariant* parameters, int fd) {
  int token;
  GDBusConnection* connection;
  {
    std::lock_guard<std::mutex> guard(lock_);
    token = nextToken_++;
    replies_[token] = false;
    connection = connections_.empty() ? nullptr : G_DBUS_CONNECTION(g_object_ref(connections_.back()));
  }
  if (!connection) {
    g_variant_unref(g_variant_ref_sink(parameters));
    return token;
  }
  RunOnThread([&] {
    GUnixFDList* fds = nullptr;
    if (fd >= 0) {
      fds = g_unix_fd_list_new();
      g_unix_fd_list_append(fds, fd, nullptr);
    }
    g_dbus_connection_call_with_unix_fd_list(
        connection, nullptr, kOverlayCallbacksObjectPath, kOverlayCallbacksInterface, method, parameters, nullptr,
        G_DBUS_CALL_FLAGS_NONE, G_MAXINT, fds, nullptr,
        [](GObject* source, GAsyncResult* result, gpointer data) {
          auto* self = static_cast<FakeOverlayService*>(g_object_get_data(source, "slf-fake"));
          const int token = GPOINTER_TO_INT(data);
          GVariant* reply = g_dbus_connection_call_with_unix_fd_list_finish(G_DBUS_CONNECTION(source), nullptr,
                                                                           result, nullptr);
          if (reply) g_variant_unref(reply);
          {
            std::lock_guard<std::mutex> guard(self->lock_);
            self->replies_[token] = true;
          }
          self->changed_.notify_all();
        },
        GINT_TO_POINTER(token));
    if (fds) g_object_unref(fds);
  });
  g_object_unref(connection);
  return token;
}

bool FakeOverlayService::replied(int token) {
  std::lock_guard<std::mutex> guard(lock_);
  return replies_[token];
}

bool FakeOverlayService::waitForReply(int token, std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> guard(lock_);
  return changed_.wait_for(guard, timeout, [&] { return replies_[token]; });
}

void FakeOverlayService::closeConnections() {
  std::vector<GDBusConnection*> connections;
  {
    std::lock_guard<std::mutex> guard(lock_);
    connections.swap(connections_);
  }
  for (GDBusConnection* c : connections) {
    g_dbus_connection_close_sync(c, nullptr, nullptr);
    g_object_unref(c);
  }
}
