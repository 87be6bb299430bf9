#include "engine/wpe/WebKitAudioServer.h"

#include "engine/wpe/WebKitAudioWire.h"
#include "engine/wpe/WebKitEnginePort.h"
#include "engine/wpe/WebKitResourceChannel.h"
#include "engine/wpe/WebKitView.h"

#include <poll.h>

#include <algorithm>
#include <atomic>

namespace SLF_ChromiumEmbeddedFramework {

namespace {

std::atomic<int> g_nNextStreamId{1};

EngineAudioHandler* HandlerOf(const WebKitAudioServer::Stream& stream)
{
    return stream.view ? stream.view->GetClient()->GetAudioHandler() : nullptr;
}

void EndStream(WebKitAudioServer::Stream& stream)
{
    if (stream.started) {
        if (EngineAudioHandler* handler = HandlerOf(stream))
            handler->OnAudioSteamStopped(stream.view, stream.id);
    }
    stream.started = false;
    stream.announced = false;
}

} // namespace

WebKitAudioServer::WebKitAudioServer(WebKitEnginePort& port)
    : m_Port(port), m_Server("WebKitAudioServer", "audio thread", "SlfAudio")
{
}

WebKitAudioServer::~WebKitAudioServer()
{
    Stop();
}

bool WebKitAudioServer::Start(const std::string& socketPath)
{
    WebKitSocketServer::Handlers handlers;
    handlers.onAccept = [this](int fd, int pid) {
        Stream stream;
        stream.pid = pid;
        m_Streams[fd] = stream;
    };
    handlers.onEvents = [this](int fd, short revents) { return OnEvents(fd, revents); };
    handlers.onClose = [this](int fd) {
        EndStream(m_Streams[fd]);
        m_Streams.erase(fd);
    };
    handlers.onWake = [this]() {
        std::deque<std::function<void()>> jobs;
        {
            std::lock_guard<std::mutex> lock(m_JobMutex);
            jobs.swap(m_Jobs);
        }
        for (auto& job : jobs)
            job();
    };
    return m_Server.Start(socketPath, std::move(handlers));
}

void WebKitAudioServer::EndStreamsOfProcesses(std::vector<int> pids, std::function<void()> then)
{
    auto job = [this, pids = std::move(pids), then]() {
        for (auto& entry : m_Streams) {
            Stream& stream = entry.second;
            if (std::find(pids.begin(), pids.end(), stream.pid) == pids.end())
                continue;
            EndStream(stream);
            // No browser is found for process 0: whatever the connection
            // still carries is dropped.
            stream.pid = 0;
            stream.view.reset();
        }
        if (then)
            then();
    };
    {
        std::lock_guard<std::mutex> lock(m_JobMutex);
        m_Jobs.push_back(std::move(job));
    }
    if (!m_Server.Wake()) {
        std::lock_guard<std::mutex> lock(m_JobMutex);
        m_Jobs.clear();
        if (then)
            then();
    }
}

void WebKitAudioServer::Stop()
{
    m_Server.Stop();
}

bool WebKitAudioServer::OnEvents(int fd, short revents)
{
    Stream& stream = m_Streams[fd];
    AudioFrameHeader header = {};
    uint8_t headerBytes[sizeof(AudioFrameHeader)];
    bool ok = (revents & POLLIN) && ReadAll(fd, headerBytes, sizeof(headerBytes)) &&
              DecodeAudioFrameHeader(headerBytes, sizeof(headerBytes), header);
    if (ok) {
        m_Payload.resize(header.length);
        ok = !header.length || ReadAll(fd, m_Payload.data(), header.length);
    }
    if (ok && header.kind == AUDIO_FRAME_START) {
        EndStream(stream);
        stream.announced = AudioFrameAnnouncesFormat(header);
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
            handler->OnAudioStreamPacket(stream.view, stream.id, m_Payload.data(),
                                         static_cast<int>(header.length));
    }
    return ok;
}

} // namespace SLF_ChromiumEmbeddedFramework
