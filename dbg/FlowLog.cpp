#include "dbg/FlowLog.h"

namespace {

// Errors and warnings on, info and debug (the hop lines) off.
constexpr int kFlowLogHighestLevel = 1;

int32_t Register(const char* name)
{
    NplDebugInfo info {};
    NplDebugPrintInit(&info, name, kFlowLogHighestLevel, nullptr, 0);
    return info.moduleIndex;
}

} // namespace

int32_t FramesLog_GetModuleIndex()
{
    static const int32_t moduleIndex = Register("frames");
    return moduleIndex;
}

int32_t AudioLog_GetModuleIndex()
{
    static const int32_t moduleIndex = Register("audio");
    return moduleIndex;
}
