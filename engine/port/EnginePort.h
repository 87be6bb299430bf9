// The engine port: the small set of types and calls through which the
// browser client (CBrowserClient) and the application object (CBrowserApp)
// drive the web engine. The names and numbers mirror the embedding API the
// engine layer was designed against (browsers, hosts, frames, process
// messages, handler interfaces); the WebKit implementation lives behind it
// in engine/wpe/, and tests put a fake behind it.
//
// Threads: Initialize, DoMessageLoopWork and Shutdown run on one thread, the
// pump thread. Browser, host and frame calls may come from any thread; the
// port queues them to the pump thread in order. Handlers of the render,
// life-span, load and script-dialog interfaces are called on the pump thread
// inside DoMessageLoopWork; audio and resource handlers may be called on
// other threads of the port.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace SLF_ChromiumEmbeddedFramework {

// ---- input ---------------------------------------------------------------

enum EngineEventFlags : uint32_t {
    EVENTFLAG_NONE = 0,
    EVENTFLAG_CAPS_LOCK_ON = 1 << 0,
    EVENTFLAG_SHIFT_DOWN = 1 << 1,
    EVENTFLAG_CONTROL_DOWN = 1 << 2,
    EVENTFLAG_ALT_DOWN = 1 << 3,
    EVENTFLAG_LEFT_MOUSE_BUTTON = 1 << 4,
    EVENTFLAG_MIDDLE_MOUSE_BUTTON = 1 << 5,
    EVENTFLAG_RIGHT_MOUSE_BUTTON = 1 << 6,
    EVENTFLAG_COMMAND_DOWN = 1 << 7,
};

enum EngineMouseButtonType { MBT_LEFT = 0, MBT_MIDDLE = 1, MBT_RIGHT = 2 };

enum EngineKeyEventType { KEYEVENT_RAWKEYDOWN = 0, KEYEVENT_KEYDOWN = 1, KEYEVENT_KEYUP = 2, KEYEVENT_CHAR = 3 };

// Cursor types, numbered as the embedding API numbers them.
enum EngineCursorType { CT_POINTER = 0, CT_CROSS = 1, CT_HAND = 2, CT_IBEAM = 3 };

struct EngineRect {
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
};

struct EngineMouseEvent {
    int x = 0;
    int y = 0;
    uint32_t modifiers = 0;
};

struct EngineKeyEvent {
    EngineKeyEventType type = KEYEVENT_RAWKEYDOWN;
    uint32_t modifiers = 0;
    int windows_key_code = 0;
    int native_key_code = 0;
    bool is_system_key = false;
    char16_t character = 0;
    char16_t unmodified_character = 0;
};

// ---- process messages ----------------------------------------------------

using EngineValue = std::variant<int, std::string>;

// A named message between the service and a web process, with an optional
// argument list (absent when the sender attached none).
class EngineProcessMessage {
public:
    explicit EngineProcessMessage(std::string name) : m_strName(std::move(name)) {}
    static std::shared_ptr<EngineProcessMessage> Create(const std::string& name)
    {
        return std::make_shared<EngineProcessMessage>(name);
    }

    const std::string& GetName() const { return m_strName; }
    // Creates the argument list on first use.
    std::vector<EngineValue>& GetArgumentList()
    {
        if (!m_Arguments)
            m_Arguments.emplace();
        return *m_Arguments;
    }
    bool HasArgumentList() const { return m_Arguments.has_value(); }
    const std::optional<std::vector<EngineValue>>& Arguments() const { return m_Arguments; }
    void SetArguments(std::optional<std::vector<EngineValue>> arguments) { m_Arguments = std::move(arguments); }

private:
    std::string m_strName;
    std::optional<std::vector<EngineValue>> m_Arguments;
};
using EngineProcessMessageRef = std::shared_ptr<EngineProcessMessage>;

// ---- browsers --------------------------------------------------------------

class EngineFrame {
public:
    virtual ~EngineFrame() = default;
    virtual std::string GetURL() = 0;
    virtual void ExecuteJavaScript(const std::string& code, const std::string& scriptUrl, int startLine) = 0;
};
using EngineFrameRef = std::shared_ptr<EngineFrame>;

class EngineBrowserHost {
public:
    virtual ~EngineBrowserHost() = default;
    // The view size changed; the port asks GetViewRect for the new one.
    virtual void WasResized() = 0;
    virtual void WasHidden(bool hidden) = 0;
    // Repaint request: the view's last image is delivered through OnPaint again.
    virtual void Invalidate() = 0;
    virtual void SendMouseClickEvent(const EngineMouseEvent& event, EngineMouseButtonType type, bool mouseUp,
                                     int clickCount) = 0;
    virtual void SendMouseMoveEvent(const EngineMouseEvent& event, bool mouseLeave) = 0;
    virtual void SendMouseWheelEvent(const EngineMouseEvent& event, int deltaX, int deltaY) = 0;
    virtual void SendKeyEvent(const EngineKeyEvent& event) = 0;
    // Closes the browser; OnBeforeClose follows from a later pump pass.
    virtual void CloseBrowser(bool forceClose) = 0;
};
using EngineBrowserHostRef = std::shared_ptr<EngineBrowserHost>;

class EngineBrowser {
public:
    virtual ~EngineBrowser() = default;
    virtual int GetIdentifier() = 0;
    virtual EngineBrowserHostRef GetHost() = 0;
    virtual EngineFrameRef GetMainFrame() = 0;
    virtual void Reload() = 0;
    // In the service: to the browser's web process. In a web process: back
    // to the service.
    virtual void SendProcessMessage(const EngineProcessMessageRef& message) = 0;
};
using EngineBrowserRef = std::shared_ptr<EngineBrowser>;

// ---- resource requests -----------------------------------------------------

class EngineRequest {
public:
    virtual ~EngineRequest() = default;
    virtual uint64_t GetIdentifier() = 0;
    virtual std::string GetURL() = 0;
};
using EngineRequestRef = std::shared_ptr<EngineRequest>;

class EngineResponse {
public:
    virtual ~EngineResponse() = default;
    virtual void SetStatus(int status) = 0;
    virtual int GetStatus() = 0;
    virtual void SetMimeType(const std::string& mimeType) = 0;
    virtual void SetHeader(const std::string& name, const std::string& value) = 0;
};
using EngineResponseRef = std::shared_ptr<EngineResponse>;

class EngineCallback {
public:
    virtual ~EngineCallback() = default;
    virtual void Continue() = 0;
    virtual void Cancel() = 0;
};
using EngineCallbackRef = std::shared_ptr<EngineCallback>;

// ---- handler interfaces (implemented by the client) ----------------------

class EngineRenderHandler {
public:
    virtual ~EngineRenderHandler() = default;
    virtual bool GetViewRect(EngineBrowserRef browser, EngineRect& rect) = 0;
    // buffer: width x height BGRA pixels, rows of width*4 bytes, premultiplied alpha.
    virtual void OnPaint(EngineBrowserRef browser, const void* buffer, int width, int height) = 0;
    virtual void OnCursorChange(EngineBrowserRef browser, EngineCursorType type) = 0;
};

class EngineLifeSpanHandler {
public:
    virtual ~EngineLifeSpanHandler() = default;
    virtual void OnAfterCreated(EngineBrowserRef browser) = 0;
    virtual void OnBeforeClose(EngineBrowserRef browser) = 0;
    // True cancels the popup.
    virtual bool OnBeforePopup(EngineBrowserRef browser, const std::string& targetUrl) = 0;
};

class EngineLoadHandler {
public:
    virtual ~EngineLoadHandler() = default;
    virtual void OnLoadStart(EngineBrowserRef browser, EngineFrameRef frame) = 0;
    virtual void OnLoadEnd(EngineBrowserRef browser, EngineFrameRef frame, int httpStatusCode) = 0;
};

class EngineAudioHandler {
public:
    virtual ~EngineAudioHandler() = default;
    virtual void OnAudioStreamStarted(EngineBrowserRef browser, int audioStreamId, int sampleRate, int channels,
                                      int bitsPerSample, int64_t bufferDuration) = 0;
    virtual void OnAudioStreamPacket(EngineBrowserRef browser, int audioStreamId, const void* data, int dataLength) = 0;
    virtual void OnAudioSteamStopped(EngineBrowserRef browser, int audioStreamId) = 0;
};

class EngineResourceHandler {
public:
    virtual ~EngineResourceHandler() = default;
    virtual bool ProcessRequest(EngineRequestRef request, EngineCallbackRef callback) = 0;
    virtual void GetResponseHeaders(EngineResponseRef response, int64_t& responseLength, std::string& redirectUrl) = 0;
    virtual bool ReadResponse(void* dataOut, int bytesToRead, int& bytesRead, EngineCallbackRef callback) = 0;
    virtual void Cancel() = 0;
};

// Why a browser's web process ended.
enum EngineTerminationStatus {
    TS_ABNORMAL_TERMINATION = 0,
    // Ended by the port because it stopped responding.
    TS_PROCESS_WAS_KILLED = 1,
    TS_PROCESS_CRASHED = 2,
    TS_PROCESS_OOM = 3,
};

class EngineRequestHandler {
public:
    virtual ~EngineRequestHandler() = default;
    // Non-null takes the request over: the returned handler answers it.
    virtual EngineResourceHandler* GetResourceHandler(EngineBrowserRef browser, EngineFrameRef frame,
                                                      EngineRequestRef request) = 0;
    // Pump thread. The browser's web process ended (crashed, ran out of
    // memory, or was ended because it stopped responding). The port has
    // replaced it already: the browser, under the same identifier, now
    // loads its URL in a new web process, or, after too many crashes in a
    // short time, stays without one and paints nothing more. Messages sent
    // to the browser from here on reach the new process.
    virtual void OnRenderProcessTerminated(EngineBrowserRef browser, EngineTerminationStatus status)
    {
        (void)browser;
        (void)status;
    }
};

enum EngineJSDialogType { JSDIALOGTYPE_ALERT = 0, JSDIALOGTYPE_CONFIRM = 1, JSDIALOGTYPE_PROMPT = 2 };

class EngineJSDialogHandler {
public:
    virtual ~EngineJSDialogHandler() = default;
    // Returning false with suppressMessage set drops the dialog.
    virtual bool OnJSDialog(EngineBrowserRef browser, const std::string& originUrl, EngineJSDialogType type,
                            const std::string& messageText, const std::string& defaultPromptText,
                            bool& suppressMessage) = 0;
};

class EngineClient {
public:
    virtual ~EngineClient() = default;
    virtual EngineRenderHandler* GetRenderHandler() { return nullptr; }
    virtual EngineLifeSpanHandler* GetLifeSpanHandler() { return nullptr; }
    virtual EngineLoadHandler* GetLoadHandler() { return nullptr; }
    virtual EngineAudioHandler* GetAudioHandler() { return nullptr; }
    virtual EngineRequestHandler* GetRequestHandler() { return nullptr; }
    virtual EngineJSDialogHandler* GetJSDialogHandler() { return nullptr; }
    // A message from a web process.
    virtual bool OnProcessMessageReceived(EngineBrowserRef browser, EngineProcessMessageRef message)
    {
        (void)browser;
        (void)message;
        return false;
    }
};

// ---- the application object ------------------------------------------------

// Command line as an ordered list of switches ("name" or "name=value").
class EngineCommandLine {
public:
    void AppendSwitch(const std::string& name) { m_Switches.emplace_back(name, std::string()); }
    void AppendSwitchWithValue(const std::string& name, const std::string& value)
    {
        m_Switches.emplace_back(name, value);
    }
    bool HasSwitch(const std::string& name) const
    {
        for (const auto& s : m_Switches)
            if (s.first == name)
                return true;
        return false;
    }
    // The value of the last occurrence, or "".
    std::string GetSwitchValue(const std::string& name) const
    {
        std::string value;
        for (const auto& s : m_Switches)
            if (s.first == name)
                value = s.second;
        return value;
    }
    const std::vector<std::pair<std::string, std::string>>& Switches() const { return m_Switches; }

private:
    std::vector<std::pair<std::string, std::string>> m_Switches;
};

class EngineBrowserProcessHandler {
public:
    virtual ~EngineBrowserProcessHandler() = default;
    virtual void OnBeforeChildProcessLaunch(EngineCommandLine& commandLine) = 0;
};

class EngineRenderProcessHandler {
public:
    virtual ~EngineRenderProcessHandler() = default;
    // Called in a web process for a message from the service.
    virtual bool OnProcessMessageReceived(EngineBrowserRef browser, EngineProcessMessageRef message) = 0;
};

class EngineApp {
public:
    virtual ~EngineApp() = default;
    // processType is empty for the service process.
    virtual void OnBeforeCommandLineProcessing(const std::string& processType, EngineCommandLine& commandLine) = 0;
    virtual EngineBrowserProcessHandler* GetBrowserProcessHandler() = 0;
    virtual EngineRenderProcessHandler* GetRenderProcessHandler() = 0;
};

// ---- the engine ------------------------------------------------------------

enum EngineLogSeverity { LOGSEVERITY_DEFAULT = 0, LOGSEVERITY_VERBOSE = 1, LOGSEVERITY_DISABLE = 99 };

struct EngineSettings {
    bool no_sandbox = false;
    std::string browser_subprocess_path;
    bool windowless_rendering_enabled = false;
    int log_severity = LOGSEVERITY_DEFAULT;
    bool multi_threaded_message_loop = false;
};

enum EngineState { STATE_DEFAULT = 0, STATE_ENABLED = 1, STATE_DISABLED = 2 };

struct EngineWindowInfo {
    bool windowless_rendering_enabled = false;
    void* parent = nullptr;
    void SetAsWindowless(void* parentWindow)
    {
        windowless_rendering_enabled = true;
        parent = parentWindow;
    }
};

struct EngineBrowserSettings {
    int windowless_frame_rate = 30;
    EngineState javascript = STATE_DEFAULT;
    EngineState javascript_access_clipboard = STATE_DEFAULT;
    EngineState local_storage = STATE_DEFAULT;
    EngineState file_access_from_file_urls = STATE_DEFAULT;
    EngineState universal_access_from_file_urls = STATE_DEFAULT;
    EngineState webgl = STATE_DEFAULT;
};

class EnginePort {
public:
    virtual ~EnginePort() = default;
    // Initialises the engine on the calling thread, which becomes the pump
    // thread. Once per process: a second call (also after Shutdown, or from
    // another thread) returns false.
    virtual bool Initialize(const EngineSettings& settings, EngineApp* app) = 0;
    // One pass of the engine's message loop; pump thread only.
    virtual void DoMessageLoopWork() = 0;
    // When the engine next has work due that no event will announce (a
    // frame to let render), in microseconds of g_get_monotonic_time
    // (CLOCK_MONOTONIC), or -1 for none; the pump runs a pass at that time
    // rather than at its next regular one. Pump thread only.
    virtual int64_t GetNextDueTime() { return -1; }
    // True while the engine still finishes the close of browsers already
    // closed (their web processes are being ended): the pump goes on
    // running passes until it is done, also with no browser left. Pump
    // thread only.
    virtual bool HasCloseWorkLeft() { return false; }
    // Closes every browser and ends the engine's processes; returns well
    // within the wrapper's 2000 ms stop wait, which it runs inside.
    virtual void Shutdown() = 0;
    // Asynchronous: true when the request was accepted. The new browser is
    // reported through the client's OnAfterCreated from a later pump pass.
    virtual bool CreateBrowser(const EngineWindowInfo& windowInfo, EngineClient* client, const std::string& url,
                               const EngineBrowserSettings& settings) = 0;
};

// The port this process uses. The service installs the WPE port at start,
// tests install a fake; with none installed the engine cannot be initialised.
void SetEnginePort(EnginePort* port);
EnginePort* GetEnginePort();

} // namespace SLF_ChromiumEmbeddedFramework
