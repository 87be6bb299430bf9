// Offers every request of the process's pages to the service before it is
// sent: the service either lets it load or takes it over, in which case the
// request is sent to the service's internal scheme instead. The question is
// synchronous, over the service's resource socket.
#pragma once

#include <cstdint>
#include <string>

typedef struct _WebKitWebPage WebKitWebPage;
typedef struct _WebKitURIRequest WebKitURIRequest;

namespace SLF_ChromiumEmbeddedFramework {

class WebResourceFilter {
public:
    explicit WebResourceFilter(std::string socketPath);
    ~WebResourceFilter();
    WebResourceFilter(const WebResourceFilter&) = delete;
    WebResourceFilter& operator=(const WebResourceFilter&) = delete;

    // Filters the page's requests from now on.
    void Attach(WebKitWebPage* page);

private:
    // True stops the request.
    bool Filter(WebKitWebPage* page, WebKitURIRequest* request);
    bool Connect();

    std::string m_strSocketPath;
    int m_nFd = -1;
};

} // namespace SLF_ChromiumEmbeddedFramework
