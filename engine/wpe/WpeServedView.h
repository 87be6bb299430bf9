// A browser's view as the engine's socket threads (resources, audio) see it,
// in either port: the browser, host and main frame the client's handlers
// are called with, its client, and the requests for the internal scheme
// it keeps open. WpeView (WPE WebKit) and GtkView (WebKitGTK) are ones.
#pragma once

#include "engine/port/EnginePort.h"

#include <utility>
#include <vector>

typedef struct _WebKitURISchemeRequest WebKitURISchemeRequest;

namespace SLF_ChromiumEmbeddedFramework {

// A view's requests for the internal scheme kept open, with the handler
// that answers each (null when none does).
using OpenSchemeRequests = std::vector<std::pair<WebKitURISchemeRequest*, EngineResourceHandler*>>;

class WpeServedView : public EngineBrowser, public EngineBrowserHost, public EngineFrame {
public:
    // Set at construction; any thread.
    virtual EngineClient* GetClient() const = 0;
    // Engine context: keeps a request for the internal scheme open until
    // the view closes (false when it has closed already).
    virtual bool KeepRequestOpen(WebKitURISchemeRequest* request, EngineResourceHandler* handler) = 0;
};

} // namespace SLF_ChromiumEmbeddedFramework
