// Time helpers of the platform library.
#pragma once

#include <cstddef>
#include <cstdint>

// CLOCK_MONOTONIC in nanoseconds.
int64_t NplTime_GetMonotonicNanoseconds();
// Wall-clock time of day in nanoseconds since the epoch.
int64_t NplTime_GetTimeOfDayNanoseconds();
// Fixed-width local date and time ("YYYY-MM-DD HH:MM:SS.mmm "), at most
// 32 bytes including the terminating zero; returns the text length.
size_t NplTime_GetCurrentTimeString(char* buffer, size_t size);
