// The overlay protocol's vocabulary, spelled once for both ends: the object
// paths, interfaces, method names and error names of the two D-Bus
// interfaces, the limits a request is checked against, and the keys of a
// frame's surface dictionary. The service, the callback proxy, the host
// library and the tools name the protocol through this header only.
//
// The interfaces themselves (argument types) are in
// com.streamloft.SLFCefOverlayXPC.xml beside this header, built in as
// kIntrospectionXML and parsed once by RequestInterfaceInfo() and
// CallbacksInterfaceInfo(). Header-only; needs GLib/GIO only.
#pragma once

#include <gio/gio.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "protocol/IntrospectionXML.h"

namespace streamloft::protocol {

// The service's interface, exported by the service on every host connection.
inline constexpr char kServiceObjectPath[] = "/com/streamloft/SLFCefOverlayXPC";
inline constexpr char kServiceInterface[] = "com.streamloft.SLFCefOverlayXPCProtocol";
// The callback interface, exported by the host on the same connection.
inline constexpr char kCallbacksObjectPath[] = "/com/streamloft/SLFCefOverlayXPCCallbacks";
inline constexpr char kCallbacksInterface[] = "com.streamloft.SLFCefOverlayXPCCallbacksProtocol";

// Requests (kServiceInterface). OpenBrowser's reply is deferred until the
// same connection closes the browser.
inline constexpr char kMethodOpenBrowser[] = "OpenBrowser";
inline constexpr char kMethodUpdateBrowserSize[] = "UpdateBrowserSize";
inline constexpr char kMethodCloseBrowser[] = "CloseBrowser";
inline constexpr char kMethodUpdateBrowserSettingsData[] = "UpdateBrowserSettingsData";
inline constexpr char kMethodUpdateBrowserPermittedFileURLStrings[] = "UpdateBrowserPermittedFileURLStrings";

// Callbacks (kCallbacksInterface). The empty reply to a frame or an audio
// buffer says that the host has let go of its surface or slot.
inline constexpr char kMethodBrowserDidStart[] = "BrowserDidStart";
inline constexpr char kMethodBrowserReceivedVideoFrame[] = "BrowserReceivedVideoFrame";
inline constexpr char kMethodBrowserWillStartAudioStream[] = "BrowserWillStartAudioStream";
inline constexpr char kMethodBrowserDidReceiveAudioStream[] = "BrowserDidReceiveAudioStream";
inline constexpr char kMethodBrowserWillStopAudioStream[] = "BrowserWillStopAudioStream";
inline constexpr char kMethodRequestSettingsDataForBrowser[] = "RequestSettingsDataForBrowser";

// Errors of requests refused for their content (wrong argument types get
// GDBus's org.freedesktop.DBus.Error.InvalidArgs).
inline constexpr char kErrorInvalidURL[] = "com.streamloft.Error.InvalidURL";
inline constexpr char kErrorInvalidArgument[] = "com.streamloft.Error.InvalidArgument";

// A browser's width and height are at most this many pixels (requests
// beyond it get kErrorInvalidArgument; no surface is larger), its frame rate
// at most this many frames a second.
inline constexpr uint32_t kMaximumEdge = 16384;
inline constexpr double kMaximumFramerate = 1000;

// The surface dictionary (a{sv}) that comes with every
// BrowserReceivedVideoFrame, next to the surface's sealed memfd:
//
//   key                        type  meaning
//   "IOSurfaceWidth"           t     pixels per row, 1...kMaximumEdge
//   "IOSurfaceHeight"          t     rows, 1...kMaximumEdge
//   "IOSurfaceBytesPerRow"     t     bytes from one row to the next (>= width × 4)
//   "IOSurfaceBytesPerElement" t     4
//   "IOSurfacePixelFormat"     u     0x42475241 ('BGRA')
//   "IOSurfaceID"              t     names the surface within the service
//   "IOSurfaceAllocSize"       t     bytes of the memfd (>= bytesPerRow × height)
//
// and, for the frame the surface carries this time (older senders leave
// them out; a reader takes 0 then):
//
//   "SLFFrameSequence"         t     per browser, from 1: every frame the
//                                    service produced for it, sent or dropped
//   "SLFFramePresentationTime" t     when the engine painted the frame,
//                                    microseconds of CLOCK_MONOTONIC
//
// SurfaceDictionary.h reads, checks and builds it.
inline constexpr char kSurfaceWidthKey[] = "IOSurfaceWidth";
inline constexpr char kSurfaceHeightKey[] = "IOSurfaceHeight";
inline constexpr char kSurfaceBytesPerRowKey[] = "IOSurfaceBytesPerRow";
inline constexpr char kSurfaceBytesPerElementKey[] = "IOSurfaceBytesPerElement";
inline constexpr char kSurfacePixelFormatKey[] = "IOSurfacePixelFormat";
inline constexpr char kSurfaceIDKey[] = "IOSurfaceID";
inline constexpr char kSurfaceAllocSizeKey[] = "IOSurfaceAllocSize";
inline constexpr char kFrameSequenceKey[] = "SLFFrameSequence";
inline constexpr char kFramePresentationTimeKey[] = "SLFFramePresentationTime";

namespace detail {

// The parsed XML; kept for the life of the process. The text is part of the
// program, so a failure to parse it is a build fault.
inline GDBusNodeInfo* IntrospectionNode()
{
    static GDBusNodeInfo* const node = [] {
        GError* error = nullptr;
        GDBusNodeInfo* parsed = g_dbus_node_info_new_for_xml(kIntrospectionXML, &error);
        if (!parsed) {
            fprintf(stderr, "streamloft: built-in interface XML does not parse: %s\n", error->message);
            abort();
        }
        return parsed;
    }();
    return node;
}

inline GDBusInterfaceInfo* InterfaceInfo(const char* name)
{
    GDBusInterfaceInfo* info = g_dbus_node_info_lookup_interface(IntrospectionNode(), name);
    if (!info) {
        fprintf(stderr, "streamloft: built-in interface XML lacks %s\n", name);
        abort();
    }
    return info;
}

} // namespace detail

// The interfaces as the XML declares them; owned here, valid for the life
// of the process. Thread safe.
inline GDBusInterfaceInfo* RequestInterfaceInfo()
{
    return detail::InterfaceInfo(kServiceInterface);
}

inline GDBusInterfaceInfo* CallbacksInterfaceInfo()
{
    return detail::InterfaceInfo(kCallbacksInterface);
}

} // namespace streamloft::protocol
