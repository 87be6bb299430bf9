// The one registry of live browsers in the process. Creates a browser for
// every open request, keeps its window representation under the browser ID,
// resizes and stops browsers, and owns the engine wrapper: the engine is
// started on the main thread on the first open request, pumped there every
// 1/600 s while it has a browser (or a start is in flight) and at the times
// the engine names in between, and shut down only when the manager itself
// goes away.
#pragma once

#include "windows/NSSize.h"
#include "windows/SLFCefWindowRepresentation.h"

#include <glib.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace SLF_ChromiumEmbeddedFramework {
class CBrowserWrapper;
}

class SLFCefWindowManager {
public:
    // The engine's pump period: 1/600 s.
    static constexpr uint64_t kPumpPeriodNanoseconds = 1666667;

    // The process's manager, made on first use and never released.
    static std::shared_ptr<SLFCefWindowManager> sharedManager();

    // Requests may be observed or replaced by a subclass (tests do).
    SLFCefWindowManager();
    // Shuts the engine down (on the main thread).
    virtual ~SLFCefWindowManager();
    SLFCefWindowManager(const SLFCefWindowManager&) = delete;
    SLFCefWindowManager& operator=(const SLFCefWindowManager&) = delete;

    // A new browser for every call, also for a URL, size and frame rate that
    // already run. The representation holds the engine's browser ID (-1 when
    // the engine could not make one; such a representation is not
    // registered).
    virtual SLFCefWindowRepresentationRef startBrowserWithURL(const std::string& url, NSSize size, double framerate,
                                                              const std::vector<std::string>& permittedFileURLStrings);
    // Null for an unknown ID (the engine is still told for IDs >= 0).
    virtual SLFCefWindowRepresentationRef updateBrowserWithID(int browserID, NSSize size);
    // The representation that was registered, or null. The engine keeps
    // running after the last browser stopped.
    virtual SLFCefWindowRepresentationRef stopBrowserWithID(int browserID);

    virtual int64_t numberOfOpenBrowserWindows() const;
    virtual void registerWindowRepresentation(const SLFCefWindowRepresentationRef& representation);
    virtual void unregisterWindowRepresentation(const SLFCefWindowRepresentationRef& representation);
    virtual SLFCefWindowRepresentationRef windowRepresentationWithID(int browserID) const;

    // Start and stop of the engine, both on the main thread; a caller on the
    // main thread runs them directly.
    void ensureBrowserIsRunnning();
    void shutdownBrowser();

    // True while the engine runs.
    bool isEngineRunning() const;
    // True while the pump timer fires: the engine runs and has a browser or
    // a start in flight. Without one the timer rests and costs nothing.
    bool isPumpRunning() const;

private:
    // Main thread: one pump pass, then the engine's next due time is set on
    // the deadline source and, when the engine had no browser and no start
    // came meanwhile, the timer rests.
    void pumpEngine();
    static gboolean pumpEngineThunk(gpointer manager);
    static gboolean pumpDeadlineThunk(gpointer manager);
    // Around a StartBrowser call: the pump runs while a start is in flight.
    void beginStart();
    void endStart();

    std::atomic<SLF_ChromiumEmbeddedFramework::CBrowserWrapper*> _browserWrapper {nullptr};
    // Guards the pump timer's state below. Lock order: a leaf lock (the
    // timer calls under it are system calls).
    mutable std::mutex m_pumpLock;
    // The pump timer; made and destroyed on the main thread, started and
    // stopped under m_pumpLock from any thread.
    GSource* browserProccessTimer = nullptr;
    bool m_pumpRunning = false;
    int m_startsInFlight = 0;
    // Counts finished starts, so that a pass that began before a start
    // ended does not stop the timer on a stale "no browser".
    uint64_t m_startsFinished = 0;
    // Main thread only: a pass at the engine's next due time between two
    // regular passes, and the time it is armed for (-1 for none).
    GSource* m_pumpDeadlineSource = nullptr;
    int64_t m_pumpDeadline = -1;
    // Guards the registry. Recursive; taken after any representation's lock
    // is released and never held across a call into the engine.
    mutable std::recursive_mutex m_registryLock;
    std::map<int, SLFCefWindowRepresentationRef> browserWindowRepresentationByBrowserID;
};
