#include "service/SLFCefXPCConnection.h"

#include "dbg/NSLog.h"
#include "protocol/OverlayProtocol.h"

#include <pthread.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

namespace {

namespace protocol = streamloft::protocol;

constexpr double kMaximumPixels = protocol::kMaximumEdge;

// The message bus's greeting (org.freedesktop.DBus.Hello at
// /org/freedesktop/DBus). There is no bus, but general D-Bus tools such as
// `gdbus --address` greet every peer as if it were one; answering lets them
// talk to the service directly.
constexpr const char* kBusObjectPath = "/org/freedesktop/DBus";
constexpr const char* kBusInterfaceName = "org.freedesktop.DBus";

GDBusInterfaceInfo* BusGreetingInterfaceInfo()
{
    static GDBusNodeInfo* const node =
        g_dbus_node_info_new_for_xml("<node><interface name='org.freedesktop.DBus'>"
                                     "<method name='Hello'><arg type='s' direction='out'/></method>"
                                     "</interface></node>",
                                     nullptr);
    return g_dbus_node_info_lookup_interface(node, kBusInterfaceName);
}

// The reply owed to one OpenBrowser request. Answered at most once; when it
// is released unanswered (the connection went away), the request is dropped
// without a reply.
//
// It owns the invocation's one reference, the one GDBus hands to the method
// handler: answering consumes it, and so does dropping the request. The
// invocation holds its message and thereby the connection, so a reference
// kept past both would keep the connection's socket open for good.
class SLFCefDeferredReply {
public:
    explicit SLFCefDeferredReply(GDBusMethodInvocation* invocation) : m_invocation(invocation) {}
    ~SLFCefDeferredReply()
    {
        if (GDBusMethodInvocation* invocation = m_invocation.exchange(nullptr))
            g_object_unref(invocation);
    }
    SLFCefDeferredReply(const SLFCefDeferredReply&) = delete;
    SLFCefDeferredReply& operator=(const SLFCefDeferredReply&) = delete;

    void reply(int browserID)
    {
        // return_value consumes the reference.
        if (GDBusMethodInvocation* invocation = m_invocation.exchange(nullptr))
            g_dbus_method_invocation_return_value(invocation, g_variant_new("(i)", browserID));
    }

private:
    std::atomic<GDBusMethodInvocation*> m_invocation;
};

bool IsValidLength(double value, double maximum)
{
    return std::isfinite(value) && value >= 0 && value <= maximum;
}

// Refuses a size the engine cannot render; true when refused.
bool RefuseBadSize(GDBusMethodInvocation* invocation, const char* method, double width, double height)
{
    if (IsValidLength(width, kMaximumPixels) && IsValidLength(height, kMaximumPixels))
        return false;
    NSLog("%s - Refused size %g x %g", method, width, height);
    g_dbus_method_invocation_return_dbus_error(
        invocation, protocol::kErrorInvalidArgument,
        "The size must be finite, not negative and at most 16384 pixels each way");
    return true;
}

std::vector<std::string> StringList(const gchar* const* strings)
{
    std::vector<std::string> list;
    for (const gchar* const* s = strings; s && *s; ++s)
        list.emplace_back(*s);
    return list;
}

} // namespace

std::shared_ptr<SLFCefXPCConnection> SLFCefXPCConnection::Create(GDBusConnection* connection)
{
    return std::shared_ptr<SLFCefXPCConnection>(new SLFCefXPCConnection(connection));
}

SLFCefXPCConnection::SLFCefXPCConnection(GDBusConnection* connection)
    : m_connection(G_DBUS_CONNECTION(g_object_ref(connection))),
      m_context(g_main_context_new()),
      m_loop(g_main_loop_new(m_context, FALSE))
{
}

SLFCefXPCConnection::~SLFCefXPCConnection()
{
    if (m_closedHandlerID)
        g_signal_handler_disconnect(m_connection, m_closedHandlerID);
    if (m_thread.joinable()) {
        if (m_thread.get_id() == std::this_thread::get_id()) {
            // Released on its own thread, which is about to end.
            m_thread.detach();
        } else {
            // Never closed: end it here.
            invalidate();
        }
    }
    g_main_loop_unref(m_loop);
    // Destroys whatever is still attached (requests that arrived after the
    // object was unregistered), releasing their invocations.
    g_main_context_unref(m_context);
    g_object_unref(m_connection);
}

void SLFCefXPCConnection::setExportedObject(std::shared_ptr<SLFCefOverlayXPC> object)
{
    std::lock_guard<std::mutex> guard(m_lock);
    m_exportedObject = std::move(object);
}

std::shared_ptr<SLFCefOverlayXPC> SLFCefXPCConnection::exportedObject() const
{
    std::lock_guard<std::mutex> guard(m_lock);
    return m_exportedObject;
}

SLFCefCallbackProxyRef SLFCefXPCConnection::remoteObjectProxy()
{
    std::lock_guard<std::mutex> guard(m_lock);
    if (!m_remoteObjectProxy)
        m_remoteObjectProxy = SLFCefCallbackProxy::Create(m_connection);
    return m_remoteObjectProxy;
}

void SLFCefXPCConnection::setInterruptionHandler(std::function<void()> handler)
{
    std::lock_guard<std::mutex> guard(m_lock);
    m_interruptionHandler = std::move(handler);
}

void SLFCefXPCConnection::setInvalidationHandler(std::function<void()> handler)
{
    std::lock_guard<std::mutex> guard(m_lock);
    m_invalidationHandler = std::move(handler);
}

void SLFCefXPCConnection::setFinishedHandler(std::function<void()> handler)
{
    std::lock_guard<std::mutex> guard(m_lock);
    m_finishedHandler = std::move(handler);
}

bool SLFCefXPCConnection::resume(GError** error)
{
    static const GDBusInterfaceVTable vtable = {OnMethodCall, nullptr, nullptr, {nullptr}};
    if (m_thread.joinable() || m_registrationID)
        return true;
    // Requests for the object are dispatched in the context that is the
    // thread default while it is registered: the connection's own. Nobody
    // owns that context yet, so this thread may push it for the moment.
    g_main_context_push_thread_default(m_context);
    m_registrationID = g_dbus_connection_register_object(
        m_connection, protocol::kServiceObjectPath, protocol::RequestInterfaceInfo(), &vtable, this, nullptr, error);
    if (m_registrationID)
        m_greetingRegistrationID = g_dbus_connection_register_object(
            m_connection, kBusObjectPath, BusGreetingInterfaceInfo(), &vtable, this, nullptr, nullptr);
    g_main_context_pop_thread_default(m_context);
    if (!m_registrationID)
        return false;
    // The closing is noticed in the context the connection was made in (the
    // listener's); the invalidation itself runs on the connection's thread.
    m_closedHandlerID = g_signal_connect(m_connection, "closed", G_CALLBACK(OnClosed), this);
    m_thread = std::thread([this] { threadMain(); });
    // A connection that closed before the handler was connected.
    if (g_dbus_connection_is_closed(m_connection))
        scheduleInvalidation();
    return true;
}

void SLFCefXPCConnection::invalidate()
{
    close();
    join();
}

void SLFCefXPCConnection::close()
{
    if (!g_dbus_connection_is_closed(m_connection))
        g_dbus_connection_close(m_connection, nullptr, nullptr, nullptr);
    scheduleInvalidation();
}

void SLFCefXPCConnection::join()
{
    if (m_thread.joinable() && m_thread.get_id() != std::this_thread::get_id())
        m_thread.join();
}

void SLFCefXPCConnection::threadMain()
{
    pthread_setname_np(pthread_self(), "SLFCefXPCConn");
    g_main_context_push_thread_default(m_context);
    g_main_loop_run(m_loop);
    // Finish what was queued before the end (requests now refused as the
    // object is gone, and GDBus's own clean-up).
    while (g_main_context_iteration(m_context, FALSE)) {
    }
    g_main_context_pop_thread_default(m_context);
    std::function<void()> finished;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        finished = std::move(m_finishedHandler);
    }
    if (finished)
        finished();
    m_finished = true;
}

void SLFCefXPCConnection::scheduleInvalidation()
{
    if (m_invalidationScheduled.exchange(true) || !m_thread.joinable())
        return;
    GSource* source = g_idle_source_new();
    g_source_set_priority(source, G_PRIORITY_DEFAULT);
    g_source_set_callback(
        source,
        [](gpointer data) -> gboolean {
            static_cast<SLFCefXPCConnection*>(data)->invalidateOnQueue();
            return G_SOURCE_REMOVE;
        },
        this, nullptr);
    g_source_attach(source, m_context);
    g_source_unref(source);
}

void SLFCefXPCConnection::invalidateOnQueue()
{
    std::function<void()> handler;
    SLFCefCallbackProxyRef proxy;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        handler = std::move(m_invalidationHandler);
        m_interruptionHandler = nullptr;
        proxy = m_remoteObjectProxy;
    }
    // Frames and audio buffers the host still held are let go now.
    if (proxy)
        proxy->connectionDidClose();
    if (handler)
        handler();
    if (m_registrationID) {
        g_dbus_connection_unregister_object(m_connection, m_registrationID);
        m_registrationID = 0;
    }
    if (m_greetingRegistrationID) {
        g_dbus_connection_unregister_object(m_connection, m_greetingRegistrationID);
        m_greetingRegistrationID = 0;
    }
    {
        // The handler held the exported object; let both go here, on the
        // connection's thread.
        std::lock_guard<std::mutex> guard(m_lock);
        m_exportedObject.reset();
    }
    handler = nullptr;
    g_main_loop_quit(m_loop);
}

void SLFCefXPCConnection::OnClosed(GDBusConnection*, gboolean, GError*, gpointer data)
{
    static_cast<SLFCefXPCConnection*>(data)->scheduleInvalidation();
}

void SLFCefXPCConnection::OnMethodCall(GDBusConnection*, const gchar*, const gchar*, const gchar* interfaceName,
                                       const gchar* methodName, GVariant* parameters, GDBusMethodInvocation* invocation,
                                       gpointer data)
{
    if (strcmp(interfaceName, kBusInterfaceName) == 0) {
        // A tool's bus greeting: give it a name of the bus's form.
        static std::atomic<unsigned> serial {0};
        gchar* name = g_strdup_printf(":1.%u", ++serial);
        g_dbus_method_invocation_return_value(invocation, g_variant_new("(s)", name));
        g_free(name);
        return;
    }
    static_cast<SLFCefXPCConnection*>(data)->dispatch(methodName, parameters, invocation);
}

// Runs on the connection's thread. The argument types were checked by GDBus
// against the interface (a mismatch is answered with InvalidArgs before this
// is reached); here the contents are checked.
void SLFCefXPCConnection::dispatch(const gchar* methodName, GVariant* parameters, GDBusMethodInvocation* invocation)
{
    std::shared_ptr<SLFCefOverlayXPC> object = exportedObject();
    if (!object) {
        g_dbus_method_invocation_return_dbus_error(invocation, "org.freedesktop.DBus.Error.UnknownObject",
                                                   "The connection is closing");
        return;
    }

    if (strcmp(methodName, protocol::kMethodOpenBrowser) == 0) {
        const gchar* url = nullptr;
        double width = 0, height = 0, framerate = 0;
        gchar** permitted = nullptr;
        g_variant_get(parameters, "(&sddd^as)", &url, &width, &height, &framerate, &permitted);
        std::vector<std::string> permittedList = StringList(permitted);
        g_strfreev(permitted);
        GError* uriError = nullptr;
        if (!g_uri_is_valid(url, G_URI_FLAGS_NONE, &uriError)) {
            NSLog("%s - Refused URL '%s': %s",
                  "-[SLFCefOverlayXPC openBrowserWithURL:size:framerate:permittedFileURLStrings:reply:]", url,
                  uriError->message);
            g_dbus_method_invocation_return_dbus_error(invocation, protocol::kErrorInvalidURL, uriError->message);
            g_error_free(uriError);
            return;
        }
        if (RefuseBadSize(invocation,
                          "-[SLFCefOverlayXPC openBrowserWithURL:size:framerate:permittedFileURLStrings:reply:]", width,
                          height))
            return;
        if (!IsValidLength(framerate, protocol::kMaximumFramerate)) {
            NSLog("%s - Refused frame rate %g",
                  "-[SLFCefOverlayXPC openBrowserWithURL:size:framerate:permittedFileURLStrings:reply:]", framerate);
            g_dbus_method_invocation_return_dbus_error(
                invocation, protocol::kErrorInvalidArgument,
                "The frame rate must be finite, not negative and at most 1000 frames a second");
            return;
        }
        // Answered when this connection closes the browser; dropped unanswered
        // if the connection goes first. Takes over the invocation.
        auto pending = std::make_shared<SLFCefDeferredReply>(invocation);
        object->openBrowserWithURL(url, NSSize {width, height}, framerate, permittedList,
                                   [pending](int browserID) { pending->reply(browserID); });
        return;
    }

    if (strcmp(methodName, protocol::kMethodUpdateBrowserSize) == 0) {
        gint32 browserID = 0;
        double width = 0, height = 0;
        g_variant_get(parameters, "(idd)", &browserID, &width, &height);
        if (RefuseBadSize(invocation, "-[SLFCefOverlayXPC updateBrowser:withSize:]", width, height))
            return;
        object->updateBrowserWithSize(browserID, NSSize {width, height});
    } else if (strcmp(methodName, protocol::kMethodCloseBrowser) == 0) {
        gint32 browserID = 0;
        g_variant_get(parameters, "(i)", &browserID);
        object->closeBrowser(browserID);
    } else if (strcmp(methodName, protocol::kMethodUpdateBrowserSettingsData) == 0) {
        gint32 browserID = 0;
        GVariant* bytes = nullptr;
        g_variant_get(parameters, "(i@ay)", &browserID, &bytes);
        gsize length = 0;
        const auto* data = static_cast<const uint8_t*>(g_variant_get_fixed_array(bytes, &length, 1));
        auto settings = std::make_shared<const std::vector<uint8_t>>(data, data + length);
        g_variant_unref(bytes);
        object->updateBrowserWithSettingsData(browserID, std::move(settings));
    } else if (strcmp(methodName, protocol::kMethodUpdateBrowserPermittedFileURLStrings) == 0) {
        gint32 browserID = 0;
        gchar** strings = nullptr;
        g_variant_get(parameters, "(i^as)", &browserID, &strings);
        std::vector<std::string> list = StringList(strings);
        g_strfreev(strings);
        object->updateBrowserWithPermittedFileURLStrings(browserID, list);
    } else {
        g_dbus_method_invocation_return_dbus_error(invocation, "org.freedesktop.DBus.Error.UnknownMethod",
                                                   "No such method");
        return;
    }
    g_dbus_method_invocation_return_value(invocation, nullptr);
}
