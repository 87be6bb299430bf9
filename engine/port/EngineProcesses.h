// The web engine's helper processes as /proc shows them, for both WebKit
// ports: which of this process's children are the engine's (also those
// started below bubblewrap sandbox launchers), and how a process that
// lives in a process namespace of its own is found from outside it.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace SLF_ChromiumEmbeddedFramework {

// The running helper processes of this process whose name starts with
// helperPrefix, searched also below "bwrap" processes: pid (as this
// process sees it), and whether the name starts with networkPrefix.
std::vector<std::pair<int, bool>> RunningHelperProcesses(const std::string& helperPrefix,
                                                         const std::string& networkPrefix);

// The process namespace of a process (0: this one), as the kernel names it
// ("pid:[4026531836]"), the same inside and outside that namespace; "" when
// the process is gone.
std::string PidNamespaceOf(int pid);

// Which of candidates (pids as this process sees them) is the process that
// calls itself innerPid in the process namespace pidNamespace; 0 if none.
int FindProcessByInnerPid(const std::vector<int>& candidates, int innerPid, const std::string& pidNamespace);

} // namespace SLF_ChromiumEmbeddedFramework
