// The listening half shared by the engine's socket threads (audio,
// resources): a Unix socket, a wake-up eventfd and one thread that polls
// both plus every accepted connection. Only processes of this user are
// accepted. The owner says what to do with a new connection, with a
// readable one and with one that ends; everything runs on the thread.
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <thread>

namespace SLF_ChromiumEmbeddedFramework {

class WebKitSocketServer {
public:
    struct Handlers {
        // A connection was accepted from the process pid.
        std::function<void(int fd, int pid)> onAccept;
        // The connection fd has events (revents of poll); false ends it.
        std::function<bool(int fd, short revents)> onEvents;
        // The connection fd ends (it is closed right after).
        std::function<void(int fd)> onClose;
        // Someone called Wake() while the thread runs on.
        std::function<void()> onWake;
    };

    // owner prefixes log lines ("WebKitAudioServer"), role names the thread
    // in them ("audio thread"), threadName is the system's name of it.
    WebKitSocketServer(const char* owner, const char* role, const char* threadName);
    ~WebKitSocketServer();
    WebKitSocketServer(const WebKitSocketServer&) = delete;
    WebKitSocketServer& operator=(const WebKitSocketServer&) = delete;

    // Listens on socketPath ("@name" for an abstract address) and starts
    // the thread.
    bool Start(const std::string& socketPath, Handlers handlers);
    // Ends the thread (open connections end) and closes the socket.
    void Stop();
    // Wakes the thread, which calls onWake; false (logged) on failure.
    bool Wake();
    const std::string& GetSocketPath() const { return m_strSocketPath; }

private:
    void ThreadMain();

    const char* m_szOwner;
    const char* m_szRole;
    const char* m_szThreadName;
    Handlers m_Handlers;
    std::string m_strSocketPath;
    int m_nListenFd = -1;
    int m_nWakeFd = -1;
    std::thread m_Thread;
    std::atomic<bool> m_bStop{false};
};

} // namespace SLF_ChromiumEmbeddedFramework
