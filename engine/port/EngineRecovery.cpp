#include "engine/port/EngineRecovery.h"

namespace SLF_ChromiumEmbeddedFramework {

namespace {

const char* TerminationText(EngineTerminationStatus status)
{
    switch (status) {
    case TS_PROCESS_CRASHED:
        return "crashed";
    case TS_PROCESS_OOM:
        return "exceeded its memory limit";
    case TS_PROCESS_WAS_KILLED:
        return "was unresponsive for 10 s and was ended";
    default:
        return "ended";
    }
}

} // namespace

bool WebProcessRecoveries::GiveUp(int64_t now)
{
    while (!m_Times.empty() && now - m_Times.front() >= kWindow)
        m_Times.pop_front();
    if (m_Times.size() >= kMaxRecoveries)
        return true;
    m_Times.push_back(now);
    return false;
}

std::string DescribeWebProcessEnd(int pid, EngineTerminationStatus status, bool givenUp, size_t recoveries)
{
    std::string text = "web process " + std::to_string(pid) + " " + TerminationText(status) + "; ";
    if (givenUp)
        text += "given up after " + std::to_string(recoveries) +
                " recoveries within a minute, the browser stays open without frames";
    else
        text += "loading the page again in a new web process (recovery " + std::to_string(recoveries) + " of " +
                std::to_string(WebProcessRecoveries::kMaxRecoveries) + " within a minute)";
    return text;
}

} // namespace SLF_ChromiumEmbeddedFramework
