// The element slfoverlaysrc itself (see SlfOverlaySrc.h for the whole):
// a bin with the always pad "video", its properties, its state changes
// (READY→PAUSED connects and opens the browser, PAUSED→READY closes both),
// end of stream sent by the application, the element's error and element
// messages, and the mapping of presentation times onto the pipeline clock.
//
// Threads: properties on the application's threads (under the object
// lock); Open and Close on the state change thread; end of stream on the
// thread that sends it; the reconfigure probe on a streaming thread. The
// helpers at the top run on any thread.
// Owns: the properties, and the OverlayHost while the element is PAUSED or
// PLAYING (self->host).
#include "gst/SlfOverlaySrc.h"

#include <gst/app/gstappsrc.h>

#include <string>
#include <vector>

#include "gst/OverlayHost.h"

GST_DEBUG_CATEGORY(slf_overlay_src_debug);

G_DEFINE_TYPE(SlfOverlaySrc, slf_overlay_src, GST_TYPE_BIN)

enum { PROP_0, PROP_LOCATION, PROP_PERMITTED, PROP_SETTINGS_DATA, PROP_SOCKET };

namespace slfgst {

GstStaticPadTemplate videoTemplate = GST_STATIC_PAD_TEMPLATE(
    "video", GST_PAD_SRC, GST_PAD_ALWAYS,
    GST_STATIC_CAPS("video/x-raw, format=(string)BGRA, width=(int)[1, 16384], height=(int)[1, 16384], "
                    "framerate=(fraction)[1/1, 240/1]"));
GstStaticPadTemplate audioTemplate = GST_STATIC_PAD_TEMPLATE(
    "audio_%u", GST_PAD_SRC, GST_PAD_SOMETIMES,
    GST_STATIC_CAPS("audio/x-raw, format=(string)S16LE, layout=(string)interleaved, rate=(int)[1, MAX], "
                    "channels=(int)[1, MAX]"));

void PostError(SlfOverlaySrc* self, OverlayError kind, const std::string& text, const std::string& dbusError,
               const std::string& detail)
{
    GQuark domain = GST_RESOURCE_ERROR;
    gint code = GST_RESOURCE_ERROR_FAILED;
    switch (kind) {
    case OverlayError::InvalidURL:
        code = GST_RESOURCE_ERROR_NOT_FOUND;
        break;
    case OverlayError::InvalidArgument:
        code = GST_RESOURCE_ERROR_SETTINGS;
        break;
    case OverlayError::ServiceUnreachable:
        code = GST_RESOURCE_ERROR_OPEN_READ_WRITE;
        break;
    case OverlayError::ConnectionClosed:
        code = GST_RESOURCE_ERROR_READ;
        break;
    case OverlayError::EngineFailed:
        code = GST_RESOURCE_ERROR_FAILED;
        break;
    }
    gchar* message = g_strdup(text.c_str());
    const std::string& debugText = detail.empty() ? dbusError : detail;
    gchar* debug = debugText.empty() ? nullptr : g_strdup(debugText.c_str());
    GstStructure* details = gst_structure_new("details", "slf-error", G_TYPE_STRING, streamloft::ErrorKindName(kind),
                                              "dbus-error", G_TYPE_STRING, dbusError.c_str(), nullptr);
    gst_element_message_full_with_details(GST_ELEMENT(self), GST_MESSAGE_ERROR, domain, code, message, debug, __FILE__,
                                          GST_FUNCTION, __LINE__, details);
}

void PostElementMessage(SlfOverlaySrc* self, const char* name, int browserID)
{
    gst_element_post_message(GST_ELEMENT(self),
                             gst_message_new_element(GST_OBJECT(self), gst_structure_new(name, "browser-id", G_TYPE_INT,
                                                                                         browserID, nullptr)));
}

GstElement* MakeAppSrc(const char* name)
{
    GstElement* src = gst_element_factory_make("appsrc", name);
    g_object_set(src, "is-live", TRUE, "format", GST_FORMAT_TIME, "do-timestamp", FALSE, "min-latency",
                 gint64(kLatency), "max-latency", gint64(kLatency), nullptr);
    return src;
}

GstClockTime RunningTime(SlfOverlaySrc* self, uint64_t monotonicMicros)
{
    if (GST_STATE(self) != GST_STATE_PLAYING)
        return GST_CLOCK_TIME_NONE;
    GstClock* clock = gst_element_get_clock(GST_ELEMENT(self));
    if (!clock)
        return GST_CLOCK_TIME_NONE;
    GstClockTime base = gst_element_get_base_time(GST_ELEMENT(self));
    gint64 nowMono = g_get_monotonic_time();
    gint64 when = monotonicMicros ? gint64(monotonicMicros) : nowMono;
    gint64 clockTime;
    GstClockType type = GST_CLOCK_TYPE_REALTIME;
    if (GST_IS_SYSTEM_CLOCK(clock))
        g_object_get(clock, "clock-type", &type, nullptr);
    if (type == GST_CLOCK_TYPE_MONOTONIC) {
        clockTime = when * 1000;
    } else {
        // Another clock: mapped through the offset between it and
        // CLOCK_MONOTONIC now.
        clockTime = gint64(gst_clock_get_time(clock)) + (when - nowMono) * 1000;
    }
    gst_object_unref(clock);
    if (clockTime < gint64(base))
        return GST_CLOCK_TIME_NONE;
    return GstClockTime(clockTime) - base;
}

} // namespace slfgst

using namespace slfgst;

namespace {

// A file URL's folder ("file:///a/b/page.html" → "file:///a/b/"), the
// permitted prefix the element uses when none is given.
std::vector<std::string> DefaultPermitted(const std::string& location)
{
    if (location.rfind("file://", 0) != 0)
        return {};
    auto slash = location.rfind('/');
    return {location.substr(0, slash + 1)};
}

GstPadProbeReturn OnUpstreamEvent(GstPad*, GstPadProbeInfo* info, gpointer data)
{
    auto* self = SLF_OVERLAY_SRC(data);
    if (GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) == GST_EVENT_RECONFIGURE) {
        GST_OBJECT_LOCK(self);
        if (self->host)
            self->host->RequestRenegotiation();
        GST_OBJECT_UNLOCK(self);
    }
    return GST_PAD_PROBE_OK;
}

} // namespace

static gboolean Open(SlfOverlaySrc* self)
{
    GST_OBJECT_LOCK(self);
    std::string location = self->location ? self->location : "";
    std::string socket = self->socket ? self->socket : "";
    std::vector<std::string> permitted;
    if (self->permitted)
        for (gchar** p = self->permitted; *p; ++p)
            permitted.emplace_back(*p);
    else
        permitted = DefaultPermitted(location);
    GST_OBJECT_UNLOCK(self);
    if (location.empty()) {
        PostError(self, OverlayError::InvalidURL, "No location given");
        return FALSE;
    }
    VideoShape shape = NegotiateShape(self->videoPad, VideoShape {});
    GstCaps* caps = VideoCaps(shape);
    gst_app_src_set_caps(GST_APP_SRC(self->videoSrc), caps);
    gst_caps_unref(caps);
    auto* host = new OverlayHost(self);
    GST_OBJECT_LOCK(self);
    self->host = host;
    GST_OBJECT_UNLOCK(self);
    return host->Start(location, permitted, socket, shape);
}

static void Close(SlfOverlaySrc* self)
{
    GST_OBJECT_LOCK(self);
    OverlayHost* host = self->host;
    GST_OBJECT_UNLOCK(self);
    if (!host)
        return;
    host->Stop();
    host->RemoveAudioPads();
    GST_OBJECT_LOCK(self);
    self->host = nullptr;
    GST_OBJECT_UNLOCK(self);
    delete host;
}

static GstStateChangeReturn slf_overlay_src_change_state(GstElement* element, GstStateChange transition)
{
    auto* self = SLF_OVERLAY_SRC(element);
    GstStateChangeReturn result = GST_ELEMENT_CLASS(slf_overlay_src_parent_class)->change_state(element, transition);
    if (result == GST_STATE_CHANGE_FAILURE)
        return result;
    switch (transition) {
    case GST_STATE_CHANGE_READY_TO_PAUSED:
        if (!Open(self)) {
            Close(self);
            return GST_STATE_CHANGE_FAILURE;
        }
        // A live source produces nothing in PAUSED.
        result = GST_STATE_CHANGE_NO_PREROLL;
        break;
    case GST_STATE_CHANGE_PAUSED_TO_READY:
        Close(self);
        break;
    default:
        break;
    }
    return result;
}

static gboolean slf_overlay_src_send_event(GstElement* element, GstEvent* event)
{
    auto* self = SLF_OVERLAY_SRC(element);
    if (GST_EVENT_TYPE(event) == GST_EVENT_EOS) {
        GST_OBJECT_LOCK(self);
        OverlayHost* host = self->host;
        GST_OBJECT_UNLOCK(self);
        // The state change thread is the only one that deletes the host, and it
        // does not run while an application sends end of stream.
        if (host)
            host->CloseForEndOfStream();
    }
    return GST_ELEMENT_CLASS(slf_overlay_src_parent_class)->send_event(element, event);
}

static void slf_overlay_src_set_property(GObject* object, guint id, const GValue* value, GParamSpec* pspec)
{
    auto* self = SLF_OVERLAY_SRC(object);
    GST_OBJECT_LOCK(self);
    switch (id) {
    case PROP_LOCATION:
        g_free(self->location);
        self->location = g_value_dup_string(value);
        break;
    case PROP_PERMITTED: {
        g_strfreev(self->permitted);
        guint count = gst_value_array_get_size(value);
        self->permitted = g_new0(gchar*, count + 1);
        for (guint i = 0; i < count; ++i)
            self->permitted[i] = g_value_dup_string(gst_value_array_get_value(value, i));
        break;
    }
    case PROP_SETTINGS_DATA:
        if (self->settingsData)
            g_bytes_unref(self->settingsData);
        self->settingsData = static_cast<GBytes*>(g_value_dup_boxed(value));
        break;
    case PROP_SOCKET:
        g_free(self->socket);
        self->socket = g_value_dup_string(value);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
    }
    GST_OBJECT_UNLOCK(self);
}

static void slf_overlay_src_get_property(GObject* object, guint id, GValue* value, GParamSpec* pspec)
{
    auto* self = SLF_OVERLAY_SRC(object);
    GST_OBJECT_LOCK(self);
    switch (id) {
    case PROP_LOCATION:
        g_value_set_string(value, self->location);
        break;
    case PROP_PERMITTED:
        for (gchar** p = self->permitted; p && *p; ++p) {
            GValue item = G_VALUE_INIT;
            g_value_init(&item, G_TYPE_STRING);
            g_value_set_string(&item, *p);
            gst_value_array_append_and_take_value(value, &item);
        }
        break;
    case PROP_SETTINGS_DATA:
        g_value_set_boxed(value, self->settingsData);
        break;
    case PROP_SOCKET:
        g_value_set_string(value, self->socket);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
    }
    GST_OBJECT_UNLOCK(self);
}

static void slf_overlay_src_finalize(GObject* object)
{
    auto* self = SLF_OVERLAY_SRC(object);
    g_free(self->location);
    g_strfreev(self->permitted);
    if (self->settingsData)
        g_bytes_unref(self->settingsData);
    g_free(self->socket);
    G_OBJECT_CLASS(slf_overlay_src_parent_class)->finalize(object);
}

static void slf_overlay_src_init(SlfOverlaySrc* self)
{
    self->videoSrc = MakeAppSrc("video_src");
    // A frame that cannot be taken at once replaces the oldest waiting one.
    g_object_set(self->videoSrc, "max-buffers", guint64(2), "leaky-type", 2 /* downstream */, nullptr);
    gst_bin_add(GST_BIN(self), self->videoSrc);
    GstPad* target = gst_element_get_static_pad(self->videoSrc, "src");
    gst_pad_add_probe(target, GST_PAD_PROBE_TYPE_EVENT_UPSTREAM, OnUpstreamEvent, self, nullptr);
    GstPadTemplate* templ = gst_static_pad_template_get(&videoTemplate);
    self->videoPad = gst_ghost_pad_new_from_template("video", target, templ);
    gst_object_unref(templ);
    gst_object_unref(target);
    gst_element_add_pad(GST_ELEMENT(self), self->videoPad);
    GST_OBJECT_FLAG_SET(self, GST_ELEMENT_FLAG_SOURCE);
}

static void slf_overlay_src_class_init(SlfOverlaySrcClass* klass)
{
    GObjectClass* object = G_OBJECT_CLASS(klass);
    GstElementClass* element = GST_ELEMENT_CLASS(klass);
    object->set_property = slf_overlay_src_set_property;
    object->get_property = slf_overlay_src_get_property;
    object->finalize = slf_overlay_src_finalize;
    const auto flags = GParamFlags(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY);
    g_object_class_install_property(
        object, PROP_LOCATION,
        g_param_spec_string("location", "Location", "URL of the page to render", nullptr, flags));
    g_object_class_install_property(
        object, PROP_PERMITTED,
        gst_param_spec_array("permitted", "Permitted files",
                             "File URL prefixes the page may load, as <\"file:///a/\",\"file:///b/\"> "
                             "(default for a file URL: its folder)",
                             g_param_spec_string("prefix", "Prefix", "A permitted file URL prefix", nullptr,
                                                 GParamFlags(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS)),
                             flags));
    g_object_class_install_property(
        object, PROP_SETTINGS_DATA,
        g_param_spec_boxed("settings-data", "Settings data", "Bytes answered to the page's settings requests",
                           G_TYPE_BYTES, GParamFlags((flags & ~GST_PARAM_MUTABLE_READY) | GST_PARAM_MUTABLE_PLAYING)));
    g_object_class_install_property(
        object, PROP_SOCKET,
        g_param_spec_string("socket", "Socket",
                            "Socket of the overlay service (default: $XDG_RUNTIME_DIR/streamloft/overlay-helper.sock); "
                            "the service is started there when nothing answers",
                            nullptr, flags));
    gst_element_class_add_static_pad_template(element, &videoTemplate);
    gst_element_class_add_static_pad_template(element, &audioTemplate);
    gst_element_class_set_static_metadata(
        element, "Streamloft overlay source", "Source/Video/Audio",
        "Renders a web page through the Streamloft overlay service: BGRA video and the page's audio streams",
        "Streamloft");
    element->change_state = slf_overlay_src_change_state;
    element->send_event = slf_overlay_src_send_event;
    GST_DEBUG_CATEGORY_INIT(slf_overlay_src_debug, "slfoverlaysrc", 0, "Streamloft overlay source");
}
