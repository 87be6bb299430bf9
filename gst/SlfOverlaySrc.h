// slfoverlaysrc: a web page rendered by the overlay service, as a live
// GStreamer source. This private header is shared by the plugin's files:
//
//   SlfOverlaySrc.cpp  the element (a bin): properties, state changes, end of
//                      stream, error messages, the pipeline clock mapping
//   OverlayHost.*      the connection and browser handle, and the host
//                      library's events
//   OverlayVideo.*     the video appsrc: caps, frame copy, timestamps, late
//                      frames, filled gaps, resize on reconfigure
//   OverlayAudio.*     the sometimes pads "audio_%u", one per page audio stream
//   Plugin.cpp         the plugin's registration
//
// The element is a bin. Its always pad "video" comes from an appsrc that
// carries the browser's frames (BGRA, the size and rate negotiated with
// downstream when the element starts); every audio stream the page starts
// adds a sometimes pad "audio_%u" from an appsrc of its own (S16LE,
// interleaved, the stream's rate and channels). The host library's
// callbacks run on its own thread and push into those appsrcs; buffers are
// stamped with the running time of the frame's or block's presentation time
// (CLOCK_MONOTONIC) on the pipeline clock.
#pragma once

#include <gst/gst.h>

#include <string>

#include "streamloft/Error.h"

GST_DEBUG_CATEGORY_EXTERN(slf_overlay_src_debug);
#define GST_CAT_DEFAULT slf_overlay_src_debug

namespace slfgst {
class OverlayHost;
} // namespace slfgst

G_BEGIN_DECLS
#define SLF_TYPE_OVERLAY_SRC (slf_overlay_src_get_type())
G_DECLARE_FINAL_TYPE(SlfOverlaySrc, slf_overlay_src, SLF, OVERLAY_SRC, GstBin)
G_END_DECLS

struct _SlfOverlaySrc {
    GstBin parent;
    GstElement* videoSrc; // appsrc of the video pad, owned by the bin
    GstPad* videoPad;     // the ghost pad "video"
    // Properties, under the object lock.
    gchar* location;
    gchar** permitted;
    GBytes* settingsData;
    gchar* socket;
    // The connection and browser, from READY→PAUSED to PAUSED→READY; the
    // pointer under the object lock, set and deleted by the state change thread.
    slfgst::OverlayHost* host;
};

namespace slfgst {

constexpr int kDefaultWidth = 1280;
constexpr int kDefaultHeight = 720;
constexpr int kDefaultFramerate = 30;
// Frames and audio blocks reach the element some milliseconds after their
// presentation time; downstream sinks are told to allow for that.
constexpr GstClockTime kLatency = 100 * GST_MSECOND;

// The kinds of failure the element reports are the host library's; their
// names ("invalid-url", ...) go in the "slf-error" field of its error
// messages' details.
using OverlayError = streamloft::ErrorKind;

// The pad templates of the element (SlfOverlaySrc.cpp).
extern GstStaticPadTemplate videoTemplate;
extern GstStaticPadTemplate audioTemplate;

// The error messages of the element, with the kind of failure and the
// service's D-Bus error (when there is one) in the details. Any thread.
void PostError(SlfOverlaySrc* self, OverlayError kind, const std::string& text, const std::string& dbusError = {},
               const std::string& detail = {});
// An element message `name` with the field "browser-id". Any thread.
void PostElementMessage(SlfOverlaySrc* self, const char* name, int browserID);

// A live appsrc in time format that takes the timestamps it is given.
GstElement* MakeAppSrc(const char* name);

// Running time of a presentation time in µs of CLOCK_MONOTONIC (0: now), or
// NONE before the element plays or before its base time. Any thread; takes
// the element's object lock for a moment.
GstClockTime RunningTime(SlfOverlaySrc* self, uint64_t monotonicMicros);

} // namespace slfgst
