#include "engine/wpe/WpeAudioServer.h"

#include "engine/wpe/WpeAudioWire.h"
#include "engine/wpe/WpeEngineServices.h"
#include "engine/wpe/WpeResourceChannel.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <string>

namespace SLF_ChromiumEmbeddedFramework {

namespace {

std::atomic<int> g_nNextStreamId {1};

EngineAudioHandler* HandlerOf(const WpeAudioServer::Stream& stream)
{
    return stream.view ? stream.view->GetClient()->GetAudioHandler() : nullptr;
}

void EndStream(WpeAudioServer::Stream& stream)
{
    if (stream.started) {
        if (EngineAudioHandler* handler = HandlerOf(stream))
            handler->OnAudioSteamStopped(stream.view, stream.id);
    }
    stream.started = false;
    stream.announced = false;
}

} // namespace

WpeAudioServer::WpeAudioServer(WpeEngineServices& port)
    : m_Port(port),
      m_Server("WpeAudioServer", "audio thread", "SlfAudio", kMaxAudioMessageBytes)
{
}

WpeAudioServer::~WpeAudioServer()
{
    Stop();
}

bool WpeAudioServer::Start(const std::string& socketPath)
{
    WpeSocketServer::Handlers handlers;
    handlers.onAccept = [this](int fd, int pid) {
        Stream stream;
        stream.pid = pid;
        m_Streams[fd] = stream;
    };
    handlers.onMessage = [this](const WpeSocketServer::Peer& peer, const uint8_t* data, size_t size,
                                std::string& error) { return OnMessage(peer, data, size, error); };
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

void WpeAudioServer::EndStreamsOfProcesses(std::vector<int> pids, std::function<void()> then)
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

void WpeAudioServer::Stop()
{
    m_Server.Stop();
}

bool WpeAudioServer::OnMessage(const WpeSocketServer::Peer& peer, const uint8_t* data, size_t size, std::string& error)
{
    Stream& stream = m_Streams[peer.fd];
    AudioFrameHeader header = {};
    if (!DecodeAudioFrameHeader(data, size, header)) {
        error = "an audio message of " + std::to_string(size) + " bytes is shorter than its header";
        return false;
    }
    const uint8_t* payload = data + sizeof(header);
    const size_t length = size - sizeof(header);

    switch (header.kind) {
    case AUDIO_FRAME_PAGE: {
        uint64_t token = 0;
        if (length != sizeof(token)) {
            error = "a page claim of " + std::to_string(length) + " bytes";
            return false;
        }
        std::memcpy(&token, payload, sizeof(token));
        int holder = 0;
        if (!m_Port.ClaimPageFromProcess(token, peer.pid, &holder)) {
            error = holder ? "it claims a page of process " + std::to_string(holder)
                           : std::string("it claims a page that no view named, beyond the limit of open claims");
            return false;
        }
        break;
    }
    case AUDIO_FRAME_START:
        if (length || !AudioFormatIsValid(header.rate, header.channels, header.bitsPerSample)) {
            error = "audio format out of range (rate " + std::to_string(header.rate) + ", channels " +
                    std::to_string(header.channels) + ", bits " + std::to_string(header.bitsPerSample) + ")";
            return false;
        }
        EndStream(stream);
        stream.announced = true;
        stream.rate = header.rate;
        stream.channels = header.channels;
        stream.bits = header.bitsPerSample;
        stream.id = g_nNextStreamId.fetch_add(1);
        break;
    case AUDIO_FRAME_PACKET:
        if (!stream.announced) {
            error = "an audio packet outside a stream";
            return false;
        }
        if (length > AudioBytesPerSecond(stream.rate, stream.channels) ||
            length % (static_cast<size_t>(stream.channels) * (kAudioBitsPerSample / 8)) != 0) {
            error = "an audio packet of " + std::to_string(length) +
                    " bytes (more than one second, or not whole sample frames)";
            return false;
        }
        break;
    case AUDIO_FRAME_STOP:
        EndStream(stream);
        break;
    default:
        error = "an audio message of unknown kind " + std::to_string(header.kind);
        return false;
    }

    if (stream.announced && !stream.started) {
        // The browser of the process may be known only now.
        stream.view = m_Port.FindViewForProcess(stream.pid);
        if (EngineAudioHandler* handler = HandlerOf(stream)) {
            handler->OnAudioStreamStarted(stream.view, stream.id, stream.rate, stream.channels, stream.bits, 0);
            stream.started = true;
        }
    }
    if (header.kind == AUDIO_FRAME_PACKET && stream.started && length) {
        if (EngineAudioHandler* handler = HandlerOf(stream))
            handler->OnAudioStreamPacket(stream.view, stream.id, payload, static_cast<int>(length));
    }
    return true;
}

} // namespace SLF_ChromiumEmbeddedFramework
