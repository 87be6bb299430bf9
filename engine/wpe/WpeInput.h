// Input of the WPE port: the translation of the port's input vocabulary
// (event flags, button types) into libwpe's (modifier bits, button
// numbers), pure functions, with key symbols from KeySymbols.h; and
// WpeInput, which synthesises one view's pointer, wheel and key events.
#pragma once

#include "engine/port/EnginePort.h"
#include "engine/port/KeySymbols.h"

#include <cstdint>
#include <set>

struct wpe_view_backend;

namespace SLF_ChromiumEmbeddedFramework {

// Keyboard modifier bits (shift, control, alt, meta) for the event flags.
uint32_t WpeKeyboardModifiers(uint32_t eventFlags);

// Keyboard modifiers plus the pointer-button bits of the held mouse buttons.
uint32_t WpePointerModifiers(uint32_t eventFlags);

// libwpe's button number: 1 left, 2 right, 3 middle.
uint32_t WpePointerButton(EngineMouseButtonType type);

// The pointer-modifier bit that stands for the button.
uint32_t WpePointerButtonModifier(EngineMouseButtonType type);

// The input of one view, as libwpe events dispatched to its backend. Owned
// by its WpeView, which calls it on the pump thread only; backend may be
// null (the view's backend is gone), and then nothing is sent.
class WpeInput {
public:
    // A press or release; clickCount 2 on a press that does not follow a
    // press of its own is sent as a click and a press (WebKit counts clicks
    // from their timing).
    void Click(struct wpe_view_backend* backend, const EngineMouseEvent& event, EngineMouseButtonType type,
               bool mouseUp, int clickCount);
    // A move; with leave the pointer leaves the view (it moves to -1, -1,
    // outside every element).
    void Move(struct wpe_view_backend* backend, const EngineMouseEvent& event, bool leave);
    // One axis event per wheel step (at most kMaxWheelSteps a call).
    void Wheel(struct wpe_view_backend* backend, const EngineMouseEvent& event, int deltaX, int deltaY);
    // A key press, release or character; a character of a held key has
    // been typed by its press already.
    void Key(struct wpe_view_backend* backend, const EngineKeyEvent& event);
    // Forgets the keys held (the view's page went away).
    void Reset() { m_PressedKeys.clear(); }

    // Two presses closer than this (and a few pixels) make one double click.
    static constexpr int64_t kDoubleClickMicroseconds = 500 * 1000;
    static constexpr int kDoubleClickDistance = 4;
    // A wheel call larger than this is cut to it.
    static constexpr int kMaxWheelSteps = 100;

private:
    static uint32_t EventTime();
    static void DispatchKey(struct wpe_view_backend* backend, uint32_t keysym, uint32_t hardwareKeyCode, bool pressed,
                            uint32_t modifiers);

    std::set<uint32_t> m_PressedKeys; // hardware key codes (or key symbols with the top bit)
    int64_t m_nLastPressTime = 0;     // monotonic microseconds
    int m_nLastPressX = 0;
    int m_nLastPressY = 0;
};

} // namespace SLF_ChromiumEmbeddedFramework
