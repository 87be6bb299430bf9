// The log modules of the two data paths on the service side: "frames" (a
// painted frame from the engine to the host's letting go of its surface)
// and "audio" (a block of page audio from the engine to the return of its
// slots). ARCHITECTURE.md ("Life of a frame", "Life of an audio block")
// names every hop; each hop writes one line at the debug level.
//
// The debug flag of both modules is off by default (errors and warnings are
// on), so the lines cost one flag test per hop. Turn them on with the log
// commands "frames DBG:1" and "audio DBG:1" (--log or STREAMLOFT_LOG).
#pragma once

#include "dbg/dbg.h"

#include <cstdint>

// Register the module on first use; return its index.
int32_t FramesLog_GetModuleIndex();
int32_t AudioLog_GetModuleIndex();

// The level of the hop lines: debug.
constexpr int kFlowLogLevel = 3;

#define SLF_FRAMES_LOG(format, ...)                                                                                    \
    NPL_DBGPRINTF(FramesLog_GetModuleIndex(), kFlowLogLevel, format __VA_OPT__(, ) __VA_ARGS__)
#define SLF_AUDIO_LOG(format, ...)                                                                                     \
    NPL_DBGPRINTF(AudioLog_GetModuleIndex(), kFlowLogLevel, format __VA_OPT__(, ) __VA_ARGS__)
