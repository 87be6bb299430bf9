#include "engine/port/KeySymbols.h"

#include <xkbcommon/xkbcommon.h>

namespace SLF_ChromiumEmbeddedFramework {

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

} // namespace SLF_ChromiumEmbeddedFramework
