// A peer-to-peer D-Bus end driven by a filter on GDBus's thread (no main
// context needed): calls received are kept as "Method (parameters)" and
// answered by `answer`; each call sent gets, by serial, its first return
// value printed, "" for none, or the error name.
#pragma once

#include <gio/gio.h>
#include <gio/gunixfdlist.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

class DBusPeer {
public:
    // The messages to send for an incoming call (its reply among them).
    using Answer = std::function<std::vector<GDBusMessage*>(GDBusMessage* call)>;

    // Takes `connection`, made with G_DBUS_CONNECTION_FLAGS_DELAY_MESSAGE_PROCESSING.
    DBusPeer(GDBusConnection* connection, Answer answer) : m_connection(connection), m_answer(std::move(answer))
    {
        g_dbus_connection_add_filter(m_connection, Filter, this, nullptr);
        g_dbus_connection_start_message_processing(m_connection);
    }
    ~DBusPeer()
    {
        close(); // no filter call comes after this
        g_object_unref(m_connection);
    }
    DBusPeer(const DBusPeer&) = delete;
    DBusPeer& operator=(const DBusPeer&) = delete;

    GDBusConnection* connection() const { return m_connection; }
    void close() { g_dbus_connection_close_sync(m_connection, nullptr, nullptr); }

    // Sends a call with `fd` (if >= 0; not closed) as its descriptor; its serial.
    guint32 send(const char* path, const char* interface, const char* method, GVariant* parameters, int fd = -1)
    {
        GDBusMessage* message = g_dbus_message_new_method_call(nullptr, path, interface, method);
        g_dbus_message_set_body(message, parameters);
        if (fd >= 0) {
            int copy = dup(fd);
            GUnixFDList* fds = g_unix_fd_list_new_from_array(&copy, 1);
            g_dbus_message_set_unix_fd_list(message, fds);
            g_object_unref(fds);
        }
        guint32 serial = 0;
        g_dbus_connection_send_message(m_connection, message, G_DBUS_SEND_MESSAGE_FLAGS_NONE, &serial, nullptr);
        g_object_unref(message);
        return serial;
    }

    std::optional<std::string> reply(guint32 serial) { return waitForReply(serial, {}); }
    std::optional<std::string> waitForReply(guint32 serial, std::chrono::milliseconds timeout = std::chrono::seconds(5))
    {
        std::unique_lock<std::mutex> guard(m_lock);
        if (!m_changed.wait_for(guard, timeout, [&] { return m_replies.count(serial) > 0; }))
            return std::nullopt;
        return m_replies[serial];
    }
    // The calls received so far, once there are `count` of them or the time is up.
    std::vector<std::string> waitForCalls(size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(5))
    {
        std::unique_lock<std::mutex> guard(m_lock);
        m_changed.wait_for(guard, timeout, [&] { return m_calls.size() >= count; });
        return m_calls;
    }

private:
    static std::string Print(GVariant* value, bool adopt = false)
    {
        gchar* text = g_variant_print(value, FALSE);
        std::string printed = text;
        g_free(text);
        if (adopt)
            g_variant_unref(value);
        return printed;
    }

    static GDBusMessage* Filter(GDBusConnection* connection, GDBusMessage* message, gboolean incoming, gpointer data)
    {
        if (!incoming)
            return message;
        auto* peer = static_cast<DBusPeer*>(data);
        GVariant* body = g_dbus_message_get_body(message);
        std::unique_lock<std::mutex> guard(peer->m_lock);
        peer->m_changed.notify_all();
        std::vector<GDBusMessage*> out;
        if (g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_METHOD_CALL) {
            peer->m_calls.push_back(g_dbus_message_get_member(message) + (" " + (body ? Print(body) : "()")));
            out = peer->m_answer(message);
        } else if (const gchar* error = g_dbus_message_get_error_name(message)) {
            peer->m_replies[g_dbus_message_get_reply_serial(message)] = error;
        } else {
            bool empty = !body || !g_variant_n_children(body);
            peer->m_replies[g_dbus_message_get_reply_serial(message)] =
                empty ? "" : Print(g_variant_get_child_value(body, 0), true);
        }
        guard.unlock();
        for (GDBusMessage* reply : out) {
            g_dbus_connection_send_message(connection, reply, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
            g_object_unref(reply);
        }
        g_object_unref(message);
        return nullptr;
    }

    GDBusConnection* m_connection;
    Answer m_answer;
    std::mutex m_lock; // a leaf
    std::condition_variable m_changed;
    std::vector<std::string> m_calls;
    std::map<guint32, std::string> m_replies;
};
