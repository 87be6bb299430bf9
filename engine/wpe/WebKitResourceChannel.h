// The wire between a web process and the service's resource thread: one
// question per request ("should the service answer it?") and one answer.
// Each frame is a 4-byte length in host order followed by a serialised
// GVariant. GLib only, so both sides share it.
//   question (ts): page identifier, request URL
//   answer   (t):  identifier of the taken-over request, 0 to load normally
// A request taken over is loaded from "slfcef-resource:<identifier>".
#pragma once

#include <glib.h>

#include <cstdint>
#include <string>

namespace SLF_ChromiumEmbeddedFramework {

inline constexpr const char* kResourceScheme = "slfcef-resource";
inline constexpr const char* kResourceSocketKey = "resource-socket";
inline constexpr const char* kQuestionType = "(ts)";
inline constexpr const char* kAnswerType = "(t)";
// No frame of this wire comes near this; a larger length is a broken peer.
inline constexpr uint32_t kMaxFrameBytes = 1024 * 1024;

// Writes value (sunk if floating) as one frame; false when the peer is gone.
bool WriteResourceFrame(int fd, GVariant* value);

// Reads one frame of the given type (blocking); nullptr when the peer is
// gone, the frame is too large or of another type. The result is owned.
GVariant* ReadResourceFrame(int fd, const char* type);

// The URL of a taken-over request, and the identifier read back from one
// (0 when the URL is not one of ours).
std::string ResourceUrlForIdentifier(uint64_t identifier);
uint64_t ResourceIdentifierFromUrl(const char* url);

} // namespace SLF_ChromiumEmbeddedFramework
