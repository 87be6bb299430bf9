#include "tests/engine/FakeEnginePort.h"

#include <chrono>

namespace SLF_ChromiumEmbeddedFramework {

namespace {

using LinkRef = std::shared_ptr<FakeEnginePort::Link>;

// Browser, host and main frame in one object.
class FakeBrowser : public EngineBrowser,
                    public EngineBrowserHost,
                    public EngineFrame,
                    public std::enable_shared_from_this<FakeBrowser> {
public:
    FakeBrowser(int id, LinkRef link) : m_nId(id), m_Link(std::move(link)) {}

    int GetIdentifier() override { return m_nId; }
    EngineBrowserHostRef GetHost() override { return shared_from_this(); }
    EngineFrameRef GetMainFrame() override { return shared_from_this(); }
    void Reload() override { Record({.kind = FakeHostCall::Reload}); }
    void SendProcessMessage(const EngineProcessMessageRef& message) override
    {
        std::lock_guard<std::mutex> guard(m_Link->mutex);
        if (m_Link->port && message)
            m_Link->port->OnProcessMessage(m_nId, message->GetName());
    }

    void WasResized() override { Record({.kind = FakeHostCall::WasResized}); }
    void WasHidden(bool hidden) override { Record({.kind = FakeHostCall::WasHidden, .hidden = hidden}); }
    void Invalidate() override { Record({.kind = FakeHostCall::Invalidate}); }
    void SendMouseClickEvent(const EngineMouseEvent& event, EngineMouseButtonType type, bool up, int clicks) override
    {
        Record({.kind = FakeHostCall::MouseClick, .mouse = event, .button = type, .mouseUp = up, .clickCount = clicks});
    }
    void SendMouseMoveEvent(const EngineMouseEvent& event, bool) override
    {
        Record({.kind = FakeHostCall::MouseMove, .mouse = event});
    }
    void SendMouseWheelEvent(const EngineMouseEvent& event, int deltaX, int deltaY) override
    {
        Record({.kind = FakeHostCall::MouseWheel, .mouse = event, .deltaX = deltaX, .deltaY = deltaY});
    }
    void SendKeyEvent(const EngineKeyEvent& event) override { Record({.kind = FakeHostCall::Key, .key = event}); }
    void CloseBrowser(bool force) override { Record({.kind = FakeHostCall::CloseBrowser, .forceClose = force}); }

    std::string GetURL() override
    {
        std::lock_guard<std::mutex> guard(m_Link->mutex);
        return m_Link->port ? m_Link->port->Url(m_nId) : std::string();
    }
    void ExecuteJavaScript(const std::string& code, const std::string&, int) override
    {
        Record({.kind = FakeHostCall::Script, .script = code});
    }

private:
    void Record(FakeHostCall call)
    {
        call.browserId = m_nId;
        std::lock_guard<std::mutex> guard(m_Link->mutex);
        if (m_Link->port)
            m_Link->port->OnHostCall(call);
    }

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
    std::lock_guard<std::mutex> guard(m_Link->mutex);
    m_Link->port = nullptr;
    if (m_bInstalled && GetEnginePort() == this)
        SetEnginePort(nullptr);
}

void FakeEnginePort::Install()
{
    m_bInstalled = true, SetEnginePort(this);
}

std::vector<FakeHostCall> FakeEnginePort::HostCalls(int browserId)
{
    std::lock_guard<std::mutex> guard(m_Mutex);
    std::vector<FakeHostCall> calls;
    for (const auto& call : m_HostCalls)
        if (browserId < 0 || call.browserId == browserId)
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

EngineBrowserRef FakeEnginePort::Browser(int browserId)
{
    std::lock_guard<std::mutex> guard(m_Mutex);
    auto it = m_OpenBrowsers.find(browserId);
    return it != m_OpenBrowsers.end() ? it->second : std::make_shared<FakeBrowser>(browserId, m_Link);
}

void FakeEnginePort::EmitClose(int browserId)
{
    EngineBrowserRef browser = Browser(browserId);
    EngineClient* client = Locked([&] { return m_OpenBrowsers.erase(browserId), m_pClient; });
    if (client && client->GetLifeSpanHandler())
        client->GetLifeSpanHandler()->OnBeforeClose(browser);
}

void FakeEnginePort::OnHostCall(const FakeHostCall& call)
{
    std::lock_guard<std::mutex> guard(m_Mutex);
    m_HostCalls.push_back(call);
    const int id = call.browserId;
    if (call.kind == FakeHostCall::CloseBrowser && m_bReportClose && m_OpenBrowsers.count(id)) {
        m_Tasks.push_back([this, id] { EmitClose(id); });
    } else if (call.kind == FakeHostCall::WasResized) {
        // The engine asks for the view size after the notice.
        m_Tasks.push_back([this, id] {
            EngineClient* client = Get(m_pClient);
            EngineRect rect;
            if (client && client->GetRenderHandler() && client->GetRenderHandler()->GetViewRect(Browser(id), rect))
                Locked([&] { m_ViewRects[id] = rect; });
        });
    } else if (call.kind == FakeHostCall::Script && m_ScriptHandler) {
        m_Tasks.push_back([handler = m_ScriptHandler, id, code = call.script] { handler(id, code); });
    }
}

bool FakeEnginePort::Initialize(const EngineSettings& settings, EngineApp*)
{
    std::lock_guard<std::mutex> guard(m_Mutex);
    ++m_nInitializeCalls;
    if (m_bFailInitialize || m_bInitialized)
        return false;
    m_Settings = settings, m_PumpThread = std::this_thread::get_id();
    return m_bInitialized = true;
}

void FakeEnginePort::DoMessageLoopWork()
{
    std::vector<std::function<void()>> tasks;
    Locked([&] {
        m_bPumpedOffThread = m_bPumpedOffThread || std::this_thread::get_id() != m_PumpThread;
        tasks.swap(m_Tasks);
    });
    for (auto& task : tasks)
        task();
    Locked([&] { ++m_nPumpPasses; });
    m_PumpCondition.notify_all();
}

void FakeEnginePort::Shutdown()
{
    std::vector<int> open;
    if (!Locked([&] {
            if (++m_nShutdownCalls, !m_bInitialized)
                return false;
            m_Tasks.clear();
            for (const auto& entry : m_OpenBrowsers)
                open.push_back(entry.first);
            return true;
        }))
        return;
    for (int id : open)
        EmitClose(id);
    Locked([&] { m_bInitialized = false, m_pClient = nullptr; });
}

bool FakeEnginePort::CreateBrowser(const EngineWindowInfo&, EngineClient* client, const std::string& url,
                                   const EngineBrowserSettings& settings)
{
    std::lock_guard<std::mutex> guard(m_Mutex);
    ++m_nCreateCalls, m_LastBrowserSettings = settings, m_strLastCreateUrl = url;
    if (!m_bInitialized || !client)
        return false;
    m_pClient = client;
    const int id = m_nNextBrowserId++;
    auto browser = std::make_shared<FakeBrowser>(id, m_Link);
    m_Urls[id] = url;
    if (m_bReportCreation)
        m_Tasks.push_back([this, id, browser, client] {
            Locked([&] { m_OpenBrowsers[id] = browser; });
            if (client->GetLifeSpanHandler())
                client->GetLifeSpanHandler()->OnAfterCreated(browser);
        });
    return true;
}

} // namespace SLF_ChromiumEmbeddedFramework
