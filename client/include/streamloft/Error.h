// What a request of the host library or an overlay browser can fail with.
//
// Every failure the host sees is an Error: a kind to act on, and, when the
// service refused a request, the D-Bus error name it answered with (for
// example "com.streamloft.Error.InvalidURL") and its message.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "streamloft/Export.h"

namespace streamloft {

enum class ErrorKind {
    InvalidURL,         // the service could not parse the page's URL
    InvalidArgument,    // a size, frame rate or other argument the service refused, or a browser already closed
    ServiceUnreachable, // the service could not be reached or started
    ConnectionClosed,   // the connection to the service closed (service ended, Disconnect, client destroyed)
    EngineFailed,       // the service could not create the browser, or failed otherwise
};

// "invalid-url", "invalid-argument", "service-unreachable",
// "connection-closed", "engine-failed".
SLF_OVERLAY_EXPORT const char* ErrorKindName(ErrorKind kind);

struct SLF_OVERLAY_EXPORT Error {
    ErrorKind kind = ErrorKind::EngineFailed;
    std::string name;    // the D-Bus error name; empty when the service sent none
    std::string message; // for people: what failed and why

    // "<message> (<name>)", or the message alone when there is no name.
    std::string Describe() const;
};

// The end of a request: no error when the service carried it out. Runs where
// the client's events run (see OverlayClient.h), never inside the call that
// made the request.
using Completion = std::function<void(const std::optional<Error>& error)>;

} // namespace streamloft
