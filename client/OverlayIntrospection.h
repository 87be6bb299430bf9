// The introspection data of the service's two D-Bus interfaces, embedded at
// build time from service/com.streamloft.SLFCefOverlayXPC.xml.
#pragma once

#include <gio/gio.h>

namespace streamloft {

inline constexpr char kOverlayObjectPath[] = "/com/streamloft/SLFCefOverlayXPC";
inline constexpr char kOverlayInterface[] = "com.streamloft.SLFCefOverlayXPCProtocol";
inline constexpr char kOverlayCallbacksObjectPath[] = "/com/streamloft/SLFCefOverlayXPCCallbacks";
inline constexpr char kOverlayCallbacksInterface[] = "com.streamloft.SLFCefOverlayXPCCallbacksProtocol";

extern const char kOverlayIntrospectionXml[];

// The callback interface the host exports; parsed once, never freed.
GDBusInterfaceInfo* OverlayCallbacksInterfaceInfo();

}  // namespace streamloft
