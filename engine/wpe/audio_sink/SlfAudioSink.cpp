// "slfaudiosink": the audio output of the engine's web processes when they
// run under the overlay service. It ranks above every other audio sink, so
// the engine's automatic sink choice takes it; it accepts interleaved S16LE
// PCM, plays it against the pipeline clock (no sound card) and passes every
// buffer to the service's audio thread. Outside the service (no socket in
// the environment) it refuses to open, and the next sink is chosen.

#include "engine/wpe/WpeAudioWire.h"
#include "engine/wpe/WpeResourceChannel.h"

#include <gst/base/gstbasesink.h>
#include <gst/gst.h>

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#define PACKAGE "StreamloftOverlayHelper"

using namespace SLF_ChromiumEmbeddedFramework;

namespace {

struct SlfAudioSink {
    GstBaseSink parent;
    int fd;
    int rate;
    int channels;
    bool streaming;
};

struct SlfAudioSinkClass {
    GstBaseSinkClass parentClass;
};

GType slf_audio_sink_get_type();
G_DEFINE_TYPE(SlfAudioSink, slf_audio_sink, GST_TYPE_BASE_SINK)

#define SLF_AUDIO_SINK(obj) (reinterpret_cast<SlfAudioSink*>(obj))

GstStaticPadTemplate s_SinkTemplate =
    GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS,
                            GST_STATIC_CAPS("audio/x-raw, format=(string)S16LE, layout=(string)interleaved, "
                                            "rate=(int)[8000, 384000], channels=(int)[1, 32]"));

bool SendFrame(SlfAudioSink* sink, AudioFrameKind kind, const void* payload, uint32_t length)
{
    if (sink->fd < 0)
        return false;
    const AudioFrameHeader header = {kind, sink->rate, sink->channels, kAudioBitsPerSample};
    if (WriteFrame(sink->fd, &header, sizeof(header), payload, length))
        return true;
    // The service went away: the page plays on, unheard.
    close(sink->fd);
    sink->fd = -1;
    return false;
}

void StopStream(SlfAudioSink* sink)
{
    if (sink->streaming)
        SendFrame(sink, AUDIO_FRAME_STOP, nullptr, 0);
    sink->streaming = false;
}

bool Connect(SlfAudioSink* sink)
{
    const char* name = std::getenv(kAudioSocketVariable);
    sink->fd = name && *name ? ConnectToUnixSocket(name) : -1;
    return sink->fd >= 0;
}

GstStateChangeReturn ChangeState(GstElement* element, GstStateChange transition)
{
    SlfAudioSink* sink = SLF_AUDIO_SINK(element);
    // Opening (NULL to READY) is where the automatic sink choice tries a
    // sink: without the service this one steps aside.
    if (transition == GST_STATE_CHANGE_NULL_TO_READY && !Connect(sink))
        return GST_STATE_CHANGE_FAILURE;
    const GstStateChangeReturn result =
        GST_ELEMENT_CLASS(slf_audio_sink_parent_class)->change_state(element, transition);
    if (transition == GST_STATE_CHANGE_READY_TO_NULL) {
        StopStream(sink);
        if (sink->fd >= 0)
            close(sink->fd);
        sink->fd = -1;
    }
    return result;
}

gboolean SetCaps(GstBaseSink* base, GstCaps* caps)
{
    SlfAudioSink* sink = SLF_AUDIO_SINK(base);
    GstStructure* structure = gst_caps_get_structure(caps, 0);
    int rate = 0;
    int channels = 0;
    if (!gst_structure_get_int(structure, "rate", &rate) || !gst_structure_get_int(structure, "channels", &channels))
        return FALSE;
    if (sink->streaming && (rate != sink->rate || channels != sink->channels))
        StopStream(sink);
    sink->rate = rate;
    sink->channels = channels;
    return TRUE;
}

GstFlowReturn Render(GstBaseSink* base, GstBuffer* buffer)
{
    SlfAudioSink* sink = SLF_AUDIO_SINK(base);
    if (sink->fd < 0 || sink->rate <= 0)
        return GST_FLOW_OK;
    if (!sink->streaming)
        sink->streaming = SendFrame(sink, AUDIO_FRAME_START, nullptr, 0);
    GstMapInfo map;
    if (!gst_buffer_map(buffer, &map, GST_MAP_READ))
        return GST_FLOW_OK;
    // The service takes at most one second per packet (whole frames).
    const gsize second = AudioBytesPerSecond(sink->rate, sink->channels);
    for (gsize offset = 0; offset < map.size && sink->fd >= 0; offset += second) {
        const gsize length = std::min<gsize>(map.size - offset, second);
        SendFrame(sink, AUDIO_FRAME_PACKET, map.data + offset, static_cast<uint32_t>(length));
    }
    gst_buffer_unmap(buffer, &map);
    return GST_FLOW_OK;
}

gboolean Stop(GstBaseSink* base)
{
    // Paused to ready: the stream ends; playing again starts a new one.
    StopStream(SLF_AUDIO_SINK(base));
    return TRUE;
}

void slf_audio_sink_init(SlfAudioSink* sink)
{
    sink->fd = -1;
    sink->rate = 0;
    sink->channels = 0;
    sink->streaming = false;
    gst_base_sink_set_sync(GST_BASE_SINK(sink), TRUE);
}

void slf_audio_sink_class_init(SlfAudioSinkClass* klass)
{
    GstElementClass* elementClass = GST_ELEMENT_CLASS(klass);
    GstBaseSinkClass* baseClass = GST_BASE_SINK_CLASS(klass);
    gst_element_class_set_static_metadata(elementClass, "Streamloft overlay audio sink", "Sink/Audio",
                                          "Passes the page's audio to the overlay service",
                                          "Streamloft overlay helper");
    gst_element_class_add_static_pad_template(elementClass, &s_SinkTemplate);
    elementClass->change_state = ChangeState;
    baseClass->set_caps = SetCaps;
    baseClass->render = Render;
    baseClass->stop = Stop;
}

gboolean PluginInit(GstPlugin* plugin)
{
    // Above every sound card's sink, so that automatic choice lands here.
    return gst_element_register(plugin, "slfaudiosink", GST_RANK_PRIMARY + 100, slf_audio_sink_get_type());
}

} // namespace

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, slfaudio, "Overlay service audio output", PluginInit, "0.1",
                  "unknown", "StreamloftOverlayHelper", "https://streamloft.com")
