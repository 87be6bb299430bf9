// What both WebKit ports share of web-process recovery: the count of a
// browser's recent recoveries (a page that crashes again and again is given
// up) and the words the service logs when a browser's web process ended.
#pragma once

#include "engine/port/EnginePort.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

namespace SLF_ChromiumEmbeddedFramework {

class WebProcessRecoveries {
public:
    // Recoveries allowed within the window; one more crash gives up.
    static constexpr size_t kMaxRecoveries = 3;
    static constexpr int64_t kWindow = 60 * 1000 * 1000; // microseconds
    // How long a web process may stay unresponsive before it is ended.
    static constexpr int64_t kUnresponsiveLimit = 10 * 1000 * 1000; // microseconds

    // A web process ended at now (monotonic microseconds): true when the
    // browser is given up (kMaxRecoveries recoveries within the window
    // already), else the recovery is counted.
    bool GiveUp(int64_t now);
    // Recoveries within the window, after the last GiveUp.
    size_t Count() const { return m_Times.size(); }

private:
    std::deque<int64_t> m_Times; // monotonic microseconds
};

// "web process 123 crashed; loading the page again in a new web process
// (recovery 1 of 3 within a minute)", or "...; given up after ...": the
// log line's text after the browser's name. pid 0 when unknown.
std::string DescribeWebProcessEnd(int pid, EngineTerminationStatus status, bool givenUp, size_t recoveries);

} // namespace SLF_ChromiumEmbeddedFramework
