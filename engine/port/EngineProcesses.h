// The helper processes a web engine started from this process (web and
// network processes), found in /proc by their names. Both ports name their
// helpers with a prefix of their own ("WPE...", "WebKit...").
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

} // namespace SLF_ChromiumEmbeddedFramework
