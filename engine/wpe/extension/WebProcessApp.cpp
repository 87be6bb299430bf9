#include "engine/wpe/extension/WebProcessApp.h"

#if SLF_HAVE_BROWSER_APP
#include "engine/CBrowserApp.h"
#else
#include <unistd.h>
#endif

namespace SLF_ChromiumEmbeddedFramework {

#if SLF_HAVE_BROWSER_APP

std::unique_ptr<EngineApp> CreateWebProcessApp()
{
    return std::make_unique<CBrowserApp>();
}

#else

namespace {

// Stands in for the engine's application object while it is not part of the
// build: answers the render-process question, as that object does.
class MinimalWebProcessApp : public EngineApp, public EngineRenderProcessHandler {
public:
    void OnBeforeCommandLineProcessing(const std::string&, EngineCommandLine&) override {}
    EngineBrowserProcessHandler* GetBrowserProcessHandler() override { return nullptr; }
    EngineRenderProcessHandler* GetRenderProcessHandler() override { return this; }
    bool OnProcessMessageReceived(EngineBrowserRef browser, EngineProcessMessageRef message) override
    {
        if (!browser || !message || message->GetName() != "SlfCef_Request_GetRenderProcessId")
            return false;
        auto response = EngineProcessMessage::Create("SlfCef_Response_GetRenderProcessId");
        std::vector<EngineValue> arguments(1);
        arguments[0] = static_cast<int>(getpid());
        response->SetArguments(std::move(arguments));
        browser->SendProcessMessage(response);
        return true;
    }
};

} // namespace

std::unique_ptr<EngineApp> CreateWebProcessApp()
{
    return std::make_unique<MinimalWebProcessApp>();
}

#endif

} // namespace SLF_ChromiumEmbeddedFramework
