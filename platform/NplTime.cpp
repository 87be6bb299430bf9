#include "platform/NplTime.h"

#include <cstdio>
#include <ctime>

int64_t NplTime_GetMonotonicNanoseconds()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

int64_t NplTime_GetTimeOfDayNanoseconds()
{
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

size_t NplTime_GetCurrentTimeString(char* buffer, size_t size)
{
    if (!buffer || size == 0)
        return 0;
    buffer[0] = 0;
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    struct tm local;
    if (!localtime_r(&ts.tv_sec, &local))
        return 0;
    char text[64];
    const int n =
        snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d.%03ld ", local.tm_year + 1900, local.tm_mon + 1,
                 local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, static_cast<long>(ts.tv_nsec / 1000000));
    if (n <= 0)
        return 0;
    // The text is at most 31 characters plus the terminating zero.
    size_t len = static_cast<size_t>(n);
    if (len > 31)
        len = 31;
    if (len > size - 1)
        len = size - 1;
    for (size_t i = 0; i < len; ++i)
        buffer[i] = text[i];
    buffer[len] = 0;
    return len;
}
