// slf-overlay-soak: the clock of the run, its log lines and waiting (see Soak.h).
#include "tools/slf-overlay-soak/Soak.h"

#include <cstdarg>
#include <cstdio>
#include <thread>

namespace slfsoak {

const Clock::time_point g_start = Clock::now();

double Elapsed()
{
    return std::chrono::duration<double>(Clock::now() - g_start).count();
}

void Say(const char* format, ...)
{
    static std::mutex lock;
    std::lock_guard<std::mutex> guard(lock); // lock order: a leaf, only around printing
    printf("[%5.0f s] ", Elapsed());
    va_list args;
    va_start(args, format);
    vprintf(format, args);
    va_end(args);
    printf("\n");
    fflush(stdout);
}

bool WaitFor(const std::function<bool()>& done, std::chrono::milliseconds limit)
{
    const auto end = Clock::now() + limit;
    while (!done()) {
        if (Clock::now() > end)
            return false;
        std::this_thread::sleep_for(50ms);
    }
    return true;
}

} // namespace slfsoak
