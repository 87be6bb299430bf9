// Windows virtual-key codes and characters as XKB key symbols, for the ports
// whose engines take X key symbols (libwpe's keyboard events, GDK's key
// values: the same numbers). Pure functions.
#pragma once

#include <cstdint>

namespace SLF_ChromiumEmbeddedFramework {

// The XKB key symbol of a Windows virtual-key code (letters lower case
// unless shift is held), or 0 for a code without one.
uint32_t KeysymForWindowsKeyCode(int windowsKeyCode, bool shift);

// The XKB key symbol of a character (a printable Unicode code point), or 0.
uint32_t KeysymForCharacter(uint32_t codePoint);

} // namespace SLF_ChromiumEmbeddedFramework
