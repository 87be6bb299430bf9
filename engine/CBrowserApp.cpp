#include "engine/CBrowserApp.h"

#include "engine/port/EngineProcesses.h"
#include "platform/NplThreading.h"

namespace SLF_ChromiumEmbeddedFramework {

void CBrowserApp::OnBeforeCommandLineProcessing(const std::string& processType, EngineCommandLine& commandLine)
{
    (void)processType;
    UpdateCommandLine(commandLine);
}

EngineBrowserProcessHandler* CBrowserApp::GetBrowserProcessHandler()
{
    return this;
}

EngineRenderProcessHandler* CBrowserApp::GetRenderProcessHandler()
{
    return this;
}

void CBrowserApp::OnBeforeChildProcessLaunch(EngineCommandLine& commandLine)
{
    UpdateCommandLine(commandLine);
}

bool CBrowserApp::OnProcessMessageReceived(EngineBrowserRef browser, EngineProcessMessageRef message)
{
    if (!browser || !message)
        return false;
    if (message->GetName() != kRequestGetRenderProcessId)
        return false;

    EngineProcessMessageRef response = EngineProcessMessage::Create(kResponseGetRenderProcessId);
    auto& arguments = response->GetArgumentList();
    arguments.resize(2);
    arguments[0] = static_cast<int>(NplThreading_GetProcessId());
    // A sandboxed web process knows its own pid only inside its process
    // namespace; with that namespace the service finds the process.
    arguments[1] = PidNamespaceOf(0);
    browser->SendProcessMessage(response);
    return true;
}

void CBrowserApp::UpdateCommandLine(EngineCommandLine& commandLine)
{
    commandLine.AppendSwitchWithValue("force-device-scale-factor", "1");
}

} // namespace SLF_ChromiumEmbeddedFramework
