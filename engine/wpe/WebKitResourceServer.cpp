#include "engine/wpe/WebKitResourceServer.h"

#include "engine/wpe/WebKitEnginePort.h"
#include "engine/wpe/WebKitResourceChannel.h"
#include "engine/wpe/WebKitView.h"

#include <libsoup/soup.h>
#include <wpe/webkit.h>

#include <algorithm>

namespace SLF_ChromiumEmbeddedFramework {

namespace {

constexpr int kReadChunk = 64 * 1024;
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
    void SetHeader(const std::string& name, const std::string& value) override
    {
        m_Headers.emplace_back(name, value);
    }

    int m_nStatus = 0;
    std::string m_strMimeType;
    std::vector<std::pair<std::string, std::string>> m_Headers;
};

// The handler runs synchronously on the resource thread; there is nothing
// to resume later.
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

WebKitResourceServer::WebKitResourceServer(WebKitEnginePort& port)
    : m_Port(port), m_Server("WebKitResourceServer", "resource thread", "SlfResources", kMaxFrameBytes)
{
}

WebKitResourceServer::~WebKitResourceServer()
{
    Stop();
}

bool WebKitResourceServer::Start(const std::string& socketPath)
{
    WebKitSocketServer::Handlers handlers;
    handlers.onMessage = [this](const WebKitSocketServer::Peer& peer, const uint8_t* data, size_t size,
                                std::string& error) { return OnMessage(peer, data, size, error); };
    handlers.onWake = [this] { RunJobs(); };
    return m_Server.Start(socketPath, std::move(handlers));
}

void WebKitResourceServer::Stop()
{
    m_Server.Stop();
    m_Pending.clear();
    std::lock_guard<std::mutex> lock(m_JobMutex);
    m_Jobs.clear();
}

void WebKitResourceServer::Queue(std::function<void()> job)
{
    {
        std::lock_guard<std::mutex> lock(m_JobMutex);
        m_Jobs.push_back(std::move(job));
    }
    m_Server.Wake();
}

void WebKitResourceServer::OnSchemeRequest(WebKitURISchemeRequest* request)
{
    const uint64_t identifier = ResourceIdentifierFromUrl(webkit_uri_scheme_request_get_uri(request));
    g_object_ref(request);
    Queue([this, identifier, request] { Serve(identifier, request); });
}

void WebKitResourceServer::CancelRequests(const std::vector<EngineResourceHandler*>& handlers)
{
    Queue([handlers] {
        for (EngineResourceHandler* handler : handlers)
            handler->Cancel();
    });
}

void WebKitResourceServer::RunJobs()
{
    std::deque<std::function<void()>> jobs;
    {
        std::lock_guard<std::mutex> lock(m_JobMutex);
        jobs.swap(m_Jobs);
    }
    for (auto& job : jobs)
        job();
}

bool WebKitResourceServer::OnMessage(const WebKitSocketServer::Peer& peer, const uint8_t* data, size_t size,
                                     std::string& error)
{
    GVariant* question = DecodeResourceFrame(data, size, kQuestionType);
    if (!question) {
        error = "a resource question that is not one";
        return false;
    }
    guint64 pageId = 0;
    const gchar* url = nullptr;
    g_variant_get(question, "(t&s)", &pageId, &url);
    const uint64_t identifier = Answer(pageId, url);
    g_variant_unref(question);
    // The socket does not block: a process that leaves its answers unread
    // until its buffer is full is cut off.
    if (WriteResourceFrame(peer.fd, g_variant_new(kAnswerType, static_cast<guint64>(identifier))))
        return true;
    error = "the answer could not be sent";
    return false;
}

uint64_t WebKitResourceServer::Answer(uint64_t pageId, const std::string& url)
{
    std::shared_ptr<WebKitView> view = m_Port.FindViewForPage(pageId);
    if (!view)
        return 0;
    EngineRequestHandler* requestHandler = view->GetClient()->GetRequestHandler();
    if (!requestHandler)
        return 0;
    const uint64_t identifier = m_nNextIdentifier++;
    auto request = std::make_shared<ResourceRequest>(identifier, url);
    EngineResourceHandler* handler = requestHandler->GetResourceHandler(view, view, request);
    if (!handler)
        return 0;
    m_Pending[identifier] = Pending{view, request, handler};
    return identifier;
}

void WebKitResourceServer::Serve(uint64_t identifier, WebKitURISchemeRequest* request)
{
    auto result = std::make_shared<ResourceResult>();
    std::shared_ptr<WebKitView> view;
    EngineResourceHandler* handler = nullptr;

    auto found = m_Pending.find(identifier);
    if (found != m_Pending.end()) {
        Pending pending = std::move(found->second);
        m_Pending.erase(found);
        view = pending.view;
        handler = pending.handler;
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
    }

    m_Port.Post([view, handler, request, result]() {
        if (result->kind == ResourceResult::Open && view && view->KeepRequestOpen(request, handler)) {
            g_object_unref(request);
            return;
        }
        if (result->kind == ResourceResult::Open)
            result->kind = ResourceResult::Failed;
        FinishRequest(request, *result);
        g_object_unref(request);
    });
}

} // namespace SLF_ChromiumEmbeddedFramework
