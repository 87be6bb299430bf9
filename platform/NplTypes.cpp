#include "platform/NplTypes.h"

struct timespec NplMakeRelativeTimespec(const NplTimeout& timeout)
{
    struct timespec ts = {0, 0};
    const int64_t ns = timeout.Nanoseconds();
    if (ns > 0) {
        ts.tv_sec = static_cast<time_t>(ns / 1000000000LL);
        ts.tv_nsec = static_cast<long>(ns % 1000000000LL);
    }
    return ts;
}
