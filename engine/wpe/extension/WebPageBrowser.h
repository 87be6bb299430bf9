// The browser as the web-process side sees it: one WebKitWebPage. Messages
// sent through it go back to the service's view of the same page. It is
// also the page's main frame. Used on the web process's main thread only.
#pragma once

#include "engine/port/EnginePort.h"

#include <glib-object.h>

#include <cstdint>
#include <memory>
#include <string>

typedef struct _WebKitWebPage WebKitWebPage;

namespace SLF_ChromiumEmbeddedFramework {

class WebPageBrowser : public EngineBrowser, public EngineFrame, public std::enable_shared_from_this<WebPageBrowser> {
public:
    explicit WebPageBrowser(WebKitWebPage* page);
    ~WebPageBrowser() override;
    WebPageBrowser(const WebPageBrowser&) = delete;
    WebPageBrowser& operator=(const WebPageBrowser&) = delete;

    // EngineBrowser
    int GetIdentifier() override { return m_nId; }
    EngineBrowserHostRef GetHost() override { return nullptr; }
    EngineFrameRef GetMainFrame() override { return shared_from_this(); }
    void Reload() override;
    void SendProcessMessage(const EngineProcessMessageRef& message) override;

    // EngineFrame
    std::string GetURL() override;
    void ExecuteJavaScript(const std::string& code, const std::string& scriptUrl, int startLine) override;

private:
    static void PageGone(gpointer self, GObject* page);

    WebKitWebPage* m_pPage; // weak: null once the page is gone
    int m_nId;
};

} // namespace SLF_ChromiumEmbeddedFramework
