// The engine port the real-engine tests in this folder run against. Every
// test source here is built once per port: SLF_PORT_UNDER_TEST_GTK selects
// the WebKitGTK port, otherwise the WPE port. A case needing something one
// port does not have says so in a skip at its top, for that port only.
#pragma once

#include "engine/port/EnginePort.h"
#include "engine/port/EngineProcesses.h"

#if SLF_PORT_UNDER_TEST_GTK
#include "engine/gtk/GtkEnginePort.h"
#else
#include "engine/wpe/WpeEnginePort.h"
#include "engine/wpe/WpeResourceServer.h"
#endif

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace PortUnderTest {

using namespace SLF_ChromiumEmbeddedFramework;

#if SLF_PORT_UNDER_TEST_GTK

using Port = GtkEnginePort;
constexpr bool kGtk = true;
constexpr const char* kName = "WebKitGTK";

// The engine's helper processes this process started that still run: pid,
// and whether it is the network process.
inline std::vector<std::pair<int, bool>> RunningEngineProcesses()
{
    return RunningChildProcessesNamed("WebKit", "WebKitNetwork");
}

// Whether the port's web processes run in the engine's sandbox.
inline bool IsSandboxed(Port*)
{
    return false;
}

// The path of the socket on which the port's resource thread takes the web
// processes' questions; empty when the port has none.
inline std::string ResourceSocketPath(Port*)
{
    return std::string();
}

#else

using Port = WpeEnginePort;
constexpr bool kGtk = false;
constexpr const char* kName = "WPE WebKit";

inline std::vector<std::pair<int, bool>> RunningEngineProcesses()
{
    return WpeEnginePort::RunningEngineProcesses();
}

inline bool IsSandboxed(Port* port)
{
    return port->IsSandboxed();
}

inline std::string ResourceSocketPath(Port* port)
{
    return port->GetResourceServer() ? port->GetResourceServer()->GetSocketPath() : std::string();
}

#endif

// A new port of this kind; the caller owns it (the engine keeps references
// to a port's context: tests never delete one).
inline Port* Create()
{
    return new Port();
}

// The web processes among RunningEngineProcesses.
inline std::vector<int> RunningWebProcesses()
{
    std::vector<int> result;
    for (const auto& process : RunningEngineProcesses())
        if (!process.second)
            result.push_back(process.first);
    return result;
}

} // namespace PortUnderTest

// Skips the case on the WebKitGTK port, with the message streamed after it;
// one line at the top of a case:
//   SKIP_ON_GTK() << "input is not offered by the WebKitGTK port yet";
#define SKIP_ON_GTK()                                                                                                  \
    if (!PortUnderTest::kGtk) {                                                                                        \
    } else                                                                                                             \
        GTEST_SKIP()
