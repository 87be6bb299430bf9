// The wire between a web process and the service's resource thread: one
// question per request ("should the service answer it?") and one answer.
// Each frame is a 4-byte length in host order followed by a serialised
// GVariant. GLib only, so both sides share it.
//   question (ts): page identifier, request URL
//   answer   (ys): verdict (kLoadNormally, kTakenOver, kRefused) and, when
//                  taken over, the URL the request loads from instead
// A request taken over is loaded from "slfcef-resource:<token>", where the
// token is 128 random bits in hex: it cannot be guessed, and the service
// serves it only to the view whose request it answers.
#pragma once

#include <glib.h>

#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace SLF_ChromiumEmbeddedFramework {

inline constexpr const char* kResourceScheme = "slfcef-resource";
inline constexpr const char* kResourceSocketKey = "resource-socket";
inline constexpr const char* kQuestionType = "(ts)";
inline constexpr const char* kAnswerType = "(ys)";
enum ResourceVerdict : guint8 { kLoadNormally = 0, kTakenOver = 1, kRefused = 2 };
// No frame of this wire comes near this; a larger length is a broken peer.
inline constexpr uint32_t kMaxFrameBytes = 1024 * 1024;

// Socket addresses of the engine's threads are abstract ("@name"): they
// leave nothing behind in the file system, however the service ends.
// Fills address for a name ("@name" abstract, else a path); returns the
// length to pass to bind/connect, 0 when the name does not fit.
socklen_t UnixSocketAddress(const std::string& name, struct sockaddr_un& address);
// A listening socket at name, close-on-exec; -1 on failure (errno set).
int ListenOnUnixSocket(const std::string& name);
// Connects to name (blocking), close-on-exec; -1 on failure.
int ConnectToUnixSocket(const std::string& name);
// True when the peer of a connected socket runs as this process's user:
// abstract sockets have no file permissions, so the threads check this.
// pid, when given, receives the peer's process.
bool PeerIsSameUser(int fd, int* pid = nullptr);
// Reads exactly size bytes (blocking); false when the peer is gone first.
bool ReadAll(int fd, void* data, size_t size);
// Writes one message of the engine's sockets: a 4-byte length in host order
// and then head and body (either may be empty); false when the peer is gone
// or, on a non-blocking socket, would not take it now.
bool WriteFrame(int fd, const void* head, size_t headSize, const void* body = nullptr, size_t bodySize = 0);

// Writes value (sunk if floating) as one frame; false when the peer is gone.
bool WriteResourceFrame(int fd, GVariant* value);

// Reads one frame of the given type (blocking); nullptr when the peer is
// gone, the frame is too large or of another type. The result is owned.
GVariant* ReadResourceFrame(int fd, const char* type);

// The value of a frame whose `size` bytes after the length have arrived:
// nullptr when they are not a value of the given type in normal form. The
// bytes are copied; the result is owned.
GVariant* DecodeResourceFrame(const void* data, size_t size, const char* type);

// A fresh token for a taken-over request: 128 bits from the kernel's
// random source, as 32 lower-case hex digits; "" when none could be had.
std::string NewResourceToken();
// True when url has the internal scheme (in any case), well formed or not.
bool IsResourceUrl(const char* url);
// The URL of a taken-over request, and the token read back from one ("" when
// the URL is not one of ours or its token is malformed).
std::string ResourceUrlForToken(const std::string& token);
std::string ResourceTokenFromUrl(const char* url);

} // namespace SLF_ChromiumEmbeddedFramework
