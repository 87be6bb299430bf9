// The two D-Bus interfaces of the service, parsed once from the introspection
// XML built into the executable (com.streamloft.SLFCefOverlayXPC.xml).
#pragma once

#include <gio/gio.h>

namespace SLFCefOverlayInterface {

constexpr const char* kObjectPath = "/com/streamloft/SLFCefOverlayXPC";
constexpr const char* kInterfaceName = "com.streamloft.SLFCefOverlayXPCProtocol";
constexpr const char* kCallbacksInterfaceName = "com.streamloft.SLFCefOverlayXPCCallbacksProtocol";

// Error names of requests refused for their content.
constexpr const char* kErrorInvalidURL = "com.streamloft.Error.InvalidURL";
constexpr const char* kErrorInvalidArgument = "com.streamloft.Error.InvalidArgument";

// The XML text, as installed in share/dbus-1/interfaces.
const char* IntrospectionXML();
// Owned by this module; valid for the life of the process.
GDBusInterfaceInfo* RequestInterfaceInfo();
GDBusInterfaceInfo* CallbacksInterfaceInfo();

// The message bus's greeting (org.freedesktop.DBus.Hello at
// /org/freedesktop/DBus). There is no bus, but general D-Bus tools such as
// `gdbus --address` greet every peer as if it were one; answering lets them
// talk to the service directly.
constexpr const char* kBusObjectPath = "/org/freedesktop/DBus";
constexpr const char* kBusInterfaceName = "org.freedesktop.DBus";
GDBusInterfaceInfo* BusGreetingInterfaceInfo();

} // namespace SLFCefOverlayInterface
