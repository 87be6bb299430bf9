// Input of the WebKitGTK port: the translation of the port's input
// vocabulary (event flags, button types) into GDK's (modifier masks, button
// numbers), pure functions, with key values from KeySymbols.h (GDK key
// values are XKB key symbols); and GtkInput, which synthesises one view's
// pointer, wheel and key events as GDK events.
#pragma once

#include "engine/port/EnginePort.h"
#include "engine/port/KeySymbols.h"

#include <cstdint>
#include <set>

typedef struct _GtkWidget GtkWidget;
typedef union _GdkEvent GdkEvent;

namespace SLF_ChromiumEmbeddedFramework {

// GDK modifier mask (shift, lock, control, alt as mod1, meta) for the event
// flags.
uint32_t GtkKeyboardModifiers(uint32_t eventFlags);

// Keyboard modifiers plus the button masks of the held mouse buttons.
uint32_t GtkPointerModifiers(uint32_t eventFlags);

// GDK's button number: 1 left, 2 middle, 3 right.
uint32_t GtkPointerButton(EngineMouseButtonType type);

// The input of one web view in its offscreen window, as GDK events handed
// to GTK. Used by its GtkView on the pump thread only, between Attach and
// Detach; without a realised view nothing is sent.
class GtkInput {
public:
    // The window and its web view; the view becomes the window's focus
    // widget, so key events reach the page.
    void Attach(GtkWidget* window, GtkWidget* view);
    // Forgets the view and the keys held.
    void Detach();

    // A press or release, counted as the client counts it. GTK's web view
    // counts clicks from their timing: a press counted 1 is sent as coming
    // after the double-click time; one counted 2 (3) goes as a double
    // (triple) press, which the view counts on from the click before, and
    // one that does not follow a press of its own is sent as a click and a
    // double press.
    void Click(const EngineMouseEvent& event, EngineMouseButtonType type, bool mouseUp, int clickCount);
    // A move, or with leave the pointer leaving the view (to -1, -1, outside
    // every element); a move after a leave enters the view again.
    void Move(const EngineMouseEvent& event, bool leave);
    // One discrete scroll event per wheel step (at most kMaxWheelSteps a
    // call); positive deltas scroll up and left.
    void Wheel(const EngineMouseEvent& event, int deltaX, int deltaY);
    // A key press, release or character; a character of a held key has
    // been typed by its press already.
    void Key(const EngineKeyEvent& event);

    // Two presses closer than this (and a few pixels) make one double click.
    static constexpr int64_t kDoubleClickMicroseconds = 500 * 1000;
    static constexpr int kDoubleClickDistance = 4;
    // A wheel call larger than this is cut to it.
    static constexpr int kMaxWheelSteps = 100;

private:
    bool Ready() const;
    uint32_t EventTime() const;
    // Makes the view its window's focus widget (again, after the page moved
    // the focus).
    void Focus();
    GdkEvent* NewEvent(int type, bool keyboard) const;
    void SendButton(int type, const EngineMouseEvent& event, uint32_t button, uint32_t state);
    void SendCrossing(int type, double x, double y, uint32_t state);
    void SendKey(uint32_t keyval, uint32_t hardwareKeyCode, int group, bool pressed, uint32_t state);

    GtkWidget* m_pWindow = nullptr;
    GtkWidget* m_pView = nullptr;
    std::set<uint32_t> m_PressedKeys; // hardware key codes (or key values with the top bit)
    int64_t m_nLastPressTime = 0;     // monotonic microseconds
    int m_nLastPressX = 0;
    int m_nLastPressY = 0;
    // Event times are the monotonic clock in milliseconds plus this shift,
    // which grows to keep a press counted 1 out of the view's double-click
    // time (see SendButton).
    int64_t m_nTimeShift = 0;
    int64_t m_nLastPressEventTime = 0; // of the last press sent
    bool m_bPointerOutside = true;
};

} // namespace SLF_ChromiumEmbeddedFramework
