#include "engine/CBrowserWrapper.h"

#include "engine/CBrowserApp.h"
#include "engine/CBrowserClient.h"
#include "engine/CBrowserHelper.h"
#include "platform/NplFile.h"
#include "platform/NplTypes.h"

#include <cstdlib>
#include <string>
#include <unistd.h>
#include <vector>

namespace SLF_ChromiumEmbeddedFramework {

namespace {
// How long StartCEF waits for the worker's engine start.
constexpr int64_t kStartWaitNanoseconds = 2000LL * 1000 * 1000;
// How long StopCEF waits for the worker to leave.
constexpr int kStopWaitMilliseconds = 2000;
// The page round trips: the URL is polled every 10 ms for up to 1000 ms.
constexpr int kRoundTripBudgetMilliseconds = 1000;
constexpr int kRoundTripStepMilliseconds = 10;

constexpr const char* kAuxiliaryExecutableName = "StreamloftCEFOverlayHelper";
} // namespace

CBrowserWrapper::CBrowserWrapper()
    : m_bCefInitialized(false),
      m_pBrowserApp(nullptr),
      m_pBrowserClient(nullptr),
      m_ClientMutex(true),
      m_CefThread(false),
      m_StartMutex(true),
      m_nStartMutexHeld(0),
      m_StartMutexOwner()
{
    m_pBrowserApp = new CBrowserApp();
}

CBrowserWrapper::~CBrowserWrapper()
{
    StopCEF();
    delete m_pBrowserApp;
    m_pBrowserApp = nullptr;
    // Give back what the start hand-shake kept, when this is the thread
    // that holds it; a mutex must not be destroyed locked.
    if (m_nStartMutexHeld > 0 && pthread_equal(m_StartMutexOwner, pthread_self())) {
        while (m_nStartMutexHeld > 0) {
            m_StartMutex.UnLock();
            --m_nStartMutexHeld;
        }
    }
}

// ---- threaded mode ------------------------------------------------------------------

bool CBrowserWrapper::StartCEF()
{
    CreateBrowserClientApplication();
    if (!m_CefThread.IsRunning()) {
        m_CefThread.CreateThread(&CBrowserWrapper::ThreadProcStatic, this, "CefWorkerThread");
        // The worker signals without taking m_StartMutex, so a signal that
        // comes before the wait is lost and the wait runs its full 2000 ms;
        // the flag is read afterwards either way. The lock is deliberately
        // kept: the mutex is recursive and nothing else takes it, so the
        // same thread can start again, while another thread that has to
        // start the worker again blocks here.
        m_StartMutex.Lock();
        m_StartMutexOwner = pthread_self();
        ++m_nStartMutexHeld;
        m_StartCondition.Wait(m_StartMutex, NplTimeout(kStartWaitNanoseconds));
    }
    return m_bCefInitialized;
}

void CBrowserWrapper::StopCEF()
{
    // Stop with a bounded wait, then destroy the client whatever happened:
    // a worker that did not stop in time is abandoned.
    if (m_CefThread.IsRunning())
        m_CefThread.StopThread(kStopWaitMilliseconds, false, true);
    DeleteBrowserClientApplication();
}

void* CBrowserWrapper::ThreadProcStatic(void* argument)
{
    if (!argument)
        return nullptr;
    static_cast<CBrowserWrapper*>(argument)->ThreadProc();
    return nullptr;
}

void CBrowserWrapper::ThreadProc()
{
    if (!PrepareCEFThread())
        return;
    while (!m_CefThread.IsTerminationRequested()) {
        ProcessCEFThread();
        usleep(1000);
    }
    CleanupCEFThread();
}

// ---- hosted mode ------------------------------------------------------------------

void CBrowserWrapper::CreateBrowserClientApplication()
{
    CNplThreadMutexLock clientLock(m_ClientMutex); // lock order 1
    if (!m_pBrowserClient)
        m_pBrowserClient = new CBrowserClient();
}

void CBrowserWrapper::DeleteBrowserClientApplication()
{
    m_bCefInitialized = false;
    CNplThreadMutexLock clientLock(m_ClientMutex); // lock order 1
    if (m_pBrowserClient) {
        delete m_pBrowserClient;
        m_pBrowserClient = nullptr;
    }
}

bool CBrowserWrapper::PrepareCEFThread()
{
    CNplThreadMutexLock clientLock(m_ClientMutex); // lock order 1
    // Without a client nothing signals: StartCEF waits its full time.
    if (!m_pBrowserClient)
        return false;
    const std::string path = GetAuxiliaryExecutablePath();
    const bool ok = m_pBrowserClient->StartCEF(m_pBrowserApp, path);
    m_bCefInitialized = ok;
    m_StartCondition.Signal();
    return m_bCefInitialized;
}

bool CBrowserWrapper::ProcessCEFThread()
{
    // Not under m_ClientMutex: pumping must not wait for forwarded calls,
    // which themselves may wait for the pump (browser creation and close).
    // The client is only replaced by the owner after the pump has stopped.
    CBrowserClient* client = m_pBrowserClient;
    return client && client->ProcessBrowser();
}

int64_t CBrowserWrapper::GetNextPumpTime()
{
    // Not under m_ClientMutex, for the same reason as the pass itself.
    CBrowserClient* client = m_pBrowserClient;
    return client ? client->GetNextPumpTime() : -1;
}

void CBrowserWrapper::CleanupCEFThread()
{
    {
        CNplThreadMutexLock clientLock(m_ClientMutex); // lock order 1
        if (m_pBrowserClient)
            m_pBrowserClient->StopCEF();
    }
    m_bCefInitialized = false;
}

std::string CBrowserWrapper::GetAuxiliaryExecutablePath()
{
    return NplFile_AddPathComponent(NplFile_ExecutableFolder(), kAuxiliaryExecutableName);
}

std::string CBrowserWrapper::GetAuxiliaryExecutablePathForExecutable(const std::string& executablePath)
{
    return NplFile_AddPathComponent(NplFile_FolderOf(executablePath), kAuxiliaryExecutableName);
}

// ---- forwarding -------------------------------------------------------------------------

int CBrowserWrapper::StartBrowser(std::string url, unsigned int width, unsigned int height, unsigned int frameRate,
                                  SLFCefVideoFrameCallbackType frameCallback, SLFCefAudioCallbackType audioCallback,
                                  void* callbackContext, CAccessHandlingForRequestSettings* accessSettings,
                                  SLFCefURLChangeCallbackType urlChangeCallback, bool unused)
{
    (void)unused;
    if (!m_bCefInitialized)
        return -1;
    CNplThreadMutexLock clientLock(m_ClientMutex); // lock order 1
    if (!m_pBrowserClient)
        return -1;
    const int engineFrameRate = static_cast<int>(static_cast<double>(frameRate) + 0.5);
    return m_pBrowserClient->StartBrowser(url, engineFrameRate, width, height, frameCallback, audioCallback,
                                          urlChangeCallback, callbackContext, accessSettings);
}

void CBrowserWrapper::PauseBrowser(int id)
{
    CNplThreadMutexLock clientLock(m_ClientMutex); // lock order 1
    if (m_pBrowserClient)
        m_pBrowserClient->PauseBrowser(id);
}

void CBrowserWrapper::ResumeBrowser(int id)
{
    CNplThreadMutexLock clientLock(m_ClientMutex); // lock order 1
    if (m_pBrowserClient)
        m_pBrowserClient->ResumeBrowser(id);
}

void CBrowserWrapper::StopBrowser(int id)
{
    CNplThreadMutexLock clientLock(m_ClientMutex); // lock order 1
    if (m_pBrowserClient)
        m_pBrowserClient->StopBrowser(id);
}

void CBrowserWrapper::EnableReceivingFrames(int id, bool enable)
{
    CNplThreadMutexLock clientLock(m_ClientMutex); // lock order 1
    if (m_pBrowserClient)
        m_pBrowserClient->EnableReceivingFrames(id, enable);
}

void CBrowserWrapper::SetRenderSize(int id, unsigned int width, unsigned int height)
{
    CNplThreadMutexLock clientLock(m_ClientMutex); // lock order 1
    if (m_pBrowserClient)
        m_pBrowserClient->SetRenderSize(id, width, height);
}

void CBrowserWrapper::RefreshBrowser(int id)
{
    CNplThreadMutexLock clientLock(m_ClientMutex); // lock order 1
    if (m_pBrowserClient)
        m_pBrowserClient->RefreshBrowser(id);
}

void CBrowserWrapper::ReloadBrowser(int id)
{
    CNplThreadMutexLock clientLock(m_ClientMutex); // lock order 1
    if (m_pBrowserClient)
        m_pBrowserClient->ReloadBrowser(id);
}

std::string CBrowserWrapper::GetUrl(int id)
{
    CNplThreadMutexLock clientLock(m_ClientMutex); // lock order 1
    if (!m_pBrowserClient)
        return std::string();
    return m_pBrowserClient->GetUrl(id);
}

int CBrowserWrapper::GetRenderProcessId(int id)
{
    CNplThreadMutexLock clientLock(m_ClientMutex); // lock order 1
    if (!m_pBrowserClient)
        return 0;
    return m_pBrowserClient->GetRenderProcessId(id);
}

void CBrowserWrapper::ExecuteJavaScript(int id, std::string script)
{
    CNplThreadMutexLock clientLock(m_ClientMutex); // lock order 1
    if (m_pBrowserClient)
        m_pBrowserClient->ExecuteJavaScript(id, script);
}

// ---- page round trips ---------------------------------------------------------------------

bool CBrowserWrapper::RoundTrip(int id, const char* script, const char* key, std::string& value)
{
    // The page answers by writing "key=value" into the URL fragment. The
    // lock is taken only inside GetUrl and ExecuteJavaScript, never across
    // the sleeps.
    const std::string before = GetUrl(id);
    if (script)
        ExecuteJavaScript(id, script);
    for (int i = 0; i < kRoundTripBudgetMilliseconds / kRoundTripStepMilliseconds; ++i) {
        if (GetUrl(id) != before)
            break;
        usleep(kRoundTripStepMilliseconds * 1000);
    }
    const std::string url = GetUrl(id);
    const size_t pos = url.find(key);
    if (pos == std::string::npos)
        return false;
    value = url.substr(pos + std::char_traits<char>::length(key));
    return true;
}

std::string CBrowserWrapper::TinyMce_GetHtmlText(int id, bool decode, bool runScript)
{
    std::string value;
    if (!RoundTrip(id, runScript ? "location.hash = 'editor1=' + tinyMCE.activeEditor.save();" : nullptr,
                   "editor1=", value))
        return std::string();
    return decode ? CBrowserHelper::UriDecode(value) : value;
}

// The numbers are read with std::stoi: leading digits (and a sign); a value
// that does not start with a number throws std::invalid_argument.
int CBrowserWrapper::TinyMce_GetHtmlTextWidth(int id)
{
    std::string value;
    if (!RoundTrip(id, "getContentWidth();", "width=", value))
        return 0;
    return std::stoi(value, nullptr, 10);
}

int CBrowserWrapper::TinyMce_GetHtmlTextHeight(int id)
{
    std::string value;
    if (!RoundTrip(id, "getContentHeight();", "height=", value))
        return 0;
    return std::stoi(value, nullptr, 10);
}

std::string CBrowserWrapper::CustomOverlays_GetSettings(int id, bool decode)
{
    std::string value;
    if (!RoundTrip(id, "saveOverlayConfiguration();", "settings=", value))
        return std::string();
    return decode ? CBrowserHelper::UriDecode(value) : value;
}

// ---- input -------------------------------------------------------------------------------------

bool CBrowserWrapper::EventMouseDown(int id, int button, int x, int y, bool doubleClick)
{
    CNplThreadMutexLock clientLock(m_ClientMutex); // lock order 1
    return m_pBrowserClient && m_pBrowserClient->EventMouseClick(id, button, false, x, y, doubleClick);
}

bool CBrowserWrapper::EventMouseUp(int id, int button, int x, int y)
{
    CNplThreadMutexLock clientLock(m_ClientMutex); // lock order 1
    return m_pBrowserClient && m_pBrowserClient->EventMouseClick(id, button, true, x, y, false);
}

bool CBrowserWrapper::EventMouseMove(int id, int x, int y)
{
    CNplThreadMutexLock clientLock(m_ClientMutex); // lock order 1
    return m_pBrowserClient && m_pBrowserClient->EventMouseMove(id, x, y) != 0;
}

bool CBrowserWrapper::EventMouseWheelScrollUp(int id, int x, int y)
{
    CNplThreadMutexLock clientLock(m_ClientMutex); // lock order 1
    return m_pBrowserClient && m_pBrowserClient->EventMouseWheelScroll(id, x, y, 0, -1);
}

bool CBrowserWrapper::EventMouseWheelScrollDown(int id, int x, int y)
{
    CNplThreadMutexLock clientLock(m_ClientMutex); // lock order 1
    return m_pBrowserClient && m_pBrowserClient->EventMouseWheelScroll(id, x, y, 0, 1);
}

bool CBrowserWrapper::EventMouseWheelScrollLeft(int id, int x, int y)
{
    CNplThreadMutexLock clientLock(m_ClientMutex); // lock order 1
    return m_pBrowserClient && m_pBrowserClient->EventMouseWheelScroll(id, x, y, -1, 0);
}

bool CBrowserWrapper::EventMouseWheelScrollRight(int id, int x, int y)
{
    CNplThreadMutexLock clientLock(m_ClientMutex); // lock order 1
    return m_pBrowserClient && m_pBrowserClient->EventMouseWheelScroll(id, x, y, 1, 0);
}

bool CBrowserWrapper::EventKeyDown(int id, bool rawKeyDown, int key)
{
    CNplThreadMutexLock clientLock(m_ClientMutex); // lock order 1
    return m_pBrowserClient && m_pBrowserClient->EventKey(id, rawKeyDown, false, key);
}

bool CBrowserWrapper::EventKeyUp(int id, int key)
{
    CNplThreadMutexLock clientLock(m_ClientMutex); // lock order 1
    return m_pBrowserClient && m_pBrowserClient->EventKey(id, false, true, key);
}

bool CBrowserWrapper::EventKey(int id, bool rawKeyDown, bool keyUp, bool isSystemKey, int nativeKeyCode,
                               int windowsKeyCode, unsigned int modifiers)
{
    CNplThreadMutexLock clientLock(m_ClientMutex); // lock order 1
    return m_pBrowserClient &&
           m_pBrowserClient->EventKey(id, rawKeyDown, keyUp, isSystemKey, nativeKeyCode, windowsKeyCode, modifiers);
}

} // namespace SLF_ChromiumEmbeddedFramework
