// The WPE port's knowledge of its web processes: which page each one
// shows (page claims, asked by the resource and audio threads) and which
// helper processes of the engine still run (for shutdown and tests).
#include "engine/wpe/WpeEnginePort.h"

#include "engine/CBrowserApp.h"
#include "engine/port/EngineProcesses.h"
#include "engine/wpe/WpeResourceServer.h"
#include "engine/wpe/WpeView.h"

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
