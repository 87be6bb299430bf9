#include "service/SLFCefOverlayInterface.h"

#include "service/SLFCefOverlayInterfaceXML.h"

#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace SLFCefOverlayInterface {

namespace {

GDBusNodeInfo* Node()
{
    static std::once_flag once;
    static GDBusNodeInfo* node = nullptr;
    std::call_once(once, [] {
        GError* error = nullptr;
        node = g_dbus_node_info_new_for_xml(kSLFCefOverlayInterfaceXML, &error);
        if (!node) {
            // The text is part of the executable; a parse failure is a build fault.
            fprintf(stderr, "StreamloftCEFOverlayHelper: bad built-in interface XML: %s\n", error->message);
            abort();
        }
    });
    return node;
}

GDBusNodeInfo* BusNode()
{
    static std::once_flag once;
    static GDBusNodeInfo* node = nullptr;
    std::call_once(once, [] {
        node = g_dbus_node_info_new_for_xml("<node><interface name='org.freedesktop.DBus'>"
                                            "<method name='Hello'><arg type='s' direction='out'/></method>"
                                            "</interface></node>",
                                            nullptr);
    });
    return node;
}

} // namespace

GDBusInterfaceInfo* BusGreetingInterfaceInfo()
{
    return g_dbus_node_info_lookup_interface(BusNode(), kBusInterfaceName);
}

const char* IntrospectionXML()
{
    return kSLFCefOverlayInterfaceXML;
}

GDBusInterfaceInfo* RequestInterfaceInfo()
{
    return g_dbus_node_info_lookup_interface(Node(), kInterfaceName);
}

GDBusInterfaceInfo* CallbacksInterfaceInfo()
{
    return g_dbus_node_info_lookup_interface(Node(), kCallbacksInterfaceName);
}

} // namespace SLFCefOverlayInterface
