#include "engine/CBrowser.h"

namespace SLF_ChromiumEmbeddedFramework {

CBrowser::CBrowser(const std::string& startURL_, int frameRate_, unsigned int width_, unsigned int height_,
                   SLFCefVideoFrameCallbackType frameCallback_, SLFCefAudioCallbackType audioCallback_,
                   SLFCefURLChangeCallbackType urlChangeCallback_, void* callbackContext_,
                   const CAccessHandlingForRequestSettings* accessSettings_)
    : startURL(startURL_),
      frameRate(frameRate_),
      width(width_),
      height(height_),
      frameCallback(frameCallback_),
      audioCallback(audioCallback_),
      urlChangeCallback(urlChangeCallback_),
      callbackContext(callbackContext_)
{
    if (accessSettings_)
        accessSettings = *accessSettings_;
}

bool CBrowser::HandleAccessForRequestURL(const std::string& url) const
{
    if (!accessSettings.accessControlEnabled || !accessSettings.handleRequestURL)
        return false;
    if (m_bClosing)
        return true;
    return accessSettings.handleRequestURL(url, callbackContext);
}

bool CBrowser::GetReponseHeadersRequestURL(const std::string& url, std::vector<char>& data, int64_t& length,
                                           int& status) const
{
    if (!accessSettings.getResponseHeadersForURL || m_bClosing)
        return false;
    const std::string startUrlCopy = startURL;
    return accessSettings.getResponseHeadersForURL(url, startUrlCopy, &data, &length, &status, callbackContext);
}

} // namespace SLF_ChromiumEmbeddedFramework
