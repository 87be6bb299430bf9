#include "engine/wpe/WebKitSocketServer.h"

#include "dbg/NSLog.h"
#include "engine/wpe/WebKitResourceChannel.h"

#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <vector>

namespace SLF_ChromiumEmbeddedFramework {

WebKitSocketServer::WebKitSocketServer(const char* owner, const char* role, const char* threadName)
    : m_szOwner(owner), m_szRole(role), m_szThreadName(threadName)
{
}

WebKitSocketServer::~WebKitSocketServer()
{
    Stop();
}

bool WebKitSocketServer::Start(const std::string& socketPath, Handlers handlers)
{
    m_nListenFd = ListenOnUnixSocket(socketPath);
    if (m_nListenFd < 0) {
        NSLog("%s::Start - cannot listen on %s: %s", m_szOwner, socketPath.c_str(), strerror(errno));
        Stop();
        return false;
    }
    m_strSocketPath = socketPath;
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

void WebKitSocketServer::Stop()
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
    m_nListenFd = m_nWakeFd = -1;
    m_strSocketPath.clear();
}

bool WebKitSocketServer::Wake()
{
    const uint64_t one = 1;
    if (write(m_nWakeFd, &one, sizeof(one)) >= 0)
        return true;
    NSLog("%s - cannot wake the %s: %s", m_szOwner, m_szRole, strerror(errno));
    return false;
}

void WebKitSocketServer::ThreadMain()
{
    pthread_setname_np(pthread_self(), m_szThreadName);
    std::vector<int> clients;
    auto end = [this, &clients](int fd) {
        if (m_Handlers.onClose)
            m_Handlers.onClose(fd);
        close(fd);
        std::erase(clients, fd);
    };
    while (!m_bStop.load()) {
        std::vector<pollfd> fds;
        fds.push_back({m_nWakeFd, POLLIN, 0});
        fds.push_back({m_nListenFd, POLLIN, 0});
        for (int fd : clients)
            fds.push_back({fd, POLLIN, 0});
        if (poll(fds.data(), fds.size(), -1) < 0) {
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
        if (fds[1].revents & POLLIN) {
            const int client = accept4(m_nListenFd, nullptr, nullptr, SOCK_CLOEXEC);
            int pid = 0;
            if (client >= 0 && PeerIsSameUser(client, &pid)) {
                clients.push_back(client);
                if (m_Handlers.onAccept)
                    m_Handlers.onAccept(client, pid);
            } else if (client >= 0) {
                close(client);
            }
        }
        for (size_t i = 2; i < fds.size(); ++i) {
            if (fds[i].revents && !m_Handlers.onEvents(fds[i].fd, fds[i].revents))
                end(fds[i].fd);
        }
    }
    while (!clients.empty())
        end(clients.front());
}

} // namespace SLF_ChromiumEmbeddedFramework
