// Process and thread identity, and the library's debugger hook.
#pragma once

#include <cstdint>

// The calling thread's kernel id (gettid) masked with 0x7FFFFFFF: never negative.
int32_t NplThreading_GetThreadId();
int32_t NplThreading_GetProcessId();

// Logs "Debugger!!!" at debug level under module "npl" and returns; it does
// not stop the process.
void BreakIntoDebugger();
