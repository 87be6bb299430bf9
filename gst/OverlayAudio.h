// The audio pads of slfoverlaysrc: every audio stream the page starts adds a
// sometimes pad "audio_N" (N counts up from 0 each time the element starts)
// from an appsrc of its own, S16LE interleaved at the stream's rate and channels.
// Blocks are stamped with the running time of their presentation time and
// follow each other without overlap; a stream that stops ends its pad.
//
// Threads: Start, Push and End on the host library's thread; RemoveAll on
// the element's state change thread once the client has ended (no event
// runs any more).
// Owns: nothing; the appsrcs and ghost pads belong to the element's bin.
#pragma once

#include <gst/gst.h>

#include <map>
#include <memory>

#include "gst/SlfOverlaySrc.h"
#include "streamloft/AudioBuffer.h"
#include "streamloft/Browser.h"

namespace slfgst {

class OverlayAudio {
public:
    explicit OverlayAudio(SlfOverlaySrc* element) : self_(element) {}

    // A stream starts: a new pad (pad-added runs here). A stream ID that is
    // still open ends its old pad first.
    void Start(int streamID, const streamloft::AudioStreamFormat& format);
    void Push(int streamID, const streamloft::AudioBuffer& block);
    void End(int streamID);
    // Removes every pad and its appsrc.
    void RemoveAll();

private:
    // One audio stream of the page: its appsrc inside the bin and the ghost
    // pad that shows it.
    struct Stream {
        GstElement* src = nullptr;
        GstPad* pad = nullptr;
        int64_t rate = 0, channels = 0;
        GstClockTime lastEnd = GST_CLOCK_TIME_NONE;
    };

    SlfOverlaySrc* self_;
    std::map<int, Stream> streams_; // by the page's stream ID
    guint nextPad_ = 0;
};

} // namespace slfgst
