// Resource requests of CBrowserClient: for every request of a page the
// client decides whether the engine answers it itself (with a body that the
// service side supplies, or with a local text file) or loads it normally,
// and then serves the requests it took over.
//
// A taken-over request runs GetResourceHandler -> ProcessRequest ->
// GetResponseHeaders -> ReadResponse (until the body is out). The port asks
// GetResourceHandler on its resource thread and serves each request from
// ProcessRequest on, start to end, on one thread (one per browser): the
// request state belongs to the serving thread, and the table of request
// browsers, shared by all of them, has a lock of its own.
#include "engine/CBrowserClient.h"

#include "engine/CBrowserHelper.h"
#include "platform/NplFile.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <memory>

namespace SLF_ChromiumEmbeddedFramework {

namespace {
// Text files larger than this are refused; exactly this size is accepted.
constexpr int64_t kMaxTextFileBytes = 0x1400000; // 20 MiB
} // namespace

class CBrowserClient::RecordForServiceCall {
public:
    RecordForServiceCall(CBrowserClient& client, int64_t id) : m_Client(client)
    {
        CNplThreadMutexLock browsersLock(client.m_BrowsersMutex); // lock order 3
        for (const CBrowser& candidate : client.m_Browsers) {
            if (candidate.id == id) {
                record = candidate;
                found = true;
                break;
            }
        }
        // Counted under the browsers lock, in one step with the look at the
        // closing flag that StopBrowser raises under the same lock.
        if (found && !record.m_bClosing) {
            std::lock_guard<std::mutex> callLock(client.m_ServiceCallMutex); // lock order 4
            ++client.m_mapServiceCalls[record.id];
            m_bCounted = true;
        }
    }
    ~RecordForServiceCall()
    {
        if (!m_bCounted)
            return;
        std::lock_guard<std::mutex> callLock(m_Client.m_ServiceCallMutex); // lock order 4
        auto entry = m_Client.m_mapServiceCalls.find(record.id);
        if (entry != m_Client.m_mapServiceCalls.end() && --entry->second <= 0)
            m_Client.m_mapServiceCalls.erase(entry);
        m_Client.m_ServiceCallsEnded.notify_all();
    }
    RecordForServiceCall(const RecordForServiceCall&) = delete;
    RecordForServiceCall& operator=(const RecordForServiceCall&) = delete;

    CBrowser record;
    bool found = false;

private:
    CBrowserClient& m_Client;
    bool m_bCounted = false;
};

CBrowserClient::RequestState& CBrowserClient::ThreadRequestState()
{
    // Entries go with their thread; a client's instance number is never
    // reused, so a later client at the same address starts afresh.
    thread_local std::map<uint64_t, RequestState> states;
    return states[m_nInstance];
}

EngineBrowserRef CBrowserClient::RequestBrowser(uint64_t requestId)
{
    std::lock_guard<std::mutex> lock(m_RequestBrowsersMutex);
    // A missing key creates a null entry, as the table always did.
    return m_requestBrowsers[requestId];
}

EngineResourceHandler* CBrowserClient::GetResourceHandler(EngineBrowserRef browser, EngineFrameRef frame,
                                                          EngineRequestRef request)
{
    if (!browser || !frame || !request)
        return nullptr;

    bool takeOver = false;
    const uint64_t requestId = request->GetIdentifier();
    {
        RecordForServiceCall call(*this, browser->GetIdentifier());
        if (!call.found)
            return nullptr;
        const CBrowser& record = call.record;
        {
            std::lock_guard<std::mutex> lock(m_RequestBrowsersMutex);
            m_requestBrowsers[requestId] = browser;
        }
        if (record.accessSettings.accessControlEnabled && record.HandleAccessForRequestURL(request->GetURL()))
            takeOver = true;
    }
    if (!takeOver)
        takeOver = IsTextRequest(request) || HandleAccessForRequest(request);

    if (takeOver)
        return this;
    std::lock_guard<std::mutex> lock(m_RequestBrowsersMutex);
    m_requestBrowsers.erase(requestId);
    return nullptr;
}

bool CBrowserClient::HandleAccessForRequest(EngineRequestRef request)
{
    EngineBrowserRef browser;
    {
        std::lock_guard<std::mutex> lock(m_RequestBrowsersMutex);
        auto entry = m_requestBrowsers.find(request->GetIdentifier());
        if (entry == m_requestBrowsers.end() || !entry->second)
            return true;
        browser = entry->second;
    }

    const std::string url = request->GetURL();
    RecordForServiceCall call(*this, browser->GetIdentifier());

    if (ForceBlockFileAccessForURLandBrowserID(url, browser->GetIdentifier()))
        return true;
    if (IsTextRequest(request))
        return true;
    if (!call.found)
        return false;
    return call.record.HandleAccessForRequestURL(url);
}

bool CBrowserClient::ForceBlockFileAccessForURLandBrowserID(const std::string& url, int browserId)
{
    (void)url;
    (void)browserId;
    return false;
}

bool CBrowserClient::IsTextRequest(EngineRequestRef request)
{
    const std::string url = request->GetURL();
    const size_t question = url.find('?');
    if (question == std::string::npos)
        return false;
    const std::string textRequestBase = std::string("http://") + kSLFCefInternalHost + "/" + "requestText";
    return url.compare(0, question, textRequestBase) == 0;
}

std::string CBrowserClient::GetFilenameFromTextRequest(EngineRequestRef request)
{
    if (!IsTextRequest(request))
        return std::string();
    const std::string url = request->GetURL();
    const std::string query = url.substr(url.find('?'));
    const std::string key = std::string("filePath") + "=";
    const size_t at = query.find(key);
    if (at == std::string::npos)
        return std::string();
    // Everything after the "=" counts, further parameters included.
    return CBrowserHelper::UriDecode(query.substr(at + key.size()));
}

std::string CBrowserClient::GetFilenameFromRequest(EngineRequestRef request)
{
    std::string url = request->GetURL();
    const size_t question = url.rfind('?');
    if (question != std::string::npos)
        url.resize(question);
    // The path's leading "/" goes with the prefix.
    static const std::string kFilePrefix = "file:///";
    if (url.compare(0, kFilePrefix.size(), kFilePrefix) == 0)
        url.erase(0, kFilePrefix.size());
    return url;
}

bool CBrowserClient::ProcessRequest(EngineRequestRef request, EngineCallbackRef callback)
{
    RequestState& state = ThreadRequestState();
    state.lastRequest = request;
    state.requestCancelled = false;
    if (callback)
        callback->Continue();
    return true;
}

void CBrowserClient::GetResponseHeaders(EngineResponseRef response, int64_t& responseLength, std::string& redirectUrl)
{
    (void)redirectUrl;
    responseLength = -1;
    RequestState& state = ThreadRequestState();
    const EngineRequestRef lastRequest = state.lastRequest;
    if (!lastRequest)
        return;

    const uint64_t requestId = lastRequest->GetIdentifier();
    const EngineBrowserRef browser = RequestBrowser(requestId);
    if (response && !state.requestCancelled && browser) {
        RecordForServiceCall call(*this, browser->GetIdentifier());
        const CBrowser& record = call.record;
        // A closing browser's requests are refused without asking (the
        // service side may already have let go of the callback context).
        const bool serviceAnswers =
            call.found && !record.m_bClosing && record.HandleAccessForRequestURL(lastRequest->GetURL());
        if (serviceAnswers) {
            // The status the service side writes is not applied to the
            // response, nor is a MIME type: the page receives the body and
            // its length.
            int status = 500;
            record.GetReponseHeadersRequestURL(lastRequest->GetURL(), state.responseData, responseLength, status);
        } else if (IsTextRequest(lastRequest)) {
            GetFileloadResponseHeadersForLastRequest(response, responseLength);
        } else {
            // The length stays -1: the request gets no body and stays open.
            response->SetStatus(403);
        }
    }
    std::lock_guard<std::mutex> lock(m_RequestBrowsersMutex);
    m_requestBrowsers.erase(requestId);
}

bool CBrowserClient::GetFileloadResponseHeadersForLastRequest(EngineResponseRef response, int64_t& length)
{
    if (!response)
        return false;
    response->SetStatus(500);
    length = 0;
    RequestState& state = ThreadRequestState();
    const EngineRequestRef lastRequest = state.lastRequest;
    if (!lastRequest)
        return false;

    const EngineBrowserRef browser = RequestBrowser(lastRequest->GetIdentifier());
    if (!browser)
        return false;
    if (!state.responseData.empty()) {
        response->SetStatus(500);
        return false;
    }
    if (!IsTextRequest(lastRequest)) {
        response->SetStatus(403);
        return false;
    }

    const std::string fileName = GetFilenameFromTextRequest(lastRequest);
    if (!NplFile_FileExists(fileName)) {
        response->SetStatus(404);
        return false;
    }
    if (ForceBlockFileAccessForURLandBrowserID(fileName, browser->GetIdentifier())) {
        response->SetStatus(403);
        return false;
    }

    std::ifstream file(fileName, std::ios::binary | std::ios::ate);
    const int64_t size = static_cast<int64_t>(file.tellg());
    if (size < 0) {
        response->SetStatus(404);
        return false;
    }
    if (size == 0) {
        response->SetStatus(200);
        return true;
    }
    if (size > kMaxTextFileBytes) {
        response->SetStatus(403);
        return false;
    }

    file.seekg(0, std::ios::beg);
    auto buffer = std::make_unique<char[]>(static_cast<size_t>(size));
    file.read(buffer.get(), size);
    bool hasBOM = false;
    const std::string text = CBrowserHelper::GetUTF8StringWithBOM(buffer.get(), static_cast<size_t>(size), hasBOM);
    length = static_cast<int64_t>(text.size());
    state.responseData.assign(text.begin(), text.end());
    buffer.reset();

    if (!state.responseData.empty()) {
        response->SetStatus(200);
        return true;
    }
    response->SetStatus(403);
    state.responseData.clear();
    return false;
}

bool CBrowserClient::ReadResponse(void* dataOut, int bytesToRead, int& bytesRead, EngineCallbackRef callback)
{
    (void)callback;
    RequestState& state = ThreadRequestState();
    std::vector<char>& data = state.responseData;
    if (state.lastRequest && !state.requestCancelled && !data.empty()) {
        const size_t available = data.size();
        const size_t count = std::min(static_cast<size_t>(std::max(bytesToRead, 0)), available);
        bytesRead = static_cast<int>(count);
        std::memcpy(dataOut, data.data(), count);
        if (available <= count)
            data.clear();
        else
            data.erase(data.begin(), data.begin() + static_cast<ptrdiff_t>(count));
        return true;
    }
    if (state.requestCancelled) {
        data.clear();
        state.requestCancelled = false;
        return false;
    }
    // Nothing to hand out now and nothing cancelled: the caller reads again
    // until it has the announced length (never, when that is -1).
    return true;
}

void CBrowserClient::Cancel()
{
    ThreadRequestState().requestCancelled = true;
}

} // namespace SLF_ChromiumEmbeddedFramework
