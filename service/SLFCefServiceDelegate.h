// Accepts host connections: gives each its own SLFCefOverlayXPC, its callback
// proxy and its handlers, and resumes it. Has no state; one instance lives
// for the whole process.
#pragma once

#include "service/SLFCefXPCConnection.h"

#include <memory>

class SLFCefXPCListener;

class SLFCefXPCListenerDelegate {
public:
    virtual ~SLFCefXPCListenerDelegate() = default;
    // True to keep the connection; it must have been resumed.
    virtual bool listenerShouldAcceptNewConnection(SLFCefXPCListener& listener,
                                                   const std::shared_ptr<SLFCefXPCConnection>& connection) = 0;
};

class SLFCefServiceDelegate : public SLFCefXPCListenerDelegate {
public:
    // Every connection is accepted; the peer was checked by the listener
    // (same user, EXTERNAL authentication).
    bool listenerShouldAcceptNewConnection(SLFCefXPCListener& listener,
                                           const std::shared_ptr<SLFCefXPCConnection>& connection) override;
};
