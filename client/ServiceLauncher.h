// Finding and starting the overlay service: its default socket address, its
// executable, and starting it on demand as a process of its own session so
// that it outlives the host that started it and is not hit by the host's
// terminal signals.
#pragma once

#include <sys/types.h>

#include <string>

namespace streamloft {

// $XDG_RUNTIME_DIR/streamloft/overlay-helper.sock (GLib's fallback folder
// when XDG_RUNTIME_DIR is not set).
std::string DefaultServiceSocketPath();

// `explicitPath` when given, else $SLF_OVERLAY_HELPER when set and not empty,
// else the installed StreamloftCEFOverlayHelper.
std::string ResolveServiceExecutable(const std::string& explicitPath);

// Where a service started for `socketPath` writes its log: "<socketPath>.log".
std::string ServiceLogPath(const std::string& socketPath);

// Starts `executable` (with "--listen=PATH" when `listenPath` is not empty),
// standard input and output on /dev/null, standard error appended to
// `logPath` (or /dev/null when that cannot be opened), no other descriptor
// of the host: a service that outlives the host must not hold its terminal
// or its pipes open. Returns the process ID, or -1 and a message.
pid_t StartServiceProcess(const std::string& executable, const std::string& listenPath, const std::string& logPath,
                          std::string* error);

// Non-blocking check of a started service: true and its wait status once it
// has ended (it is reaped then).
bool ServiceProcessHasEnded(pid_t pid, int* status);

// Reaps the started service whenever it ends, without blocking the caller.
void ReapServiceProcessWhenItEnds(pid_t pid);

// "exited with status 3", "was killed by signal 9".
std::string DescribeWaitStatus(int status);

}  // namespace streamloft
