#include "engine/wpe/WebKitInput.h"

#include <gtest/gtest.h>
#include <wpe/wpe.h>
#include <xkbcommon/xkbcommon-keysyms.h>

using namespace SLF_ChromiumEmbeddedFramework;

TEST(WebKitInput, ButtonFlagsBecomePointerModifiers)
{
    EXPECT_EQ(WpePointerModifiers(EVENTFLAG_LEFT_MOUSE_BUTTON), uint32_t(wpe_input_pointer_modifier_button1));
    EXPECT_EQ(WpePointerModifiers(EVENTFLAG_RIGHT_MOUSE_BUTTON), uint32_t(wpe_input_pointer_modifier_button2));
    EXPECT_EQ(WpePointerModifiers(EVENTFLAG_MIDDLE_MOUSE_BUTTON), uint32_t(wpe_input_pointer_modifier_button3));
    EXPECT_EQ(WpePointerModifiers(EVENTFLAG_NONE), 0u);
    EXPECT_EQ(WpePointerModifiers(EVENTFLAG_SHIFT_DOWN | EVENTFLAG_LEFT_MOUSE_BUTTON),
              uint32_t(wpe_input_keyboard_modifier_shift | wpe_input_pointer_modifier_button1));
    // Buttons and their modifier bits agree.
    for (auto type : {MBT_LEFT, MBT_MIDDLE, MBT_RIGHT})
        EXPECT_EQ(WpePointerButtonModifier(type), uint32_t(wpe_input_pointer_modifier_button1)
                                                      << (WpePointerButton(type) - 1));
    EXPECT_EQ(WpePointerButton(MBT_RIGHT), 2u);
    EXPECT_EQ(WpePointerButton(MBT_MIDDLE), 3u);
}

TEST(WebKitInput, KeyboardFlagsBecomeKeyboardModifiers)
{
    EXPECT_EQ(WpeKeyboardModifiers(EVENTFLAG_CONTROL_DOWN | EVENTFLAG_ALT_DOWN | EVENTFLAG_COMMAND_DOWN),
              uint32_t(wpe_input_keyboard_modifier_control | wpe_input_keyboard_modifier_alt |
                       wpe_input_keyboard_modifier_meta));
    // Mouse buttons and caps lock are no keyboard modifiers.
    EXPECT_EQ(WpeKeyboardModifiers(EVENTFLAG_LEFT_MOUSE_BUTTON | EVENTFLAG_CAPS_LOCK_ON), 0u);
}

TEST(WebKitInput, WindowsKeyCodesBecomeKeySymbols)
{
    EXPECT_EQ(KeysymForWindowsKeyCode('A', false), uint32_t(XKB_KEY_a));
    EXPECT_EQ(KeysymForWindowsKeyCode('Z', true), uint32_t(XKB_KEY_Z));
    EXPECT_EQ(KeysymForWindowsKeyCode('7', false), uint32_t(XKB_KEY_7));
    EXPECT_EQ(KeysymForWindowsKeyCode('1', true), uint32_t(XKB_KEY_exclam));
    EXPECT_EQ(KeysymForWindowsKeyCode(0x0D, false), uint32_t(XKB_KEY_Return));
    EXPECT_EQ(KeysymForWindowsKeyCode(0x25, false), uint32_t(XKB_KEY_Left));
    EXPECT_EQ(KeysymForWindowsKeyCode(0x70, false), uint32_t(XKB_KEY_F1));
    EXPECT_EQ(KeysymForWindowsKeyCode(0x87, false), uint32_t(XKB_KEY_F24));
    EXPECT_EQ(KeysymForWindowsKeyCode(0x60, false), uint32_t(XKB_KEY_KP_0));
    EXPECT_EQ(KeysymForWindowsKeyCode(0xBD, true), uint32_t(XKB_KEY_underscore));
    EXPECT_EQ(KeysymForWindowsKeyCode(0, false), 0u);
    EXPECT_EQ(KeysymForWindowsKeyCode(0xFF, false), 0u);
}

TEST(WebKitInput, CharactersBecomeKeySymbols)
{
    EXPECT_EQ(KeysymForCharacter('a'), uint32_t(XKB_KEY_a));
    EXPECT_EQ(KeysymForCharacter('\r'), uint32_t(XKB_KEY_Return));
    EXPECT_EQ(KeysymForCharacter(0x20AC), uint32_t(XKB_KEY_EuroSign));
    EXPECT_EQ(KeysymForCharacter(0x01), 0u);
}
