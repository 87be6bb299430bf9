// A stand-in for the overlay service in the host library's unit tests: a
// peer-to-peer D-Bus server on a real Unix socket, on a thread of its own,
// that exports the request interface, records every request, answers
// OpenBrowser the way the service does (BrowserDidStart at once, the reply
// when the browser is closed) and lets a test send the callback methods with
// their surfaces and audio records and see when the host replies.
#pragma once

#include <gio/gio.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class FakeOverlayService {
 public:
  struct Request {
    std::string method;
    GVariant* parameters;  // owned
  };

  explicit FakeOverlayService(std::string socketPath);
  ~FakeOverlayService();

  const std::string& socketPath() const { return socketPath_; }

  // The browser ID announced for the next OpenBrowser (then counted up).
  void setNextBrowserID(int id);
  // OpenBrowser requests for this URL are answered with an error at once.
  void refuseURL(const std::string& url);

  // Waits until `count` requests have arrived; a copy of the list.
  std::vector<std::string> waitForRequests(size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(5));
  // Parameters of the n-th request (a new reference).
  GVariant* requestParameters(size_t n);

  // Calls a callback method on the (single) connected host and returns a
  // token; replied(token) tells whether its reply has arrived. `fd` (if >= 0)
  // travels as the call's only descriptor; it is not closed.
  int callHost(const char* method, GVariant* parameters, int fd = -1);
  bool replied(int token);
  bool waitForReply(int token, std::chrono::milliseconds timeout = std::chrono::seconds(5));
  bool waitForHost(std::chrono::milliseconds timeout = std::chrono::seconds(5));
  // Closes every host connection.
  void closeConnections();

 private:
  static gboolean OnNewConnection(GDBusServer*, GDBusConnection* connection, gpointer data);
  static void OnMethodCall(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* method,
                           GVariant* parameters, GDBusMethodInvocation* invocation, gpointer data);
  void RunOnThread(std::function<void()> work);

  std::string socketPath_;
  GMainContext* context_;
  GMainLoop* loop_;
  GDBusServer* server_ = nullptr;
  GDBusNodeInfo* node_ = nullptr;
  std::thread thread_;

  // Lock order: a leaf; no GDBus call is made while it is held.
  std::mutex lock_;
  std::condition_variable changed_;
  std::vector<Request> requests_;
  std::vector<GDBusConnection*> connections_;
  std::map<int, GDBusMethodInvocation*> openInvocations_;  // by browser ID
  std::vector<std::string> refusedURLs_;
  int nextBrowserID_ = 7;
  int nextToken_ = 1;
  std::map<int, bool> replies_;
  std::deque<std::function<void()>> jobs_;
};
