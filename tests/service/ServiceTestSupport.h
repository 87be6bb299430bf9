// In-process service on a real socket in a temporary folder, and plain GDBus
// hosts that talk to it.
#pragma once

#include "service/SLFCefServiceDelegate.h"
#include "service/SLFCefServiceSocket.h"
#include "service/SLFCefXPCListener.h"
#include "tests/windows/TestMainLoop.h"

#include <gio/gio.h>
#include <glib/gstdio.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

// Waits (bounded) until `condition` holds; true when it did.
template <typename Condition>
bool WaitFor(Condition condition, std::chrono::milliseconds limit = std::chrono::seconds(10))
{
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

class TemporaryFolder {
public:
    TemporaryFolder()
    {
        gchar* path = g_dir_make_tmp("slf-service-XXXXXX", nullptr);
        m_path = path;
        g_free(path);
    }
    ~TemporaryFolder()
    {
        GDir* dir = g_dir_open(m_path.c_str(), 0, nullptr);
        if (dir) {
            while (const gchar* name = g_dir_read_name(dir))
                g_unlink((m_path + "/" + name).c_str());
            g_dir_close(dir);
        }
        g_rmdir(m_path.c_str());
    }
    const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

// The service's listener and delegate on the test's main loop thread.
class InProcessService {
public:
    explicit InProcessService(TestMainLoop& main)
        : m_main(main)
    {
        m_socketPath = m_folder.path() + "/overlay-helper.sock";
        std::string error;
        if (SLFCefOpenServiceSocket(m_socketPath, m_socket, error) != SLFCefServiceSocketResult::Ready)
            throw std::runtime_error(error);
        m_main.run([this] {
            int fd = m_socket.listenFd;
            m_socket.listenFd = -1;
            m_listener = SLFCefXPCListener::CreateWithListeningSocket(fd, nullptr);
            m_listener->setDelegate(&m_delegate);
            m_listener->start();
        });
    }
    ~InProcessService()
    {
        m_main.run([this] {
            m_listener->stop();
            m_listener.reset();
        });
        SLFCefReleaseServiceSocket(m_socket);
    }

    std::string address() const { return "unix:path=" + m_socketPath; }
    const std::string& socketPath() const { return m_socketPath; }
    size_t numberOfConnections()
    {
        size_t count = 0;
        m_main.run([&] { count = m_listener->numberOfConnections(); });
        return count;
    }

private:
    TestMainLoop& m_main;
    TemporaryFolder m_folder;
    std::string m_socketPath;
    SLFCefServiceSocket m_socket;
    SLFCefServiceDelegate m_delegate;
    std::shared_ptr<SLFCefXPCListener> m_listener;
};

// A host: a peer connection with the callbacks object exported. Callbacks
// are recorded; replies of awaited callbacks are sent at once.
class TestHost {
public:
    struct Callback {
        std::string member;
        GVariant* parameters; // owned
    };

    struct PendingReply {
        std::mutex lock;
        bool done = false;
        std::optional<int> browserID;
        std::string errorName;
    };

    explicit TestHost(const std::string& address)
        : m_context(g_main_context_new())
        , m_loop(g_main_loop_new(m_context, FALSE))
    {
        GError* error = nullptr;
        m_connection = g_dbus_connection_new_for_address_sync(
            address.c_str(), G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT, nullptr, nullptr, &error);
        if (!m_connection)
            throw std::runtime_error(error->message);
        static const GDBusInterfaceVTable vtable = {OnCallback, nullptr, nullptr, {nullptr}};
        g_main_context_push_thread_default(m_context);
        g_dbus_connection_register_object(m_connection, "/com/streamloft/SLFCefOverlayXPCCallbacks",
                                          CallbacksInterface(), &vtable, this, nullptr, nullptr);
        g_main_context_pop_thread_default(m_context);
        m_thread = std::thread([this] {
            g_main_context_push_thread_default(m_context);
            g_main_loop_run(m_loop);
            while (g_main_context_iteration(m_context, FALSE)) {
            }
            g_main_context_pop_thread_default(m_context);
        });
    }
    ~TestHost()
    {
        disconnect();
        GSource* quit = g_idle_source_new();
        g_source_set_callback(
            quit, [](gpointer loop) -> gboolean { g_main_loop_quit(static_cast<GMainLoop*>(loop)); return FALSE; },
            m_loop, nullptr);
        g_source_attach(quit, m_context);
        g_source_unref(quit);
        m_thread.join();
        g_object_unref(m_connection);
        g_main_loop_unref(m_loop);
        g_main_context_unref(m_context);
        for (auto& callback : m_callbacks)
            g_variant_unref(callback.parameters);
    }

    GDBusConnection* connection() const { return m_connection; }

    void disconnect()
    {
        if (!g_dbus_connection_is_closed(m_connection))
            g_dbus_connection_close_sync(m_connection, nullptr, nullptr);
    }

    // A request whose reply comes at once. Returns the D-Bus error name, or
    // "" on success.
    std::string call(const char* method, GVariant* parameters)
    {
        GError* error = nullptr;
        GVariant* reply = g_dbus_connection_call_sync(m_connection, nullptr, "/com/streamloft/SLFCefOverlayXPC",
                                                      "com.streamloft.SLFCefOverlayXPCProtocol", method, parameters,
                                                      nullptr, G_DBUS_CALL_FLAGS_NONE, 10000, nullptr, &error);
        if (reply) {
            g_variant_unref(reply);
            return "";
        }
        std::string name = ErrorName(error);
        g_error_free(error);
        return name;
    }

    // OpenBrowser, whose reply is deferred until the browser is closed.
    std::shared_ptr<PendingReply> openBrowser(const char* url, double width, double height, double framerate,
                                              std::vector<std::string> permitted = {})
    {
        GVariantBuilder strings;
        g_variant_builder_init(&strings, G_VARIANT_TYPE("as"));
        for (const auto& s : permitted)
            g_variant_builder_add(&strings, "s", s.c_str());
        auto pending = std::make_shared<PendingReply>();
        struct Context {
            std::shared_ptr<PendingReply> pending;
        };
        g_dbus_connection_call(
            m_connection, nullptr, "/com/streamloft/SLFCefOverlayXPC", "com.streamloft.SLFCefOverlayXPCProtocol",
            "OpenBrowser", g_variant_new("(sddd@as)", url, width, height, framerate, g_variant_builder_end(&strings)),
            G_VARIANT_TYPE("(i)"), G_DBUS_CALL_FLAGS_NONE, G_MAXINT, nullptr,
            [](GObject* source, GAsyncResult* result, gpointer data) {
                auto* context = static_cast<Context*>(data);
                std::shared_ptr<PendingReply> pending = std::move(context->pending);
                delete context;
                GError* error = nullptr;
                GVariant* reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
                std::lock_guard<std::mutex> guard(pending->lock);
                if (reply) {
                    int id = 0;
                    g_variant_get(reply, "(i)", &id);
                    pending->browserID = id;
                    g_variant_unref(reply);
                } else {
                    pending->errorName = ErrorName(error);
                    g_error_free(error);
                }
                pending->done = true;
            },
            new Context{pending});
        return pending;
    }

    static bool IsDone(const std::shared_ptr<PendingReply>& pending)
    {
        std::lock_guard<std::mutex> guard(pending->lock);
        return pending->done;
    }

    // The IDs of every BrowserDidStart so far.
    std::vector<int> didStartIDs()
    {
        std::vector<int> ids;
        std::lock_guard<std::mutex> guard(m_lock);
        for (const auto& callback : m_callbacks) {
            if (callback.member == "BrowserDidStart") {
                int id = 0;
                g_variant_get(callback.parameters, "(i)", &id);
                ids.push_back(id);
            }
        }
        return ids;
    }

    size_t numberOfCallbacks()
    {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_callbacks.size();
    }

    static std::string ErrorName(GError* error)
    {
        gchar* remote = g_dbus_error_get_remote_error(error);
        std::string name = remote ? remote : std::string("local:") + error->message;
        g_free(remote);
        return name;
    }

private:
    static GDBusInterfaceInfo* CallbacksInterface()
    {
        static GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(
            "<node><interface name='com.streamloft.SLFCefOverlayXPCCallbacksProtocol'>"
            "<method name='BrowserDidStart'><arg type='i' direction='in'/></method>"
            "<method name='RequestSettingsDataForBrowser'><arg type='i' direction='in'/></method>"
            "<method name='BrowserWillStopAudioStream'><arg type='i' direction='in'/><arg type='i' direction='in'/></method>"
            "</interface></node>",
            nullptr);
        return node->interfaces[0];
    }

    static void OnCallback(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* method,
                           GVariant* parameters, GDBusMethodInvocation* invocation, gpointer data)
    {
        auto* host = static_cast<TestHost*>(data);
        {
            std::lock_guard<std::mutex> guard(host->m_lock);
            host->m_callbacks.push_back({method, g_variant_ref(parameters)});
        }
        g_dbus_method_invocation_return_value(invocation, nullptr);
    }

    GMainContext* m_context;
    GMainLoop* m_loop;
    GDBusConnection* m_connection = nullptr;
    std::thread m_thread;
    std::mutex m_lock;
    std::vector<Callback> m_callbacks;
};
