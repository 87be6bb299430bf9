// Process messages and command-line switches in the GVariant form in which
// they travel between the service and its web processes. GLib only, so the
// service side and the web-process module share it.
//
// A process message's arguments are a tuple: integers as 'i', strings as
// 's'. A message without an argument list has no parameters at all.
// The web-process module's initialisation data is a dictionary (a{sv}):
//   "process-type" (s)  the type the module runs as ("renderer")
//   "switches"     (a(ss)) the command line, name and value per switch
// Further keys may be added by other parts of the service; unknown keys are
// ignored by the reader.
#pragma once

#include "engine/port/EnginePort.h"

#include <glib.h>

#include <optional>
#include <string>
#include <vector>

namespace SLF_ChromiumEmbeddedFramework {

// A new floating tuple for the message's arguments, or nullptr when the
// message has no argument list.
GVariant* ProcessMessageArgumentsToVariant(const EngineProcessMessage& message);

// Builds a message from a name and received parameters. Parameters that are
// not a tuple count as a one-element list; booleans and the integer types
// become int, strings and object paths become strings. Any other value type
// makes the message unreadable: nullptr, with the reason in error.
EngineProcessMessageRef ProcessMessageFromVariant(const std::string& name, GVariant* parameters, std::string& error);

// The module's initialisation data (a new floating a{sv}).
GVariant* ExtensionInitDataToVariant(const std::string& processType, const EngineCommandLine& switches);

struct ExtensionInitData {
    std::string processType;
    EngineCommandLine switches;
};

// Reads what ExtensionInitDataToVariant wrote. Entries of the wrong type are
// left out (so a null or malformed dictionary gives empty data).
ExtensionInitData ExtensionInitDataFromVariant(GVariant* data);

// The value of "force-device-scale-factor" as a positive number, or nothing
// when the switch is absent or its value is not a positive number.
std::optional<double> ForcedDeviceScaleFactor(const EngineCommandLine& switches);

} // namespace SLF_ChromiumEmbeddedFramework
