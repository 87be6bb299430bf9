#include "service/SLFCefOverlayXPC.h"

#include "dbg/NSLog.h"

SLFCefOverlayXPC::SLFCefOverlayXPC() : SLFCefOverlayXPC(SLFCefWindowManager::sharedManager())
{
}

SLFCefOverlayXPC::SLFCefOverlayXPC(std::shared_ptr<SLFCefWindowManager> windowManager)
    : m_windowManager(std::move(windowManager))
{
}

void SLFCefOverlayXPC::openBrowserWithURL(const std::string& url, NSSize size, double framerate,
                                          const std::vector<std::string>& permittedFileURLStrings,
                                          SLFCefReplyBlock reply)
{
    SLFCefWindowRepresentationRef representation =
        windowManager()->startBrowserWithURL(url, size, framerate, permittedFileURLStrings);
    // Replaces an earlier representation without closing it.
    setWindowRepresentation(representation);
    SLFCefCallbackProxyRef proxy = callbackProxy();
    if (!representation)
        return;
    // Without a proxy (Spent) nothing is registered and nothing is announced.
    representation->addReceiverProxiesObject(proxy, std::move(reply));
    if (proxy)
        proxy->browserDidStart(representation->browserID());
}

void SLFCefOverlayXPC::updateBrowserWithSize(int browserID, NSSize size)
{
    if (!windowManager()->updateBrowserWithID(browserID, size))
        NSLog("%s - Did not find a window representation for browser %d", "-[SLFCefOverlayXPC updateBrowser:withSize:]",
              browserID);
}

void SLFCefOverlayXPC::closeBrowser(int browserID)
{
    std::shared_ptr<SLFCefWindowManager> manager = windowManager();
    // By the ID given, not by this connection's own representation.
    SLFCefWindowRepresentationRef representation = manager->windowRepresentationWithID(browserID);
    SLFCefCallbackProxyRef proxy = callbackProxy();
    SLFCefReplyBlock reply = representation ? representation->replyForReceiverProxy(proxy) : SLFCefReplyBlock();
    int representedID = 0;
    bool noReceiverLeft = true;
    if (representation) {
        representation->removeReceiverProxiesObject(proxy);
        representedID = representation->browserID();
        SLFCefReceiverListRef receivers = representation->receiverProxies();
        noReceiverLeft = !receivers || receivers->empty();
    }
    // An unknown ID reads as browser 0 with no receivers: 0 is stopped.
    if (noReceiverLeft)
        manager->stopBrowserWithID(representedID);
    if (reply) {
        reply(representedID);
    } else {
        NSLog("%s - Did not find a reply for browser %d (%s)", "-[SLFCefOverlayXPC closeBrowser:]", browserID,
              proxy ? proxy->description().c_str() : "(null)");
    }
    setWindowRepresentation(nullptr);
    setCallbackProxy(nullptr);
}

void SLFCefOverlayXPC::updateBrowserWithSettingsData(int browserID, SLFCefDataRef settingsData)
{
    if (SLFCefWindowRepresentationRef representation = windowManager()->windowRepresentationWithID(browserID))
        representation->setSettingsData(std::move(settingsData));
}

void SLFCefOverlayXPC::updateBrowserWithPermittedFileURLStrings(int browserID, const std::vector<std::string>& strings)
{
    if (SLFCefWindowRepresentationRef representation = windowManager()->windowRepresentationWithID(browserID))
        representation->setPermittedFileURLStrings(strings);
}

void SLFCefOverlayXPC::invalidate()
{
    SLFCefWindowRepresentationRef representation = windowRepresentation();
    if (!representation)
        return;
    representation->removeReceiverProxiesObject(callbackProxy());
    SLFCefReceiverListRef receivers = representation->receiverProxies();
    if (!receivers || receivers->empty())
        windowManager()->stopBrowserWithID(representation->browserID());
    setWindowRepresentation(nullptr);
    setCallbackProxy(nullptr);
}

SLFCefCallbackProxyRef SLFCefOverlayXPC::callbackProxy() const
{
    std::lock_guard<std::mutex> guard(m_propertyLock);
    return m_callbackProxy;
}

void SLFCefOverlayXPC::setCallbackProxy(SLFCefCallbackProxyRef proxy)
{
    SLFCefCallbackProxyRef old;
    std::lock_guard<std::mutex> guard(m_propertyLock);
    old = std::move(m_callbackProxy);
    m_callbackProxy = std::move(proxy);
}

std::shared_ptr<SLFCefWindowManager> SLFCefOverlayXPC::windowManager() const
{
    std::lock_guard<std::mutex> guard(m_propertyLock);
    return m_windowManager;
}

SLFCefWindowRepresentationRef SLFCefOverlayXPC::windowRepresentation() const
{
    std::lock_guard<std::mutex> guard(m_propertyLock);
    return m_windowRepresentation;
}

void SLFCefOverlayXPC::setWindowRepresentation(SLFCefWindowRepresentationRef representation)
{
    // The old value is released after the lock.
    SLFCefWindowRepresentationRef old;
    std::lock_guard<std::mutex> guard(m_propertyLock);
    old = std::move(m_windowRepresentation);
    m_windowRepresentation = std::move(representation);
}

SLFCefOverlayXPC::State SLFCefOverlayXPC::state() const
{
    std::lock_guard<std::mutex> guard(m_propertyLock);
    if (m_windowRepresentation)
        return m_callbackProxy ? State::Bound : State::BoundWithoutProxy;
    return m_callbackProxy ? State::Idle : State::Spent;
}

const char* SLFCefOverlayXPCStateName(SLFCefOverlayXPC::State state)
{
    switch (state) {
    case SLFCefOverlayXPC::State::Idle:
        return "Idle";
    case SLFCefOverlayXPC::State::Bound:
        return "Bound";
    case SLFCefOverlayXPC::State::Spent:
        return "Spent";
    case SLFCefOverlayXPC::State::BoundWithoutProxy:
        return "Bound without proxy";
    }
    return "?";
}
