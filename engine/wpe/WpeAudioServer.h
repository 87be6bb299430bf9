// The service's side of page audio: the audio thread takes the streams our
// GStreamer sink sends from the web processes (one connection per stream),
// finds the browser by the sending process and calls the client's audio
// handler: started, packets, stopped. A stream whose browser is not known
// yet is held back until it is (the web process reports its pages
// asynchronously, also over this socket). A stream whose format or packets
// leave the sane ranges, or a process that claims another's page, loses
// its connection.
#pragma once

#include "engine/wpe/WpeSocketServer.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace SLF_ChromiumEmbeddedFramework {

class WpeEngineServices;
class WpeServedView;

class WpeAudioServer {
public:
    explicit WpeAudioServer(WpeEngineServices& port);
    ~WpeAudioServer();
    WpeAudioServer(const WpeAudioServer&) = delete;
    WpeAudioServer& operator=(const WpeAudioServer&) = delete;

    // Listens on socketPath ("@name" for an abstract address) and starts
    // the audio thread. Only processes of this user are heard.
    bool Start(const std::string& socketPath);
    // Ends every stream (stopped is reported) and the thread.
    void Stop();
    // Any thread: the web processes pids ended. On the audio thread, each
    // of their streams gets its stop, as when a stream ends by itself, and
    // nothing more of their connections reaches a browser; then `then`
    // runs there. Without a running audio thread `then` runs at once.
    void EndStreamsOfProcesses(std::vector<int> pids, std::function<void()> then);

    // One stream: one connection from a sink (audio thread only).
    struct Stream {
        int pid = 0;
        int id = 0;
        int rate = 0;
        int channels = 0;
        int bits = 0;
        bool announced = false; // the start frame arrived
        bool started = false;   // the handler was told
        std::shared_ptr<WpeServedView> view;
    };

private:
    bool OnMessage(const WpeSocketServer::Peer& peer, const uint8_t* data, size_t size, std::string& error);

    WpeEngineServices& m_Port;
    WpeSocketServer m_Server;

    // Audio-thread state: the streams by connection.
    std::map<int, Stream> m_Streams;
    // Work for the audio thread from other threads. Lock order: a leaf lock.
    std::mutex m_JobMutex;
    std::deque<std::function<void()>> m_Jobs;
};

} // namespace SLF_ChromiumEmbeddedFramework
