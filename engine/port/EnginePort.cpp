#include "engine/port/EnginePort.h"

#include <atomic>

namespace SLF_ChromiumEmbeddedFramework {

namespace {
std::atomic<EnginePort*> g_enginePort {nullptr};
}

void SetEnginePort(EnginePort* port)
{
    g_enginePort.store(port);
}

EnginePort* GetEnginePort()
{
    return g_enginePort.load();
}

} // namespace SLF_ChromiumEmbeddedFramework
