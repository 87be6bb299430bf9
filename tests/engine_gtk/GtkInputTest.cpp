// Spot checks of the WebKitGTK port's input translation: GDK numbers the
// right button 3 (libwpe 2), alt is GDK's first modifier, caps lock has a
// bit of its own, and held buttons only show in pointer events.
#include "engine/gtk/GtkInput.h"

#include <gtest/gtest.h>

#include <gdk/gdk.h>

using namespace SLF_ChromiumEmbeddedFramework;

TEST(GtkInput, ButtonsAndModifiers)
{
    EXPECT_EQ(GtkPointerButton(MBT_LEFT), 1u);
    EXPECT_EQ(GtkPointerButton(MBT_MIDDLE), 2u);
    EXPECT_EQ(GtkPointerButton(MBT_RIGHT), 3u);

    EXPECT_EQ(GtkKeyboardModifiers(EVENTFLAG_ALT_DOWN | EVENTFLAG_COMMAND_DOWN),
              uint32_t(GDK_MOD1_MASK | GDK_META_MASK));
    EXPECT_EQ(GtkKeyboardModifiers(EVENTFLAG_CAPS_LOCK_ON | EVENTFLAG_SHIFT_DOWN),
              uint32_t(GDK_LOCK_MASK | GDK_SHIFT_MASK));
    EXPECT_EQ(GtkKeyboardModifiers(EVENTFLAG_LEFT_MOUSE_BUTTON), 0u);
    EXPECT_EQ(
        GtkPointerModifiers(EVENTFLAG_CONTROL_DOWN | EVENTFLAG_RIGHT_MOUSE_BUTTON | EVENTFLAG_MIDDLE_MOUSE_BUTTON),
        uint32_t(GDK_CONTROL_MASK | GDK_BUTTON3_MASK | GDK_BUTTON2_MASK));
}

// The shared key table gives GDK key values.
TEST(GtkInput, KeyValuesFromTheSharedTable)
{
    EXPECT_EQ(KeysymForWindowsKeyCode('A', false), uint32_t(GDK_KEY_a));
    EXPECT_EQ(KeysymForWindowsKeyCode(0x0D, false), uint32_t(GDK_KEY_Return));
    EXPECT_EQ(KeysymForWindowsKeyCode(0x09, true), uint32_t(GDK_KEY_ISO_Left_Tab));
    EXPECT_EQ(KeysymForCharacter('!'), uint32_t(GDK_KEY_exclam));
    EXPECT_EQ(KeysymForCharacter(0x00E9), uint32_t(GDK_KEY_eacute));
}
