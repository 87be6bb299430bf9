// The object a host connection talks to: one per connection. Carries out the
// host's five requests against the window manager and the browser's window
// representation, and holds the connection's callback proxy, which is also
// the connection's key as a receiver of its browser.
//
// States: Idle (proxy, no representation) -> open -> Bound -> close or
// invalidation -> Spent (neither). An open request while Spent makes a
// browser that has no receiver ("Bound without proxy"); the host never
// learns its ID.
#pragma once

#include "windows/NSSize.h"
#include "windows/SLFCefCallbackProxy.h"
#include "windows/SLFCefWindowManager.h"
#include "windows/SLFCefWindowRepresentation.h"

#include <memory>
#include <mutex>
#include <string>
#include <vector>

class SLFCefOverlayXPC {
public:
    enum class State { Idle, Bound, Spent, BoundWithoutProxy };

    // Takes the shared window manager.
    SLFCefOverlayXPC();
    explicit SLFCefOverlayXPC(std::shared_ptr<SLFCefWindowManager> windowManager);

    // The reply is kept and called with the browser ID when this connection
    // closes the browser; it is never called if the connection goes first.
    void openBrowserWithURL(const std::string& url, NSSize size, double framerate,
                            const std::vector<std::string>& permittedFileURLStrings, SLFCefReplyBlock reply);
    void updateBrowserWithSize(int browserID, NSSize size);
    void closeBrowser(int browserID);
    void updateBrowserWithSettingsData(int browserID, SLFCefDataRef settingsData);
    void updateBrowserWithPermittedFileURLStrings(int browserID, const std::vector<std::string>& strings);
    // The connection went away: stop being a receiver, stop the browser if
    // nobody else receives it. The kept reply is dropped unanswered.
    void invalidate();

    // Properties (atomic).
    SLFCefCallbackProxyRef callbackProxy() const;
    void setCallbackProxy(SLFCefCallbackProxyRef proxy);
    std::shared_ptr<SLFCefWindowManager> windowManager() const;
    SLFCefWindowRepresentationRef windowRepresentation() const;
    void setWindowRepresentation(SLFCefWindowRepresentationRef representation);

    State state() const;

private:
    // Leaf lock of the three properties; nothing is called while it is held.
    mutable std::mutex m_propertyLock;
    SLFCefCallbackProxyRef m_callbackProxy;
    std::shared_ptr<SLFCefWindowManager> m_windowManager;
    SLFCefWindowRepresentationRef m_windowRepresentation;
};

const char* SLFCefOverlayXPCStateName(SLFCefOverlayXPC::State state);
