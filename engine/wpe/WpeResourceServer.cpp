#include "engine/wpe/WpeResourceServer.h"

#include "engine/wpe/WpeEngineServices.h"
#include "engine/wpe/WpeResourceChannel.h"

#include "dbg/NSLog.h"

#include <libsoup/soup.h>
#include <wpe/webkit.h>

#include <pthread.h>
#include <sys/socket.h>

#include <algorithm>

namespace SLF_ChromiumEmbeddedFramework {

namespace {

constexpr int kReadChunk = 64 * 1024;
// A question about a page waits this long for the asking process to report
// that it shows the page; then it is refused.
constexpr int64_t kOwnerReportWaitMicroseconds = 10 * G_USEC_PER_SEC;
// Questions a process may have waiting at once; more ends its connection.
constexpr size_t kMaxWaitingQuestions = 64;
// A taken-over request whose scheme request never came (the page went away
// first) is forgotten after this long.
constexpr int64_t kPendingLifetimeMicroseconds = 600 * G_USEC_PER_SEC;
// A body larger than this is cut off; no internal resource comes near it.
constexpr size_t kMaxBodyBytes = 256 * 1024 * 1024;

class ResourceRequest : public EngineRequest {
public:
    ResourceRequest(uint64_t identifier, std::string url) : m_nIdentifier(identifier), m_strUrl(std::move(url)) {}
    uint64_t GetIdentifier() override { return m_nIdentifier; }
    std::string GetURL() override { return m_strUrl; }

private:
    uint64_t m_nIdentifier;
    std::string m_strUrl;
};

class ResourceResponse : public EngineResponse {
public:
    void SetStatus(int status) override { m_nStatus = status; }
    int GetStatus() override { return m_nStatus; }
    void SetMimeType(const std::string& mimeType) override { m_strMimeType = mimeType; }
    void SetHeader(const std::string& name, const std::string& value) override { m_Headers.emplace_back(name, value); }

    int m_nStatus = 0;
    std::string m_strMimeType;
    std::vector<std::pair<std::string, std::string>> m_Headers;
};

// The handler runs synchronously on its view's serving thread; there is
// nothing to resume later.
class ResourceCallback : public EngineCallback {
public:
    void Continue() override {}
    void Cancel() override {}
};

// What the resource thread produced for one request.
struct ResourceResult {
    enum Kind { Finished, Failed, Open } kind = Failed;
    int status = 200;
    std::string mimeType;
    std::vector<std::pair<std::string, std::string>> headers;
    std::vector<uint8_t> body;
};

void FailRequest(WebKitURISchemeRequest* request, const char* why)
{
    GError* error = g_error_new_literal(G_IO_ERROR, G_IO_ERROR_FAILED, why);
    webkit_uri_scheme_request_finish_error(request, error);
    g_error_free(error);
}

void FinishRequest(WebKitURISchemeRequest* request, ResourceResult& result)
{
    if (result.kind == ResourceResult::Failed) {
        GError* error = g_error_new_literal(G_IO_ERROR, G_IO_ERROR_FAILED, "the resource handler refused the request");
        webkit_uri_scheme_request_finish_error(request, error);
        g_error_free(error);
        return;
    }
    const gint64 length = static_cast<gint64>(result.body.size());
    GBytes* bytes = g_bytes_new(result.body.data(), result.body.size());
    GInputStream* stream = g_memory_input_stream_new_from_bytes(bytes);
    g_bytes_unref(bytes);
    WebKitURISchemeResponse* response = webkit_uri_scheme_response_new(stream, length);
    g_object_unref(stream);
    webkit_uri_scheme_response_set_status(response, static_cast<guint>(result.status), nullptr);
    if (!result.mimeType.empty())
        webkit_uri_scheme_response_set_content_type(response, result.mimeType.c_str());
    SoupMessageHeaders* headers = soup_message_headers_new(SOUP_MESSAGE_HEADERS_RESPONSE);
    // Pages of any origin may read what the service answers.
    soup_message_headers_replace(headers, "Access-Control-Allow-Origin", "*");
    for (const auto& header : result.headers)
        soup_message_headers_replace(headers, header.first.c_str(), header.second.c_str());
    webkit_uri_scheme_response_set_http_headers(response, headers);
    webkit_uri_scheme_request_finish_with_response(request, response);
    g_object_unref(response);
}

} // namespace

WpeResourceServer::WpeResourceServer(WpeEngineServices& port)
    : m_Port(port),
      m_Server("WpeResourceServer", "resource thread", "SlfResources", kMaxFrameBytes)
{
}

WpeResourceServer::~WpeResourceServer()
{
    Stop();
}

bool WpeResourceServer::Start(const std::string& socketPath)
{
    {
        std::lock_guard<std::mutex> lock(m_LaneMutex);
        m_bLanesStopped = false;
    }
    m_pRunning = std::make_shared<std::atomic<bool>>(true);
    WpeSocketServer::Handlers handlers;
    handlers.onAccept = [this](int fd, int pid) { OnAccept(fd, pid); };
    handlers.onMessage = [this](const WpeSocketServer::Peer& peer, const uint8_t* data, size_t size,
                                std::string& error) { return OnMessage(peer, data, size, error); };
    handlers.onClose = [this](int fd) { m_Connections.erase(fd); };
    handlers.onWake = [this] { RunJobs(); };
    return m_Server.Start(socketPath, std::move(handlers));
}

void WpeResourceServer::Stop()
{
    m_pRunning->store(false);
    m_Server.Stop();
    // No new work reaches the serving threads once the resource thread has
    // ended; the running ones finish what they serve.
    StopLanes();
    m_Pending.clear();
    m_Connections.clear();
    std::lock_guard<std::mutex> lock(m_JobMutex);
    m_Jobs.clear();
}

void WpeResourceServer::Queue(std::function<void()> job)
{
    {
        std::lock_guard<std::mutex> lock(m_JobMutex);
        m_Jobs.push_back(std::move(job));
    }
    m_Server.Wake();
}

void WpeResourceServer::OnSchemeRequest(WebKitURISchemeRequest* request)
{
    const std::string token = ResourceTokenFromUrl(webkit_uri_scheme_request_get_uri(request));
    WebKitWebView* webView = webkit_uri_scheme_request_get_web_view(request);
    const uint64_t pageId = webView ? webkit_web_view_get_page_id(webView) : 0;
    g_object_ref(request);
    Queue([this, token, pageId, request] { Serve(token, pageId, request); });
}

void WpeResourceServer::CancelRequests(const std::vector<EngineResourceHandler*>& handlers)
{
    Queue([handlers] {
        for (EngineResourceHandler* handler : handlers)
            handler->Cancel();
    });
}

void WpeResourceServer::PagesChanged()
{
    Queue([this] { AnswerAllWaiting(); });
}

void WpeResourceServer::RunJobs()
{
    std::deque<std::function<void()>> jobs;
    {
        std::lock_guard<std::mutex> lock(m_JobMutex);
        jobs.swap(m_Jobs);
    }
    for (auto& job : jobs)
        job();
}

void WpeResourceServer::OnAccept(int fd, int pid)
{
    m_Connections[fd] = Connection {pid, {}};
}

bool WpeResourceServer::OnMessage(const WpeSocketServer::Peer& peer, const uint8_t* data, size_t size,
                                  std::string& error)
{
    auto connection = m_Connections.find(peer.fd);
    GVariant* question = DecodeResourceFrame(data, size, kQuestionType);
    if (!question || connection == m_Connections.end()) {
        error = "a resource question that is not one";
        if (question)
            g_variant_unref(question);
        return false;
    }
    guint64 pageId = 0;
    const gchar* url = nullptr;
    g_variant_get(question, "(t&s)", &pageId, &url);
    connection->second.questions.push_back(Question {pageId, url, g_get_monotonic_time()});
    g_variant_unref(question);
    if (connection->second.questions.size() > kMaxWaitingQuestions) {
        error = "too many questions without waiting for the answers";
        return false;
    }
    // The socket does not block: a process that leaves its answers unread
    // until its buffer is full is cut off.
    if (AnswerQuestions(peer.fd, connection->second))
        return true;
    error = "the answer could not be sent";
    return false;
}

bool WpeResourceServer::AnswerQuestions(int fd, Connection& connection)
{
    while (!connection.questions.empty()) {
        const Question& question = connection.questions.front();
        ResourceVerdictAndUrl answer(kRefused, std::string());
        if (!m_Port.FindViewForPage(question.pageId)) {
            // No such page (any more): its view closed, or the process
            // names a page that never existed.
        } else if (m_Port.ProcessShowsPage(connection.pid, question.pageId)) {
            answer = Answer(question.pageId, question.url);
        } else if (g_get_monotonic_time() - question.asked < kOwnerReportWaitMicroseconds) {
            // The process's report of the page may still be on its way to
            // the engine context: the question waits for it, and is looked
            // at again when the wait is over.
            if (!connection.retryScheduled) {
                connection.retryScheduled = true;
                ScheduleRetry();
            }
            return true;
        } else {
            NSLog("WpeResourceServer - web process %d asked about page %llu, which it does not show; refused",
                  connection.pid, static_cast<unsigned long long>(question.pageId));
        }
        connection.questions.pop_front();
        connection.retryScheduled = false;
        if (!WriteResourceFrame(fd, g_variant_new(kAnswerType, answer.first, answer.second.c_str())))
            return false;
    }
    return true;
}

void WpeResourceServer::ScheduleRetry()
{
    // A timer on the engine context; it does nothing once this server has
    // stopped (the flag outlives the server).
    std::shared_ptr<std::atomic<bool>> running = m_pRunning;
    m_Port.Post([this, running] {
        GSource* timer = g_timeout_source_new(static_cast<guint>(kOwnerReportWaitMicroseconds / 1000 + 50));
        auto* data = new std::pair<WpeResourceServer*, std::shared_ptr<std::atomic<bool>>>(this, running);
        g_source_set_callback(
            timer,
            +[](gpointer pair) -> gboolean {
                auto* entry = static_cast<std::pair<WpeResourceServer*, std::shared_ptr<std::atomic<bool>>>*>(pair);
                if (entry->second->load())
                    entry->first->PagesChanged();
                return G_SOURCE_REMOVE;
            },
            data,
            +[](gpointer pair) {
                delete static_cast<std::pair<WpeResourceServer*, std::shared_ptr<std::atomic<bool>>>*>(pair);
            });
        g_source_attach(timer, m_Port.GetMainContext());
        g_source_unref(timer);
    });
}

void WpeResourceServer::AnswerAllWaiting()
{
    std::vector<int> broken;
    for (auto& [fd, connection] : m_Connections) {
        if (!connection.questions.empty() && !AnswerQuestions(fd, connection))
            broken.push_back(fd);
    }
    // A peer that is gone shows up as a hang-up on its next poll.
    for (int fd : broken)
        shutdown(fd, SHUT_RDWR);
}

ResourceVerdictAndUrl WpeResourceServer::Answer(uint64_t pageId, const std::string& url)
{
    // Only the service makes these URLs, and only as the answer to a
    // question; a page that loads one itself gets nothing.
    if (IsResourceUrl(url.c_str())) {
        NSLog("WpeResourceServer - page %llu loads the internal URL %s itself; refused",
              static_cast<unsigned long long>(pageId), url.c_str());
        return {kRefused, std::string()};
    }
    std::shared_ptr<WpeServedView> view = m_Port.FindViewForPage(pageId);
    if (!view)
        return {kRefused, std::string()};
    EngineRequestHandler* requestHandler = view->GetClient()->GetRequestHandler();
    if (!requestHandler)
        return {kLoadNormally, std::string()};

    const int64_t now = g_get_monotonic_time();
    std::erase_if(m_Pending,
                  [now](const auto& entry) { return now - entry.second.created > kPendingLifetimeMicroseconds; });
    std::string token = NewResourceToken();
    if (token.empty() || m_Pending.count(token)) {
        NSLog("WpeResourceServer - no random token for a request of page %llu; refused",
              static_cast<unsigned long long>(pageId));
        return {kRefused, std::string()};
    }
    // The request identifier (for the handler's own bookkeeping) is taken
    // from the token; it is never shown to a page.
    const uint64_t identifier = g_ascii_strtoull(token.substr(0, 16).c_str(), nullptr, 16);
    auto request = std::make_shared<ResourceRequest>(identifier, url);
    EngineResourceHandler* handler = requestHandler->GetResourceHandler(view, view, request);
    if (!handler)
        return {kLoadNormally, std::string()};
    m_Pending[token] = Pending {view, pageId, request, handler, now};
    return {kTakenOver, ResourceUrlForToken(token)};
}

void WpeResourceServer::Serve(const std::string& token, uint64_t loadingPageId, WebKitURISchemeRequest* request)
{
    auto found = token.empty() ? m_Pending.end() : m_Pending.find(token);
    if (found == m_Pending.end() || found->second.pageId != loadingPageId) {
        // A token that was never given out, was used already, or belongs
        // to another view: the load fails, and another view's pending
        // response stays where it is.
        NSLog("WpeResourceServer - page %llu loaded %s, which is not one of its taken-over requests; refused",
              static_cast<unsigned long long>(loadingPageId), webkit_uri_scheme_request_get_uri(request));
        m_Port.Post([request]() {
            FailRequest(request, "not a request of this view");
            g_object_unref(request);
        });
        return;
    }
    Pending pending = std::move(found->second);
    m_Pending.erase(found);

    const uint64_t pageId = pending.pageId;
    Dispatch(pageId, [this, pending = std::move(pending), request]() mutable {
        auto result = std::make_shared<ResourceResult>();
        EngineResourceHandler* handler = pending.handler;
        auto callback = std::make_shared<ResourceCallback>();
        if (handler->ProcessRequest(pending.request, callback)) {
            auto response = std::make_shared<ResourceResponse>();
            int64_t length = -1;
            std::string redirectUrl;
            handler->GetResponseHeaders(response, length, redirectUrl);
            result->kind = ResourceResult::Finished;
            result->status = response->m_nStatus > 0 ? response->m_nStatus : 200;
            result->mimeType = response->m_strMimeType;
            result->headers = response->m_Headers;
            // Read until the handler ends the body or the announced length
            // arrived. A handler that has nothing now and more "later" keeps
            // the request open: no later exists here, so it stays open until
            // its view closes.
            std::vector<uint8_t> chunk(kReadChunk);
            while (length != 0) {
                int bytesRead = 0;
                if (!handler->ReadResponse(chunk.data(), kReadChunk, bytesRead, callback))
                    break;
                if (bytesRead <= 0) {
                    result->kind = ResourceResult::Open;
                    break;
                }
                result->body.insert(result->body.end(), chunk.begin(), chunk.begin() + std::min(bytesRead, kReadChunk));
                if ((length > 0 && result->body.size() >= static_cast<size_t>(length)) ||
                    result->body.size() > kMaxBodyBytes)
                    break;
            }
            if (length > 0 && result->body.size() > static_cast<size_t>(length))
                result->body.resize(static_cast<size_t>(length));
        }

        // The view goes to the engine context with the result: its last
        // reference is let go of there.
        m_Port.Post([view = std::move(pending.view), handler, request, result]() {
            if (result->kind == ResourceResult::Open && view->KeepRequestOpen(request, handler)) {
                g_object_unref(request);
                return;
            }
            if (result->kind == ResourceResult::Open)
                result->kind = ResourceResult::Failed;
            FinishRequest(request, *result);
            g_object_unref(request);
        });
    });
}

void WpeResourceServer::Dispatch(uint64_t pageId, std::function<void()> job)
{
    std::vector<std::thread> finished;
    {
        std::lock_guard<std::mutex> lock(m_LaneMutex);
        if (m_bLanesStopped)
            return;
        // Lanes that have nothing to serve go; their threads have ended or
        // are about to, and are joined below.
        for (auto lane = m_Lanes.begin(); lane != m_Lanes.end();) {
            if (lane->first != pageId && !lane->second.running) {
                finished.push_back(std::move(lane->second.thread));
                lane = m_Lanes.erase(lane);
            } else {
                ++lane;
            }
        }
        Lane& lane = m_Lanes[pageId];
        lane.jobs.push_back(std::move(job));
        if (!lane.running) {
            finished.push_back(std::move(lane.thread));
            lane.running = true;
            lane.thread = std::thread([this, pageId] { RunLane(pageId); });
        }
    }
    for (std::thread& thread : finished) {
        if (thread.joinable())
            thread.join();
    }
}

void WpeResourceServer::RunLane(uint64_t pageId)
{
    pthread_setname_np(pthread_self(), "SlfServe");
    for (;;) {
        std::function<void()> job;
        {
            std::lock_guard<std::mutex> lock(m_LaneMutex);
            Lane& lane = m_Lanes[pageId];
            if (lane.jobs.empty()) {
                lane.running = false;
                return;
            }
            job = std::move(lane.jobs.front());
            lane.jobs.pop_front();
        }
        job();
    }
}

void WpeResourceServer::StopLanes()
{
    std::vector<std::thread> threads;
    {
        std::lock_guard<std::mutex> lock(m_LaneMutex);
        m_bLanesStopped = true;
        for (auto& lane : m_Lanes)
            threads.push_back(std::move(lane.second.thread));
    }
    // A lane serves what it was given before it ends.
    for (std::thread& thread : threads) {
        if (thread.joinable())
            thread.join();
    }
    std::lock_guard<std::mutex> lock(m_LaneMutex);
    m_Lanes.clear();
}

} // namespace SLF_ChromiumEmbeddedFramework
