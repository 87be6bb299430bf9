// A fake web engine behind the engine port, for in-process tests of the
// engine layer and of the service on top of it.
// - Browsers get the identifiers 1, 2, 3, ... (per fake).
// - OnAfterCreated comes from the next DoMessageLoopWork pass (unless
//   SetReportCreation(false)); a close request's OnBeforeClose from the next
//   pass (unless SetReportClose(false)). Shutdown closes every browser.
// - Every host, browser and frame call is recorded (HostCalls).
// - Process messages to web processes are recorded by name, not delivered.
// Install() makes it the process's port. Browsers handed out stay harmless
// after the fake is gone: their calls are ignored.
#pragma once

#include "engine/port/EnginePort.h"

#include <condition_variable>
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
        Script
    };
    Kind kind = WasResized;
    int browserId = 0;
    EngineMouseEvent mouse {};
    EngineMouseButtonType button = MBT_LEFT;
    bool mouseUp = false;
    int clickCount = 0;
    int deltaX = 0, deltaY = 0;
    EngineKeyEvent key {};
    bool hidden = false, forceClose = false;
    std::string script {};
};

class FakeEnginePort : public EnginePort {
public:
    FakeEnginePort();
    ~FakeEnginePort() override;
    FakeEnginePort(const FakeEnginePort&) = delete;
    FakeEnginePort& operator=(const FakeEnginePort&) = delete;

    void Install();

    void SetFailInitialize(bool fail) { Set(m_bFailInitialize, fail); }
    void SetReportCreation(bool report) { Set(m_bReportCreation, report); }
    void SetReportClose(bool report) { Set(m_bReportClose, report); }
    // What HasCloseWorkLeft answers.
    void SetCloseWorkLeft(bool left) { Set(m_bCloseWorkLeft, left); }
    // Runs on the pump thread for every script (browser ID, code), e.g. to
    // change the URL as a page would.
    void SetScriptHandler(std::function<void(int, const std::string&)> handler) { Set(m_ScriptHandler, handler); }

    int InitializeCalls() { return Get(m_nInitializeCalls); }
    int ShutdownCalls() { return Get(m_nShutdownCalls); }
    int PumpPasses() { return Get(m_nPumpPasses); }
    int CreateBrowserCalls() { return Get(m_nCreateCalls); }
    // True when a pass ran on another thread than the one that initialised.
    bool PumpedOffThread() { return Get(m_bPumpedOffThread); }
    EngineSettings LastSettings() { return Get(m_Settings); }
    EngineBrowserSettings LastBrowserSettings() { return Get(m_LastBrowserSettings); }
    std::string LastCreateUrl() { return Get(m_strLastCreateUrl); }
    // Recorded calls of one browser, or of all browsers with -1.
    std::vector<FakeHostCall> HostCalls(int browserId = -1);
    void ClearHostCalls() { Set(m_HostCalls, {}); }
    // Names of the process messages sent to a browser's web process.
    std::vector<std::string> ProcessMessages(int browserId)
    {
        return Locked([&] { return m_ProcessMessages[browserId]; });
    }
    // The view size the client gave through GetViewRect after the last
    // resize notice (0 x 0 before any).
    EngineRect LastViewRect(int browserId)
    {
        return Locked([&] { return m_ViewRects[browserId]; });
    }
    bool WaitForPumpPasses(int passes, int timeoutMs);

    // The browser with this ID; for an unknown ID one the fake does not know.
    EngineBrowserRef Browser(int browserId);
    void SetUrl(int browserId, const std::string& url)
    {
        Locked([&] { m_Urls[browserId] = url; });
    }
    std::string Url(int browserId)
    {
        return Locked([&] { return m_Urls[browserId]; });
    }
    void Post(std::function<void()> task)
    {
        Locked([&] { m_Tasks.push_back(std::move(task)); });
    }
    // OnBeforeClose now, as when the engine closes a browser by itself.
    void EmitClose(int browserId);

    bool Initialize(const EngineSettings& settings, EngineApp* app) override;
    void DoMessageLoopWork() override;
    bool HasCloseWorkLeft() override { return Get(m_bCloseWorkLeft); }
    void Shutdown() override;
    bool CreateBrowser(const EngineWindowInfo& windowInfo, EngineClient* client, const std::string& url,
                       const EngineBrowserSettings& settings) override;

    // Shared with the browsers the fake hands out; cut when the fake goes.
    struct Link {
        std::mutex mutex;
        FakeEnginePort* port = nullptr;
    };
    // Called by those browsers under the link's mutex.
    void OnHostCall(const FakeHostCall& call);
    void OnProcessMessage(int browserId, const std::string& name)
    {
        Locked([&] { m_ProcessMessages[browserId].push_back(name); });
    }

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

    std::shared_ptr<Link> m_Link;
    // Guards everything below; never held while the client is called.
    std::mutex m_Mutex;
    std::condition_variable m_PumpCondition;
    bool m_bInstalled = false, m_bFailInitialize = false, m_bReportCreation = true, m_bReportClose = true;
    bool m_bCloseWorkLeft = false;
    std::function<void(int, const std::string&)> m_ScriptHandler;
    bool m_bInitialized = false, m_bPumpedOffThread = false;
    int m_nInitializeCalls = 0, m_nShutdownCalls = 0, m_nPumpPasses = 0, m_nCreateCalls = 0, m_nNextBrowserId = 1;
    std::thread::id m_PumpThread;
    EngineSettings m_Settings;
    EngineClient* m_pClient = nullptr;
    EngineBrowserSettings m_LastBrowserSettings;
    std::string m_strLastCreateUrl;
    std::map<int, EngineBrowserRef> m_OpenBrowsers;
    std::map<int, std::string> m_Urls;
    std::map<int, EngineRect> m_ViewRects;
    std::vector<FakeHostCall> m_HostCalls;
    std::map<int, std::vector<std::string>> m_ProcessMessages;
    std::vector<std::function<void()>> m_Tasks;
};

} // namespace SLF_ChromiumEmbeddedFramework
