#include "streamloft/VideoFrame.h"

#include <utility>

namespace streamloft {

VideoFrame::VideoFrame(int browserID, const SurfaceProperties& properties, const uint8_t* pixels,
                       std::shared_ptr<const void> keepAlive, std::function<void()> onRelease)
    : browserID_(browserID),
      properties_(properties),
      pixels_(pixels),
      keepAlive_(std::move(keepAlive)),
      onRelease_(std::move(onRelease)),
      receivedAt_(std::chrono::steady_clock::now())
{
}

VideoFrame::~VideoFrame()
{
    if (onRelease_)
        onRelease_();
}

} // namespace streamloft
