// Finding and starting the overlay service: its default socket address, its
// executable, and starting it on demand detached from the host, in a session
// of its own, so that it outlives the host that started it, is not hit by the
// host's terminal signals and leaves the host nothing to reap.
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

// A service started on demand. It is not a child of the host: it runs
// detached (started through an intermediate process that ends at once), so
// nothing of the host waits for it or reaps it. `watch` is a pidfd that
// becomes readable when the service ends (-1 when the system has none).
struct StartedService {
    pid_t pid = -1;
    int watch = -1;
};

// Starts `executable` (with "--listen=PATH" when `listenPath` is not empty)
// detached, in a session of its own, standard input and output on /dev/null,
// standard error appended to `logPath` (or /dev/null when that cannot be
// opened), no other descriptor of the host: a service that outlives the host
// must not hold its terminal or its pipes open. Returns false and a message
// when it could not be started (also when its executable could not be run).
bool StartServiceProcess(const std::string& executable, const std::string& listenPath, const std::string& logPath,
                         StartedService* started, std::string* error);

// Non-blocking: true once the started service has ended.
bool ServiceProcessHasEnded(const StartedService& service);

// Lets go of the watch (the service runs on).
void ForgetServiceProcess(StartedService* service);

} // namespace streamloft
