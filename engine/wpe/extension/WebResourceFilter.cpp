#include "engine/wpe/extension/WebResourceFilter.h"

#include "engine/wpe/WpeResourceChannel.h"

#include <wpe/webkit-web-extension.h>

#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace SLF_ChromiumEmbeddedFramework {

namespace {

// Schemes whose loads never leave the web process.
bool IsLocalToThePage(const char* uri)
{
    static const char* const prefixes[] = {"data:", "blob:", "about:", "javascript:"};
    for (const char* prefix : prefixes) {
        if (g_str_has_prefix(uri, prefix))
            return true;
    }
    return false;
}

} // namespace

WebResourceFilter::WebResourceFilter(std::string socketPath) : m_strSocketPath(std::move(socketPath))
{
}

WebResourceFilter::~WebResourceFilter()
{
    if (m_nFd >= 0)
        close(m_nFd);
}

void WebResourceFilter::Attach(WebKitWebPage* page)
{
    g_signal_connect(
        page, "send-request",
        G_CALLBACK(+[](WebKitWebPage* page, WebKitURIRequest* request, WebKitURIResponse*, gpointer self) -> gboolean {
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
    if (!uri)
        return false;
    // The internal scheme's URLs are made only below, by rewriting a request
    // while it is being sent; WebKit does not offer a rewritten request here
    // again (only a redirect would, and the service never redirects). So a
    // request that arrives here with one is the page's own (a fetch, a link,
    // a reload, a redirect from a server) and is stopped.
    if (IsResourceUrl(uri)) {
        std::fprintf(stderr, "slf web process %d: page %llu loads the internal URL %s itself; request stopped\n",
                     static_cast<int>(getpid()), static_cast<unsigned long long>(webkit_web_page_get_id(page)), uri);
        return true;
    }
    if (IsLocalToThePage(uri))
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
    guint8 verdict = kRefused;
    const gchar* replacement = nullptr;
    g_variant_get(answer, "(y&s)", &verdict, &replacement);
    bool stop = false;
    if (verdict == kTakenOver && IsResourceUrl(replacement))
        webkit_uri_request_set_uri(request, replacement);
    else
        stop = verdict != kLoadNormally;
    g_variant_unref(answer);
    return stop;
}

} // namespace SLF_ChromiumEmbeddedFramework
