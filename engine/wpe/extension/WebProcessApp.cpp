#include "engine/wpe/extension/WebProcessApp.h"

#include "engine/CBrowserApp.h"

namespace SLF_ChromiumEmbeddedFramework {

std::unique_ptr<EngineApp> CreateWebProcessApp()
{
    return std::make_unique<CBrowserApp>();
}

} // namespace SLF_ChromiumEmbeddedFramework
