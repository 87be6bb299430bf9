// WebKit's web-process sandbox (bubblewrap) on this machine, and the folder
// of the engine's path sockets that sandboxed web processes reach: they
// have a network namespace of their own, so abstract addresses are out of
// their reach.
#pragma once

#include <string>

namespace SLF_ChromiumEmbeddedFramework {

// Whether web processes can run in WebKit's sandbox here: bubblewrap and
// xdg-dbus-proxy are installed, bubblewrap can make its namespaces, and
// this is no container in which WebKit refuses to use it (WPE WebKit 2.38
// refuses in Docker, WebKitGTK 2.50 does not: usedInDocker). why says why
// not.
bool WpeSandboxWorksHere(std::string& why, bool usedInDocker = false);

// Makes the private folder (mode 0700) for the engine's sockets and
// returns its path; empty on failure (why says why). One per process.
std::string MakeEngineSocketFolder(std::string& why);
// Removes that folder and the sockets in it; does nothing when there is
// none. Also run just before the service ends.
void RemoveEngineSocketFolder();

} // namespace SLF_ChromiumEmbeddedFramework
