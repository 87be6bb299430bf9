// CBrowserClient's input: mouse, wheel and key events for a browser, turned
// into the engine's events and handed to its host (which queues them to the
// engine's thread). Called from any thread, under the browsers lock.
#include "engine/CBrowserClient.h"

namespace SLF_ChromiumEmbeddedFramework {
// ---- input -------------------------------------------------------------------------------

bool CBrowserClient::EventMouseClick(int id, int buttonType, bool mouseUp, int x, int y, bool doubleClick)
{
    CNplThreadMutexLock browsersLock(m_BrowsersMutex); // lock order 3
    EngineBrowserHostRef host = GetBrowserHost(id);
    if (!host)
        return false;

    EngineMouseEvent event;
    event.x = x;
    event.y = y;
    if (!mouseUp) {
        if (buttonType == MBT_LEFT)
            m_nMouseButtonFlags = EVENTFLAG_LEFT_MOUSE_BUTTON;
        else if (buttonType == MBT_MIDDLE)
            m_nMouseButtonFlags = EVENTFLAG_MIDDLE_MOUSE_BUTTON;
        else if (buttonType == MBT_RIGHT)
            m_nMouseButtonFlags = EVENTFLAG_RIGHT_MOUSE_BUTTON;
    } else {
        m_nMouseButtonFlags = 0;
    }
    event.modifiers = static_cast<uint32_t>(m_nMouseButtonFlags);
    host->SendMouseClickEvent(event, static_cast<EngineMouseButtonType>(buttonType), mouseUp, doubleClick ? 2 : 1);
    return true;
}

int CBrowserClient::EventMouseMove(int id, int x, int y)
{
    CNplThreadMutexLock browsersLock(m_BrowsersMutex); // lock order 3
    EngineBrowserHostRef host = GetBrowserHost(id);
    if (!host)
        return 0;

    EngineMouseEvent event;
    event.x = x;
    event.y = y;
    // A move while a button is held is a drag and carries the button.
    event.modifiers = static_cast<uint32_t>(m_nMouseButtonFlags);
    host->SendMouseMoveEvent(event, false);
    return m_nCursorType;
}

bool CBrowserClient::EventMouseWheelScroll(int id, int x, int y, int deltaX, int deltaY)
{
    CNplThreadMutexLock browsersLock(m_BrowsersMutex); // lock order 3
    EngineBrowserHostRef host = GetBrowserHost(id);
    if (!host)
        return false;

    EngineMouseEvent event;
    event.x = x;
    event.y = y;
    host->SendMouseWheelEvent(event, deltaX, deltaY);
    return true;
}

bool CBrowserClient::EventKey(int id, bool rawKeyDown, bool keyUp, int nativeKeyCode)
{
    CNplThreadMutexLock browsersLock(m_BrowsersMutex); // lock order 3
    EngineBrowserHostRef host = GetBrowserHost(id);
    if (!host)
        return false;

    EngineKeyEvent event;
    if (keyUp)
        event.type = KEYEVENT_KEYUP;
    else if (rawKeyDown)
        event.type = KEYEVENT_RAWKEYDOWN;
    else
        event.type = KEYEVENT_CHAR;
    event.native_key_code = nativeKeyCode;
    host->SendKeyEvent(event);
    return true;
}

bool CBrowserClient::EventKey(int id, bool rawKeyDown, bool keyUp, bool isSystemKey, int nativeKeyCode,
                              int windowsKeyCode, unsigned int modifiers)
{
    CNplThreadMutexLock browsersLock(m_BrowsersMutex); // lock order 3
    EngineBrowserHostRef host = GetBrowserHost(id);
    if (!host)
        return false;

    EngineKeyEvent event;
    // Here a raw key-down wins over key-up.
    if (rawKeyDown)
        event.type = KEYEVENT_RAWKEYDOWN;
    else if (keyUp)
        event.type = KEYEVENT_KEYUP;
    else
        event.type = KEYEVENT_CHAR;
    event.is_system_key = isSystemKey;
    event.native_key_code = nativeKeyCode;
    event.windows_key_code = windowsKeyCode;
    event.modifiers = modifiers;
    host->SendKeyEvent(event);
    return true;
}

} // namespace SLF_ChromiumEmbeddedFramework
