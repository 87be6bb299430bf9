// The engine's application object. It acts in the service, where it adjusts
// the command line of every engine process, and in every web process, where
// it answers the service's question for the web process's process ID.
// Its code is loaded into the web processes too, so it uses nothing but the
// engine port types and the platform library.
#pragma once

#include "engine/port/EnginePort.h"

namespace SLF_ChromiumEmbeddedFramework {

// Message names of the render-process-ID question and its answer.
inline constexpr const char* kRequestGetRenderProcessId = "SlfCef_Request_GetRenderProcessId";
inline constexpr const char* kResponseGetRenderProcessId = "SlfCef_Response_GetRenderProcessId";

class CBrowserApp : public EngineApp, public EngineBrowserProcessHandler, public EngineRenderProcessHandler {
public:
    CBrowserApp() = default;
    ~CBrowserApp() override = default;

    // EngineApp
    void OnBeforeCommandLineProcessing(const std::string& processType, EngineCommandLine& commandLine) override;
    EngineBrowserProcessHandler* GetBrowserProcessHandler() override;
    EngineRenderProcessHandler* GetRenderProcessHandler() override;

    // EngineBrowserProcessHandler
    void OnBeforeChildProcessLaunch(EngineCommandLine& commandLine) override;

    // EngineRenderProcessHandler (web process side): answers
    // "SlfCef_Request_GetRenderProcessId" through the same browser with the
    // process's pid and its process namespace (see PidNamespaceOf).
    bool OnProcessMessageReceived(EngineBrowserRef browser, EngineProcessMessageRef message) override;

    // Every engine process runs with a device scale factor of 1.
    static void UpdateCommandLine(EngineCommandLine& commandLine);
};

} // namespace SLF_ChromiumEmbeddedFramework
