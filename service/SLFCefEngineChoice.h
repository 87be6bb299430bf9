// Which web engine the service runs: WPE WebKit ("wpe", the default) or
// WebKitGTK ("gtk"), from --engine or STREAMLOFT_ENGINE (the command line
// wins). WPE WebKit and WebKitGTK export the same symbols, so each engine
// has a service executable of its own, side by side in one folder; the one
// that was started replaces itself (exec: same process, arguments and
// environment, so socket activation and a host's watch on the process still
// hold) with the other's when the other engine is asked for.
#pragma once

#include <string>

// The engine names, and the one used when nothing asks for another.
inline constexpr const char* kSLFCefEngineWpe = "wpe";
inline constexpr const char* kSLFCefEngineGtk = "gtk";
inline constexpr const char* kSLFCefDefaultEngine = kSLFCefEngineWpe;
inline constexpr const char* kSLFCefEngineVariable = "STREAMLOFT_ENGINE";

// The engine asked for: `commandLine` when given (not null), else
// STREAMLOFT_ENGINE when set and not empty, else the default. False and a
// message naming the value and where it came from when it names no engine.
bool SLFCefChooseEngine(const std::string* commandLine, std::string& engine, std::string& error);

// The engine this executable runs.
const char* SLFCefThisEngine();

// Replaces this process with the service executable of `engine` (in the
// folder of this one), with the same arguments and environment. Returns
// only when that failed, with a message.
void SLFCefRunEngineExecutable(const std::string& engine, char** argv, std::string& error);

// The engine this executable runs and its version, as the start-up log
// line shows it: "gtk (WebKitGTK 2.50.6)".
std::string SLFCefEngineDescription();
