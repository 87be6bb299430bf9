// The service's side of page audio: the audio thread takes the streams our
// GStreamer sink sends from the web processes (one connection per stream),
// finds the browser by the sending process and calls the client's audio
// handler: started, packets, stopped. A stream whose browser is not known
// yet is held back until it is (the web process reports its pages
// asynchronously).
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

namespace SLF_ChromiumEmbeddedFramework {

class WebKitEnginePort;

class WebKitAudioServer {
public:
    explicit WebKitAudioServer(WebKitEnginePort& port);
    ~WebKitAudioServer();
    WebKitAudioServer(const WebKitAudioServer&) = delete;
    WebKitAudioServer& operator=(const WebKitAudioServer&) = delete;

    // Listens on socketPath ("@name" for an abstract address) and starts
    // the audio thread. Only processes of this user are heard.
    bool Start(const std::string& socketPath);
    // Ends every stream (stopped is reported) and the thread.
    void Stop();

private:
    void ThreadMain();

    WebKitEnginePort& m_Port;
    std::string m_strSocketPath;
    int m_nListenFd = -1;
    int m_nWakeFd = -1;
    std::thread m_Thread;
    std::atomic<bool> m_bStop{false};
};

} // namespace SLF_ChromiumEmbeddedFramework
