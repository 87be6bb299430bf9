// The service side's system log: one line to standard error, prefixed with
// the local time, the process name and the process and thread ids, the way
// the service's log lines have always looked. printf-style formatting; a
// trailing line feed is added when the message has none.
#pragma once

#include <cstdarg>

// Where the lines go instead of standard error, for code that runs inside
// another program (the host library): the handler gets the formatted message
// without the prefix and line feed, on the thread that logs. Null (the
// default) means standard error. Set it before any thread logs.
using NSLogHandler = void (*)(const char* message);
void NSLogSetHandler(NSLogHandler handler);

void NSLog(const char* format, ...) __attribute__((format(printf, 1, 2)));
void NSLogv(const char* format, va_list args) __attribute__((format(printf, 1, 0)));
