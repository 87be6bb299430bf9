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
