// Which helper processes of the WPE engine still run (for shutdown and
// tests). Which page each web process shows is WpeEngineServices' record.
#include "engine/wpe/WpeEnginePort.h"

#include "engine/port/EngineProcesses.h"

#include <string>

namespace SLF_ChromiumEmbeddedFramework {

// ---- the engine's helper processes ---------------------------------------

std::vector<int> WpeEnginePort::RunningWebProcesses()
{
    std::vector<int> result;
    for (const auto& process : RunningEngineProcesses()) {
        if (!process.second)
            result.push_back(process.first);
    }
    return result;
}

std::vector<std::pair<int, bool>> WpeEnginePort::RunningEngineProcesses()
{
    return RunningChildProcessesNamed("WPE", "WPENetwork");
}

} // namespace SLF_ChromiumEmbeddedFramework
