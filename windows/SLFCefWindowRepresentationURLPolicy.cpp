// URL access policy and the settings resource of SLFCefWindowRepresentation:
// the engine asks here about every resource request of the page. Remote
// content passes, local files pass only under a permitted prefix, and the
// internal settings URL is answered with data fetched from the host while
// the request waits.
//
// Both methods run on the engine's threads: the first on the thread that
// answers the web processes' questions, the second on the serving thread of
// this browser, which the settings fetch blocks for up to 120 seconds
// (other browsers' requests are served on threads of their own). Stopping
// the browser ends that wait at once (endSettingsWaits).
#include "windows/SLFCefWindowRepresentation.h"

#include "dbg/NSLog.h"
#include "engine/BrowserCallbacks.h"

#include <glib.h>

#include <chrono>
#include <cstring>
#include <mutex>

namespace {

// The parts of a URL the policy looks at. `valid` is false for text that
// is not a URL at all; such a request is left to the engine.
struct URLParts {
    bool valid = false;
    std::string scheme; // as written
    std::string host;
    std::string path; // percent-decoded where the escapes are valid
};

URLParts ParseURL(const std::string& text)
{
    URLParts parts;
    // The scheme is compared exactly as written, so it is taken from the text.
    const size_t colon = text.find(':');
    if (colon == std::string::npos || colon == 0 || !g_ascii_isalpha(text[0]))
        return parts;
    for (size_t i = 1; i < colon; ++i) {
        const char c = text[i];
        if (!g_ascii_isalnum(c) && c != '+' && c != '-' && c != '.')
            return parts;
    }
    // Split only: parsing into a GUri would resolve "/../" segments, which
    // the policy has to see. Relaxed and undecoded, so that a stray "%"
    // does not make a file URL unreadable (it would then escape the checks).
    gchar* host = nullptr;
    gchar* rawPath = nullptr;
    if (!g_uri_split(text.c_str(), static_cast<GUriFlags>(G_URI_FLAGS_ENCODED | G_URI_FLAGS_PARSE_RELAXED), nullptr,
                     nullptr, &host, nullptr, &rawPath, nullptr, nullptr, nullptr))
        return parts;
    parts.valid = true;
    parts.scheme = text.substr(0, colon);
    if (host)
        parts.host = host;
    if (char* decoded = rawPath ? g_uri_unescape_string(rawPath, nullptr) : nullptr) {
        parts.path = decoded;
        g_free(decoded);
    } else if (rawPath) {
        parts.path = rawPath;
    }
    g_free(host);
    g_free(rawPath);
    return parts;
}

bool IsSettingsURL(const URLParts& parts)
{
    return parts.valid && parts.scheme == "http" && parts.host == SLF_ChromiumEmbeddedFramework::kSLFCefInternalHost &&
           parts.path == "/settings";
}

bool EndsWith(const std::string& text, const std::string& tail)
{
    return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

// A list of strings as the log has always shown one: "(\n    \"a\",\n    \"b\"\n)".
std::string DescriptionOfStrings(const std::vector<std::string>& strings)
{
    std::string text = "(";
    for (size_t i = 0; i < strings.size(); ++i)
        text += std::string(i ? "," : "") + "\n    \"" + strings[i] + "\"";
    return text + "\n)";
}

// Seconds since 2001-01-01 00:00:00 UTC, the reference date of the service's
// time stamps.
double SecondsSinceReferenceDate()
{
    constexpr double kReferenceDateUnixSeconds = 978307200.0;
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration<double>(now).count() - kReferenceDateUnixSeconds;
}

bool HasReceivers(const SLFCefReceiverListRef& receivers)
{
    return receivers && !receivers->empty();
}

} // namespace

bool SLFCefHandleRequestURL(const std::string& url, const void* context)
{
    if (!context)
        return false;
    auto* representation =
        const_cast<SLFCefWindowRepresentation*>(static_cast<const SLFCefWindowRepresentation*>(context));
    return representation->wantsToHandleBrowserURL(url);
}

bool SLFCefGetResponseHeadersForURL(const std::string& url, const std::string& startURL, std::vector<char>* data,
                                    int64_t* length, int* statusCode, const void* context)
{
    if (!context)
        return false;
    auto* representation =
        const_cast<SLFCefWindowRepresentation*>(static_cast<const SLFCefWindowRepresentation*>(context));
    const bool handled = representation->writeStatusCode(statusCode, data, url, startURL);
    // The length is the body's size whatever the answer.
    if (length)
        *length = data ? static_cast<int64_t>(data->size()) : 0;
    return handled;
}

bool SLFCefWindowRepresentation::wantsToHandleBrowserURL(const std::string& url)
{
    const URLParts parts = ParseURL(url);
    if (IsSettingsURL(parts))
        return true;
    if (!parts.valid || parts.scheme != "file")
        return false;
    // A path that climbs out of a folder is refused, whatever the prefix.
    if (parts.path.find("/../") != std::string::npos || EndsWith(parts.path, "/.."))
        return true;
    for (const std::string& permitted : permittedFileURLStrings()) {
        // An empty string is no prefix of anything: it permits nothing.
        if (!permitted.empty() && url.compare(0, permitted.size(), permitted) == 0)
            return false;
    }
    return true;
}

void SLFCefWindowRepresentation::endSettingsWaits()
{
    std::lock_guard<std::mutex> waitLock(m_settingsWaitLock);
    m_settingsWaitsEnded = true;
    m_settingsWaitCondition.notify_all();
}

bool SLFCefWindowRepresentation::writeStatusCode(int* statusCode, std::vector<char>* responseData,
                                                 const std::string& requestURL, const std::string& browserStartURL)
{
    (void)browserStartURL;
    // The registry may let go of this browser while the fetch waits.
    const SLFCefWindowRepresentationRef keepAlive = weak_from_this().lock();

    const URLParts parts = ParseURL(requestURL);
    if (!IsSettingsURL(parts)) {
        if (parts.valid && parts.scheme == "file") {
            NSLog("Blocked URL %s [%s]", requestURL.c_str(), DescriptionOfStrings(permittedFileURLStrings()).c_str());
            if (statusCode)
                *statusCode = 404;
        }
        return false;
    }

    // Ask the first receiver (if any) for fresh data; the answer arrives on
    // its connection's thread through setSettingsData.
    SLFCefReceiverListRef receivers = receiverProxies();
    const SLFCefCallbackProxyRef proxy = HasReceivers(receivers) ? receivers->front() : nullptr;
    const int browser = browserID();
    setSettingsData(nullptr);
    if (proxy)
        proxy->requestSettingsDataForBrowser(browser);

    const double start = static_cast<double>(static_cast<int64_t>(SecondsSinceReferenceDate()));
    SLFCefDataRef data = settingsData();
    while (!data && HasReceivers(receiverProxies()) && SecondsSinceReferenceDate() - start < 120.0) {
        // Polls once a second; only a stop of the browser cuts a pause short.
        std::unique_lock<std::mutex> waitLock(m_settingsWaitLock);
        if (m_settingsWaitCondition.wait_for(waitLock, std::chrono::seconds(1),
                                             [this] { return m_settingsWaitsEnded; }))
            break;
        waitLock.unlock();
        data = settingsData();
    }

    if (!data) {
        NSLog("Error: Could not retrieve settings data from host.");
        if (statusCode)
            *statusCode = 408;
        return false;
    }
    if (responseData) {
        responseData->resize(data->size());
        if (!data->empty())
            std::memcpy(responseData->data(), data->data(), data->size());
    }
    if (statusCode)
        *statusCode = 200;
    return true;
}
