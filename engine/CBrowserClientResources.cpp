// Resource requests of CBrowserClient: for every request of a page the
// client decides whether the engine answers it itself (with a body that the
// service side supplies, or with a local text file) or loads it normally,
// and then serves the requests it took over.
//
// A taken-over request runs GetResourceHandler -> ProcessRequest ->
// GetResponseHeaders -> ReadResponse (until the body is out). All of these
// run on the port's one resource thread, which is why the request state is
// not locked.
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

EngineResourceHandler* CBrowserClient::GetResourceHandler(EngineBrowserRef browser, EngineFrameRef frame,
                                                          EngineRequestRef request)
{
    if (!browser || !frame || !request)
        return nullptr;

    bool found = false;
    const CBrowser record = GetCBrowserForCEFID(browser->GetIdentifier(), found);
    if (!found)
        return nullptr;

    const uint64_t requestId = request->GetIdentifier();
    m_requestBrowsers[requestId] = browser;

    bool takeOver = false;
    if (record.accessSettings.accessControlEnabled && record.HandleAccessForRequestURL(request->GetURL()))
        takeOver = true;
    else if (IsTextRequest(request))
        takeOver = true;
    else if (HandleAccessForRequest(request))
        takeOver = true;

    if (takeOver)
        return this;
    m_requestBrowsers.erase(requestId);
    return nullptr;
}

bool CBrowserClient::HandleAccessForRequest(EngineRequestRef request)
{
    auto entry = m_requestBrowsers.find(request->GetIdentifier());
    if (entry == m_requestBrowsers.end() || !entry->second)
        return true;
    const EngineBrowserRef browser = entry->second;

    const std::string url = request->GetURL();
    bool found = false;
    const CBrowser record = GetCBrowserForCEFID(browser->GetIdentifier(), found);

    if (ForceBlockFileAccessForURLandBrowserID(url, browser->GetIdentifier()))
        return true;
    if (IsTextRequest(request))
        return true;
    if (!found)
        return false;
    return record.HandleAccessForRequestURL(url);
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
    m_lastRequest = request;
    m_bRequestCancelled = false;
    if (callback)
        callback->Continue();
    return true;
}

void CBrowserClient::GetResponseHeaders(EngineResponseRef response, int64_t& responseLength, std::string& redirectUrl)
{
    (void)redirectUrl;
    responseLength = -1;
    if (!m_lastRequest)
        return;

    const uint64_t requestId = m_lastRequest->GetIdentifier();
    const EngineBrowserRef browser = m_requestBrowsers[requestId];
    if (response && !m_bRequestCancelled && browser) {
        bool found = false;
        const CBrowser record = GetCBrowserForCEFID(browser->GetIdentifier(), found);
        // A closing browser's requests are refused without asking (the
        // service side may already have let go of the callback context).
        const bool serviceAnswers =
            found && !record.m_bClosing && record.HandleAccessForRequestURL(m_lastRequest->GetURL());
        if (serviceAnswers) {
            // The status the service side writes is not applied to the
            // response, nor is a MIME type: the page receives the body and
            // its length.
            int status = 500;
            record.GetReponseHeadersRequestURL(m_lastRequest->GetURL(), m_responseData, responseLength, status);
        } else if (IsTextRequest(m_lastRequest)) {
            GetFileloadResponseHeadersForLastRequest(response, responseLength);
        } else {
            // The length stays -1: the request gets no body and stays open.
            response->SetStatus(403);
        }
    }
    m_requestBrowsers.erase(requestId);
}

bool CBrowserClient::GetFileloadResponseHeadersForLastRequest(EngineResponseRef response, int64_t& length)
{
    if (!response)
        return false;
    response->SetStatus(500);
    length = 0;
    if (!m_lastRequest)
        return false;

    const EngineBrowserRef browser = m_requestBrowsers[m_lastRequest->GetIdentifier()];
    if (!browser)
        return false;
    if (!m_responseData.empty()) {
        response->SetStatus(500);
        return false;
    }
    if (!IsTextRequest(m_lastRequest)) {
        response->SetStatus(403);
        return false;
    }

    const std::string fileName = GetFilenameFromTextRequest(m_lastRequest);
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
    m_responseData.assign(text.begin(), text.end());
    buffer.reset();

    if (!m_responseData.empty()) {
        response->SetStatus(200);
        return true;
    }
    response->SetStatus(403);
    m_responseData.clear();
    return false;
}

bool CBrowserClient::ReadResponse(void* dataOut, int bytesToRead, int& bytesRead, EngineCallbackRef callback)
{
    (void)callback;
    if (m_lastRequest && !m_bRequestCancelled && !m_responseData.empty()) {
        const size_t available = m_responseData.size();
        const size_t count = std::min(static_cast<size_t>(std::max(bytesToRead, 0)), available);
        bytesRead = static_cast<int>(count);
        std::memcpy(dataOut, m_responseData.data(), count);
        if (available <= count)
            m_responseData.clear();
        else
            m_responseData.erase(m_responseData.begin(), m_responseData.begin() + static_cast<ptrdiff_t>(count));
        return true;
    }
    if (m_bRequestCancelled) {
        m_responseData.clear();
        m_bRequestCancelled = false;
        return false;
    }
    // Nothing to hand out now and nothing cancelled: the caller reads again
    // until it has the announced length (never, when that is -1).
    return true;
}

void CBrowserClient::Cancel()
{
    m_bRequestCancelled = true;
}

} // namespace SLF_ChromiumEmbeddedFramework
