// The service's side of resource requests. Each web process asks, for every
// request of its pages, whether the service answers it; the answer is
// "load normally", "refused" or the URL "slfcef-resource:<token>" that the
// request loads from instead. The token is random and belongs to the view
// whose request it answers: the scheme handler serves it to that view only,
// once, and fails every other load of the scheme.
//
// Threads:
// - The resource thread (the socket thread) accepts web processes, answers
//   their questions at once (GetResourceHandler, which asks the service's
//   URL policy), keeps the taken-over requests until their scheme request
//   arrives and checks each scheme request against them. A question that
//   names a page is answered only for a process that reported showing that
//   page (its peer pid, from the socket's credentials); one that arrives
//   before the report waits for it, without holding anyone else up.
// - One serving thread per view, while the view has taken-over requests to
//   serve: it runs the resource handler (ProcessRequest,
//   GetResponseHeaders, ReadResponse) for that view's requests one after
//   the other. A settings request that waits for its host (up to 120 s)
//   holds up only the later taken-over requests of the same view.
// - The engine context receives the scheme requests and finishes each one
//   with the status, the headers and the body.
#pragma once

#include "engine/port/EnginePort.h"
#include "engine/wpe/WpeSocketServer.h"

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

typedef struct _WebKitURISchemeRequest WebKitURISchemeRequest;

namespace SLF_ChromiumEmbeddedFramework {

class WpeEngineServices;
class WpeServedView;

using ResourceVerdictAndUrl = std::pair<uint8_t, std::string>;

class WpeResourceServer {
public:
    explicit WpeResourceServer(WpeEngineServices& port);
    ~WpeResourceServer();
    WpeResourceServer(const WpeResourceServer&) = delete;
    WpeResourceServer& operator=(const WpeResourceServer&) = delete;

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
    // Any thread: the pages shown by the web processes changed; questions
    // that wait for their page's report are looked at again.
    void PagesChanged();

private:
    // A taken-over request waiting for its scheme request.
    struct Pending {
        std::shared_ptr<WpeServedView> view;
        uint64_t pageId = 0;
        EngineRequestRef request;
        EngineResourceHandler* handler = nullptr;
        int64_t created = 0; // monotonic microseconds
    };
    struct Question {
        uint64_t pageId = 0;
        std::string url;
        int64_t asked = 0; // monotonic microseconds
    };
    // The questions of one web process, answered in order.
    struct Connection {
        int pid = 0;
        std::deque<Question> questions;
        bool retryScheduled = false;
    };
    // The serving thread of one view and its queue.
    struct Lane {
        std::deque<std::function<void()>> jobs;
        std::thread thread;
        bool running = false;
    };

    void RunJobs();
    void OnAccept(int fd, int pid);
    bool OnMessage(const WpeSocketServer::Peer& peer, const uint8_t* data, size_t size, std::string& error);
    // Answers the questions of fd that can be answered now; false when the
    // connection is to end.
    bool AnswerQuestions(int fd, Connection& connection);
    void AnswerAllWaiting();
    // Looks at the waiting questions again once a report can no longer be
    // on its way.
    void ScheduleRetry();
    void Queue(std::function<void()> job);
    // The verdict for a question, and the URL to load when taken over.
    ResourceVerdictAndUrl Answer(uint64_t pageId, const std::string& url);
    void Serve(const std::string& token, uint64_t loadingPageId, WebKitURISchemeRequest* request);
    void Dispatch(uint64_t pageId, std::function<void()> job);
    void RunLane(uint64_t pageId);
    void StopLanes();

    WpeEngineServices& m_Port;
    WpeSocketServer m_Server;

    // True from Start to Stop; shared with the retry timers.
    std::shared_ptr<std::atomic<bool>> m_pRunning = std::make_shared<std::atomic<bool>>(false);

    // Resource-thread state.
    std::map<std::string, Pending> m_Pending;
    std::map<int, Connection> m_Connections;

    // Jobs for the resource thread. Lock order: a leaf lock.
    std::mutex m_JobMutex;
    std::deque<std::function<void()>> m_Jobs;

    // Serving threads by page identifier. Lock order: a leaf lock; no job
    // runs while it is held.
    std::mutex m_LaneMutex;
    std::map<uint64_t, Lane> m_Lanes;
    bool m_bLanesStopped = false;
};

} // namespace SLF_ChromiumEmbeddedFramework
