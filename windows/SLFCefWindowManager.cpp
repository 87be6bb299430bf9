#include "windows/SLFCefWindowManager.h"

#include "dbg/NSLog.h"
#include "engine/BrowserCallbacks.h"
#include "engine/CBrowserWrapper.h"
#include "windows/SLFCefMainThread.h"

#include <cmath>
#include <limits>

using SLF_ChromiumEmbeddedFramework::CBrowserWrapper;

namespace {

// Truncation toward zero into the engine's unsigned pixel and frame counts.
// Values the engine cannot take (not a number, negative, too large) are
// clamped instead of overflowing.
unsigned int TruncatedToUnsigned(double value)
{
    if (!(value > 0))
        return 0;
    if (value >= static_cast<double>(std::numeric_limits<unsigned int>::max()))
        return std::numeric_limits<unsigned int>::max();
    return static_cast<unsigned int>(value);
}

} // namespace

std::shared_ptr<SLFCefWindowManager> SLFCefWindowManager::sharedManager()
{
    static std::once_flag once;
    // Deliberately never released: the engine must not be torn down by static
    // destruction at exit, when no main loop runs any more.
    static std::shared_ptr<SLFCefWindowManager>* shared = nullptr;
    std::call_once(once, [] { shared = new std::shared_ptr<SLFCefWindowManager>(new SLFCefWindowManager()); });
    return *shared;
}

SLFCefWindowManager::SLFCefWindowManager() = default;

SLFCefWindowManager::~SLFCefWindowManager()
{
    shutdownBrowser();
}

SLFCefWindowRepresentationRef
SLFCefWindowManager::startBrowserWithURL(const std::string& url, NSSize size, double framerate,
                                         const std::vector<std::string>& permittedFileURLStrings)
{
    if (numberOfOpenBrowserWindows() == 0)
        ensureBrowserIsRunnning();

    // Every request gets a browser of its own, so no lookup by
    // uniqueLookupKey feeds this candidate and the branch is never taken.
    SLFCefWindowRepresentationRef existing;
    if (existing) {
        NSLog("%s - requested browser for url that is already in use: %s",
              "-[SLFCefWindowManager startBrowserWithURL:size:framerate:permittedFileURLStrings:]", url.c_str());
        return nullptr;
    }

    auto representation = std::make_shared<SLFCefWindowRepresentation>();
    representation->setUrl(url);
    representation->setSize(size);
    representation->setFramerate(framerate);
    representation->setPermittedFileURLStrings(permittedFileURLStrings);

    int browserID = -1;
    beginStart();
    SLF_ChromiumEmbeddedFramework::CAccessHandlingForRequestSettings accessHandling;
    accessHandling.handleRequestURL = SLFCefHandleRequestURL;
    accessHandling.getResponseHeadersForURL = SLFCefGetResponseHeadersForURL;
    accessHandling.accessControlEnabled = true;
    if (CBrowserWrapper* wrapper = _browserWrapper.load()) {
        // The representation goes in unretained: the registry keeps it alive.
        browserID = wrapper->StartBrowser(url, TruncatedToUnsigned(size.width), TruncatedToUnsigned(size.height),
                                          TruncatedToUnsigned(framerate), SLFCefVideoFrameCallback, SLFCefAudioCallback,
                                          representation.get(), &accessHandling, nullptr, false);
        if (browserID >= 0)
            wrapper->EnableReceivingFrames(browserID, true);
    }
    endStart();
    representation->setBrowserID(browserID);
    registerWindowRepresentation(representation);
    return representation;
}

SLFCefWindowRepresentationRef SLFCefWindowManager::updateBrowserWithID(int browserID, NSSize size)
{
    SLFCefWindowRepresentationRef representation = windowRepresentationWithID(browserID);
    // Remember the flag and raise it in one step, so that of two concurrent
    // updates only the first goes ahead.
    bool wasUpdating = representation ? representation->exchangeUpdating(true) : false;
    CBrowserWrapper* wrapper = _browserWrapper.load();
    if (wrapper && browserID >= 0 && !wasUpdating) {
        // Frames stay off while the size changes, so that no image of the
        // old size meets a representation of the new one.
        wrapper->EnableReceivingFrames(browserID, false);
        if (representation)
            representation->setSize(size);
        wrapper->SetRenderSize(browserID, TruncatedToUnsigned(size.width), TruncatedToUnsigned(size.height));
        wrapper->EnableReceivingFrames(browserID, true);
        if (representation)
            representation->setUpdating(false);
    }
    // Without an engine the flag stays raised: later updates are refused too.
    return representation;
}

SLFCefWindowRepresentationRef SLFCefWindowManager::stopBrowserWithID(int browserID)
{
    SLFCefWindowRepresentationRef representation = windowRepresentationWithID(browserID);
    CBrowserWrapper* wrapper = _browserWrapper.load();
    if (wrapper && browserID >= 0) {
        wrapper->EnableReceivingFrames(browserID, false);
        // The stop waits for the browser's running callbacks; a settings
        // fetch among them gives up instead of polling on.
        if (representation)
            representation->endSettingsWaits();
        wrapper->StopBrowser(browserID);
    }
    unregisterWindowRepresentation(representation);
    // The engine keeps running after the last browser has gone.
    (void)numberOfOpenBrowserWindows();
    return representation;
}

int64_t SLFCefWindowManager::numberOfOpenBrowserWindows() const
{
    std::lock_guard<std::recursive_mutex> guard(m_registryLock);
    return static_cast<int64_t>(browserWindowRepresentationByBrowserID.size());
}

void SLFCefWindowManager::registerWindowRepresentation(const SLFCefWindowRepresentationRef& representation)
{
    if (!representation)
        return;
    int browserID = representation->browserID();
    if (browserID <= -1)
        return;
    std::lock_guard<std::recursive_mutex> guard(m_registryLock);
    browserWindowRepresentationByBrowserID[browserID] = representation;
}

void SLFCefWindowManager::unregisterWindowRepresentation(const SLFCefWindowRepresentationRef& representation)
{
    if (!representation)
        return;
    int browserID = representation->browserID();
    if (browserID <= -1)
        return;
    SLFCefWindowRepresentationRef removed;
    {
        std::lock_guard<std::recursive_mutex> guard(m_registryLock);
        auto entry = browserWindowRepresentationByBrowserID.find(browserID);
        if (entry == browserWindowRepresentationByBrowserID.end())
            return;
        // Released after the lock: the last reference may go here.
        removed = std::move(entry->second);
        browserWindowRepresentationByBrowserID.erase(entry);
    }
}

SLFCefWindowRepresentationRef SLFCefWindowManager::windowRepresentationWithID(int browserID) const
{
    std::lock_guard<std::recursive_mutex> guard(m_registryLock);
    auto entry = browserWindowRepresentationByBrowserID.find(browserID);
    return entry == browserWindowRepresentationByBrowserID.end() ? nullptr : entry->second;
}

void SLFCefWindowManager::ensureBrowserIsRunnning()
{
    SLFCefRunOnMainAndWait([this] {
        if (_browserWrapper.load())
            return;
        auto* wrapper = new CBrowserWrapper();
        wrapper->CreateBrowserClientApplication();
        // The engine starts here, on the main thread, which thereby becomes
        // the thread that pumps it.
        bool started = wrapper->PrepareCEFThread();
        if (!started) {
            // Retried by the next open request while no browser is registered.
            delete wrapper;
            return;
        }
        _browserWrapper.store(wrapper);
        GSource* timer = SLFCefPeriodicSourceNew(kPumpPeriodNanoseconds);
        if (timer) {
            g_source_set_priority(timer, G_PRIORITY_DEFAULT);
            g_source_set_callback(timer, pumpEngineThunk, this, nullptr);
            g_source_attach(timer, g_main_context_default());
        }
        GSource* deadline = SLFCefDeadlineSourceNew();
        if (deadline) {
            g_source_set_priority(deadline, G_PRIORITY_DEFAULT);
            g_source_set_callback(deadline, pumpDeadlineThunk, this, nullptr);
            g_source_attach(deadline, g_main_context_default());
        }
        m_pumpDeadlineSource = deadline;
        m_pumpDeadline = -1;
        std::lock_guard<std::mutex> pumpGuard(m_pumpLock); // leaf lock
        browserProccessTimer = timer;
        m_pumpRunning = timer != nullptr;
    });
}

void SLFCefWindowManager::shutdownBrowser()
{
    // Nothing runs without a wrapper (the timer exists only with one): no
    // need to wait for the main thread.
    if (!_browserWrapper.load())
        return;
    SLFCefRunOnMainAndWait([this] {
        GSource* timer = nullptr;
        {
            std::lock_guard<std::mutex> pumpGuard(m_pumpLock); // leaf lock
            timer = browserProccessTimer;
            browserProccessTimer = nullptr;
            m_pumpRunning = false;
        }
        for (GSource* source : {timer, m_pumpDeadlineSource}) {
            if (source) {
                g_source_destroy(source);
                g_source_unref(source);
            }
        }
        m_pumpDeadlineSource = nullptr;
        m_pumpDeadline = -1;
        if (CBrowserWrapper* wrapper = _browserWrapper.exchange(nullptr)) {
            wrapper->DeleteBrowserClientApplication();
            delete wrapper;
        }
    });
}

gboolean SLFCefWindowManager::pumpEngineThunk(gpointer manager)
{
    static_cast<SLFCefWindowManager*>(manager)->pumpEngine();
    return G_SOURCE_CONTINUE;
}

gboolean SLFCefWindowManager::pumpDeadlineThunk(gpointer manager)
{
    auto* self = static_cast<SLFCefWindowManager*>(manager);
    // The deadline has fired and is disarmed now.
    self->m_pumpDeadline = -1;
    self->pumpEngine();
    return G_SOURCE_CONTINUE;
}

void SLFCefWindowManager::pumpEngine()
{
    CBrowserWrapper* wrapper = _browserWrapper.load();
    if (!wrapper)
        return;
    uint64_t finishedBefore = 0;
    {
        std::lock_guard<std::mutex> pumpGuard(m_pumpLock); // leaf lock
        finishedBefore = m_startsFinished;
    }
    const bool busy = wrapper->ProcessCEFThread();
    // A frame due before the next regular pass gets a pass of its own at its
    // time, so that it is not up to one pump period late.
    const int64_t due = busy ? wrapper->GetNextPumpTime() : -1;
    if (due != m_pumpDeadline) {
        SLFCefDeadlineSourceSetDeadline(m_pumpDeadlineSource, due);
        m_pumpDeadline = due;
    }
    if (busy)
        return;
    // No browser: the pass did nothing, and no pass will do anything until
    // the next start, which restarts the timer.
    std::lock_guard<std::mutex> pumpGuard(m_pumpLock); // leaf lock
    if (m_pumpRunning && m_startsInFlight == 0 && m_startsFinished == finishedBefore) {
        SLFCefPeriodicSourceSetPeriod(browserProccessTimer, 0);
        m_pumpRunning = false;
    }
}

void SLFCefWindowManager::beginStart()
{
    std::lock_guard<std::mutex> pumpGuard(m_pumpLock); // leaf lock
    ++m_startsInFlight;
    if (!m_pumpRunning && browserProccessTimer) {
        SLFCefPeriodicSourceSetPeriod(browserProccessTimer, kPumpPeriodNanoseconds);
        m_pumpRunning = true;
    }
}

void SLFCefWindowManager::endStart()
{
    std::lock_guard<std::mutex> pumpGuard(m_pumpLock); // leaf lock
    --m_startsInFlight;
    ++m_startsFinished;
}

bool SLFCefWindowManager::isPumpRunning() const
{
    std::lock_guard<std::mutex> pumpGuard(m_pumpLock); // leaf lock
    return m_pumpRunning;
}

bool SLFCefWindowManager::isEngineRunning() const
{
    return _browserWrapper.load() != nullptr;
}
