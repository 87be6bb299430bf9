#include "dbg/NSLog.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <string>
#include <sys/time.h>
#include <sys/syscall.h>
#include <unistd.h>

extern char* program_invocation_short_name;

namespace {

std::atomic<NSLogHandler> g_handler {nullptr};

} // namespace

void NSLogSetHandler(NSLogHandler handler)
{
    g_handler = handler;
}

void NSLogv(const char* format, va_list args)
{
    const int savedErrno = errno;
    if (NSLogHandler handler = g_handler.load()) {
        char text[4096];
        va_list copy;
        va_copy(copy, args);
        int n = vsnprintf(text, sizeof text, format, copy);
        va_end(copy);
        size_t length = n < 0 ? 0 : std::min<size_t>(static_cast<size_t>(n), sizeof text - 1);
        while (length > 0 && text[length - 1] == '\n')
            --length;
        text[length] = '\0';
        handler(text);
        errno = savedErrno;
        return;
    }
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    struct tm local;
    localtime_r(&tv.tv_sec, &local);
    char stamp[32];
    strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);

    char message[4096];
    va_list copy;
    va_copy(copy, args);
    int n = vsnprintf(message, sizeof message, format, copy);
    va_end(copy);
    if (n < 0)
        n = 0;
    std::string line;
    line.reserve(96 + static_cast<size_t>(n));
    char prefix[160];
    snprintf(prefix, sizeof prefix, "%s.%03ld %s[%d:%ld] ", stamp, static_cast<long>(tv.tv_usec / 1000),
             program_invocation_short_name, static_cast<int>(getpid()), static_cast<long>(syscall(SYS_gettid)));
    line += prefix;
    line.append(message, std::min<size_t>(static_cast<size_t>(n), sizeof message - 1));
    if (line.empty() || line.back() != '\n')
        line += '\n';
    // One write so that lines from several threads never interleave.
    ssize_t ignored = write(STDERR_FILENO, line.data(), line.size());
    (void)ignored;
    errno = savedErrno;
}

void NSLog(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    NSLogv(format, args);
    va_end(args);
}
