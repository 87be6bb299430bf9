// The service's side of resource requests. Each web process asks, for every
// request of its pages, whether the service answers it; one resource thread
// takes these questions from a private Unix socket and asks the browser's
// request handler (GetResourceHandler). A request taken over comes back to
// the engine as "slfcef-resource:<identifier>"; the scheme handler hands it
// to the same thread, which runs the resource handler (ProcessRequest,
// GetResponseHeaders, ReadResponse) and then finishes the request on the
// engine context with the status, the headers and the body.
#pragma once

#include "engine/port/EnginePort.h"
#include "engine/wpe/WebKitSocketServer.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

typedef struct _WebKitURISchemeRequest WebKitURISchemeRequest;

namespace SLF_ChromiumEmbeddedFramework {

class WebKitEnginePort;
class WebKitView;

class WebKitResourceServer {
public:
    explicit WebKitResourceServer(WebKitEnginePort& port);
    ~WebKitResourceServer();
    WebKitResourceServer(const WebKitResourceServer&) = delete;
    WebKitResourceServer& operator=(const WebKitResourceServer&) = delete;

    // Listens on socketPath ("@name" for an abstract address) and starts
    // the resource thread. Only processes of this user are answered.
    bool Start(const std::string& socketPath);
    // Ends the thread and removes the socket; pending requests are dropped.
    void Stop();
    const std::string& GetSocketPath() const { return m_Server.GetSocketPath(); }

    // Engine context: a request for the internal scheme arrived.
    void OnSchemeRequest(WebKitURISchemeRequest* request);
    // Engine context: a view closed with requests that never ended; their
    // handlers are told on the resource thread.
    void CancelRequests(const std::vector<EngineResourceHandler*>& handlers);

private:
    struct Pending {
        std::shared_ptr<WebKitView> view;
        EngineRequestRef request;
        EngineResourceHandler* handler = nullptr;
    };

    void RunJobs();
    bool OnMessage(const WebKitSocketServer::Peer& peer, const uint8_t* data, size_t size, std::string& error);
    void Queue(std::function<void()> job);
    uint64_t Answer(uint64_t pageId, const std::string& url);
    void Serve(uint64_t identifier, WebKitURISchemeRequest* request);

    WebKitEnginePort& m_Port;
    WebKitSocketServer m_Server;

    // Resource-thread state.
    uint64_t m_nNextIdentifier = 1;
    std::map<uint64_t, Pending> m_Pending;

    // Jobs for the resource thread. Lock order: a leaf lock.
    std::mutex m_JobMutex;
    std::deque<std::function<void()>> m_Jobs;
};

} // namespace SLF_ChromiumEmbeddedFramework
