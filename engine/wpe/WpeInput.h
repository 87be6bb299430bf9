// Translation of the port's input vocabulary (event flags, button types,
// Windows virtual-key codes) into libwpe's (modifier bits, button numbers,
// XKB key symbols). Pure functions, no engine state.
#pragma once

#include "engine/port/EnginePort.h"

#include <cstdint>

namespace SLF_ChromiumEmbeddedFramework {

// Keyboard modifier bits (shift, control, alt, meta) for the event flags.
uint32_t WpeKeyboardModifiers(uint32_t eventFlags);

// Keyboard modifiers plus the pointer-button bits of the held mouse buttons.
uint32_t WpePointerModifiers(uint32_t eventFlags);

// libwpe's button number: 1 left, 2 right, 3 middle.
uint32_t WpePointerButton(EngineMouseButtonType type);

// The pointer-modifier bit that stands for the button.
uint32_t WpePointerButtonModifier(EngineMouseButtonType type);

// The XKB key symbol of a Windows virtual-key code (letters lower case
// unless shift is held), or 0 for a code without one.
uint32_t KeysymForWindowsKeyCode(int windowsKeyCode, bool shift);

// The XKB key symbol of a character (a printable Unicode code point), or 0.
uint32_t KeysymForCharacter(uint32_t codePoint);

} // namespace SLF_ChromiumEmbeddedFramework
