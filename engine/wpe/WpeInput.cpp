#include "engine/wpe/WpeInput.h"

#include "dbg/NSLog.h"

#include <glib.h>
#include <wpe/wpe.h>
#include <xkbcommon/xkbcommon.h>

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

uint32_t KeysymForWindowsKeyCode(int code, bool shift)
{
    if (code >= 'A' && code <= 'Z')
        return shift ? static_cast<uint32_t>(code) : static_cast<uint32_t>(XKB_KEY_a + (code - 'A'));
    if (code >= '0' && code <= '9' && !shift)
        return static_cast<uint32_t>(XKB_KEY_0 + (code - '0'));
    if (code >= 0x60 && code <= 0x69) // numeric keypad 0 to 9
        return static_cast<uint32_t>(XKB_KEY_KP_0 + (code - 0x60));
    if (code >= 0x70 && code <= 0x87) // F1 to F24
        return static_cast<uint32_t>(XKB_KEY_F1 + (code - 0x70));

    static const char shiftedDigits[] = {')', '!', '@', '#', '$', '%', '^', '&', '*', '('};
    if (code >= '0' && code <= '9')
        return static_cast<uint32_t>(shiftedDigits[code - '0']);

    switch (code) {
    case 0x08:
        return XKB_KEY_BackSpace;
    case 0x09:
        return shift ? XKB_KEY_ISO_Left_Tab : XKB_KEY_Tab;
    case 0x0C:
        return XKB_KEY_Clear;
    case 0x0D:
        return XKB_KEY_Return;
    case 0x10:
        return XKB_KEY_Shift_L;
    case 0x11:
        return XKB_KEY_Control_L;
    case 0x12:
        return XKB_KEY_Alt_L;
    case 0x13:
        return XKB_KEY_Pause;
    case 0x14:
        return XKB_KEY_Caps_Lock;
    case 0x1B:
        return XKB_KEY_Escape;
    case 0x20:
        return XKB_KEY_space;
    case 0x21:
        return XKB_KEY_Page_Up;
    case 0x22:
        return XKB_KEY_Page_Down;
    case 0x23:
        return XKB_KEY_End;
    case 0x24:
        return XKB_KEY_Home;
    case 0x25:
        return XKB_KEY_Left;
    case 0x26:
        return XKB_KEY_Up;
    case 0x27:
        return XKB_KEY_Right;
    case 0x28:
        return XKB_KEY_Down;
    case 0x29:
        return XKB_KEY_Select;
    case 0x2A:
        return XKB_KEY_Print;
    case 0x2B:
        return XKB_KEY_Execute;
    case 0x2C:
        return XKB_KEY_Print;
    case 0x2D:
        return XKB_KEY_Insert;
    case 0x2E:
        return XKB_KEY_Delete;
    case 0x2F:
        return XKB_KEY_Help;
    case 0x5B:
        return XKB_KEY_Super_L;
    case 0x5C:
        return XKB_KEY_Super_R;
    case 0x5D:
        return XKB_KEY_Menu;
    case 0x6A:
        return XKB_KEY_KP_Multiply;
    case 0x6B:
        return XKB_KEY_KP_Add;
    case 0x6C:
        return XKB_KEY_KP_Separator;
    case 0x6D:
        return XKB_KEY_KP_Subtract;
    case 0x6E:
        return XKB_KEY_KP_Decimal;
    case 0x6F:
        return XKB_KEY_KP_Divide;
    case 0x90:
        return XKB_KEY_Num_Lock;
    case 0x91:
        return XKB_KEY_Scroll_Lock;
    case 0xA0:
        return XKB_KEY_Shift_L;
    case 0xA1:
        return XKB_KEY_Shift_R;
    case 0xA2:
        return XKB_KEY_Control_L;
    case 0xA3:
        return XKB_KEY_Control_R;
    case 0xA4:
        return XKB_KEY_Alt_L;
    case 0xA5:
        return XKB_KEY_Alt_R;
    case 0xBA:
        return shift ? XKB_KEY_colon : XKB_KEY_semicolon;
    case 0xBB:
        return shift ? XKB_KEY_plus : XKB_KEY_equal;
    case 0xBC:
        return shift ? XKB_KEY_less : XKB_KEY_comma;
    case 0xBD:
        return shift ? XKB_KEY_underscore : XKB_KEY_minus;
    case 0xBE:
        return shift ? XKB_KEY_greater : XKB_KEY_period;
    case 0xBF:
        return shift ? XKB_KEY_question : XKB_KEY_slash;
    case 0xC0:
        return shift ? XKB_KEY_asciitilde : XKB_KEY_grave;
    case 0xDB:
        return shift ? XKB_KEY_braceleft : XKB_KEY_bracketleft;
    case 0xDC:
        return shift ? XKB_KEY_bar : XKB_KEY_backslash;
    case 0xDD:
        return shift ? XKB_KEY_braceright : XKB_KEY_bracketright;
    case 0xDE:
        return shift ? XKB_KEY_quotedbl : XKB_KEY_apostrophe;
    default:
        return 0;
    }
}

uint32_t KeysymForCharacter(uint32_t codePoint)
{
    if (codePoint == '\r' || codePoint == '\n')
        return XKB_KEY_Return;
    if (codePoint == '\t')
        return XKB_KEY_Tab;
    if (codePoint == '\b')
        return XKB_KEY_BackSpace;
    if (codePoint == 0x1B)
        return XKB_KEY_Escape;
    if (codePoint < 0x20 || codePoint == 0x7F)
        return 0;
    return xkb_utf32_to_keysym(codePoint);
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

void WpeInput::Move(struct wpe_view_backend* backend, const EngineMouseEvent& event)
{
    if (!backend)
        return;
    struct wpe_input_pointer_event pointer = {wpe_input_pointer_event_type_motion, EventTime(), event.x, event.y, 0, 0,
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
