// Spot checks of the input translation: case of letters, the ends of the
// function-key range, swapped buttons, and codes without a key symbol.
#include "engine/wpe/WpeInput.h"

#include <gtest/gtest.h>
#include <wpe/wpe.h>
#include <xkbcommon/xkbcommon-keysyms.h>

using namespace SLF_ChromiumEmbeddedFramework;

TEST(WpeInput, KeysAndModifiers)
{
    EXPECT_EQ(KeysymForWindowsKeyCode('A', false), uint32_t(XKB_KEY_a));
    EXPECT_EQ(KeysymForWindowsKeyCode('Z', true), uint32_t(XKB_KEY_Z));
    EXPECT_EQ(KeysymForWindowsKeyCode(0x70, false), uint32_t(XKB_KEY_F1));
    EXPECT_EQ(KeysymForWindowsKeyCode(0x87, false), uint32_t(XKB_KEY_F24));
    EXPECT_EQ(KeysymForWindowsKeyCode(0xFF, false), 0u);
    EXPECT_EQ(KeysymForCharacter(0x20AC), uint32_t(XKB_KEY_EuroSign));
    EXPECT_EQ(KeysymForCharacter(0x01), 0u);

    EXPECT_EQ(WpePointerButton(MBT_RIGHT), 2u);
    EXPECT_EQ(WpePointerModifiers(EVENTFLAG_CONTROL_DOWN | EVENTFLAG_RIGHT_MOUSE_BUTTON),
              uint32_t(wpe_input_keyboard_modifier_control | wpe_input_pointer_modifier_button2));
    EXPECT_EQ(WpeKeyboardModifiers(EVENTFLAG_LEFT_MOUSE_BUTTON | EVENTFLAG_CAPS_LOCK_ON), 0u);
}
