// slfoverlaysrc: a web page rendered by the overlay service, as a live
// GStreamer source.
//
// The element is a bin. Its always pad "video" comes from an appsrc that
// carries the browser's frames (BGRA, the size and rate negotiated with
// downstream when the element starts); every audio stream the page starts
// adds a sometimes pad "audio_%u" from an appsrc of its own (S16LE,
// interleaved, the stream's rate and channels). The host library's
// callbacks run on its own thread and push into those appsrcs; buffers are
// stamped with the running time of the frame's or block's presentation time
// (CLOCK_MONOTONIC) on the pipeline clock.
#include <gst/app/gstappsrc.h>
#include <gst/audio/audio.h>
#include <gst/gst.h>
#include <gst/video/video.h>

#include <atomic>
#include <cstring>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "protocol/OverlayProtocol.h"
#include "streamloft/OverlayClient.h"

GST_DEBUG_CATEGORY_STATIC(slf_overlay_src_debug);
#define GST_CAT_DEFAULT slf_overlay_src_debug

namespace {

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

class OverlayHost;

}  // namespace

G_BEGIN_DECLS
#define SLF_TYPE_OVERLAY_SRC (slf_overlay_src_get_type())
G_DECLARE_FINAL_TYPE(SlfOverlaySrc, slf_overlay_src, SLF, OVERLAY_SRC, GstBin)
G_END_DECLS

struct _SlfOverlaySrc {
  GstBin parent;
  GstElement* videoSrc;  // appsrc of the video pad, owned by the bin
  GstPad* videoPad;      // the ghost pad "video"
  // Properties, under the object lock.
  gchar* location;
  gchar** permitted;
  GBytes* settingsData;
  gchar* socket;
  // The connection and browser, from READY→PAUSED to PAUSED→READY.
  OverlayHost* host;
};

G_DEFINE_TYPE(SlfOverlaySrc, slf_overlay_src, GST_TYPE_BIN)

enum { PROP_0, PROP_LOCATION, PROP_PERMITTED, PROP_SETTINGS_DATA, PROP_SOCKET };

static GstStaticPadTemplate video_template = GST_STATIC_PAD_TEMPLATE(
    "video", GST_PAD_SRC, GST_PAD_ALWAYS,
    GST_STATIC_CAPS("video/x-raw, format=(string)BGRA, width=(int)[1, 16384], height=(int)[1, 16384], "
                    "framerate=(fraction)[1/1, 240/1]"));
static GstStaticPadTemplate audio_template = GST_STATIC_PAD_TEMPLATE(
    "audio_%u", GST_PAD_SRC, GST_PAD_SOMETIMES,
    GST_STATIC_CAPS("audio/x-raw, format=(string)S16LE, layout=(string)interleaved, rate=(int)[1, MAX], "
                    "channels=(int)[1, MAX]"));

namespace {

// The error messages of the element, with the kind of failure and the
// service's D-Bus error (when there is one) in the details.
void PostError(SlfOverlaySrc* self, OverlayError kind, const std::string& text, const std::string& dbusError = {},
               const std::string& detail = {}) {
  GQuark domain = GST_RESOURCE_ERROR;
  gint code = GST_RESOURCE_ERROR_FAILED;
  switch (kind) {
    case OverlayError::InvalidURL: code = GST_RESOURCE_ERROR_NOT_FOUND; break;
    case OverlayError::InvalidArgument: code = GST_RESOURCE_ERROR_SETTINGS; break;
    case OverlayError::ServiceUnreachable: code = GST_RESOURCE_ERROR_OPEN_READ_WRITE; break;
    case OverlayError::ConnectionClosed: code = GST_RESOURCE_ERROR_READ; break;
    case OverlayError::EngineFailed: code = GST_RESOURCE_ERROR_FAILED; break;
  }
  gchar* message = g_strdup(text.c_str());
  const std::string& debugText = detail.empty() ? dbusError : detail;
  gchar* debug = debugText.empty() ? nullptr : g_strdup(debugText.c_str());
  GstStructure* details = gst_structure_new("details", "slf-error", G_TYPE_STRING, streamloft::ErrorKindName(kind), "dbus-error",
                                            G_TYPE_STRING, dbusError.c_str(), nullptr);
  gst_element_message_full_with_details(GST_ELEMENT(self), GST_MESSAGE_ERROR, domain, code, message, debug,
                                        __FILE__, GST_FUNCTION, __LINE__, details);
}

void PostElementMessage(SlfOverlaySrc* self, const char* name, int browserID) {
  gst_element_post_message(GST_ELEMENT(self),
                           gst_message_new_element(GST_OBJECT(self), gst_structure_new(name, "browser-id", G_TYPE_INT,
                                                                                       browserID, nullptr)));
}

// Downstream's preference among the sizes and rates the video pad offers,
// nearest to the given ones.
struct VideoShape {
  int width = kDefaultWidth, height = kDefaultHeight, fpsN = kDefaultFramerate, fpsD = 1;
  bool operator==(const VideoShape&) const = default;
};

VideoShape NegotiateShape(GstPad* pad, const VideoShape& preferred) {
  GstCaps* templ = gst_static_pad_template_get_caps(&video_template);
  GstCaps* caps = gst_pad_is_linked(pad) ? gst_pad_peer_query_caps(pad, templ) : gst_caps_ref(templ);
  gst_caps_unref(templ);
  VideoShape shape = preferred;
  if (gst_caps_is_empty(caps)) {
    gst_caps_unref(caps);
    return shape;
  }
  caps = gst_caps_truncate(caps);
  caps = gst_caps_make_writable(caps);
  GstStructure* s = gst_caps_get_structure(caps, 0);
  gst_structure_fixate_field_nearest_int(s, "width", preferred.width);
  gst_structure_fixate_field_nearest_int(s, "height", preferred.height);
  gst_structure_fixate_field_nearest_fraction(s, "framerate", preferred.fpsN, preferred.fpsD);
  caps = gst_caps_fixate(caps);
  s = gst_caps_get_structure(caps, 0);
  gst_structure_get_int(s, "width", &shape.width);
  gst_structure_get_int(s, "height", &shape.height);
  gst_structure_get_fraction(s, "framerate", &shape.fpsN, &shape.fpsD);
  gst_caps_unref(caps);
  return shape;
}

GstCaps* VideoCaps(const VideoShape& shape) {
  return gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING, "BGRA", "width", G_TYPE_INT, shape.width,
                             "height", G_TYPE_INT, shape.height, "framerate", GST_TYPE_FRACTION, shape.fpsN,
                             shape.fpsD, nullptr);
}

GstElement* MakeAppSrc(const char* name) {
  GstElement* src = gst_element_factory_make("appsrc", name);
  g_object_set(src, "is-live", TRUE, "format", GST_FORMAT_TIME, "do-timestamp", FALSE, "min-latency",
               gint64(kLatency), "max-latency", gint64(kLatency), nullptr);
  return src;
}

// One audio stream of the page: its appsrc inside the bin and the ghost pad
// "audio_N" that shows it.
struct AudioStream {
  GstElement* src = nullptr;
  GstPad* pad = nullptr;
  int64_t rate = 0, channels = 0;
  GstClockTime lastEnd = GST_CLOCK_TIME_NONE;
};

// The host side of one element's browser: the connection, the browser
// handle, and the events that turn frames and audio into buffers.
class OverlayHost : public streamloft::BrowserEvents {
 public:
  explicit OverlayHost(SlfOverlaySrc* element) : self_(element) {}

  // Connects and asks for the browser; false after posting an error.
  bool Start(const std::string& location, const std::vector<std::string>& permitted, const std::string& socket,
             const VideoShape& shape) {
    shape_ = shape;
    streamloft::ConnectOptions options;
    options.socketPath = socket;
    // A service started on demand gets time to come up on a busy machine.
    options.startTimeout = std::chrono::seconds(20);
    options.diagnostics = [this](const std::string& message) { GST_WARNING_OBJECT(self_, "%s", message.c_str()); };
    streamloft::Error error;
    auto client = streamloft::OverlayClient::Connect(options, &error);
    if (!client) {
      PostError(self_, error.kind, "Cannot reach the overlay service", error.name, error.message);
      return false;
    }
    GST_INFO_OBJECT(self_, "opening %s at %dx%d, %d/%d fps", location.c_str(), shape.width, shape.height,
                    shape.fpsN, shape.fpsD);
    // The element outlives the client (Stop ends it), so the events need no owner.
    auto browser = client->OpenBrowser(
        {location, double(shape.width), double(shape.height), double(shape.fpsN) / shape.fpsD, permitted},
        std::shared_ptr<streamloft::BrowserEvents>(std::shared_ptr<void>(), this));
    // Lock order: this lock only; requests never block, so holding it across
    // one is harmless.
    std::lock_guard<std::mutex> guard(lock_);
    client_ = std::move(client);
    browser_ = std::move(browser);
    return true;
  }

  // Closes the browser and the connection; no callback runs after this.
  void Stop() {
    std::unique_ptr<streamloft::OverlayClient> client;
    std::shared_ptr<streamloft::Browser> browser;
    {
      std::lock_guard<std::mutex> guard(lock_);
      stopping_ = true;
      client = std::move(client_);
      browser = std::move(browser_);
    }
    // Dropping the handle closes the browser (unless EOS closed it already).
    browser.reset();
    client.reset();  // joins the library thread
  }

  // End of stream asked for by the application: the browser closes and every
  // pad ends.
  void CloseForEndOfStream() {
    std::shared_ptr<streamloft::Browser> browser;
    {
      std::lock_guard<std::mutex> guard(lock_);
      if (closed_ || !browser_) return;
      closed_ = true;
      browser = browser_;
    }
    // End of stream follows once the service has closed the browser (or
    // after a bounded wait), so that no frame of it comes after.
    auto closed = std::make_shared<std::promise<void>>();
    std::future<void> done = closed->get_future();
    browser->Close([this, closed](const std::optional<streamloft::Error>& error) {
      if (error) GST_WARNING_OBJECT(self_, "closing failed: %s", error->Describe().c_str());
      closed->set_value();
    });
    done.wait_for(std::chrono::seconds(5));
  }

  // After Stop: removes the audio pads and their appsrcs.
  void RemoveAudioPads() {
    for (auto& [id, stream] : audio_) {
      gst_element_set_locked_state(stream.src, TRUE);
      gst_element_set_state(stream.src, GST_STATE_NULL);
      gst_element_remove_pad(GST_ELEMENT(self_), stream.pad);
      gst_bin_remove(GST_BIN(self_), stream.src);
    }
    audio_.clear();
  }

  void RequestRenegotiation() { reconfigure_ = true; }

  // BrowserEvents, on the library thread.
  void BrowserDidStart(streamloft::Browser&, int browserID) override {
    GST_INFO_OBJECT(self_, "browser %d started", browserID);
    PostElementMessage(self_, "slf-browser-started", browserID);
  }

  void BrowserReceivedVideoFrame(streamloft::Browser& browser, std::shared_ptr<const streamloft::VideoFrame> frame) override {
    if (closed_) return;
    if (reconfigure_.exchange(false)) Renegotiate(browser);
    if (frame->pixelFormat() != streamloft::kPixelFormatBGRA || int(frame->width()) != shape_.width ||
        int(frame->height()) != shape_.height) {
      GST_LOG_OBJECT(self_, "dropping a %ux%u frame (negotiated %dx%d)", frame->width(), frame->height(),
                     shape_.width, shape_.height);
      return;
    }
    GstClockTime pts = RunningTime(frame->presentationTime());
    // A frame from before the pipeline played, or not after the last one,
    // is dropped as a live source drops frames it missed.
    if (!GST_CLOCK_TIME_IS_VALID(pts) || (GST_CLOCK_TIME_IS_VALID(lastVideoPts_) && pts <= lastVideoPts_)) return;
    lastVideoPts_ = pts;
    // The image is copied into a tightly packed buffer: the surface goes back
    // to the service at once, however long downstream holds the buffer.
    const size_t rowBytes = size_t(shape_.width) * 4;
    GstBuffer* buffer = gst_buffer_new_allocate(nullptr, rowBytes * shape_.height, nullptr);
    GstMapInfo map;
    gst_buffer_map(buffer, &map, GST_MAP_WRITE);
    for (int y = 0; y < shape_.height; ++y) memcpy(map.data + y * rowBytes, frame->row(y), rowBytes);
    gst_buffer_unmap(buffer, &map);
    GST_BUFFER_PTS(buffer) = pts;
    GST_BUFFER_DURATION(buffer) = gst_util_uint64_scale_int(GST_SECOND, shape_.fpsD, shape_.fpsN);
    GST_BUFFER_OFFSET(buffer) = frame->sequence();
    gst_app_src_push_buffer(GST_APP_SRC(self_->videoSrc), buffer);
  }

  void BrowserWillStartAudioStream(streamloft::Browser&, int streamID, const streamloft::AudioStreamFormat& format) override {
    if (closed_ || stopping_) return;
    if (format.bitsPerSample != 16 || format.sampleRate <= 0 || format.channelCount <= 0) {
      GST_WARNING_OBJECT(self_, "audio stream %d: unsupported format (%" G_GINT64_FORMAT " bits)", streamID,
                         format.bitsPerSample);
      return;
    }
    auto old = audio_.find(streamID);
    if (old != audio_.end()) gst_app_src_end_of_stream(GST_APP_SRC(old->second.src));
    AudioStream stream;
    stream.rate = format.sampleRate;
    stream.channels = format.channelCount;
    gchar* name = g_strdup_printf("audio_%u", nextAudioPad_++);
    stream.src = MakeAppSrc(nullptr);
    GstAudioInfo info;
    gst_audio_info_set_format(&info, GST_AUDIO_FORMAT_S16LE, gint(format.sampleRate), gint(format.channelCount),
                              nullptr);
    GstCaps* caps = gst_audio_info_to_caps(&info);
    g_object_set(stream.src, "caps", caps, nullptr);
    gst_caps_unref(caps);
    gst_bin_add(GST_BIN(self_), stream.src);
    GstPad* target = gst_element_get_static_pad(stream.src, "src");
    GstPadTemplate* templ = gst_static_pad_template_get(&audio_template);
    stream.pad = gst_ghost_pad_new_from_template(name, target, templ);
    gst_object_unref(templ);
    gst_object_unref(target);
    g_free(name);
    gst_pad_set_active(stream.pad, TRUE);
    // pad-added runs here, so the application links the pad before data flows.
    gst_element_add_pad(GST_ELEMENT(self_), stream.pad);
    gst_element_sync_state_with_parent(stream.src);
    GST_INFO_OBJECT(self_, "audio stream %d on %s: %" G_GINT64_FORMAT " Hz, %" G_GINT64_FORMAT " channels",
                    streamID, GST_PAD_NAME(stream.pad), format.sampleRate, format.channelCount);
    audio_[streamID] = stream;
  }

  void BrowserDidReceiveAudioStream(streamloft::Browser&, int streamID,
                                    std::shared_ptr<const streamloft::AudioBuffer> block) override {
    auto it = audio_.find(streamID);
    if (closed_ || !block || it == audio_.end() || block->length() == 0) return;
    AudioStream& stream = it->second;
    // A pad nobody linked would stop the element with not-linked: its audio
    // is dropped instead.
    if (!gst_pad_is_linked(stream.pad)) return;
    GstClockTime pts = RunningTime(block->presentationTime());
    if (!GST_CLOCK_TIME_IS_VALID(pts)) return;
    const uint64_t frameBytes = uint64_t(stream.channels) * 2;
    const uint64_t samples = block->length() / frameBytes;
    if (samples == 0) return;
    GstClockTime duration = gst_util_uint64_scale_int(samples, GST_SECOND, gint(stream.rate));
    // Blocks follow each other without overlap; a block stamped inside the
    // previous one continues it.
    if (GST_CLOCK_TIME_IS_VALID(stream.lastEnd) && pts < stream.lastEnd) pts = stream.lastEnd;
    stream.lastEnd = pts + duration;
    GstBuffer* buffer = gst_buffer_new_memdup(block->bytes(), samples * frameBytes);
    GST_BUFFER_PTS(buffer) = pts;
    GST_BUFFER_DURATION(buffer) = duration;
    gst_app_src_push_buffer(GST_APP_SRC(stream.src), buffer);
  }

  void BrowserWillStopAudioStream(streamloft::Browser&, int streamID) override {
    auto it = audio_.find(streamID);
    if (it != audio_.end()) gst_app_src_end_of_stream(GST_APP_SRC(it->second.src));
  }

  void RequestSettingsDataForBrowser(streamloft::Browser& browser) override {
    std::vector<uint8_t> data;
    GST_OBJECT_LOCK(self_);
    if (self_->settingsData) {
      gsize size = 0;
      auto* bytes = static_cast<const uint8_t*>(g_bytes_get_data(self_->settingsData, &size));
      data.assign(bytes, bytes + size);
    }
    GST_OBJECT_UNLOCK(self_);
    browser.UpdateSettingsData(std::move(data), [this](const std::optional<streamloft::Error>& error) {
      if (error) GST_WARNING_OBJECT(self_, "answering the settings request failed: %s", error->Describe().c_str());
    });
  }

  void BrowserDidClose(streamloft::Browser& browser) override {
    GST_INFO_OBJECT(self_, "browser %d closed", browser.ID());
    PostElementMessage(self_, "slf-browser-closed", browser.ID());
  }

  void BrowserDidFail(streamloft::Browser&, const streamloft::Error& error) override {
    if (stopping_) return;
    const char* text = error.kind == OverlayError::ConnectionClosed ? "The connection to the overlay service closed"
                       : error.kind == OverlayError::EngineFailed  ? "The overlay service could not open the page"
                                                                   : "The overlay service refused to open the page";
    PostError(self_, error.kind, text, error.name, error.Describe());
  }

 private:
  // Downstream asked for other caps: the size follows it and the browser is
  // resized; the rate the browser was opened with stays.
  void Renegotiate(streamloft::Browser& browser) {
    VideoShape wanted = NegotiateShape(self_->videoPad, shape_);
    wanted.fpsN = shape_.fpsN;
    wanted.fpsD = shape_.fpsD;
    if (wanted == shape_) return;
    GST_INFO_OBJECT(self_, "resizing to %dx%d", wanted.width, wanted.height);
    // Frames of the old size that are still on their way are dropped below.
    browser.Resize(wanted.width, wanted.height, [this](const std::optional<streamloft::Error>& error) {
      if (error) GST_WARNING_OBJECT(self_, "resizing failed: %s", error->Describe().c_str());
    });
    shape_ = wanted;
    GstCaps* caps = VideoCaps(shape_);
    gst_app_src_set_caps(GST_APP_SRC(self_->videoSrc), caps);
    gst_caps_unref(caps);
  }

  // Running time of a presentation time in µs of CLOCK_MONOTONIC (0: now),
  // or NONE before the element plays or before its base time.
  GstClockTime RunningTime(uint64_t monotonicMicros) {
    if (GST_STATE(self_) != GST_STATE_PLAYING) return GST_CLOCK_TIME_NONE;
    GstClock* clock = gst_element_get_clock(GST_ELEMENT(self_));
    if (!clock) return GST_CLOCK_TIME_NONE;
    GstClockTime base = gst_element_get_base_time(GST_ELEMENT(self_));
    gint64 nowMono = g_get_monotonic_time();
    gint64 when = monotonicMicros ? gint64(monotonicMicros) : nowMono;
    gint64 clockTime;
    GstClockType type = GST_CLOCK_TYPE_REALTIME;
    if (GST_IS_SYSTEM_CLOCK(clock)) g_object_get(clock, "clock-type", &type, nullptr);
    if (type == GST_CLOCK_TYPE_MONOTONIC) {
      clockTime = when * 1000;
    } else {
      // Another clock: mapped through the offset between it and
      // CLOCK_MONOTONIC now.
      clockTime = gint64(gst_clock_get_time(clock)) + (when - nowMono) * 1000;
    }
    gst_object_unref(clock);
    if (clockTime < gint64(base)) return GST_CLOCK_TIME_NONE;
    return GstClockTime(clockTime) - base;
  }

  SlfOverlaySrc* self_;
  std::mutex lock_;  // client_ and browser_; taken alone, never with the object lock
  std::unique_ptr<streamloft::OverlayClient> client_;
  std::shared_ptr<streamloft::Browser> browser_;
  std::atomic<bool> stopping_{false}, closed_{false}, reconfigure_{false};
  // On the library thread only (and in Stop's caller after the join).
  VideoShape shape_;
  GstClockTime lastVideoPts_ = GST_CLOCK_TIME_NONE;
  std::map<int, AudioStream> audio_;
  guint nextAudioPad_ = 0;
};

// A file URL's folder ("file:///a/b/page.html" → "file:///a/b/"), the
// permitted prefix the element uses when none is given.
std::vector<std::string> DefaultPermitted(const std::string& location) {
  if (location.rfind("file://", 0) != 0) return {};
  auto slash = location.rfind('/');
  return {location.substr(0, slash + 1)};
}

GstPadProbeReturn OnUpstreamEvent(GstPad*, GstPadProbeInfo* info, gpointer data) {
  auto* self = SLF_OVERLAY_SRC(data);
  if (GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) == GST_EVENT_RECONFIGURE) {
    GST_OBJECT_LOCK(self);
    if (self->host) self->host->RequestRenegotiation();
    GST_OBJECT_UNLOCK(self);
  }
  return GST_PAD_PROBE_OK;
}

}  // namespace

static gboolean Open(SlfOverlaySrc* self) {
  GST_OBJECT_LOCK(self);
  std::string location = self->location ? self->location : "";
  std::string socket = self->socket ? self->socket : "";
  std::vector<std::string> permitted;
  if (self->permitted)
    for (gchar** p = self->permitted; *p; ++p) permitted.emplace_back(*p);
  else
    permitted = DefaultPermitted(location);
  GST_OBJECT_UNLOCK(self);
  if (location.empty()) {
    PostError(self, OverlayError::InvalidURL, "No location given");
    return FALSE;
  }
  VideoShape shape = NegotiateShape(self->videoPad, VideoShape{});
  GstCaps* caps = VideoCaps(shape);
  gst_app_src_set_caps(GST_APP_SRC(self->videoSrc), caps);
  gst_caps_unref(caps);
  auto* host = new OverlayHost(self);
  GST_OBJECT_LOCK(self);
  self->host = host;
  GST_OBJECT_UNLOCK(self);
  return host->Start(location, permitted, socket, shape);
}

static void Close(SlfOverlaySrc* self) {
  GST_OBJECT_LOCK(self);
  OverlayHost* host = self->host;
  GST_OBJECT_UNLOCK(self);
  if (!host) return;
  host->Stop();
  host->RemoveAudioPads();
  GST_OBJECT_LOCK(self);
  self->host = nullptr;
  GST_OBJECT_UNLOCK(self);
  delete host;
}

static GstStateChangeReturn slf_overlay_src_change_state(GstElement* element, GstStateChange transition) {
  auto* self = SLF_OVERLAY_SRC(element);
  GstStateChangeReturn result = GST_ELEMENT_CLASS(slf_overlay_src_parent_class)->change_state(element, transition);
  if (result == GST_STATE_CHANGE_FAILURE) return result;
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

static gboolean slf_overlay_src_send_event(GstElement* element, GstEvent* event) {
  auto* self = SLF_OVERLAY_SRC(element);
  if (GST_EVENT_TYPE(event) == GST_EVENT_EOS) {
    GST_OBJECT_LOCK(self);
    OverlayHost* host = self->host;
    GST_OBJECT_UNLOCK(self);
    // The state change thread is the only one that deletes the host, and it
    // does not run while an application sends end of stream.
    if (host) host->CloseForEndOfStream();
  }
  return GST_ELEMENT_CLASS(slf_overlay_src_parent_class)->send_event(element, event);
}

static void slf_overlay_src_set_property(GObject* object, guint id, const GValue* value, GParamSpec* pspec) {
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
      for (guint i = 0; i < count; ++i) self->permitted[i] = g_value_dup_string(gst_value_array_get_value(value, i));
      break;
    }
    case PROP_SETTINGS_DATA:
      if (self->settingsData) g_bytes_unref(self->settingsData);
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

static void slf_overlay_src_get_property(GObject* object, guint id, GValue* value, GParamSpec* pspec) {
  auto* self = SLF_OVERLAY_SRC(object);
  GST_OBJECT_LOCK(self);
  switch (id) {
    case PROP_LOCATION: g_value_set_string(value, self->location); break;
    case PROP_PERMITTED:
      for (gchar** p = self->permitted; p && *p; ++p) {
        GValue item = G_VALUE_INIT;
        g_value_init(&item, G_TYPE_STRING);
        g_value_set_string(&item, *p);
        gst_value_array_append_and_take_value(value, &item);
      }
      break;
    case PROP_SETTINGS_DATA: g_value_set_boxed(value, self->settingsData); break;
    case PROP_SOCKET: g_value_set_string(value, self->socket); break;
    default: G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
  }
  GST_OBJECT_UNLOCK(self);
}

static void slf_overlay_src_finalize(GObject* object) {
  auto* self = SLF_OVERLAY_SRC(object);
  g_free(self->location);
  g_strfreev(self->permitted);
  if (self->settingsData) g_bytes_unref(self->settingsData);
  g_free(self->socket);
  G_OBJECT_CLASS(slf_overlay_src_parent_class)->finalize(object);
}

static void slf_overlay_src_init(SlfOverlaySrc* self) {
  self->videoSrc = MakeAppSrc("video_src");
  // A frame that cannot be taken at once replaces the oldest waiting one.
  g_object_set(self->videoSrc, "max-buffers", guint64(2), "leaky-type", 2 /* downstream */, nullptr);
  gst_bin_add(GST_BIN(self), self->videoSrc);
  GstPad* target = gst_element_get_static_pad(self->videoSrc, "src");
  gst_pad_add_probe(target, GST_PAD_PROBE_TYPE_EVENT_UPSTREAM, OnUpstreamEvent, self, nullptr);
  GstPadTemplate* templ = gst_static_pad_template_get(&video_template);
  self->videoPad = gst_ghost_pad_new_from_template("video", target, templ);
  gst_object_unref(templ);
  gst_object_unref(target);
  gst_element_add_pad(GST_ELEMENT(self), self->videoPad);
  GST_OBJECT_FLAG_SET(self, GST_ELEMENT_FLAG_SOURCE);
}

static void slf_overlay_src_class_init(SlfOverlaySrcClass* klass) {
  GObjectClass* object = G_OBJECT_CLASS(klass);
  GstElementClass* element = GST_ELEMENT_CLASS(klass);
  object->set_property = slf_overlay_src_set_property;
  object->get_property = slf_overlay_src_get_property;
  object->finalize = slf_overlay_src_finalize;
  const auto flags = GParamFlags(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY);
  g_object_class_install_property(object, PROP_LOCATION,
                                  g_param_spec_string("location", "Location", "URL of the page to render", nullptr,
                                                      flags));
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
  gst_element_class_add_static_pad_template(element, &video_template);
  gst_element_class_add_static_pad_template(element, &audio_template);
  gst_element_class_set_static_metadata(
      element, "Streamloft overlay source", "Source/Video/Audio",
      "Renders a web page through the Streamloft overlay service: BGRA video and the page's audio streams",
      "Streamloft");
  element->change_state = slf_overlay_src_change_state;
  element->send_event = slf_overlay_src_send_event;
  GST_DEBUG_CATEGORY_INIT(slf_overlay_src_debug, "slfoverlaysrc", 0, "Streamloft overlay source");
}

static gboolean plugin_init(GstPlugin* plugin) {
  return gst_element_register(plugin, "slfoverlaysrc", GST_RANK_NONE, SLF_TYPE_OVERLAY_SRC);
}

#define PACKAGE "streamloft"
GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, slfoverlay, "Web pages of the Streamloft overlay service",
                  plugin_init, SLF_VERSION, "Proprietary", "Streamloft overlay helper", "Streamloft")
