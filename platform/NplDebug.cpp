#include "platform/NplDebug.h"

#include "dbg/dbg.h"

int32_t NplDebugModule()
{
    // Registered once, on first use from any thread (static initialisation
    // is thread-safe); the index stays valid for the name.
    static NplDebugInfo info;
    static const int32_t index = [] {
        NplDebugPrintInit(&info, "npl", 1, nullptr, 0);
        return info.moduleIndex;
    }();
    return index;
}
