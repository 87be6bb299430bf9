#include "tests/engine/FakeEnginePort.h"

#include <chrono>

namespace SLF_ChromiumEmbeddedFramework {

namespace {

using LinkRef = std::shared_ptr<FakeEnginePort::Link>;

// Runs fn(port) while the fake is alive; the link's mutex keeps it alive
// for the call. The port methods used here never call the client.
template <typename Fn>
void WithPort(const LinkRef& link, Fn fn)
{
    std::lock_guard<std::mutex> guard(link->mutex);
    if (link->port)
        fn(*link->port);
}

class FakeHost : public EngineBrowserHost {
public:
    FakeHost(int id, LinkRef link) : m_nId(id), m_Link(std::move(link)) {}

    void WasResized() override
    {
        Record(FakeHostCall::WasResized, [](FakeHostCall&) {});
        WithPort(m_Link, [&](FakeEnginePort& port) { port.OnHostResized(m_nId); });
    }
    void WasHidden(bool hidden) override
    {
        Record(FakeHostCall::WasHidden, [&](FakeHostCall& c) { c.hidden = hidden; });
    }
    void Invalidate() override { Record(FakeHostCall::Invalidate, [](FakeHostCall&) {}); }
    void SendMouseClickEvent(const EngineMouseEvent& event, EngineMouseButtonType type, bool mouseUp,
                             int clickCount) override
    {
        Record(FakeHostCall::MouseClick, [&](FakeHostCall& c) {
            c.mouse = event;
            c.button = type;
            c.mouseUp = mouseUp;
            c.clickCount = clickCount;
        });
    }
    void SendMouseMoveEvent(const EngineMouseEvent& event, bool mouseLeave) override
    {
        Record(FakeHostCall::MouseMove, [&](FakeHostCall& c) {
            c.mouse = event;
            c.mouseLeave = mouseLeave;
        });
    }
    void SendMouseWheelEvent(const EngineMouseEvent& event, int deltaX, int deltaY) override
    {
        Record(FakeHostCall::MouseWheel, [&](FakeHostCall& c) {
            c.mouse = event;
            c.deltaX = deltaX;
            c.deltaY = deltaY;
        });
    }
    void SendKeyEvent(const EngineKeyEvent& event) override
    {
        Record(FakeHostCall::Key, [&](FakeHostCall& c) { c.key = event; });
    }
    void CloseBrowser(bool forceClose) override
    {
        Record(FakeHostCall::CloseBrowser, [&](FakeHostCall& c) { c.forceClose = forceClose; });
        WithPort(m_Link, [&](FakeEnginePort& port) { port.OnHostClose(m_nId); });
    }

private:
    template <typename Fill>
    void Record(FakeHostCall::Kind kind, Fill fill)
    {
        FakeHostCall call;
        call.kind = kind;
        call.browserId = m_nId;
        fill(call);
        WithPort(m_Link, [&](FakeEnginePort& port) { port.Record(call); });
    }

    int m_nId;
    LinkRef m_Link;
};

class FakeFrame : public EngineFrame {
public:
    FakeFrame(int id, LinkRef link) : m_nId(id), m_Link(std::move(link)) {}

    std::string GetURL() override
    {
        std::string url;
        WithPort(m_Link, [&](FakeEnginePort& port) { url = port.Url(m_nId); });
        return url;
    }
    void ExecuteJavaScript(const std::string& code, const std::string& scriptUrl, int startLine) override
    {
        FakeHostCall call;
        call.kind = FakeHostCall::ExecuteJavaScript;
        call.browserId = m_nId;
        call.script = code;
        call.scriptUrl = scriptUrl;
        call.startLine = startLine;
        WithPort(m_Link, [&](FakeEnginePort& port) {
            port.Record(call);
            port.OnScript(m_nId, code);
        });
    }

private:
    int m_nId;
    LinkRef m_Link;
};

// The service's view of a browser.
class FakeBrowser : public EngineBrowser {
public:
    FakeBrowser(int id, LinkRef link)
        : m_nId(id),
          m_Link(link),
          m_Host(std::make_shared<FakeHost>(id, link)),
          m_Frame(std::make_shared<FakeFrame>(id, link))
    {
    }

    int GetIdentifier() override { return m_nId; }
    EngineBrowserHostRef GetHost() override { return m_Host; }
    EngineFrameRef GetMainFrame() override { return m_Frame; }
    void Reload() override
    {
        FakeHostCall call;
        call.kind = FakeHostCall::Reload;
        call.browserId = m_nId;
        WithPort(m_Link, [&](FakeEnginePort& port) { port.Record(call); });
    }
    void SendProcessMessage(const EngineProcessMessageRef& message) override
    {
        WithPort(m_Link, [&](FakeEnginePort& port) { port.OnSendToRenderProcess(m_nId, message); });
    }

private:
    int m_nId;
    LinkRef m_Link;
    EngineBrowserHostRef m_Host;
    EngineFrameRef m_Frame;
};

// The web process's view of the same browser: what it sends goes back to
// the service.
class FakeRenderSideBrowser : public EngineBrowser {
public:
    FakeRenderSideBrowser(int id, LinkRef link) : m_nId(id), m_Link(std::move(link)) {}

    int GetIdentifier() override { return m_nId; }
    EngineBrowserHostRef GetHost() override { return nullptr; }
    EngineFrameRef GetMainFrame() override { return nullptr; }
    void Reload() override {}
    void SendProcessMessage(const EngineProcessMessageRef& message) override
    {
        WithPort(m_Link, [&](FakeEnginePort& port) { port.OnSendFromRenderProcess(m_nId, message); });
    }

private:
    int m_nId;
    LinkRef m_Link;
};

} // namespace

FakeEnginePort::FakeEnginePort() : m_Link(std::make_shared<Link>())
{
    m_Link->port = this;
}

FakeEnginePort::~FakeEnginePort()
{
    {
        std::lock_guard<std::mutex> guard(m_Link->mutex);
        m_Link->port = nullptr;
    }
    if (m_bInstalled && GetEnginePort() == this)
        SetEnginePort(nullptr);
}

void FakeEnginePort::Install()
{
    m_bInstalled = true;
    SetEnginePort(this);
}

// ---- observations -------------------------------------------------------------------

std::vector<int> FakeEnginePort::OpenBrowserIds()
{
    std::lock_guard<std::mutex> guard(m_Mutex);
    std::vector<int> ids;
    for (const auto& entry : m_OpenBrowsers)
        ids.push_back(entry.first);
    return ids;
}

std::vector<FakeHostCall> FakeEnginePort::HostCalls(int browserId)
{
    std::lock_guard<std::mutex> guard(m_Mutex);
    if (browserId < 0)
        return m_HostCalls;
    std::vector<FakeHostCall> calls;
    for (const auto& call : m_HostCalls)
        if (call.browserId == browserId)
            calls.push_back(call);
    return calls;
}

bool FakeEnginePort::WaitForPumpPasses(int passes, int timeoutMs)
{
    std::unique_lock<std::mutex> lock(m_Mutex);
    const int target = m_nPumpPasses + passes;
    return m_PumpCondition.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                    [&] { return m_nPumpPasses >= target; });
}

// ---- driving the client ------------------------------------------------------------

EngineBrowserRef FakeEnginePort::BrowserLocked(int browserId)
{
    auto it = m_OpenBrowsers.find(browserId);
    if (it != m_OpenBrowsers.end())
        return it->second;
    return std::make_shared<FakeBrowser>(browserId, m_Link);
}

EngineBrowserRef FakeEnginePort::Browser(int browserId)
{
    std::lock_guard<std::mutex> guard(m_Mutex);
    return BrowserLocked(browserId);
}

void FakeEnginePort::Post(std::function<void()> task)
{
    std::lock_guard<std::mutex> guard(m_Mutex);
    m_Tasks.push_back(std::move(task));
}

void FakeEnginePort::EmitPaint(int browserId, int width, int height, uint8_t fill)
{
    std::vector<uint8_t> image(static_cast<size_t>(width > 0 ? width : 0) * static_cast<size_t>(height > 0 ? height : 0) *
                                   4,
                               fill);
    EmitPaintBuffer(browserId, image.data(), width, height);
}

template <typename Fn>
auto FakeEnginePort::WithClient(int browserId, Fn fn)
{
    EngineClient* client = Get(m_pClient);
    EngineBrowserRef browser = Browser(browserId);
    return client ? fn(*client, browser) : decltype(fn(*client, browser))();
}

void FakeEnginePort::EmitPaintBuffer(int browserId, const void* buffer, int width, int height)
{
    WithClient(browserId, [&](EngineClient& c, EngineBrowserRef b) {
        if (c.GetRenderHandler())
            c.GetRenderHandler()->OnPaint(b, buffer, width, height);
    });
}

void FakeEnginePort::EmitCursorChange(int browserId, EngineCursorType type)
{
    WithClient(browserId, [&](EngineClient& c, EngineBrowserRef b) {
        if (c.GetRenderHandler())
            c.GetRenderHandler()->OnCursorChange(b, type);
    });
}

void FakeEnginePort::EmitAudioStarted(int browserId, int streamId, int sampleRate, int channels, int bitsPerSample,
                                      int64_t bufferDuration)
{
    WithClient(browserId, [&](EngineClient& c, EngineBrowserRef b) {
        if (c.GetAudioHandler())
            c.GetAudioHandler()->OnAudioStreamStarted(b, streamId, sampleRate, channels, bitsPerSample, bufferDuration);
    });
}

void FakeEnginePort::EmitAudioPacket(int browserId, int streamId, const void* data, int length)
{
    WithClient(browserId, [&](EngineClient& c, EngineBrowserRef b) {
        if (c.GetAudioHandler())
            c.GetAudioHandler()->OnAudioStreamPacket(b, streamId, data, length);
    });
}

void FakeEnginePort::EmitAudioStopped(int browserId, int streamId)
{
    WithClient(browserId, [&](EngineClient& c, EngineBrowserRef b) {
        if (c.GetAudioHandler())
            c.GetAudioHandler()->OnAudioSteamStopped(b, streamId);
    });
}

void FakeEnginePort::EmitLoadStart(int browserId)
{
    WithClient(browserId, [&](EngineClient& c, EngineBrowserRef b) {
        if (c.GetLoadHandler())
            c.GetLoadHandler()->OnLoadStart(b, b->GetMainFrame());
    });
}

void FakeEnginePort::EmitLoadEnd(int browserId, int httpStatusCode)
{
    WithClient(browserId, [&](EngineClient& c, EngineBrowserRef b) {
        if (c.GetLoadHandler())
            c.GetLoadHandler()->OnLoadEnd(b, b->GetMainFrame(), httpStatusCode);
    });
}

bool FakeEnginePort::EmitPopup(int browserId, const std::string& targetUrl)
{
    return WithClient(browserId, [&](EngineClient& c, EngineBrowserRef b) {
        return c.GetLifeSpanHandler() && c.GetLifeSpanHandler()->OnBeforePopup(b, targetUrl);
    });
}

bool FakeEnginePort::EmitJSDialog(int browserId, EngineJSDialogType type, const std::string& message,
                                  bool& suppress)
{
    const std::string url = Url(browserId);
    return WithClient(browserId, [&](EngineClient& c, EngineBrowserRef b) {
        return c.GetJSDialogHandler() &&
               c.GetJSDialogHandler()->OnJSDialog(b, url, type, message, std::string(), suppress);
    });
}

bool FakeEnginePort::DeliverProcessMessage(int browserId, const EngineProcessMessageRef& message)
{
    return WithClient(browserId,
                      [&](EngineClient& c, EngineBrowserRef b) { return c.OnProcessMessageReceived(b, message); });
}

void FakeEnginePort::EmitClose(int browserId)
{
    EngineClient* client = Get(m_pClient);
    EngineBrowserRef browser;
    {
        std::lock_guard<std::mutex> guard(m_Mutex);
        browser = BrowserLocked(browserId);
        m_OpenBrowsers.erase(browserId);
    }
    if (client && client->GetLifeSpanHandler())
        client->GetLifeSpanHandler()->OnBeforeClose(browser);
}

// ---- calls from the fake's browser objects (under the link's mutex) -------------------

void FakeEnginePort::Record(const FakeHostCall& call)
{
    std::lock_guard<std::mutex> guard(m_Mutex);
    m_HostCalls.push_back(call);
}

void FakeEnginePort::OnHostClose(int browserId)
{
    std::lock_guard<std::mutex> guard(m_Mutex);
    if (!m_bReportClose || !m_OpenBrowsers.count(browserId))
        return;
    m_Tasks.push_back([this, browserId] { EmitClose(browserId); });
}

void FakeEnginePort::OnHostResized(int browserId)
{
    std::lock_guard<std::mutex> guard(m_Mutex);
    m_Tasks.push_back([this, browserId] {
        WithClient(browserId, [&](EngineClient& c, EngineBrowserRef b) {
            EngineRect rect;
            if (c.GetRenderHandler() && c.GetRenderHandler()->GetViewRect(b, rect))
                Locked([&] { m_ViewRects[browserId] = rect; });
        });
    });
}

void FakeEnginePort::OnScript(int browserId, const std::string& code)
{
    std::lock_guard<std::mutex> guard(m_Mutex);
    if (!m_ScriptHandler)
        return;
    auto handler = m_ScriptHandler;
    m_Tasks.push_back([handler, browserId, code] { handler(browserId, code); });
}

void FakeEnginePort::OnSendToRenderProcess(int browserId, const EngineProcessMessageRef& message)
{
    std::lock_guard<std::mutex> guard(m_Mutex);
    m_SentMessages[browserId].push_back(message);
    if (!m_bAnswerMessages)
        return;
    // The web process receives the message on a later pass.
    LinkRef link = m_Link;
    m_Tasks.push_back([this, browserId, message, link] {
        EngineApp* app = Get(m_pApp);
        EngineRenderProcessHandler* handler = app ? app->GetRenderProcessHandler() : nullptr;
        if (handler)
            handler->OnProcessMessageReceived(std::make_shared<FakeRenderSideBrowser>(browserId, link), message);
    });
}

void FakeEnginePort::OnSendFromRenderProcess(int browserId, const EngineProcessMessageRef& message)
{
    std::lock_guard<std::mutex> guard(m_Mutex);
    m_Tasks.push_back([this, browserId, message] { DeliverProcessMessage(browserId, message); });
}

// ---- EnginePort -------------------------------------------------------------------------

bool FakeEnginePort::Initialize(const EngineSettings& settings, EngineApp* app)
{
    {
        std::lock_guard<std::mutex> guard(m_Mutex);
        ++m_nInitializeCalls;
        if (m_bFailInitialize || m_bInitialized)
            return false;
        m_Settings = settings;
        m_pApp = app;
        m_PumpThread = std::this_thread::get_id();
    }
    // What the real port does with the application object: let it adjust
    // the service's command line and that of every web process.
    EngineCommandLine serviceCommandLine;
    EngineCommandLine childCommandLine;
    if (app) {
        app->OnBeforeCommandLineProcessing(std::string(), serviceCommandLine);
        if (EngineBrowserProcessHandler* handler = app->GetBrowserProcessHandler())
            handler->OnBeforeChildProcessLaunch(childCommandLine);
    }
    std::lock_guard<std::mutex> guard(m_Mutex);
    m_ServiceCommandLine = serviceCommandLine;
    m_ChildCommandLine = childCommandLine;
    m_bInitialized = true;
    return true;
}

void FakeEnginePort::DoMessageLoopWork()
{
    std::vector<std::function<void()>> tasks;
    {
        std::lock_guard<std::mutex> guard(m_Mutex);
        if (std::this_thread::get_id() != m_PumpThread)
            m_bPumpedOffThread = true;
        tasks.swap(m_Tasks);
    }
    for (auto& task : tasks)
        task();
    {
        std::lock_guard<std::mutex> guard(m_Mutex);
        ++m_nPumpPasses;
    }
    m_PumpCondition.notify_all();
}

void FakeEnginePort::Shutdown()
{
    std::vector<int> open;
    {
        std::lock_guard<std::mutex> guard(m_Mutex);
        ++m_nShutdownCalls;
        if (!m_bInitialized)
            return;
        m_Tasks.clear();
        for (const auto& entry : m_OpenBrowsers)
            open.push_back(entry.first);
    }
    // Like the real engine, shutting down closes every browser.
    for (int id : open)
        EmitClose(id);
    std::lock_guard<std::mutex> guard(m_Mutex);
    m_bInitialized = false;
    m_pClient = nullptr;
}

bool FakeEnginePort::CreateBrowser(const EngineWindowInfo& windowInfo, EngineClient* client, const std::string& url,
                                   const EngineBrowserSettings& settings)
{
    std::lock_guard<std::mutex> guard(m_Mutex);
    ++m_nCreateCalls;
    m_LastWindowInfo = windowInfo;
    m_LastBrowserSettings = settings;
    m_strLastCreateUrl = url;
    if (!m_bAcceptCreate || !m_bInitialized || !client)
        return false;
    m_pClient = client;
    const int id = m_nNextBrowserId++;
    EngineBrowserRef browser = std::make_shared<FakeBrowser>(id, m_Link);
    m_Urls[id] = url;
    if (!m_bReportCreation)
        return true;
    m_Tasks.push_back([this, id, browser, client] {
        {
            std::lock_guard<std::mutex> inner(m_Mutex);
            m_OpenBrowsers[id] = browser;
        }
        if (client->GetLifeSpanHandler())
            client->GetLifeSpanHandler()->OnAfterCreated(browser);
    });
    return true;
}

} // namespace SLF_ChromiumEmbeddedFramework
