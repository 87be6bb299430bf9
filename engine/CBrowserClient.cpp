#include "engine/CBrowserClient.h"

#include "dbg/FlowLog.h"
#include "dbg/NSLog.h"
#include "engine/CBrowserApp.h"
#include "engine/EngineLog.h"
#include "platform/NplTypes.h"

#include <stdexcept>

namespace SLF_ChromiumEmbeddedFramework {

namespace {
// How long browser creation and close wait for the engine's notice.
constexpr int64_t kLifeSpanWaitNanoseconds = 2000LL * 1000 * 1000;
std::atomic<uint64_t> g_nNextClientInstance {1};
} // namespace

CBrowserClient::CBrowserClient()
    : m_CefStateMutex(true),
      m_bCefInitialized(false),
      m_pEnginePort(nullptr),
      m_nMouseButtonFlags(0),
      m_nCursorType(0),
      m_BrowsersMutex(true),
      m_nInstance(g_nNextClientInstance.fetch_add(1))
{
}

// The engine is shut down by StopCEF on its pump thread; destroying the
// client does not touch the engine.
CBrowserClient::~CBrowserClient() = default;

// ---- engine lifecycle ----------------------------------------------------------

bool CBrowserClient::StartCEF(CBrowserApp* app, const std::string& subprocessPath)
{
    CNplThreadMutexLock stateLock(m_CefStateMutex); // lock order 2
    if (m_bCefInitialized)
        return true;

    EnginePort* port = GetEnginePort();
    if (!port)
        return false;

    EngineSettings settings;
    settings.no_sandbox = true;
    settings.browser_subprocess_path = subprocessPath;
    settings.windowless_rendering_enabled = true;
    settings.log_severity = LOGSEVERITY_DISABLE;
    // The loop is pumped by ProcessBrowser.
    settings.multi_threaded_message_loop = false;

    const bool ok = port->Initialize(settings, app);
    if (ok) {
        m_pEnginePort = port;
        m_nCursorType = 0;
    }
    m_bCefInitialized = ok;
    return ok;
}

void CBrowserClient::StopCEF()
{
    CNplThreadMutexLock stateLock(m_CefStateMutex); // lock order 2
    if (m_bCefInitialized) {
        m_pEnginePort->Shutdown();
        m_bCefInitialized = false;
    }
}

bool CBrowserClient::IsCefInitialized()
{
    return m_bCefInitialized;
}

bool CBrowserClient::ProcessBrowser()
{
    CNplThreadMutexLock stateLock(m_CefStateMutex); // lock order 2
    if (!m_bCefInitialized)
        return false;
    {
        // The browsers lock is released before the pass: the handlers the
        // pass calls take it themselves, also on the port's other threads.
        CNplThreadMutexLock browsersLock(m_BrowsersMutex); // lock order 3
        if (m_Browsers.empty() && !m_pEnginePort->HasCloseWorkLeft())
            return false;
    }
    m_pEnginePort->DoMessageLoopWork();
    return true;
}

int64_t CBrowserClient::GetNextPumpTime()
{
    CNplThreadMutexLock stateLock(m_CefStateMutex); // lock order 2
    return m_bCefInitialized ? m_pEnginePort->GetNextDueTime() : -1;
}

// ---- browsers ----------------------------------------------------------------------

CBrowser* CBrowserClient::FindBrowserRecord(int id)
{
    for (CBrowser& record : m_Browsers)
        if (record.id == id)
            return &record;
    return nullptr;
}

EngineBrowserRef CBrowserClient::GetBrowser(int id)
{
    CNplThreadMutexLock browsersLock(m_BrowsersMutex); // lock order 3
    CBrowser* record = FindBrowserRecord(id);
    return record ? record->browser : nullptr;
}

int CBrowserClient::StartBrowser(std::string url, int frameRate, unsigned int width, unsigned int height,
                                 SLFCefVideoFrameCallbackType frameCallback, SLFCefAudioCallbackType audioCallback,
                                 SLFCefURLChangeCallbackType urlChangeCallback, void* callbackContext,
                                 const CAccessHandlingForRequestSettings* accessSettings)
{
    if (url.empty() || !m_bCefInitialized)
        return -1;

    {
        // The record exists before the browser does; OnAfterCreated fills in
        // the last record.
        CNplThreadMutexLock browsersLock(m_BrowsersMutex); // lock order 3
        m_Browsers.emplace_back(url, frameRate, width, height, frameCallback, audioCallback, urlChangeCallback,
                                callbackContext, accessSettings);
    }

    CNplThreadMutex waitMutex(true);
    bool accepted = false;
    {
        CNplThreadMutexLock stateLock(m_CefStateMutex); // lock order 2
        if (m_bCefInitialized) {
            EngineWindowInfo windowInfo;
            windowInfo.SetAsWindowless(nullptr);
            EngineBrowserSettings browserSettings;
            browserSettings.windowless_frame_rate = frameRate;
            browserSettings.javascript = STATE_ENABLED;
            browserSettings.local_storage = STATE_ENABLED;
            browserSettings.webgl = STATE_ENABLED;
            browserSettings.file_access_from_file_urls = STATE_DISABLED;
            browserSettings.universal_access_from_file_urls = STATE_DISABLED;
            accepted = m_pEnginePort->CreateBrowser(windowInfo, this, url, browserSettings);
        }
    }

    if (accepted) {
        // Neither client lock is held here, so the pump thread can report
        // the browser meanwhile.
        CNplThreadMutexLock waitLock(waitMutex);
        m_CreatedCondition.Wait(waitMutex, NplTimeout(kLifeSpanWaitNanoseconds));
    }

    CNplThreadMutexLock browsersLock(m_BrowsersMutex); // lock order 3
    if (m_Browsers.empty())
        return -1;
    CBrowser& last = m_Browsers.back();
    if (last.browser) {
        EngineProcessMessageRef request = EngineProcessMessage::Create(kRequestGetRenderProcessId);
        last.browser->SendProcessMessage(request);
        m_mapRenderProcessIdRequested[last.id] = true;
        m_mapResume[last.id] = true;
        return last.id;
    }
    m_Browsers.pop_back();
    return -1;
}

bool CBrowserClient::StopBrowser(int id)
{
    EngineBrowserHostRef host = GetBrowserHost(id);
    if (!host)
        return false;

    {
        // The caller lets go of the callback context once this returns, even
        // when the engine is slower than the wait below: the record's
        // remaining callbacks to the service side stop here.
        CNplThreadMutexLock browsersLock(m_BrowsersMutex); // lock order 3
        m_mapResume[id] = false;
        if (CBrowser* record = FindBrowserRecord(id))
            record->m_bClosing = true;
    }

    CNplThreadMutex waitMutex(true);
    CNplThreadMutexLock waitLock(waitMutex, false);
    {
        CNplThreadMutexLock stateLock(m_CefStateMutex); // lock order 2
        waitLock.Lock();
        host->CloseBrowser(true);
    }
    m_ClosedCondition.Wait(waitMutex, NplTimeout(kLifeSpanWaitNanoseconds));

    // A resource callback that began before the close may still run: the
    // caller frees the callback context once this returns.
    std::unique_lock<std::mutex> callLock(m_ServiceCallMutex); // lock order 4
    m_ServiceCallsEnded.wait(callLock, [&] { return m_mapServiceCalls.count(id) == 0; });
    return true;
}

void CBrowserClient::PauseBrowser(int id)
{
    CNplThreadMutexLock browsersLock(m_BrowsersMutex); // lock order 3
    m_mapResume[id] = false;
}

void CBrowserClient::ResumeBrowser(int id)
{
    CNplThreadMutexLock browsersLock(m_BrowsersMutex); // lock order 3
    m_mapResume[id] = true;
}

bool CBrowserClient::IsBrowserResumed(int id)
{
    CNplThreadMutexLock browsersLock(m_BrowsersMutex); // lock order 3
    auto it = m_mapResume.find(id);
    return it != m_mapResume.end() && it->second;
}

bool CBrowserClient::EnableReceivingFrames(int id, bool enable)
{
    CNplThreadMutexLock browsersLock(m_BrowsersMutex); // lock order 3
    CBrowser* record = FindBrowserRecord(id);
    if (!record || !record->browser)
        return false;
    record->m_bReceivingFrames = enable;
    EngineBrowserHostRef host = record->browser->GetHost();
    if (!host)
        return false;
    host->WasHidden(!enable);
    host->Invalidate();
    return true;
}

bool CBrowserClient::SetRenderSize(int id, unsigned int width, unsigned int height)
{
    CNplThreadMutexLock browsersLock(m_BrowsersMutex); // lock order 3
    CBrowser* record = FindBrowserRecord(id);
    if (!record || !record->browser)
        return false;
    record->width = width;
    record->height = height;
    EngineBrowserHostRef host = record->browser->GetHost();
    if (!host)
        return false;
    host->WasResized();
    return true;
}

bool CBrowserClient::RefreshBrowser(int id)
{
    CNplThreadMutexLock browsersLock(m_BrowsersMutex); // lock order 3
    EngineBrowserHostRef host = GetBrowserHost(id);
    if (!host)
        return false;
    host->Invalidate();
    return true;
}

bool CBrowserClient::ReloadBrowser(int id)
{
    CNplThreadMutexLock browsersLock(m_BrowsersMutex); // lock order 3
    CBrowser* record = FindBrowserRecord(id);
    if (!record || !record->browser)
        return false;
    record->m_bSkipNextPaint = true;
    record->browser->Reload();
    return true;
}

std::string CBrowserClient::GetUrl(int id)
{
    CNplThreadMutexLock browsersLock(m_BrowsersMutex); // lock order 3
    EngineBrowserRef browser = GetBrowser(id);
    if (!browser)
        return std::string();
    EngineFrameRef frame = browser->GetMainFrame();
    return frame ? frame->GetURL() : std::string();
}

int CBrowserClient::GetRenderProcessId(int id)
{
    CNplThreadMutexLock browsersLock(m_BrowsersMutex); // lock order 3
    CBrowser* record = FindBrowserRecord(id);
    return record ? record->m_nRenderProcessId : 0;
}

void CBrowserClient::ExecuteJavaScript(int id, std::string code)
{
    CNplThreadMutexLock browsersLock(m_BrowsersMutex); // lock order 3
    EngineBrowserRef browser = GetBrowser(id);
    if (!browser)
        return;
    EngineFrameRef frame = browser->GetMainFrame();
    if (frame)
        frame->ExecuteJavaScript(code, frame->GetURL(), 0);
}

EngineBrowserHostRef CBrowserClient::GetBrowserHost(int id)
{
    CNplThreadMutexLock browsersLock(m_BrowsersMutex); // lock order 3
    CBrowser* record = FindBrowserRecord(id);
    if (!record || !record->browser)
        return nullptr;
    return record->browser->GetHost();
}

CBrowser CBrowserClient::GetCBrowserForCEFID(int64_t id, bool& found)
{
    CNplThreadMutexLock browsersLock(m_BrowsersMutex); // lock order 3
    for (const CBrowser& record : m_Browsers) {
        if (record.id == id) {
            found = true;
            return record;
        }
    }
    found = false;
    return CBrowser();
}

size_t CBrowserClient::GetBrowserCount()
{
    CNplThreadMutexLock browsersLock(m_BrowsersMutex); // lock order 3
    return m_Browsers.size();
}

// ---- life span -----------------------------------------------------------------------

void CBrowserClient::OnAfterCreated(EngineBrowserRef browser)
{
    if (browser) {
        CNplThreadMutexLock browsersLock(m_BrowsersMutex); // lock order 3
        if (!m_Browsers.empty() && !m_Browsers.back().browser) {
            m_Browsers.back().id = browser->GetIdentifier();
            m_Browsers.back().browser = browser;
        }
    }
    m_CreatedCondition.Signal();
}

void CBrowserClient::OnBeforeClose(EngineBrowserRef browser)
{
    if (!browser)
        return;
    {
        CNplThreadMutexLock browsersLock(m_BrowsersMutex); // lock order 3
        const int id = browser->GetIdentifier();
        for (auto it = m_Browsers.begin(); it != m_Browsers.end(); ++it) {
            if (it->id != id)
                continue;
            // Every stream still open gets its stop signal before the record goes.
            for (const auto& stream : it->audioStreams)
                if (it->m_bReceivingFrames && it->audioCallback)
                    it->audioCallback(stream.first, nullptr, 0, 0, 0, 0, it->callbackContext);
            it->audioStreams.clear();
            m_Browsers.erase(it);
            m_mapRenderProcessIdRequested.erase(id);
            break;
        }
    }
    m_ClosedCondition.Signal();
}

bool CBrowserClient::OnBeforePopup(EngineBrowserRef browser, const std::string& targetUrl)
{
    (void)browser;
    (void)targetUrl;
    return true;
}

// ---- process messages ------------------------------------------------------------

bool CBrowserClient::OnProcessMessageReceived(EngineBrowserRef browser, EngineProcessMessageRef message)
{
    if (!browser || !message)
        return false;

    CNplThreadMutexLock browsersLock(m_BrowsersMutex); // lock order 3
    const int id = browser->GetIdentifier();
    auto requested = m_mapRenderProcessIdRequested.find(id);
    if (requested == m_mapRenderProcessIdRequested.end() || !requested->second)
        return false;
    if (message->GetName() != kResponseGetRenderProcessId)
        return false;

    CBrowser* record = FindBrowserRecord(id);
    if (record && message->HasArgumentList()) {
        const auto& arguments = *message->Arguments();
        if (!arguments.empty()) {
            if (const int* pid = std::get_if<int>(&arguments[0])) {
                // Which process shows a browser is not otherwise visible
                // from outside (web processes may be shared or lent).
                if (*pid != record->m_nRenderProcessId)
                    NSLog("CBrowserClient - browser %d is shown by process %d", id, *pid);
                record->m_nRenderProcessId = *pid;
            }
        }
    }
    return true;
}

void CBrowserClient::OnRenderProcessTerminated(EngineBrowserRef browser, EngineTerminationStatus status)
{
    if (!browser)
        return;
    NPL_DBGPRINTF(EngineLog_GetModuleIndex(), 2, "---> Web process of browser %d ended (status %d)\n",
                  browser->GetIdentifier(), static_cast<int>(status));
    CNplThreadMutexLock browsersLock(m_BrowsersMutex); // lock order 3
    const int id = browser->GetIdentifier();
    CBrowser* record = FindBrowserRecord(id);
    if (!record || record->m_bClosing)
        return;
    record->m_nRenderProcessId = 0;
    auto requested = m_mapRenderProcessIdRequested.find(id);
    if (requested != m_mapRenderProcessIdRequested.end() && requested->second)
        browser->SendProcessMessage(EngineProcessMessage::Create(kRequestGetRenderProcessId));
}

// ---- rendering -----------------------------------------------------------------------

bool CBrowserClient::GetViewRect(EngineBrowserRef browser, EngineRect& rect)
{
    if (!browser)
        return false;
    CNplThreadMutexLock browsersLock(m_BrowsersMutex); // lock order 3
    CBrowser* record = FindBrowserRecord(browser->GetIdentifier());
    if (!record)
        return false;
    rect = EngineRect {0, 0, static_cast<int>(record->width), static_cast<int>(record->height)};
    return true;
}

void CBrowserClient::OnPaint(EngineBrowserRef browser, const void* buffer, int width, int height)
{
    if (!browser)
        return;
    CNplThreadMutexLock browsersLock(m_BrowsersMutex); // lock order 3
    const int id = browser->GetIdentifier();
    for (CBrowser& record : m_Browsers) {
        if (record.id != id)
            continue;
        if (record.m_bSkipNextPaint) {
            record.m_bSkipNextPaint = false;
            SLF_FRAMES_LOG("browser %d: frame %dx%d painted, skipped (the last before a reload)", id, width, height);
            continue;
        }
        if (!record.m_bReceivingFrames || !record.frameCallback) {
            SLF_FRAMES_LOG("browser %d: frame %dx%d painted, dropped: delivery is off", id, width, height);
            break;
        }
        // A frame of another size than the record's is stale (painted before
        // a resize) and is dropped.
        if (width >= 0 && height >= 0 && static_cast<unsigned int>(width) == record.width &&
            static_cast<unsigned int>(height) == record.height) {
            const unsigned int byteCount = static_cast<unsigned int>(width) * static_cast<unsigned int>(height) * 4u;
            SLF_FRAMES_LOG("browser %d: frame %dx%d painted, handed over", id, width, height);
            record.frameCallback(static_cast<unsigned char*>(const_cast<void*>(buffer)), byteCount,
                                 record.callbackContext);
        } else {
            SLF_FRAMES_LOG("browser %d: frame %dx%d painted, dropped for size (the browser is %ux%u)", id, width,
                           height, record.width, record.height);
        }
        break;
    }
}

void CBrowserClient::OnCursorChange(EngineBrowserRef browser, EngineCursorType type)
{
    (void)browser;
    m_nCursorType = static_cast<int>(type);
}

// ---- load and dialogs ------------------------------------------------------------------

void CBrowserClient::OnLoadStart(EngineBrowserRef browser, EngineFrameRef frame)
{
    if (!browser || !frame)
        return;
    CNplThreadMutexLock browsersLock(m_BrowsersMutex); // lock order 3
    CBrowser* record = FindBrowserRecord(browser->GetIdentifier());
    if (record && record->urlChangeCallback && !record->m_bClosing)
        record->urlChangeCallback(frame->GetURL(), record->callbackContext);
}

void CBrowserClient::OnLoadEnd(EngineBrowserRef browser, EngineFrameRef frame, int httpStatusCode)
{
    (void)browser;
    (void)frame;
    (void)httpStatusCode;
}

bool CBrowserClient::OnJSDialog(EngineBrowserRef browser, const std::string& originUrl, EngineJSDialogType type,
                                const std::string& messageText, const std::string& defaultPromptText,
                                bool& suppressMessage)
{
    (void)browser;
    (void)originUrl;
    (void)type;
    (void)messageText;
    (void)defaultPromptText;
    // Pages' alert, confirm and prompt dialogs are dropped silently.
    suppressMessage = true;
    return false;
}

} // namespace SLF_ChromiumEmbeddedFramework
