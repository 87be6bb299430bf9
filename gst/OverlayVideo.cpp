// The video path of slfoverlaysrc (see OverlayVideo.h): caps negotiation,
// frame copy, timestamps on the pipeline clock, late frames, filled gaps and
// the resize that follows a reconfigure.
#include "gst/OverlayVideo.h"

#include <gst/app/gstappsrc.h>

#include <algorithm>
#include <chrono>
#include <cstring>

namespace slfgst {

VideoShape NegotiateShape(GstPad* pad, const VideoShape& preferred)
{
    GstCaps* templ = gst_static_pad_template_get_caps(&videoTemplate);
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

GstCaps* VideoCaps(const VideoShape& shape)
{
    return gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING, "BGRA", "width", G_TYPE_INT, shape.width,
                               "height", G_TYPE_INT, shape.height, "framerate", GST_TYPE_FRACTION, shape.fpsN,
                               shape.fpsD, nullptr);
}

void OverlayVideo::Start(const VideoShape& shape)
{
    shape_ = shape;
    slot_ = gst_util_uint64_scale_int(GST_SECOND, shape.fpsD, shape.fpsN);
    filler_ = std::thread([this] { FillGaps(); });
}

void OverlayVideo::Stop()
{
    {
        std::lock_guard<std::mutex> guard(pushLock_);
        stopping_ = true;
    }
    fillerWake_.notify_all();
    if (filler_.joinable())
        filler_.join();
    std::lock_guard<std::mutex> guard(pushLock_);
    if (lastBuffer_)
        gst_buffer_unref(lastBuffer_);
    lastBuffer_ = nullptr;
}

void OverlayVideo::Frame(streamloft::Browser& browser, const streamloft::VideoFrame& frame)
{
    if (reconfigure_.exchange(false))
        Renegotiate(browser);
    if (frame.pixelFormat() != streamloft::kPixelFormatBGRA || int(frame.width()) != shape_.width ||
        int(frame.height()) != shape_.height) {
        GST_LOG_OBJECT(self_, "dropping a %ux%u frame (negotiated %dx%d)", frame.width(), frame.height(), shape_.width,
                       shape_.height);
        return;
    }
    GstClockTime pts = RunningTime(self_, frame.presentationTime());
    if (!GST_CLOCK_TIME_IS_VALID(pts))
        return;
    // A frame from before the pipeline played, or not after the last buffer
    // pushed (a frame or a repeated one), is dropped as a live source drops
    // frames it missed.
    auto late = [this, pts] { return stopping_ || (GST_CLOCK_TIME_IS_VALID(lastPts_) && pts <= lastPts_); };
    {
        std::lock_guard<std::mutex> guard(pushLock_);
        if (late())
            return;
    }
    GstBuffer* buffer = CopyFrame(frame);
    GST_BUFFER_PTS(buffer) = pts;
    GST_BUFFER_DURATION(buffer) = slot_;
    GST_BUFFER_OFFSET(buffer) = frame.sequence();
    std::lock_guard<std::mutex> guard(pushLock_);
    // The timer may have filled this frame's slot during the copy.
    if (late()) {
        gst_buffer_unref(buffer);
        return;
    }
    lastPts_ = pts;
    if (lastBuffer_)
        gst_buffer_unref(lastBuffer_);
    lastBuffer_ = gst_buffer_ref(buffer);
    gst_app_src_push_buffer(GST_APP_SRC(self_->videoSrc), buffer);
}

// The image is copied into a tightly packed buffer: the surface goes back to
// the service at once, however long downstream holds the buffer.
GstBuffer* OverlayVideo::CopyFrame(const streamloft::VideoFrame& frame) const
{
    const size_t rowBytes = size_t(shape_.width) * 4;
    GstBuffer* buffer = gst_buffer_new_allocate(nullptr, rowBytes * shape_.height, nullptr);
    GstMapInfo map;
    gst_buffer_map(buffer, &map, GST_MAP_WRITE);
    for (int y = 0; y < shape_.height; ++y)
        memcpy(map.data + y * rowBytes, frame.row(y), rowBytes);
    gst_buffer_unmap(buffer, &map);
    return buffer;
}

// Downstream asked for other caps: the size follows it and the browser is
// resized; the rate the browser was opened with stays.
void OverlayVideo::Renegotiate(streamloft::Browser& browser)
{
    VideoShape wanted = NegotiateShape(self_->videoPad, shape_);
    wanted.fpsN = shape_.fpsN;
    wanted.fpsD = shape_.fpsD;
    if (wanted == shape_)
        return;
    GST_INFO_OBJECT(self_, "resizing to %dx%d", wanted.width, wanted.height);
    // Frames of the old size that are still on their way are dropped in Frame.
    browser.Resize(wanted.width, wanted.height, [this](const std::optional<streamloft::Error>& error) {
        if (error)
            GST_WARNING_OBJECT(self_, "resizing failed: %s", error->Describe().c_str());
    });
    shape_ = wanted;
    GstCaps* caps = VideoCaps(shape_);
    {
        // The last buffer has the old size: nothing is repeated until a frame of
        // the new one came.
        std::lock_guard<std::mutex> guard(pushLock_);
        gst_app_src_set_caps(GST_APP_SRC(self_->videoSrc), caps);
        if (lastBuffer_)
            gst_buffer_unref(lastBuffer_);
        lastBuffer_ = nullptr;
    }
    gst_caps_unref(caps);
}

void OverlayVideo::FillGaps()
{
    // A slot counts as passed (and is filled) half the latency after its time:
    // a frame of it on its way from the service lands first.
    const GstClockTime grace = kLatency / 2;
    std::unique_lock<std::mutex> lock(pushLock_);
    while (!stopping_) {
        GstClockTime wait = slot_;
        lock.unlock();
        const GstClockTime now = RunningTime(self_, 0);
        lock.lock();
        if (stopping_)
            break;
        if (GST_CLOCK_TIME_IS_VALID(now) && lastBuffer_ && GST_CLOCK_TIME_IS_VALID(lastPts_)) {
            GstClockTime due = lastPts_ + slot_ + grace;
            if (now >= due) {
                // The latest slot that passed; earlier ones the timer missed (a busy
                // machine) are skipped, as a live source skips what it missed.
                const GstClockTime pts = lastPts_ + (now - grace - lastPts_) / slot_ * slot_;
                GstBuffer* again = gst_buffer_copy(lastBuffer_); // shares the image
                GST_BUFFER_PTS(again) = pts;
                GST_BUFFER_DURATION(again) = slot_;
                lastPts_ = pts;
                gst_app_src_push_buffer(GST_APP_SRC(self_->videoSrc), again);
                due = pts + slot_ + grace;
            }
            wait = due - now;
        }
        const auto nanos = std::chrono::nanoseconds(std::clamp<GstClockTime>(wait, GST_MSECOND, 100 * GST_MSECOND));
        fillerWake_.wait_for(lock, nanos, [this] { return stopping_; });
    }
}

} // namespace slfgst
