// Where the service listens, and the lock that keeps one service per
// address.
//
// The address is, in this order: the path given with --listen=PATH; the
// socket handed over by systemd socket activation (LISTEN_FDS); else
// $XDG_RUNTIME_DIR/streamloft/overlay-helper.sock in a folder of mode 0700.
// A lock file next to the socket ("<socket>.lock", flock) is held for the
// life of the service; a second service for the same address finds it taken.
// The service removes the lock file (while it holds the lock) when it gives
// the address up.
#pragma once

#include <string>

struct SLFCefServiceSocket {
    int listenFd = -1;
    std::string socketPath;
    std::string lockPath;
    int lockFd = -1;
    // The socket file was made by this process (and is removed at the end).
    bool createdByUs = false;
    bool socketActivated = false;
};

enum class SLFCefServiceSocketResult {
    Ready,
    // Another service holds the lock for this address.
    AlreadyServed,
    Failed,
};

// The default socket path under the user's runtime folder.
std::string SLFCefDefaultSocketPath();

// listenPath: the --listen value, empty when not given. On Failed, `error`
// says why.
SLFCefServiceSocketResult SLFCefOpenServiceSocket(const std::string& listenPath, SLFCefServiceSocket& socket,
                                                  std::string& error);
// Removes a socket file made by this process (a socket handed over by
// systemd stays), then removes the lock file and drops the lock. The
// listening descriptor belongs to the listener by then and is not touched.
// Safe to call more than once.
void SLFCefReleaseServiceSocket(SLFCefServiceSocket& socket);
