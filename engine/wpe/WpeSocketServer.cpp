#include "engine/wpe/WpeSocketServer.h"

#include "dbg/NSLog.h"
#include "engine/wpe/WpeResourceChannel.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <vector>

namespace SLF_ChromiumEmbeddedFramework {

namespace {

constexpr size_t kLengthBytes = sizeof(uint32_t);
// One read per connection and poll pass: a peer that sends without pause
// cannot keep the thread from the others.
constexpr size_t kReadChunk = 64 * 1024;

int64_t NowMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

} // namespace

struct WpeSocketServer::Connection {
    int fd = -1;
    int pid = 0;
    // Bytes received and not yet handed over: the start of a message.
    std::vector<uint8_t> buffer;
    // When the half-sent message in buffer must be whole; 0 when none is.
    int64_t deadline = 0;
};

WpeSocketServer::WpeSocketServer(const char* owner, const char* role, const char* threadName, size_t maxMessageBytes)
    : m_szOwner(owner),
      m_szRole(role),
      m_szThreadName(threadName),
      m_nMaxMessageBytes(maxMessageBytes)
{
}

WpeSocketServer::~WpeSocketServer()
{
    Stop();
}

bool WpeSocketServer::Start(const std::string& socketPath, Handlers handlers)
{
    m_nListenFd = ListenOnUnixSocket(socketPath);
    if (m_nListenFd < 0) {
        NSLog("%s::Start - cannot listen on %s: %s", m_szOwner, socketPath.c_str(), strerror(errno));
        Stop();
        return false;
    }
    m_strSocketPath = socketPath;
    // A connection that vanished between poll and accept must not block.
    fcntl(m_nListenFd, F_SETFL, fcntl(m_nListenFd, F_GETFL) | O_NONBLOCK);
    m_nWakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (m_nWakeFd < 0) {
        Stop();
        return false;
    }
    m_Handlers = std::move(handlers);
    m_bStop.store(false);
    m_Thread = std::thread([this] { ThreadMain(); });
    return true;
}

void WpeSocketServer::Stop()
{
    if (m_Thread.joinable()) {
        m_bStop.store(true);
        const uint64_t one = 1;
        if (write(m_nWakeFd, &one, sizeof(one)) < 0)
            NSLog("%s::Stop - cannot wake the %s: %s", m_szOwner, m_szRole, strerror(errno));
        m_Thread.join();
    }
    if (m_nListenFd >= 0)
        close(m_nListenFd);
    if (m_nWakeFd >= 0)
        close(m_nWakeFd);
    if (!m_strSocketPath.empty() && m_strSocketPath[0] != '@')
        unlink(m_strSocketPath.c_str());
    m_nListenFd = m_nWakeFd = -1;
    m_strSocketPath.clear();
}

bool WpeSocketServer::Wake()
{
    const uint64_t one = 1;
    if (write(m_nWakeFd, &one, sizeof(one)) >= 0)
        return true;
    NSLog("%s - cannot wake the %s: %s", m_szOwner, m_szRole, strerror(errno));
    return false;
}

bool WpeSocketServer::Receive(Connection& connection, std::string& error, bool& peerEnded)
{
    uint8_t chunk[kReadChunk];
    ssize_t got;
    do
        got = read(connection.fd, chunk, sizeof(chunk));
    while (got < 0 && errno == EINTR);
    if (got > 0)
        connection.buffer.insert(connection.buffer.end(), chunk, chunk + got);
    if (got < 0)
        return errno == EAGAIN || errno == EWOULDBLOCK;
    if (got == 0) {
        // A peer that ends mid-message (a crash, say) ends quietly.
        peerEnded = true;
        return false;
    }

    size_t used = 0;
    bool handed = false;
    const Peer peer {connection.fd, connection.pid};
    while (connection.buffer.size() - used >= kLengthBytes) {
        uint32_t length = 0;
        std::memcpy(&length, connection.buffer.data() + used, kLengthBytes);
        if (length > m_nMaxMessageBytes) {
            error = "a message of " + std::to_string(length) + " bytes is over the limit of " +
                    std::to_string(m_nMaxMessageBytes);
            return false;
        }
        if (connection.buffer.size() - used < kLengthBytes + length)
            break;
        if (!m_Handlers.onMessage(peer, connection.buffer.data() + used + kLengthBytes, length, error))
            return false;
        used += kLengthBytes + length;
        handed = true;
    }
    connection.buffer.erase(connection.buffer.begin(), connection.buffer.begin() + static_cast<std::ptrdiff_t>(used));
    if (connection.buffer.empty()) {
        connection.deadline = 0;
        connection.buffer.shrink_to_fit();
    } else if (handed || !connection.deadline) {
        // A new message started: its time starts now.
        connection.deadline = NowMs() + m_nHalfMessageMs;
    }
    return true;
}

void WpeSocketServer::ThreadMain()
{
    pthread_setname_np(pthread_self(), m_szThreadName);
    std::vector<Connection> connections;
    bool fullLogged = false;
    auto end = [this](Connection& connection, const std::string& error) {
        if (!error.empty())
            NSLog("%s - process %d cut off: %s", m_szOwner, connection.pid, error.c_str());
        if (m_Handlers.onClose)
            m_Handlers.onClose(connection.fd);
        close(connection.fd);
        connection.fd = -1;
    };
    std::vector<pollfd> fds;
    while (!m_bStop.load()) {
        fds.clear();
        fds.push_back({m_nWakeFd, POLLIN, 0});
        fds.push_back({m_nListenFd, POLLIN, 0});
        int64_t nearest = 0;
        for (const Connection& connection : connections) {
            fds.push_back({connection.fd, POLLIN, 0});
            if (connection.deadline && (!nearest || connection.deadline < nearest))
                nearest = connection.deadline;
        }
        const int timeout = nearest ? static_cast<int>(std::max<int64_t>(0, nearest - NowMs())) : -1;
        if (poll(fds.data(), fds.size(), timeout) < 0) {
            if (errno == EINTR)
                continue;
            NSLog("%s - poll failed: %s", m_szOwner, strerror(errno));
            break;
        }
        if (fds[0].revents) {
            uint64_t count = 0;
            if (read(m_nWakeFd, &count, sizeof(count)) < 0 && errno != EAGAIN)
                NSLog("%s - wake read failed: %s", m_szOwner, strerror(errno));
            if (m_bStop.load())
                break;
            if (m_Handlers.onWake)
                m_Handlers.onWake();
        }
        // The connections polled are the first fds.size() - 2 entries;
        // one accepted now waits for the next pass.
        const size_t polled = fds.size() - 2;
        if (fds[1].revents & POLLIN) {
            const int client = accept4(m_nListenFd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
            int pid = 0;
            if (client >= 0 && connections.size() >= kMaxConnections) {
                if (!fullLogged)
                    NSLog("%s - %zu connections are open; refusing more", m_szOwner, connections.size());
                fullLogged = true;
                close(client);
            } else if (client >= 0 && PeerIsSameUser(client, &pid)) {
                fullLogged = false;
                connections.push_back({client, pid, {}, 0});
                if (m_Handlers.onAccept)
                    m_Handlers.onAccept(client, pid);
            } else if (client >= 0) {
                close(client);
            }
        }
        const int64_t now = NowMs();
        for (size_t i = 0; i < polled; ++i) {
            Connection& connection = connections[i];
            std::string error;
            bool peerEnded = false;
            if (fds[i + 2].revents && !Receive(connection, error, peerEnded))
                end(connection, error);
            else if (connection.deadline && now >= connection.deadline)
                end(connection, "a message stayed half-sent for more than " + std::to_string(m_nHalfMessageMs) + " ms");
        }
        std::erase_if(connections, [](const Connection& connection) { return connection.fd < 0; });
    }
    for (Connection& connection : connections)
        end(connection, std::string());
}

} // namespace SLF_ChromiumEmbeddedFramework
