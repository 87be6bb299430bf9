#include "engine/wpe/WebKitAudioServer.h"

#include "dbg/NSLog.h"
#include "engine/wpe/WebKitAudioWire.h"
#include "engine/wpe/WebKitEnginePort.h"
#include "engine/wpe/WebKitResourceChannel.h"
#include "engine/wpe/WebKitView.h"

#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <memory>
#include <vector>

namespace SLF_ChromiumEmbeddedFramework {

namespace {

bool ReadAll(int fd, void* data, size_t size)
{
    auto* bytes = static_cast<uint8_t*>(data);
    while (size > 0) {
        const ssize_t got = read(fd, bytes, size);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return false;
        bytes += got;
        size -= static_cast<size_t>(got);
    }
    return true;
}

// One stream: one connection from a sink.
struct Stream {
    int pid = 0;
    int id = 0;
    int rate = 0;
    int channels = 0;
    int bits = 0;
    bool announced = false; // the start frame arrived
    bool started = false;   // the handler was told
    std::shared_ptr<WebKitView> view;
};

std::atomic<int> g_nNextStreamId{1};

EngineAudioHandler* HandlerOf(const Stream& stream)
{
    return stream.view ? stream.view->GetClient()->GetAudioHandler() : nullptr;
}

void EndStream(Stream& stream)
{
    if (stream.started) {
        if (EngineAudioHandler* handler = HandlerOf(stream))
            handler->OnAudioSteamStopped(stream.view, stream.id);
    }
    stream.started = false;
    stream.announced = false;
}

} // namespace

WebKitAudioServer::WebKitAudioServer(WebKitEnginePort& port) : m_Port(port) {}

WebKitAudioServer::~WebKitAudioServer()
{
    Stop();
}

bool WebKitAudioServer::Start(const std::string& socketPath)
{
    m_nListenFd = ListenOnUnixSocket(socketPath);
    if (m_nListenFd < 0) {
        NSLog("WebKitAudioServer::Start - cannot listen on %s: %s", socketPath.c_str(), strerror(errno));
        Stop();
        return false;
    }
    m_strSocketPath = socketPath;
    m_nWakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (m_nWakeFd < 0) {
        Stop();
        return false;
    }
    m_bStop.store(false);
    m_Thread = std::thread([this] { ThreadMain(); });
    return true;
}

void WebKitAudioServer::Stop()
{
    if (m_Thread.joinable()) {
        m_bStop.store(true);
        const uint64_t one = 1;
        if (write(m_nWakeFd, &one, sizeof(one)) < 0)
            NSLog("WebKitAudioServer::Stop - cannot wake the audio thread: %s", strerror(errno));
        m_Thread.join();
    }
    if (m_nListenFd >= 0)
        close(m_nListenFd);
    if (m_nWakeFd >= 0)
        close(m_nWakeFd);
    m_nListenFd = m_nWakeFd = -1;
    m_strSocketPath.clear();
}

void WebKitAudioServer::ThreadMain()
{
    pthread_setname_np(pthread_self(), "SlfAudio");
    std::map<int, Stream> streams; // by connection
    std::vector<uint8_t> payload;
    while (!m_bStop.load()) {
        std::vector<pollfd> fds;
        fds.push_back({m_nWakeFd, POLLIN, 0});
        fds.push_back({m_nListenFd, POLLIN, 0});
        for (const auto& entry : streams)
            fds.push_back({entry.first, POLLIN, 0});
        if (poll(fds.data(), fds.size(), -1) < 0) {
            if (errno == EINTR)
                continue;
            NSLog("WebKitAudioServer - poll failed: %s", strerror(errno));
            break;
        }
        if (fds[0].revents)
            break;
        if (fds[1].revents & POLLIN) {
            const int fd = accept4(m_nListenFd, nullptr, nullptr, SOCK_CLOEXEC);
            struct ucred credentials = {};
            socklen_t size = sizeof(credentials);
            if (fd >= 0 && getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) == 0 &&
                credentials.uid == getuid()) {
                Stream stream;
                stream.pid = credentials.pid;
                streams[fd] = stream;
            } else if (fd >= 0) {
                close(fd);
            }
        }
        for (size_t i = 2; i < fds.size(); ++i) {
            if (!fds[i].revents)
                continue;
            const int fd = fds[i].fd;
            Stream& stream = streams[fd];
            AudioFrameHeader header = {};
            bool ok = (fds[i].revents & POLLIN) && ReadAll(fd, &header, sizeof(header)) &&
                      header.length <= kMaxAudioPacketBytes;
            if (ok) {
                payload.resize(header.length);
                ok = !header.length || ReadAll(fd, payload.data(), header.length);
            }
            if (ok && header.kind == AUDIO_FRAME_START) {
                EndStream(stream);
                stream.announced = header.rate > 0 && header.channels > 0 && header.bitsPerSample > 0;
                stream.rate = header.rate;
                stream.channels = header.channels;
                stream.bits = header.bitsPerSample;
                stream.id = g_nNextStreamId.fetch_add(1);
            } else if (ok && header.kind == AUDIO_FRAME_STOP) {
                EndStream(stream);
            }
            if (ok && stream.announced && !stream.started) {
                // The browser of the process may be known only now.
                stream.view = m_Port.FindViewForProcess(stream.pid);
                if (EngineAudioHandler* handler = HandlerOf(stream)) {
                    handler->OnAudioStreamStarted(stream.view, stream.id, stream.rate, stream.channels, stream.bits, 0);
                    stream.started = true;
                }
            }
            if (ok && header.kind == AUDIO_FRAME_PACKET && stream.started && header.length) {
                if (EngineAudioHandler* handler = HandlerOf(stream))
                    handler->OnAudioStreamPacket(stream.view, stream.id, payload.data(),
                                                 static_cast<int>(header.length));
            }
            if (!ok) {
                EndStream(stream);
                close(fd);
                streams.erase(fd);
            }
        }
    }
    for (auto& entry : streams) {
        EndStream(entry.second);
        close(entry.first);
    }
}

} // namespace SLF_ChromiumEmbeddedFramework
