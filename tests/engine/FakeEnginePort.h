// A fake web engine behind the engine port, for in-process tests of the
// engine layer and of the service on top of it.
//
// - Browsers get the identifiers 1, 2, 3, ... (per fake).
// - OnAfterCreated is reported from the next DoMessageLoopWork pass (unless
//   SetReportCreation(false)); a forced close reports OnBeforeClose from the
//   next pass (unless SetReportClose(false)).
// - Every host, browser and frame call is recorded (HostCalls).
// - A request "SlfCef_Request_GetRenderProcessId" sent by the service is
//   handed, on the next pass, to the application's render-process handler,
//   which plays the web process; its answer reaches the client on the pass
//   after (SetAnswerProcessMessages(false) turns this off).
// - Emit* call the client's handlers at once, on the calling thread; wrap
//   them in Post() to have them run on the pump thread instead.
//
// Usage: construct, Install() (makes it the process's port), run the engine,
// and let the fake outlive the engine objects (browsers handed out stay
// harmless after the fake is gone: their calls are ignored).
#pragma once

#include "engine/port/EnginePort.h"

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace SLF_ChromiumEmbeddedFramework {

struct FakeHostCall {
    enum Kind {
        WasResized,
        WasHidden,
        Invalidate,
        MouseClick,
        MouseMove,
        MouseWheel,
        Key,
        CloseBrowser,
        Reload,
        ExecuteJavaScript,
    };
    Kind kind = WasResized;
    int browserId = 0;
    EngineMouseEvent mouse;
    EngineMouseButtonType button = MBT_LEFT;
    bool mouseUp = false;
    int clickCount = 0;
    bool mouseLeave = false;
    int deltaX = 0;
    int deltaY = 0;
    EngineKeyEvent key;
    bool hidden = false;
    bool forceClose = false;
    std::string script;
    std::string scriptUrl;
    int startLine = 0;
};

class FakeEnginePort : public EnginePort {
public:
    FakeEnginePort();
    ~FakeEnginePort() override;
    FakeEnginePort(const FakeEnginePort&) = delete;
    FakeEnginePort& operator=(const FakeEnginePort&) = delete;

    // Makes this the process's port; the destructor uninstalls it again.
    void Install();

    // ---- behaviour -------------------------------------------------------------
    void SetFailInitialize(bool fail) { Set(m_bFailInitialize, fail); }
    // false: CreateBrowser returns false.
    void SetAcceptCreateBrowser(bool accept) { Set(m_bAcceptCreate, accept); }
    // false: OnAfterCreated is never reported.
    void SetReportCreation(bool report) { Set(m_bReportCreation, report); }
    // false: OnBeforeClose is never reported for a close request.
    void SetReportClose(bool report) { Set(m_bReportClose, report); }
    // false: process messages from the service are only recorded.
    void SetAnswerProcessMessages(bool answer) { Set(m_bAnswerMessages, answer); }
    // Called on the pump thread for every script run in a main frame
    // (browser ID, code), e.g. to change the URL as a page would.
    void SetScriptHandler(std::function<void(int, const std::string&)> handler) { Set(m_ScriptHandler, handler); }

    // ---- observations ----------------------------------------------------------
    int InitializeCalls() { return Get(m_nInitializeCalls); }
    int ShutdownCalls() { return Get(m_nShutdownCalls); }
    int PumpPasses() { return Get(m_nPumpPasses); }
    int CreateBrowserCalls() { return Get(m_nCreateCalls); }
    // True when a pass ran on another thread than the one that initialised.
    bool PumpedOffThread() { return Get(m_bPumpedOffThread); }
    EngineSettings LastSettings() { return Get(m_Settings); }
    // Command lines as the application object left them: the service's
    // (after OnBeforeCommandLineProcessing) and a web process's (after
    // OnBeforeChildProcessLaunch).
    EngineCommandLine ServiceCommandLine() { return Get(m_ServiceCommandLine); }
    EngineCommandLine ChildCommandLine() { return Get(m_ChildCommandLine); }
    EngineBrowserSettings LastBrowserSettings() { return Get(m_LastBrowserSettings); }
    EngineWindowInfo LastWindowInfo() { return Get(m_LastWindowInfo); }
    std::string LastCreateUrl() { return Get(m_strLastCreateUrl); }
    // Browsers created and not yet closed, in creation order.
    std::vector<int> OpenBrowserIds();
    // Recorded calls of one browser, or of all browsers with -1.
    std::vector<FakeHostCall> HostCalls(int browserId = -1);
    void ClearHostCalls() { Set(m_HostCalls, {}); }
    // Messages the service sent to a browser's web process.
    std::vector<EngineProcessMessageRef> SentProcessMessages(int browserId) 
    {
        return Locked([&] { return m_SentMessages[browserId]; });
    }
    // The view size the client reported through GetViewRect on the last
    // resize notice (0 x 0 before any).
    EngineRect LastViewRect(int browserId) { return Locked([&] { return m_ViewRects[browserId]; }); }
    // Waits (up to timeoutMs) until at least `passes` more pump passes ran.
    bool WaitForPumpPasses(int passes, int timeoutMs);

    // ---- driving the client ------------------------------------------------------
    // The browser with this ID; for an unknown ID a browser object with that
    // ID that the fake does not know (for "unknown browser" cases).
    EngineBrowserRef Browser(int browserId);
    void SetUrl(int browserId, const std::string& url) { Locked([&] { m_Urls[browserId] = url; }); }
    std::string Url(int browserId) { return Locked([&] { return m_Urls[browserId]; }); }
    // Runs the task on the next pump pass.
    void Post(std::function<void()> task);
    // OnPaint with a width x height BGRA image filled with `fill`.
    void EmitPaint(int browserId, int width, int height, uint8_t fill = 0x80);
    void EmitPaintBuffer(int browserId, const void* buffer, int width, int height);
    void EmitCursorChange(int browserId, EngineCursorType type);
    void EmitAudioStarted(int browserId, int streamId, int sampleRate, int channels, int bitsPerSample,
                          int64_t bufferDuration = 0);
    void EmitAudioPacket(int browserId, int streamId, const void* data, int length);
    void EmitAudioStopped(int browserId, int streamId);
    void EmitLoadStart(int browserId);
    void EmitLoadEnd(int browserId, int httpStatusCode);
    // The client's answer: true cancels the popup.
    bool EmitPopup(int browserId, const std::string& targetUrl);
    // The client's result and its suppress output.
    bool EmitJSDialog(int browserId, EngineJSDialogType type, const std::string& message, bool& suppress);
    // A message from the browser's web process to the client, now.
    bool DeliverProcessMessage(int browserId, const EngineProcessMessageRef& message);
    // The engine closes a browser by itself: OnBeforeClose now.
    void EmitClose(int browserId);

    // ---- EnginePort ----------------------------------------------------------------
    bool Initialize(const EngineSettings& settings, EngineApp* app) override;
    void DoMessageLoopWork() override;
    void Shutdown() override;
    bool CreateBrowser(const EngineWindowInfo& windowInfo, EngineClient* client, const std::string& url,
                       const EngineBrowserSettings& settings) override;

    // Shared with the browser objects the fake hands out; the link is cut
    // when the fake goes. Public for the fake's own browser classes.
    struct Link {
        std::mutex mutex;
        FakeEnginePort* port = nullptr;
    };
    void Record(const FakeHostCall& call);
    void OnHostClose(int browserId);
    void OnHostResized(int browserId);
    void OnScript(int browserId, const std::string& code);
    void OnSendToRenderProcess(int browserId, const EngineProcessMessageRef& message);
    void OnSendFromRenderProcess(int browserId, const EngineProcessMessageRef& message);

private:
    template <typename Fn>
    auto Locked(Fn fn) -> decltype(fn())
    {
        std::lock_guard<std::mutex> guard(m_Mutex);
        return fn();
    }
    template <typename T>
    T Get(const T& field)
    {
        return Locked([&] { return field; });
    }
    template <typename T>
    void Set(T& field, const T& value)
    {
        Locked([&] { field = value; });
    }
    EngineBrowserRef BrowserLocked(int browserId);
    // Runs fn(client, browser) when a client is there, without the lock.
    template <typename Fn>
    auto WithClient(int browserId, Fn fn);

    std::shared_ptr<Link> m_Link;
    // Guards everything below. Never held while the client is called.
    std::mutex m_Mutex;
    std::condition_variable m_PumpCondition;
    bool m_bInstalled = false;
    bool m_bFailInitialize = false;
    bool m_bAcceptCreate = true;
    bool m_bReportCreation = true;
    bool m_bReportClose = true;
    bool m_bAnswerMessages = true;
    std::function<void(int, const std::string&)> m_ScriptHandler;

    bool m_bInitialized = false;
    int m_nInitializeCalls = 0;
    int m_nShutdownCalls = 0;
    int m_nPumpPasses = 0;
    int m_nCreateCalls = 0;
    bool m_bPumpedOffThread = false;
    std::thread::id m_PumpThread;
    EngineSettings m_Settings;
    EngineApp* m_pApp = nullptr;
    EngineClient* m_pClient = nullptr;
    EngineCommandLine m_ServiceCommandLine;
    EngineCommandLine m_ChildCommandLine;
    EngineBrowserSettings m_LastBrowserSettings;
    EngineWindowInfo m_LastWindowInfo;
    std::string m_strLastCreateUrl;

    int m_nNextBrowserId = 1;
    std::map<int, EngineBrowserRef> m_OpenBrowsers;
    std::map<int, std::string> m_Urls;
    std::map<int, EngineRect> m_ViewRects;
    std::vector<FakeHostCall> m_HostCalls;
    std::map<int, std::vector<EngineProcessMessageRef>> m_SentMessages;
    std::vector<std::function<void()>> m_Tasks;
};

} // namespace SLF_ChromiumEmbeddedFramework
