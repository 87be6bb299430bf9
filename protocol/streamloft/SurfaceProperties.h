// The properties of a frame's surface, as the service describes a surface it
// sends and as the host reads them (protocol/SurfaceDictionary.h turns them
// into the frame's a{sv} dictionary and back). Part of the host library's
// public headers; needs nothing but the C++ standard library.
#pragma once

#include <cstdint>

namespace streamloft {

// The four-character code 'BGRA': 32-bit pixels, bytes B, G, R, A in memory,
// premultiplied alpha. The only format of surfaces.
inline constexpr uint32_t kPixelFormatBGRA = 0x42475241;
inline constexpr uint32_t kBytesPerPixelBGRA = 4;

// The surface properties the service sends with every frame.
struct SurfaceProperties {
    uint32_t width = 0;           // IOSurfaceWidth, pixels
    uint32_t height = 0;          // IOSurfaceHeight, pixels
    uint32_t bytesPerRow = 0;     // IOSurfaceBytesPerRow, the stride (rows may be padded)
    uint32_t bytesPerElement = 0; // IOSurfaceBytesPerElement, always 4
    uint32_t pixelFormat = 0;     // IOSurfacePixelFormat, always kPixelFormatBGRA
    uint64_t surfaceID = 0;       // IOSurfaceID, names the surface within the service
    uint64_t allocSize = 0;       // IOSurfaceAllocSize, bytes of the surface
    // The frame's timing (0 when the service did not say):
    uint64_t frameSequence = 0;         // SLFFrameSequence, per browser from 1; a gap = frames dropped
    uint64_t framePresentationTime = 0; // SLFFramePresentationTime, µs of CLOCK_MONOTONIC
};

} // namespace streamloft
