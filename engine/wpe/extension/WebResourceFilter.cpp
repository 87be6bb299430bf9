#include "engine/wpe/extension/WebResourceFilter.h"

#include "engine/wpe/WebKitResourceChannel.h"

#include <wpe/webkit-web-extension.h>

#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace SLF_ChromiumEmbeddedFramework {

namespace {

// Schemes whose loads never leave the web process or are ours already.
bool IsLocalToThePage(const char* uri)
{
    static const char* const prefixes[] = {"data:", "blob:", "about:", "javascript:"};
    for (const char* prefix : prefixes) {
        if (g_str_has_prefix(uri, prefix))
            return true;
    }
    return ResourceIdentifierFromUrl(uri) != 0;
}

} // namespace

WebResourceFilter::WebResourceFilter(std::string socketPath) : m_strSocketPath(std::move(socketPath)) {}

WebResourceFilter::~WebResourceFilter()
{
    if (m_nFd >= 0)
        close(m_nFd);
}

void WebResourceFilter::Attach(WebKitWebPage* page)
{
    g_signal_connect(page, "send-request",
                     G_CALLBACK(+[](WebKitWebPage* page, WebKitURIRequest* request, WebKitURIResponse*,
                                    gpointer self) -> gboolean {
                         return static_cast<WebResourceFilter*>(self)->Filter(page, request) ? TRUE : FALSE;
                     }),
                     this);
}

bool WebResourceFilter::Connect()
{
    if (m_nFd < 0)
        m_nFd = ConnectToUnixSocket(m_strSocketPath);
    return m_nFd >= 0;
}

bool WebResourceFilter::Filter(WebKitWebPage* page, WebKitURIRequest* request)
{
    const char* uri = webkit_uri_request_get_uri(request);
    if (!uri || IsLocalToThePage(uri))
        return false;

    GVariant* answer = nullptr;
    // One retry covers a connection the service dropped in between.
    for (int attempt = 0; attempt < 2 && !answer; ++attempt) {
        if (!Connect())
            break;
        if (WriteResourceFrame(m_nFd, g_variant_new(kQuestionType, webkit_web_page_get_id(page), uri)))
            answer = ReadResourceFrame(m_nFd, kAnswerType);
        if (!answer) {
            close(m_nFd);
            m_nFd = -1;
        }
    }
    if (!answer) {
        // Without the service no request may pass unchecked.
        std::fprintf(stderr, "slf web process %d: the service did not answer for %s; request stopped\n",
                     static_cast<int>(getpid()), uri);
        return true;
    }
    guint64 identifier = 0;
    g_variant_get(answer, kAnswerType, &identifier);
    g_variant_unref(answer);
    if (identifier)
        webkit_uri_request_set_uri(request, ResourceUrlForIdentifier(identifier).c_str());
    return false;
}

} // namespace SLF_ChromiumEmbeddedFramework
