// The helper processes a web engine started from this process (web and
// network processes), found in /proc by their names. Both ports name their
// helpers with a prefix of their own ("WPE...", "WebKit..."). Also how a
// process in a process namespace of its own is found from outside it.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace SLF_ChromiumEmbeddedFramework {

// The children of this process whose name starts with prefix and that still
// run (not zombies), also below one or two bubblewrap processes (the
// engine's sandbox): pid as this process sees it, and whether the name
// starts with networkPrefix.
std::vector<std::pair<int, bool>> RunningChildProcessesNamed(const std::string& prefix,
                                                             const std::string& networkPrefix);

// The process namespace of a process (0: this one), as the kernel names it
// ("pid:[4026531836]"), the same inside and outside that namespace; "" when
// the process is gone. A sandboxed web process knows its own pid only
// inside its namespace: with the namespace, the process is found from
// outside it.
std::string PidNamespaceOf(int pid);

// Which of candidates (pids as this process sees them) is the process that
// calls itself innerPid in the process namespace pidNamespace; 0 if none.
int FindProcessByInnerPid(const std::vector<int>& candidates, int innerPid, const std::string& pidNamespace);

} // namespace SLF_ChromiumEmbeddedFramework
