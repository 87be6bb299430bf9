// The engine's debug-log module "cef". Call sites log through
// NPL_DBGPRINTF(EngineLog_GetModuleIndex(), level, ...), which tests the
// module's flag bit for the level before anything is formatted.
#pragma once

#include "dbg/dbg.h"

#include <cstdint>

namespace SLF_ChromiumEmbeddedFramework {

// Registers the module on first use, with the level flags ERR and WRN on
// and INF and DBG off; returns its index.
int32_t EngineLog_GetModuleIndex();

} // namespace SLF_ChromiumEmbeddedFramework
