#include "engine/gtk/GtkInput.h"

#include "dbg/NSLog.h"

#include <gtk/gtk.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace SLF_ChromiumEmbeddedFramework {

uint32_t GtkKeyboardModifiers(uint32_t eventFlags)
{
    uint32_t modifiers = 0;
    if (eventFlags & EVENTFLAG_SHIFT_DOWN)
        modifiers |= GDK_SHIFT_MASK;
    if (eventFlags & EVENTFLAG_CAPS_LOCK_ON)
        modifiers |= GDK_LOCK_MASK;
    if (eventFlags & EVENTFLAG_CONTROL_DOWN)
        modifiers |= GDK_CONTROL_MASK;
    if (eventFlags & EVENTFLAG_ALT_DOWN)
        modifiers |= GDK_MOD1_MASK;
    if (eventFlags & EVENTFLAG_COMMAND_DOWN)
        modifiers |= GDK_META_MASK;
    return modifiers;
}

uint32_t GtkPointerModifiers(uint32_t eventFlags)
{
    uint32_t modifiers = GtkKeyboardModifiers(eventFlags);
    if (eventFlags & EVENTFLAG_LEFT_MOUSE_BUTTON)
        modifiers |= GDK_BUTTON1_MASK;
    if (eventFlags & EVENTFLAG_MIDDLE_MOUSE_BUTTON)
        modifiers |= GDK_BUTTON2_MASK;
    if (eventFlags & EVENTFLAG_RIGHT_MOUSE_BUTTON)
        modifiers |= GDK_BUTTON3_MASK;
    return modifiers;
}

uint32_t GtkPointerButton(EngineMouseButtonType type)
{
    switch (type) {
    case MBT_LEFT:
        return GDK_BUTTON_PRIMARY;
    case MBT_MIDDLE:
        return GDK_BUTTON_MIDDLE;
    case MBT_RIGHT:
        return GDK_BUTTON_SECONDARY;
    }
    return GDK_BUTTON_PRIMARY;
}

// ---- the view ----------------------------------------------------------------

void GtkInput::Attach(GtkWidget* window, GtkWidget* view)
{
    m_pWindow = window;
    m_pView = view;
    m_bPointerOutside = true;
    Focus();
}

void GtkInput::Detach()
{
    m_pWindow = nullptr;
    m_pView = nullptr;
    m_PressedKeys.clear();
}

uint32_t GtkInput::EventTime() const
{
    return static_cast<uint32_t>(g_get_monotonic_time() / 1000 + m_nTimeShift);
}

bool GtkInput::Ready() const
{
    return m_pView && m_pWindow && gtk_widget_get_realized(m_pView) && gtk_widget_get_window(m_pView);
}

void GtkInput::Focus()
{
    // The view is its window's focus widget: key events go through the
    // window to it, and WebKit hands the keys the page did not take back
    // through the window (its focus widget must be the view to take them).
    // The window itself is not made active (a focus-in event to it ends in
    // an X error on an X display, GDK treating the offscreen window as an X
    // window); the page takes keys without.
    if (Ready() && !gtk_widget_is_focus(m_pView))
        gtk_widget_grab_focus(m_pView);
}

GdkEvent* GtkInput::NewEvent(int type, bool keyboard) const
{
    GdkEvent* event = gdk_event_new(static_cast<GdkEventType>(type));
    event->any.window = GDK_WINDOW(g_object_ref(gtk_widget_get_window(m_pView)));
    event->any.send_event = TRUE;
    if (GdkSeat* seat = gdk_display_get_default_seat(gtk_widget_get_display(m_pView))) {
        if (GdkDevice* device = keyboard ? gdk_seat_get_keyboard(seat) : gdk_seat_get_pointer(seat))
            gdk_event_set_device(event, device);
    }
    return event;
}

// ---- pointer -------------------------------------------------------------------

void GtkInput::SendButton(int type, const EngineMouseEvent& event, uint32_t button, uint32_t state)
{
    GdkEvent* press = NewEvent(type, false);
    if (type == GDK_BUTTON_PRESS) {
        // The view counts a press soon after the last one as the next click
        // of a double click; a press the client counts 1 is made to come
        // later than that (event times only serve such comparisons).
        int doubleClickTime = 400;
        g_object_get(gtk_widget_get_settings(m_pView), "gtk-double-click-time", &doubleClickTime, nullptr);
        const int64_t since = static_cast<int64_t>(EventTime()) - m_nLastPressEventTime;
        if (m_nLastPressEventTime && since >= 0 && since <= doubleClickTime)
            m_nTimeShift += doubleClickTime + 1 - since;
    }
    press->button.time = EventTime();
    if (type != GDK_BUTTON_RELEASE)
        m_nLastPressEventTime = press->button.time;
    press->button.x = press->button.x_root = event.x;
    press->button.y = press->button.y_root = event.y;
    press->button.state = state;
    press->button.button = button;
    gtk_widget_event(m_pView, press);
    gdk_event_free(press);
}

void GtkInput::Click(const EngineMouseEvent& event, EngineMouseButtonType type, bool mouseUp, int clickCount)
{
    if (!Ready())
        return;
    const uint32_t button = GtkPointerButton(type);
    const uint32_t state = GtkPointerModifiers(event.modifiers);
    if (mouseUp) {
        SendButton(GDK_BUTTON_RELEASE, event, button, state);
        return;
    }
    Focus();
    const int64_t now = g_get_monotonic_time();
    const bool recentPress = now - m_nLastPressTime < kDoubleClickMicroseconds &&
                             std::abs(event.x - m_nLastPressX) <= kDoubleClickDistance &&
                             std::abs(event.y - m_nLastPressY) <= kDoubleClickDistance;
    if (clickCount >= 2 && !recentPress) {
        SendButton(GDK_BUTTON_PRESS, event, button, state);
        SendButton(GDK_BUTTON_RELEASE, event, button, state);
    }
    m_nLastPressTime = now;
    m_nLastPressX = event.x;
    m_nLastPressY = event.y;
    const GdkEventType pressType = clickCount >= 3   ? GDK_3BUTTON_PRESS
                                   : clickCount == 2 ? GDK_2BUTTON_PRESS
                                                     : GDK_BUTTON_PRESS;
    SendButton(pressType, event, button, state);
}

void GtkInput::SendCrossing(int type, double x, double y, uint32_t state)
{
    GdkEvent* crossing = NewEvent(type, false);
    crossing->crossing.time = EventTime();
    crossing->crossing.x = crossing->crossing.x_root = x;
    crossing->crossing.y = crossing->crossing.y_root = y;
    crossing->crossing.mode = GDK_CROSSING_NORMAL;
    crossing->crossing.detail = GDK_NOTIFY_ANCESTOR;
    crossing->crossing.state = state;
    gtk_widget_event(m_pView, crossing);
    gdk_event_free(crossing);
}

void GtkInput::Move(const EngineMouseEvent& event, bool leave)
{
    if (!Ready())
        return;
    const uint32_t state = GtkPointerModifiers(event.modifiers);
    if (leave) {
        // The page learns that the pointer left only from a position
        // outside the view.
        SendCrossing(GDK_LEAVE_NOTIFY, -1, -1, state);
        m_bPointerOutside = true;
        return;
    }
    if (m_bPointerOutside) {
        SendCrossing(GDK_ENTER_NOTIFY, event.x, event.y, state);
        m_bPointerOutside = false;
    }
    GdkEvent* motion = NewEvent(GDK_MOTION_NOTIFY, false);
    motion->motion.time = EventTime();
    motion->motion.x = motion->motion.x_root = event.x;
    motion->motion.y = motion->motion.y_root = event.y;
    motion->motion.state = state;
    gtk_widget_event(m_pView, motion);
    gdk_event_free(motion);
}

void GtkInput::Wheel(const EngineMouseEvent& event, int deltaX, int deltaY)
{
    if (!Ready())
        return;
    auto steps = [&](GdkScrollDirection positive, GdkScrollDirection negative, int delta) {
        const int count = std::min(std::abs(delta), kMaxWheelSteps);
        for (int i = 0; i < count; ++i) {
            GdkEvent* scroll = NewEvent(GDK_SCROLL, false);
            scroll->scroll.time = EventTime();
            scroll->scroll.x = scroll->scroll.x_root = event.x;
            scroll->scroll.y = scroll->scroll.y_root = event.y;
            scroll->scroll.state = GtkKeyboardModifiers(event.modifiers);
            scroll->scroll.direction = delta > 0 ? positive : negative;
            gtk_widget_event(m_pView, scroll);
            gdk_event_free(scroll);
        }
    };
    steps(GDK_SCROLL_UP, GDK_SCROLL_DOWN, deltaY);
    steps(GDK_SCROLL_LEFT, GDK_SCROLL_RIGHT, deltaX);
}

// ---- keys ----------------------------------------------------------------------

void GtkInput::Key(const EngineKeyEvent& event)
{
    if (!Ready())
        return;
    GdkKeymap* keymap = gdk_keymap_get_for_display(gtk_widget_get_display(m_pView));
    const bool shift = (event.modifiers & EVENTFLAG_SHIFT_DOWN) != 0;
    const uint32_t state = GtkKeyboardModifiers(event.modifiers);
    uint32_t hardwareKeyCode = event.native_key_code > 0 ? static_cast<uint32_t>(event.native_key_code) : 0;
    int group = 0;

    uint32_t keyval = 0;
    if (event.type == KEYEVENT_CHAR) {
        // A character event carries the character (also in the key code).
        uint32_t character = event.character;
        if (!character && event.windows_key_code >= 0x20)
            character = static_cast<uint32_t>(event.windows_key_code);
        keyval = KeysymForCharacter(character);
    } else if (event.windows_key_code) {
        keyval = KeysymForWindowsKeyCode(event.windows_key_code, shift);
    }
    if (!keyval && hardwareKeyCode) {
        guint translated = 0;
        if (gdk_keymap_translate_keyboard_state(keymap, hardwareKeyCode, static_cast<GdkModifierType>(state), 0,
                                                &translated, nullptr, nullptr, nullptr))
            keyval = translated;
    }
    if (!keyval && event.character)
        keyval = KeysymForCharacter(event.character);
    if (!keyval) {
        NSLog("GtkView::SendKeyEvent - no key for key code %d (native %d); dropped", event.windows_key_code,
              event.native_key_code);
        return;
    }
    if (!hardwareKeyCode) {
        GdkKeymapKey* keys = nullptr;
        gint count = 0;
        if (gdk_keymap_get_entries_for_keyval(keymap, keyval, &keys, &count) && count > 0) {
            hardwareKeyCode = keys[0].keycode;
            group = keys[0].group;
        }
        g_free(keys);
    }

    Focus();
    const uint32_t key = hardwareKeyCode ? hardwareKeyCode : (keyval | 0x80000000u);
    switch (event.type) {
    case KEYEVENT_RAWKEYDOWN:
    case KEYEVENT_KEYDOWN:
        m_PressedKeys.insert(key);
        SendKey(keyval, hardwareKeyCode, group, true, state);
        break;
    case KEYEVENT_KEYUP:
        m_PressedKeys.erase(key);
        SendKey(keyval, hardwareKeyCode, group, false, state);
        break;
    case KEYEVENT_CHAR:
        // The press of a held key has typed its character already; a
        // character on its own is typed as a press and a release.
        if (m_PressedKeys.count(key))
            break;
        SendKey(keyval, hardwareKeyCode, group, true, state);
        SendKey(keyval, hardwareKeyCode, group, false, state);
        break;
    }
}

void GtkInput::SendKey(uint32_t keyval, uint32_t hardwareKeyCode, int group, bool pressed, uint32_t state)
{
    GdkEvent* key = NewEvent(pressed ? GDK_KEY_PRESS : GDK_KEY_RELEASE, true);
    key->key.time = EventTime();
    key->key.state = state;
    key->key.keyval = keyval;
    key->key.hardware_keycode = static_cast<guint16>(hardwareKeyCode);
    key->key.group = static_cast<guint8>(group);
    key->key.is_modifier = keyval >= GDK_KEY_Shift_L && keyval <= GDK_KEY_Hyper_R;
    // The text of the key, for whoever still reads it.
    const gunichar character = gdk_keyval_to_unicode(keyval);
    char text[8] = {};
    if (character >= 0x20 && character != 0x7F)
        g_unichar_to_utf8(character, text);
    key->key.string = g_strdup(text);
    key->key.length = static_cast<gint>(strlen(text));
    // Through the window, as the display's events go: the window hands it
    // to its focus widget, the view.
    gtk_widget_event(m_pWindow, key);
    gdk_event_free(key);
}

} // namespace SLF_ChromiumEmbeddedFramework
