// The audio pads of slfoverlaysrc (see OverlayAudio.h).
#include "gst/OverlayAudio.h"

#include <gst/app/gstappsrc.h>
#include <gst/audio/audio.h>

namespace slfgst {

void OverlayAudio::Start(int streamID, const streamloft::AudioStreamFormat& format)
{
    if (format.bitsPerSample != 16 || format.sampleRate <= 0 || format.channelCount <= 0) {
        GST_WARNING_OBJECT(self_, "audio stream %d: unsupported format (%" G_GINT64_FORMAT " bits)", streamID,
                           format.bitsPerSample);
        return;
    }
    auto old = streams_.find(streamID);
    if (old != streams_.end())
        gst_app_src_end_of_stream(GST_APP_SRC(old->second.src));
    Stream stream;
    stream.rate = format.sampleRate;
    stream.channels = format.channelCount;
    gchar* name = g_strdup_printf("audio_%u", nextPad_++);
    stream.src = MakeAppSrc(nullptr);
    GstAudioInfo info;
    gst_audio_info_set_format(&info, GST_AUDIO_FORMAT_S16LE, gint(format.sampleRate), gint(format.channelCount),
                              nullptr);
    GstCaps* caps = gst_audio_info_to_caps(&info);
    g_object_set(stream.src, "caps", caps, nullptr);
    gst_caps_unref(caps);
    gst_bin_add(GST_BIN(self_), stream.src);
    GstPad* target = gst_element_get_static_pad(stream.src, "src");
    GstPadTemplate* templ = gst_static_pad_template_get(&audioTemplate);
    stream.pad = gst_ghost_pad_new_from_template(name, target, templ);
    gst_object_unref(templ);
    gst_object_unref(target);
    g_free(name);
    gst_pad_set_active(stream.pad, TRUE);
    // pad-added runs here, so the application links the pad before data flows.
    gst_element_add_pad(GST_ELEMENT(self_), stream.pad);
    gst_element_sync_state_with_parent(stream.src);
    GST_INFO_OBJECT(self_, "audio stream %d on %s: %" G_GINT64_FORMAT " Hz, %" G_GINT64_FORMAT " channels", streamID,
                    GST_PAD_NAME(stream.pad), format.sampleRate, format.channelCount);
    streams_[streamID] = stream;
}

void OverlayAudio::Push(int streamID, const streamloft::AudioBuffer& block)
{
    auto it = streams_.find(streamID);
    if (it == streams_.end() || block.length() == 0)
        return;
    Stream& stream = it->second;
    // A pad nobody linked would stop the element with not-linked: its audio
    // is dropped instead.
    if (!gst_pad_is_linked(stream.pad))
        return;
    GstClockTime pts = RunningTime(self_, block.presentationTime());
    if (!GST_CLOCK_TIME_IS_VALID(pts))
        return;
    const uint64_t frameBytes = uint64_t(stream.channels) * 2;
    const uint64_t samples = block.length() / frameBytes;
    if (samples == 0)
        return;
    GstClockTime duration = gst_util_uint64_scale_int(samples, GST_SECOND, gint(stream.rate));
    // Blocks follow each other without overlap; a block stamped inside the
    // previous one continues it.
    if (GST_CLOCK_TIME_IS_VALID(stream.lastEnd) && pts < stream.lastEnd)
        pts = stream.lastEnd;
    stream.lastEnd = pts + duration;
    GstBuffer* buffer = gst_buffer_new_memdup(block.bytes(), samples * frameBytes);
    GST_BUFFER_PTS(buffer) = pts;
    GST_BUFFER_DURATION(buffer) = duration;
    gst_app_src_push_buffer(GST_APP_SRC(stream.src), buffer);
}

void OverlayAudio::End(int streamID)
{
    auto it = streams_.find(streamID);
    if (it != streams_.end())
        gst_app_src_end_of_stream(GST_APP_SRC(it->second.src));
}

void OverlayAudio::RemoveAll()
{
    for (auto& [id, stream] : streams_) {
        gst_element_set_locked_state(stream.src, TRUE);
        gst_element_set_state(stream.src, GST_STATE_NULL);
        gst_element_remove_pad(GST_ELEMENT(self_), stream.pad);
        gst_bin_remove(GST_BIN(self_), stream.src);
    }
    streams_.clear();
}

} // namespace slfgst
