// The video path of slfoverlaysrc: the browser's frames into the appsrc of
// the "video" pad.
//
// Size and rate are negotiated with downstream when the element starts
// (NegotiateShape); a reconfigure event from downstream asks for a new size,
// which resizes the browser. Each frame of the negotiated size is copied into
// a buffer of its own and stamped with the running time of its presentation
// time; a frame not after the last one pushed is dropped, as a live source
// drops what it missed. A page paints only when something changed, so when a
// slot of the negotiated rate passes with no frame, the last one is pushed
// again with that slot's time (a timer thread of this class).
//
// Threads: Start and Stop on the element's state change thread; Frame and
// the renegotiation it applies on the host library's thread; gaps filled on
// the timer thread; RequestRenegotiation on a streaming thread.
// Owns: the timer thread and a reference to the last buffer pushed. The
// appsrc belongs to the element's bin.
#pragma once

#include <gst/gst.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "gst/SlfOverlaySrc.h"
#include "streamloft/Browser.h"
#include "streamloft/VideoFrame.h"

namespace slfgst {

// Downstream's preference among the sizes and rates the video pad offers,
// nearest to the given ones.
struct VideoShape {
    int width = kDefaultWidth, height = kDefaultHeight, fpsN = kDefaultFramerate, fpsD = 1;
    bool operator==(const VideoShape&) const = default;
};

VideoShape NegotiateShape(GstPad* pad, const VideoShape& preferred);
GstCaps* VideoCaps(const VideoShape& shape);

class OverlayVideo {
public:
    explicit OverlayVideo(SlfOverlaySrc* element) : self_(element) {}
    ~OverlayVideo() { Stop(); }
    OverlayVideo(const OverlayVideo&) = delete;
    OverlayVideo& operator=(const OverlayVideo&) = delete;

    // Negotiated with downstream: the size and rate the browser opens with
    // (already set as the appsrc's caps).
    void Start(const VideoShape& shape);
    // No buffer is pushed after this returns (the timer thread has ended); a
    // frame callback still running on the library thread must be over first
    // (end of stream or the client's end).
    void Stop();

    // Streaming thread: downstream asked for other caps; applied with the next frame.
    void RequestRenegotiation() { reconfigure_ = true; }
    // Library thread: one frame of the browser.
    void Frame(streamloft::Browser& browser, const streamloft::VideoFrame& frame);

private:
    void Renegotiate(streamloft::Browser& browser);
    GstBuffer* CopyFrame(const streamloft::VideoFrame& frame) const;
    // Timer thread: pushes the last buffer again for the slots no frame filled.
    void FillGaps();

    SlfOverlaySrc* self_;

    // Negotiation: shape_ on the library thread after Start. The rate stays
    // what the browser was opened with; slot_ is its frame duration, set by
    // Start before the timer thread runs.
    VideoShape shape_;
    GstClockTime slot_ = 0;
    std::atomic<bool> reconfigure_ {false};

    // What was pushed last, for the order of timestamps and for filling gaps.
    // Lock order: taken alone; inside it only the appsrc's own locks.
    std::mutex pushLock_;
    GstClockTime lastPts_ = GST_CLOCK_TIME_NONE;
    GstBuffer* lastBuffer_ = nullptr; // a reference; null after a resize until the next frame

    // The timer thread, woken early by Stop.
    std::thread filler_;
    std::condition_variable fillerWake_; // with pushLock_
    bool stopping_ = false;              // under pushLock_
};

} // namespace slfgst
