#include "engine/wpe/WpeInput.h"

#include "dbg/NSLog.h"

#include <glib.h>
#include <wpe/wpe.h>

#include <algorithm>
#include <cstdlib>

namespace SLF_ChromiumEmbeddedFramework {

uint32_t WpeKeyboardModifiers(uint32_t eventFlags)
{
    uint32_t modifiers = 0;
    if (eventFlags & EVENTFLAG_SHIFT_DOWN)
        modifiers |= wpe_input_keyboard_modifier_shift;
    if (eventFlags & EVENTFLAG_CONTROL_DOWN)
        modifiers |= wpe_input_keyboard_modifier_control;
    if (eventFlags & EVENTFLAG_ALT_DOWN)
        modifiers |= wpe_input_keyboard_modifier_alt;
    if (eventFlags & EVENTFLAG_COMMAND_DOWN)
        modifiers |= wpe_input_keyboard_modifier_meta;
    return modifiers;
}

uint32_t WpePointerModifiers(uint32_t eventFlags)
{
    uint32_t modifiers = WpeKeyboardModifiers(eventFlags);
    if (eventFlags & EVENTFLAG_LEFT_MOUSE_BUTTON)
        modifiers |= wpe_input_pointer_modifier_button1;
    if (eventFlags & EVENTFLAG_RIGHT_MOUSE_BUTTON)
        modifiers |= wpe_input_pointer_modifier_button2;
    if (eventFlags & EVENTFLAG_MIDDLE_MOUSE_BUTTON)
        modifiers |= wpe_input_pointer_modifier_button3;
    return modifiers;
}

uint32_t WpePointerButton(EngineMouseButtonType type)
{
    switch (type) {
    case MBT_LEFT:
        return 1;
    case MBT_RIGHT:
        return 2;
    case MBT_MIDDLE:
        return 3;
    }
    return 1;
}

uint32_t WpePointerButtonModifier(EngineMouseButtonType type)
{
    switch (type) {
    case MBT_LEFT:
        return wpe_input_pointer_modifier_button1;
    case MBT_RIGHT:
        return wpe_input_pointer_modifier_button2;
    case MBT_MIDDLE:
        return wpe_input_pointer_modifier_button3;
    }
    return 0;
}

// ---- synthesis -------------------------------------------------------------

uint32_t WpeInput::EventTime()
{
    return static_cast<uint32_t>(g_get_monotonic_time() / 1000);
}

void WpeInput::Click(struct wpe_view_backend* backend, const EngineMouseEvent& event, EngineMouseButtonType type,
                     bool mouseUp, int clickCount)
{
    if (!backend)
        return;
    const uint32_t button = WpePointerButton(type);
    const uint32_t modifiers = WpePointerModifiers(event.modifiers);
    auto send = [&](bool pressed) {
        struct wpe_input_pointer_event pointer = {
            wpe_input_pointer_event_type_button, EventTime(), event.x, event.y, button, pressed ? 1u : 0u, modifiers};
        wpe_view_backend_dispatch_pointer_event(backend, &pointer);
    };

    if (!mouseUp) {
        const int64_t now = g_get_monotonic_time();
        // WebKit counts clicks itself from their timing: a double click that
        // does not follow a press of its own is sent as two clicks.
        const bool recentPress = now - m_nLastPressTime < kDoubleClickMicroseconds &&
                                 std::abs(event.x - m_nLastPressX) <= kDoubleClickDistance &&
                                 std::abs(event.y - m_nLastPressY) <= kDoubleClickDistance;
        if (clickCount >= 2 && !recentPress) {
            send(true);
            send(false);
        }
        m_nLastPressTime = now;
        m_nLastPressX = event.x;
        m_nLastPressY = event.y;
    }
    send(!mouseUp);
}

void WpeInput::Move(struct wpe_view_backend* backend, const EngineMouseEvent& event, bool leave)
{
    if (!backend)
        return;
    struct wpe_input_pointer_event pointer = {
        wpe_input_pointer_event_type_motion, EventTime(), leave ? -1 : event.x, leave ? -1 : event.y, 0, 0,
        WpePointerModifiers(event.modifiers)};
    wpe_view_backend_dispatch_pointer_event(backend, &pointer);
}

void WpeInput::Wheel(struct wpe_view_backend* backend, const EngineMouseEvent& event, int deltaX, int deltaY)
{
    if (!backend)
        return;
    // One axis event is one wheel step; positive values scroll up and
    // left, as the deltas of the port's wheel events do.
    auto steps = [&](uint32_t axis, int delta) {
        const int count = std::min(std::abs(delta), kMaxWheelSteps);
        for (int i = 0; i < count; ++i) {
            struct wpe_input_axis_event axisEvent = {
                wpe_input_axis_event_type_motion,     EventTime(), event.x, event.y, axis, delta > 0 ? 1 : -1,
                WpeKeyboardModifiers(event.modifiers)};
            wpe_view_backend_dispatch_axis_event(backend, &axisEvent);
        }
    };
    steps(0, deltaY);
    steps(1, deltaX);
}

void WpeInput::Key(struct wpe_view_backend* backend, const EngineKeyEvent& event)
{
    struct wpe_input_xkb_context* xkb = wpe_input_xkb_context_get_default();
    const bool pressed = event.type != KEYEVENT_KEYUP;
    const bool shift = (event.modifiers & EVENTFLAG_SHIFT_DOWN) != 0;
    uint32_t hardwareKeyCode = event.native_key_code > 0 ? static_cast<uint32_t>(event.native_key_code) : 0;

    uint32_t keysym = 0;
    if (event.type == KEYEVENT_CHAR) {
        // A character event carries the character (also in the key code).
        uint32_t character = event.character;
        if (!character && event.windows_key_code >= 0x20)
            character = static_cast<uint32_t>(event.windows_key_code);
        keysym = KeysymForCharacter(character);
    } else if (event.windows_key_code) {
        keysym = KeysymForWindowsKeyCode(event.windows_key_code, shift);
    }
    if (!keysym && hardwareKeyCode)
        keysym = wpe_input_xkb_context_get_key_code(xkb, hardwareKeyCode, pressed);
    if (!keysym && event.character)
        keysym = KeysymForCharacter(event.character);
    if (!keysym) {
        NSLog("WpeView::SendKeyEvent - no key for key code %d (native %d); dropped", event.windows_key_code,
              event.native_key_code);
        return;
    }
    if (!hardwareKeyCode) {
        struct wpe_input_xkb_keymap_entry* entries = nullptr;
        uint32_t count = 0;
        wpe_input_xkb_context_get_entries_for_key_code(xkb, keysym, &entries, &count);
        if (count > 0)
            hardwareKeyCode = entries[0].hardware_key_code;
        free(entries);
    }

    const uint32_t modifiers = WpeKeyboardModifiers(event.modifiers);
    const uint32_t key = hardwareKeyCode ? hardwareKeyCode : (keysym | 0x80000000u);
    switch (event.type) {
    case KEYEVENT_RAWKEYDOWN:
    case KEYEVENT_KEYDOWN:
        m_PressedKeys.insert(key);
        DispatchKey(backend, keysym, hardwareKeyCode, true, modifiers);
        break;
    case KEYEVENT_KEYUP:
        m_PressedKeys.erase(key);
        DispatchKey(backend, keysym, hardwareKeyCode, false, modifiers);
        break;
    case KEYEVENT_CHAR:
        // The press of a held key has typed its character already; a
        // character on its own is typed as a press and a release.
        if (m_PressedKeys.count(key))
            break;
        DispatchKey(backend, keysym, hardwareKeyCode, true, modifiers);
        DispatchKey(backend, keysym, hardwareKeyCode, false, modifiers);
        break;
    }
}

void WpeInput::DispatchKey(struct wpe_view_backend* backend, uint32_t keysym, uint32_t hardwareKeyCode, bool pressed,
                           uint32_t modifiers)
{
    if (!backend)
        return;
    struct wpe_input_keyboard_event key = {EventTime(), keysym, hardwareKeyCode, pressed, modifiers};
    wpe_view_backend_dispatch_keyboard_event(backend, &key);
}

} // namespace SLF_ChromiumEmbeddedFramework
