// The one object through which the rest of the service uses the web engine.
// It owns the application object and the client and forwards every browser
// operation to the client under one lock.
//
// Two ways of running the engine:
// - hosted: the owner calls CreateBrowserClientApplication and
//   PrepareCEFThread on the thread that is to pump the engine, then
//   ProcessCEFThread repeatedly from a timer on that thread;
// - threaded: StartCEF starts the worker thread "CefWorkerThread", which
//   prepares the engine and pumps it about once a millisecond until StopCEF.
//
// Lock order: m_ClientMutex first, then the client's own locks.
#pragma once

#include "engine/BrowserCallbacks.h"
#include "platform/CNplThread.h"
#include "platform/CNplThreadCondition.h"
#include "platform/CNplThreadMutex.h"

#include <atomic>
#include <pthread.h>
#include <string>

namespace SLF_ChromiumEmbeddedFramework {

class CBrowserApp;
class CBrowserClient;

class CBrowserWrapper {
public:
    CBrowserWrapper();
    virtual ~CBrowserWrapper();
    CBrowserWrapper(const CBrowserWrapper&) = delete;
    CBrowserWrapper& operator=(const CBrowserWrapper&) = delete;

    // ---- threaded mode ------------------------------------------------------------
    // True when the engine is up. Waits up to 2000 ms for the worker's start.
    // The calling thread keeps the start lock afterwards, so only the thread
    // that first started the engine may start it again after StopCEF.
    bool StartCEF();
    // Stops the worker (bounded wait of 2000 ms) and destroys the client.
    void StopCEF();

    // ---- hosted mode (and used by the worker) -------------------------------------
    void CreateBrowserClientApplication();
    void DeleteBrowserClientApplication();
    // Initialises the engine on the calling thread; true when it started.
    bool PrepareCEFThread();
    // One pump pass (when a browser exists); called on the preparing thread.
    // False when there was nothing to pump (no client, engine down, or no
    // browser).
    bool ProcessCEFThread();
    // When the engine wants its next pass (microseconds of CLOCK_MONOTONIC),
    // -1 for no particular time; called on the preparing thread.
    int64_t GetNextPumpTime();
    void CleanupCEFThread();
    // The engine was started successfully and not cleaned up since.
    bool IsCefInitialized() const { return m_bCefInitialized; }

    // The executable the engine's helper processes are looked up as: the
    // running executable's folder joined with "StreamloftCEFOverlayHelper".
    std::string GetAuxiliaryExecutablePath();
    static std::string GetAuxiliaryExecutablePathForExecutable(const std::string& executablePath);

    // ---- forwarding (no-client results: -1, false, 0, "", nothing) ---------------
    // The last argument is carried for callers' compatibility and not used.
    int StartBrowser(std::string url, unsigned int width, unsigned int height, unsigned int frameRate,
                     SLFCefVideoFrameCallbackType frameCallback, SLFCefAudioCallbackType audioCallback,
                     void* callbackContext, CAccessHandlingForRequestSettings* accessSettings,
                     SLFCefURLChangeCallbackType urlChangeCallback, bool unused);
    void PauseBrowser(int id);
    void ResumeBrowser(int id);
    void StopBrowser(int id);
    void EnableReceivingFrames(int id, bool enable);
    void SetRenderSize(int id, unsigned int width, unsigned int height);
    void RefreshBrowser(int id);
    void ReloadBrowser(int id);
    std::string GetUrl(int id);
    int GetRenderProcessId(int id);
    void ExecuteJavaScript(int id, std::string script);

    // ---- page round trips through the URL fragment (about 1 s at most) -------------
    std::string TinyMce_GetHtmlText(int id, bool decode, bool runScript);
    int TinyMce_GetHtmlTextWidth(int id);
    int TinyMce_GetHtmlTextHeight(int id);
    std::string CustomOverlays_GetSettings(int id, bool decode);

    // ---- input ----------------------------------------------------------------------
    bool EventMouseDown(int id, int button, int x, int y, bool doubleClick);
    bool EventMouseUp(int id, int button, int x, int y);
    // The client's cursor type as a bool: true for any cursor but the pointer.
    bool EventMouseMove(int id, int x, int y);
    bool EventMouseWheelScrollUp(int id, int x, int y);
    bool EventMouseWheelScrollDown(int id, int x, int y);
    bool EventMouseWheelScrollLeft(int id, int x, int y);
    bool EventMouseWheelScrollRight(int id, int x, int y);
    bool EventKeyDown(int id, bool rawKeyDown, int key);
    bool EventKeyUp(int id, int key);
    bool EventKey(int id, bool rawKeyDown, bool keyUp, bool isSystemKey, int nativeKeyCode, int windowsKeyCode,
                  unsigned int modifiers);

    // For tests: the client, or null.
    CBrowserClient* GetBrowserClient() { return m_pBrowserClient; }

private:
    static void* ThreadProcStatic(void* argument);
    void ThreadProc();
    // Runs the script (when given), waits up to 1 s for the URL to change,
    // and puts the URL text after the key into value; false when the URL
    // holds no key.
    bool RoundTrip(int id, const char* script, const char* key, std::string& value);

    // Written by the pump thread, read by callers without a lock.
    std::atomic<bool> m_bCefInitialized;
    CBrowserApp* m_pBrowserApp;
    CBrowserClient* m_pBrowserClient;
    // Lock order 1 (outermost): guards m_pBrowserClient; held across every
    // forwarded call. Recursive.
    CNplThreadMutex m_ClientMutex;
    CNplThread m_CefThread;
    // The start hand-shake. Recursive; StartCEF leaves it locked by the
    // starting thread (see StartCEF). Taken by nothing else.
    CNplThreadMutex m_StartMutex;
    CNplThreadCondition m_StartCondition;
    // How often the starting thread holds m_StartMutex, so that the
    // destructor can give it back before the mutex is destroyed.
    int m_nStartMutexHeld;
    pthread_t m_StartMutexOwner;
};

} // namespace SLF_ChromiumEmbeddedFramework
