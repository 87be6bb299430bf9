// A stand-in for the overlay service: one host connection, answered as the
// service does (BrowserDidStart at once with IDs from 7, a URL without "://"
// refused, the open reply when the browser is closed).
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <future>
#include <memory>
#include <thread>

#include "protocol/OverlayProtocol.h"
#include "tests/support/DBusPeer.h"

class FakeOverlayService {
public:
    explicit FakeOverlayService(std::string socketPath) : socketPath_(std::move(socketPath))
    {
        listenFd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        strncpy(address.sun_path, socketPath_.c_str(), sizeof address.sun_path - 1);
        if (bind(listenFd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(listenFd_, 1) != 0)
            throw std::runtime_error("cannot listen on " + socketPath_);
        acceptor_ = std::thread([this] {
            int fd = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0)
                Serve(fd);
        });
    }
    ~FakeOverlayService()
    {
        shutdown(listenFd_, SHUT_RDWR);
        acceptor_.join();
        close(listenFd_);
        host_.reset();
        for (auto& [id, message] : openRequests_)
            g_object_unref(message);
    }

    const std::string& socketPath() const { return socketPath_; }
    bool waitForHost() { return hostReadyFuture_.wait_for(std::chrono::seconds(5)) == std::future_status::ready; }
    // "Method (parameters)" of each request, once `count` have come.
    std::vector<std::string> waitForRequests(size_t count) { return host_->waitForCalls(count); }
    guint32 callHost(const char* method, GVariant* parameters, int fd = -1)
    {
        return host_->send(streamloft::protocol::kCallbacksObjectPath, streamloft::protocol::kCallbacksInterface,
                           method, parameters, fd);
    }
    bool waitForReply(guint32 token, std::chrono::milliseconds timeout = std::chrono::seconds(5))
    {
        return host_->waitForReply(token, timeout).has_value();
    }
    void closeConnection() { host_->close(); }

private:
    void Serve(int fd)
    {
        GSocket* socket = g_socket_new_from_fd(fd, nullptr);
        GSocketConnection* stream = g_socket_connection_factory_create_connection(socket);
        gchar* guid = g_dbus_generate_guid();
        GDBusConnection* connection =
            g_dbus_connection_new_sync(G_IO_STREAM(stream), guid,
                                       GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_SERVER |
                                                            G_DBUS_CONNECTION_FLAGS_DELAY_MESSAGE_PROCESSING),
                                       nullptr, nullptr, nullptr);
        g_free(guid);
        g_object_unref(stream);
        g_object_unref(socket);
        if (!connection)
            return;
        host_ = std::make_unique<DBusPeer>(connection, [this](GDBusMessage* call) { return Answer(call); });
        hostReady_.set_value();
    }

    // On GDBus's thread, one call at a time.
    std::vector<GDBusMessage*> Answer(GDBusMessage* call)
    {
        const std::string method = g_dbus_message_get_member(call);
        GVariant* body = g_dbus_message_get_body(call);
        int id = 0; // never an open browser's
        if (method == streamloft::protocol::kMethodOpenBrowser) {
            const gchar* url = nullptr;
            g_variant_get_child(body, 0, "&s", &url);
            if (!strstr(url, "://"))
                return {g_dbus_message_new_method_error(call, streamloft::protocol::kErrorInvalidURL,
                                                        "URL does not parse")};
            id = nextBrowserID_++;
            openRequests_[id] = G_DBUS_MESSAGE(g_object_ref(call));
            GDBusMessage* started = g_dbus_message_new_method_call(nullptr, streamloft::protocol::kCallbacksObjectPath,
                                                                   streamloft::protocol::kCallbacksInterface,
                                                                   streamloft::protocol::kMethodBrowserDidStart);
            g_dbus_message_set_body(started, g_variant_new("(i)", id));
            return {started};
        }
        std::vector<GDBusMessage*> out;
        if (method == streamloft::protocol::kMethodCloseBrowser)
            g_variant_get(body, "(i)", &id);
        // As the service: the open request's reply goes before the close's own.
        if (auto open = openRequests_.find(id); open != openRequests_.end()) {
            out.push_back(g_dbus_message_new_method_reply(open->second));
            g_dbus_message_set_body(out.back(), g_variant_new("(i)", id));
            g_object_unref(open->second);
            openRequests_.erase(open);
        }
        out.push_back(g_dbus_message_new_method_reply(call));
        return out;
    }

    std::string socketPath_;
    int listenFd_ = -1;
    std::thread acceptor_;
    std::promise<void> hostReady_;
    std::future<void> hostReadyFuture_ = hostReady_.get_future();
    std::unique_ptr<DBusPeer> host_;
    std::map<int, GDBusMessage*> openRequests_; // by browser ID, touched on GDBus's thread only
    int nextBrowserID_ = 7;
};
