// The engine's client: initialises and shuts the engine down, keeps one
// CBrowser record per off-screen browser, creates and closes browsers with a
// hand-shake against the engine's life-span notifications, pumps the engine's
// message loop when asked, and is every handler the engine calls back:
// render (frames, view size, cursor), life span, load, audio, script dialogs
// and process messages. It is also the request handler and the one resource
// handler of every browser: it decides per request whether the service side
// answers it (CBrowserClientResources.cpp).
//
// Threads: the wrapper calls the operations under its client lock from the
// owner's threads. Render, life-span and load handlers arrive on the pump
// thread inside ProcessBrowser; audio handlers on the port's own threads.
//
// Lock order: CBrowserWrapper::m_ClientMutex, then m_CefStateMutex, then
// m_BrowsersMutex, then m_ServiceCallMutex; m_RequestBrowsersMutex is a leaf.
// Callbacks into the service (frames, audio, URL change) run under
// m_BrowsersMutex and must not call back into the engine. The resource
// callbacks run without it, counted per browser, and StopBrowser returns only
// once the browser's count is back to zero.
#pragma once

#include "engine/BrowserCallbacks.h"
#include "engine/CBrowser.h"
#include "engine/port/EnginePort.h"
#include "platform/CNplThreadCondition.h"
#include "platform/CNplThreadMutex.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace SLF_ChromiumEmbeddedFramework {

class CBrowserApp;

class CBrowserClient : public EngineClient,
                       public EngineAudioHandler,
                       public EngineRenderHandler,
                       public EngineLifeSpanHandler,
                       public EngineLoadHandler,
                       public EngineJSDialogHandler,
                       public EngineRequestHandler,
                       public EngineResourceHandler {
public:
    CBrowserClient();
    ~CBrowserClient() override;
    CBrowserClient(const CBrowserClient&) = delete;
    CBrowserClient& operator=(const CBrowserClient&) = delete;

    // ---- engine lifecycle (pump thread) ----------------------------------
    // Initialises the engine through the installed port; false when there is
    // no port or the engine refused. A second call after success is true.
    bool StartCEF(CBrowserApp* app, const std::string& subprocessPath);
    void StopCEF();
    // One pass of the engine's message loop, only while the engine runs and
    // at least one browser record exists; true when a pass ran.
    bool ProcessBrowser();
    // When the engine next wants a pass (microseconds of CLOCK_MONOTONIC),
    // -1 for no particular time; pump thread only.
    int64_t GetNextPumpTime();
    bool IsCefInitialized();

    // ---- browsers ------------------------------------------------------------
    // The new browser's ID, or -1: empty URL, engine not running, or the
    // engine did not report the browser within 2000 ms. Calls must not
    // overlap (the wrapper's lock serialises them).
    int StartBrowser(std::string url, int frameRate, unsigned int width, unsigned int height,
                     SLFCefVideoFrameCallbackType frameCallback, SLFCefAudioCallbackType audioCallback,
                     SLFCefURLChangeCallbackType urlChangeCallback, void* callbackContext,
                     const CAccessHandlingForRequestSettings* accessSettings);
    // Forced close, then a wait of up to 2000 ms for the engine's notice.
    // The browser's resource and URL-change callbacks are not called from
    // the close on (its requests are refused), and a resource callback that
    // is running then has returned before StopBrowser does (the service side
    // ends its settings wait when it stops a browser). False only for an
    // unknown ID.
    bool StopBrowser(int id);
    void PauseBrowser(int id);
    void ResumeBrowser(int id);
    // The resume state kept per browser (true after start and ResumeBrowser).
    bool IsBrowserResumed(int id);
    bool EnableReceivingFrames(int id, bool enable);
    bool SetRenderSize(int id, unsigned int width, unsigned int height);
    bool RefreshBrowser(int id);
    // The first paint after the reload is not delivered.
    bool ReloadBrowser(int id);
    std::string GetUrl(int id);
    // 0 for an unknown browser or before the web process answered.
    int GetRenderProcessId(int id);
    void ExecuteJavaScript(int id, std::string code);

    EngineBrowserHostRef GetBrowserHost(int id);
    // A copy of the record of the browser with this engine ID.
    CBrowser GetCBrowserForCEFID(int64_t id, bool& found);
    size_t GetBrowserCount();

    // ---- input (false, or 0 for the move, when the browser is unknown) ------
    // buttonType 0 left, 1 middle, 2 right.
    bool EventMouseClick(int id, int buttonType, bool mouseUp, int x, int y, bool doubleClick);
    // Returns the last cursor type the engine reported.
    int EventMouseMove(int id, int x, int y);
    bool EventMouseWheelScroll(int id, int x, int y, int deltaX, int deltaY);
    bool EventKey(int id, bool rawKeyDown, bool keyUp, int nativeKeyCode);
    bool EventKey(int id, bool rawKeyDown, bool keyUp, bool isSystemKey, int nativeKeyCode, int windowsKeyCode,
                  unsigned int modifiers);

    // ---- EngineClient ----------------------------------------------------------
    EngineRenderHandler* GetRenderHandler() override { return this; }
    EngineLifeSpanHandler* GetLifeSpanHandler() override { return this; }
    EngineLoadHandler* GetLoadHandler() override { return this; }
    EngineAudioHandler* GetAudioHandler() override { return this; }
    EngineRequestHandler* GetRequestHandler() override { return this; }
    EngineJSDialogHandler* GetJSDialogHandler() override { return this; }
    // Stores the web process's answer to the render-process-ID question.
    bool OnProcessMessageReceived(EngineBrowserRef browser, EngineProcessMessageRef message) override;

    // ---- EngineRenderHandler ---------------------------------------------------
    bool GetViewRect(EngineBrowserRef browser, EngineRect& rect) override;
    void OnPaint(EngineBrowserRef browser, const void* buffer, int width, int height) override;
    void OnCursorChange(EngineBrowserRef browser, EngineCursorType type) override;

    // ---- EngineLifeSpanHandler -------------------------------------------------
    void OnAfterCreated(EngineBrowserRef browser) override;
    void OnBeforeClose(EngineBrowserRef browser) override;
    bool OnBeforePopup(EngineBrowserRef browser, const std::string& targetUrl) override;

    // ---- EngineLoadHandler -----------------------------------------------------
    void OnLoadStart(EngineBrowserRef browser, EngineFrameRef frame) override;
    void OnLoadEnd(EngineBrowserRef browser, EngineFrameRef frame, int httpStatusCode) override;

    // ---- EngineAudioHandler ----------------------------------------------------
    void OnAudioStreamStarted(EngineBrowserRef browser, int audioStreamId, int sampleRate, int channels,
                              int bitsPerSample, int64_t bufferDuration) override;
    void OnAudioStreamPacket(EngineBrowserRef browser, int audioStreamId, const void* data, int dataLength) override;
    void OnAudioSteamStopped(EngineBrowserRef browser, int audioStreamId) override;

    // ---- EngineJSDialogHandler -------------------------------------------------
    bool OnJSDialog(EngineBrowserRef browser, const std::string& originUrl, EngineJSDialogType type,
                    const std::string& messageText, const std::string& defaultPromptText,
                    bool& suppressMessage) override;

    // ---- EngineRequestHandler / EngineResourceHandler ---------------------------
    // GetResourceHandler may run on one thread while other threads serve
    // requests. A request is served (ProcessRequest, GetResponseHeaders,
    // ReadResponse) from start to end on one thread, and the request state
    // belongs to that thread: each serving thread serves one request at a
    // time, and a second ProcessRequest on it replaces the first.
    //
    // The client itself when it answers the request, null when the engine
    // loads it normally.
    EngineResourceHandler* GetResourceHandler(EngineBrowserRef browser, EngineFrameRef frame,
                                              EngineRequestRef request) override;
    // The browser's web-process ID is unknown again until the new process
    // answers the render-process-ID question, which is asked once more.
    void OnRenderProcessTerminated(EngineBrowserRef browser, EngineTerminationStatus status) override;
    bool ProcessRequest(EngineRequestRef request, EngineCallbackRef callback) override;
    // The redirect URL is never set.
    void GetResponseHeaders(EngineResponseRef response, int64_t& responseLength, std::string& redirectUrl) override;
    bool ReadResponse(void* dataOut, int bytesToRead, int& bytesRead, EngineCallbackRef callback) override;
    void Cancel() override;

    // Serves a text request for lastRequest from disk; true only with status 200.
    virtual bool GetFileloadResponseHeadersForLastRequest(EngineResponseRef response, int64_t& length);
    // The URL up to its last "?", without a leading "file:///".
    virtual std::string GetFilenameFromRequest(EngineRequestRef request);
    // The decoded value after "filePath=" of a text request, or "".
    virtual std::string GetFilenameFromTextRequest(EngineRequestRef request);
    // "http://streamloft/requestText?..." exactly, a "?" required.
    virtual bool IsTextRequest(EngineRequestRef request);
    virtual bool HandleAccessForRequest(EngineRequestRef request);
    // Hook for a derived client to force a request to be taken over (and a
    // text request's file to be refused); always false here.
    virtual bool ForceBlockFileAccessForURLandBrowserID(const std::string& url, int browserId);

private:
    // The request state of the calling thread for this client.
    struct RequestState {
        EngineRequestRef lastRequest;
        bool requestCancelled = false;
        std::vector<char> responseData;
    };
    RequestState& ThreadRequestState();
    // A copy of a browser's record for calls into the service side: while it
    // lives, the browser's StopBrowser does not return (unless the record was
    // closing already when it was copied, and then no call may be made).
    class RecordForServiceCall;

    // Callers hold m_BrowsersMutex. The first record with this ID, or null.
    CBrowser* FindBrowserRecord(int id);
    EngineBrowserRef GetBrowser(int id);

    // Lock order 2 (after the wrapper's client lock): engine start, stop,
    // each message-loop pass, browser creation and close requests.
    // Recursive so that an engine call made under it may re-enter the client.
    CNplThreadMutex m_CefStateMutex;
    std::atomic<bool> m_bCefInitialized;
    EnginePort* m_pEnginePort;
    int m_nMouseButtonFlags;
    std::atomic<int> m_nCursorType;
    // Lock order 3: the browser list, the per-browser maps and the
    // mouse button flags. Recursive: the input operations look the host up
    // with GetBrowserHost while holding it.
    CNplThreadMutex m_BrowsersMutex;
    std::list<CBrowser> m_Browsers;
    // Signalled by OnAfterCreated / OnBeforeClose. The waits use a mutex of
    // their own call, so a signal given before a wait begins is lost and the
    // wait runs its full time.
    CNplThreadCondition m_CreatedCondition;
    CNplThreadCondition m_ClosedCondition;
    std::map<int, bool> m_mapResume;
    // Browsers asked for their web process's ID; only their answers are taken.
    std::map<int, bool> m_mapRenderProcessIdRequested;

    // Tells this client's per-thread request state from other clients'.
    const uint64_t m_nInstance;
    // Lock order 4 (after m_BrowsersMutex, a leaf): browser ID -> resource
    // callbacks into the service side running now.
    std::mutex m_ServiceCallMutex;
    std::condition_variable m_ServiceCallsEnded;
    std::map<int, int> m_mapServiceCalls;
    // Request identifier -> the browser that issued it, from
    // GetResourceHandler until the response headers were produced. Under
    // m_RequestBrowsersMutex (a leaf lock; nothing is called while held).
    std::mutex m_RequestBrowsersMutex;
    std::map<uint64_t, EngineBrowserRef> m_requestBrowsers;
    EngineBrowserRef RequestBrowser(uint64_t requestId);
};

} // namespace SLF_ChromiumEmbeddedFramework
