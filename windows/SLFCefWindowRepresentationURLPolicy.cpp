// URL access policy and the settings resource of SLFCefWindowRepresentation:
// the engine asks here about every resource request of the page.
#include "windows/SLFCefWindowRepresentation.h"

bool SLFCefHandleRequestURL(const std::string& url, const void* context)
{
    if (!context)
        return false;
    auto* representation = const_cast<SLFCefWindowRepresentation*>(static_cast<const SLFCefWindowRepresentation*>(context));
    return representation->wantsToHandleBrowserURL(url);
}

bool SLFCefGetResponseHeadersForURL(const std::string& url, const std::string& startURL, std::vector<char>* data,
                                    int64_t* length, int* statusCode, const void* context)
{
    if (!context)
        return false;
    auto* representation = const_cast<SLFCefWindowRepresentation*>(static_cast<const SLFCefWindowRepresentation*>(context));
    bool handled = representation->writeStatusCode(statusCode, data, url, startURL);
    if (length)
        *length = data ? static_cast<int64_t>(data->size()) : 0;
    return handled;
}

bool SLFCefWindowRepresentation::wantsToHandleBrowserURL(const std::string& url)
{
    // No request is taken over yet: the engine loads every URL itself.
    (void)url;
    return false;
}

bool SLFCefWindowRepresentation::writeStatusCode(int* statusCode, std::vector<char>* responseData,
                                                 const std::string& requestURL, const std::string& browserStartURL)
{
    (void)statusCode;
    (void)responseData;
    (void)requestURL;
    (void)browserStartURL;
    return false;
}
