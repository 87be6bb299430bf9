#include "engine/EngineLog.h"

namespace SLF_ChromiumEmbeddedFramework {

namespace {
constexpr const char* kEngineLogModuleName = "cef";
// Levels up to warning are on unless configured otherwise.
constexpr int kEngineLogHighestLevel = 1;
} // namespace

int32_t EngineLog_GetModuleIndex()
{
    static const int32_t moduleIndex = [] {
        NplDebugInfo info {};
        NplDebugPrintInit(&info, kEngineLogModuleName, kEngineLogHighestLevel, nullptr, 0);
        return info.moduleIndex;
    }();
    return moduleIndex;
}

} // namespace SLF_ChromiumEmbeddedFramework
