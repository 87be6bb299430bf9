// The listening half shared by the engine's socket threads (audio,
// resources): a Unix socket, a wake-up eventfd and one thread that polls
// both plus every accepted connection. Only processes of this user are
// accepted.
//
// The peers are web processes, which run page code and are not trusted:
// every message is a 4-byte length (host order) followed by that many bytes,
// and the thread reads without blocking into a buffer per connection. A
// connection is cut off, with one log line, when a message is larger than
// the owner's limit, when a message stays half-sent for longer than the
// half-message limit, or when the owner refuses a message. The owner gets
// whole messages only; everything runs on the thread.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>

namespace SLF_ChromiumEmbeddedFramework {

class WpeSocketServer {
public:
    // The sending process of a connection, from the socket's credentials.
    struct Peer {
        int fd;
        int pid;
    };

    struct Handlers {
        // A connection was accepted from the process pid.
        std::function<void(int fd, int pid)> onAccept;
        // One whole message of a connection. false cuts the connection off;
        // a non-empty error is logged as the reason (an empty one ends the
        // connection quietly).
        std::function<bool(const Peer& peer, const uint8_t* data, size_t size, std::string& error)> onMessage;
        // The connection fd ends (it is closed right after).
        std::function<void(int fd)> onClose;
        // Someone called Wake() while the thread runs on.
        std::function<void()> onWake;
    };

    // The default time a message may stay half-sent.
    static constexpr int kDefaultHalfMessageMilliseconds = 2000;
    // More connections than this at once are refused.
    static constexpr size_t kMaxConnections = 256;

    // owner prefixes log lines ("WpeAudioServer"), role names the thread
    // in them ("audio thread"), threadName is the system's name of it;
    // maxMessageBytes is the largest message a peer may send.
    WpeSocketServer(const char* owner, const char* role, const char* threadName, size_t maxMessageBytes);
    ~WpeSocketServer();
    WpeSocketServer(const WpeSocketServer&) = delete;
    WpeSocketServer& operator=(const WpeSocketServer&) = delete;

    // Before Start: how long a message may stay half-sent.
    void SetHalfMessageLimit(int milliseconds) { m_nHalfMessageMs = milliseconds; }

    // Listens on socketPath ("@name" for an abstract address, else a path)
    // and starts the thread.
    bool Start(const std::string& socketPath, Handlers handlers);
    // Ends the thread (open connections end) and closes the socket; a path
    // socket is removed.
    void Stop();
    // Wakes the thread, which calls onWake; false (logged) on failure.
    bool Wake();
    const std::string& GetSocketPath() const { return m_strSocketPath; }

private:
    struct Connection;

    void ThreadMain();
    // Reads what the connection has; false (error set) cuts it off.
    bool Receive(Connection& connection, std::string& error, bool& peerEnded);

    const char* m_szOwner;
    const char* m_szRole;
    const char* m_szThreadName;
    const size_t m_nMaxMessageBytes;
    int m_nHalfMessageMs = kDefaultHalfMessageMilliseconds;
    Handlers m_Handlers;
    std::string m_strSocketPath;
    int m_nListenFd = -1;
    int m_nWakeFd = -1;
    std::thread m_Thread;
    std::atomic<bool> m_bStop {false};
};

} // namespace SLF_ChromiumEmbeddedFramework
