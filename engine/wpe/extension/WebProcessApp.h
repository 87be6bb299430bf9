// The application object that runs in each web process.
#pragma once

#include "engine/port/EnginePort.h"

#include <memory>

namespace SLF_ChromiumEmbeddedFramework {

std::unique_ptr<EngineApp> CreateWebProcessApp();

} // namespace SLF_ChromiumEmbeddedFramework
