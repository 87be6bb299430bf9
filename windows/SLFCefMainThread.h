// The main thread is whichever thread runs the GLib main loop on the global
// default main context. The engine is started, pumped and shut down there.
#pragma once

#include <glib.h>

#include <cstdint>
#include <functional>

// Runs `work` on the main thread and returns when it has finished. Called on
// the main thread itself, it runs `work` at once (waiting for itself would
// never end). Blocks until the main loop takes the work: the caller must not
// hold a lock that the main thread might wait for.
void SLFCefRunOnMainAndWait(const std::function<void()>& work);

// A repeating source that fires every `periodNanoseconds` on an exact period
// (a CLOCK_MONOTONIC timerfd, not a rounded millisecond time-out). Fires
// once per wake-up however many periods passed. Null when no timerfd could
// be made. Attach it and set its callback like any GSource.
GSource* SLFCefPeriodicSourceNew(uint64_t periodNanoseconds);

// Stops (0) or restarts a source made by SLFCefPeriodicSourceNew with the
// given period, first firing one period from now. Thread safe (a timerfd
// call); a stopped source costs nothing until it is restarted.
void SLFCefPeriodicSourceSetPeriod(GSource* source, uint64_t periodNanoseconds);

// A source that fires once at a time of CLOCK_MONOTONIC (microseconds, the
// clock of g_get_monotonic_time), to the microsecond; made disarmed. Null
// when no timerfd could be made.
GSource* SLFCefDeadlineSourceNew();
// Arms the source for `monotonicMicroseconds` (a time already past fires at
// once) or, with a negative value, disarms it. Thread safe.
void SLFCefDeadlineSourceSetDeadline(GSource* source, int64_t monotonicMicroseconds);
