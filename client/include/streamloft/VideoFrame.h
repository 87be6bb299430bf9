// One video frame of an overlay browser as the host sees it: a read-only
// view of a BGRA surface that the overlay service painted into shared memory.
//
// A frame keeps its surface reserved in the service for as long as the host
// holds it. Dropping the last reference tells the service that the host has
// let go of the surface, so it can be reused for a later frame. Hold frames
// briefly (copy the pixels if they are needed longer): the service keeps at
// most 30 surfaces per browser out at a time and drops frames beyond that.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

#include "streamloft/Export.h"
#include "streamloft/SurfaceProperties.h"

namespace streamloft {

// SurfaceProperties and kPixelFormatBGRA: the surface properties the service
// sends with every frame (streamloft/SurfaceProperties.h).

class SLF_OVERLAY_EXPORT VideoFrame {
public:
    // `pixels` is the first byte of row 0; `keepAlive` keeps the memory behind
    // it valid; `onRelease` runs once when the frame is destroyed.
    VideoFrame(int browserID, const SurfaceProperties& properties, const uint8_t* pixels,
               std::shared_ptr<const void> keepAlive, std::function<void()> onRelease);
    ~VideoFrame();
    VideoFrame(const VideoFrame&) = delete;
    VideoFrame& operator=(const VideoFrame&) = delete;

    int browserID() const { return browserID_; }
    const SurfaceProperties& properties() const { return properties_; }
    uint32_t width() const { return properties_.width; }
    uint32_t height() const { return properties_.height; }
    uint32_t stride() const { return properties_.bytesPerRow; }
    uint32_t pixelFormat() const { return properties_.pixelFormat; }
    // Row 0 of the image; row y starts at data() + y * stride(). Each row holds
    // width() * 4 bytes of pixels followed by padding up to the stride.
    const uint8_t* data() const { return pixels_; }
    const uint8_t* row(uint32_t y) const { return pixels_ + static_cast<size_t>(y) * properties_.bytesPerRow; }
    // The service's count of frames it produced for the browser, from 1, sent
    // or dropped: a jump of more than one between two frames is the frames it
    // dropped (the host held too many). 0 when the service did not say.
    uint64_t sequence() const { return properties_.frameSequence; }
    // When the engine painted the frame, in microseconds of CLOCK_MONOTONIC
    // (the clock of std::chrono::steady_clock on Linux); 0 when unknown.
    uint64_t presentationTime() const { return properties_.framePresentationTime; }
    // When the library received the frame (steady clock).
    std::chrono::steady_clock::time_point receivedAt() const { return receivedAt_; }

private:
    int browserID_;
    SurfaceProperties properties_;
    const uint8_t* pixels_;
    std::shared_ptr<const void> keepAlive_;
    std::function<void()> onRelease_;
    std::chrono::steady_clock::time_point receivedAt_;
};

} // namespace streamloft
