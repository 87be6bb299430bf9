#include "platform/NplThreading.h"

#include "dbg/dbg.h"
#include "platform/NplDebug.h"

#include <sys/syscall.h>
#include <unistd.h>

int32_t NplThreading_GetThreadId()
{
    return static_cast<int32_t>(static_cast<long>(syscall(SYS_gettid)) & 0x7FFFFFFF);
}

int32_t NplThreading_GetProcessId()
{
    return static_cast<int32_t>(getpid());
}

void BreakIntoDebugger()
{
    // Only a log line: the process is neither stopped nor trapped.
    NPL_DBGPRINTF(NplDebugModule(), 3, "Debugger!!!\n");
}
