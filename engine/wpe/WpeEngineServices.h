// What both engine ports share to keep their web processes apart and to
// hear them: the web-process sandbox, the resource and audio threads on
// sockets the web processes reach, the internal scheme of taken-over
// requests, the web-process module's initialisation data, and the record of
// which web process shows which page (page claims, checked against the
// sockets' peer credentials). WpeEnginePort (WPE WebKit) and GtkEnginePort
// (WebKitGTK) derive from it; the source is built once per port, against
// that port's WebKit headers (the calls are the same in both).
#pragma once

#include "engine/port/EnginePort.h"
#include "engine/wpe/WpePageClaims.h"
#include "engine/wpe/WpeServedView.h"

#include <glib.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

typedef struct _WebKitWebContext WebKitWebContext;
typedef struct _WebKitURISchemeRequest WebKitURISchemeRequest;

namespace SLF_ChromiumEmbeddedFramework {

class WpeResourceServer;
class WpeAudioServer;

class WpeEngineServices {
public:
    virtual ~WpeEngineServices();
    WpeEngineServices(const WpeEngineServices&) = delete;
    WpeEngineServices& operator=(const WpeEngineServices&) = delete;

    // The port's task queue (tasks run on the pump thread in order; dropped
    // after shutdown) and its engine context.
    virtual void Post(std::function<void()> task) = 0;
    virtual GMainContext* GetMainContext() const = 0;

    // Adds an entry to the web-process module's initialisation data (before
    // Initialize; the value is sunk and kept). Lets other parts of the
    // service hand their own settings to the web processes.
    void SetExtensionInitValue(const std::string& key, GVariant* value);

    // Null when resource requests are not offered to the clients.
    WpeResourceServer* GetResourceServer() const { return m_pResourceServer.get(); }
    // Null when page audio is not delivered.
    WpeAudioServer* GetAudioServer() const { return m_pAudioServer.get(); }
    // Whether the web processes run in WebKit's sandbox (decided once, at
    // Initialize: where the machine can run bubblewrap).
    bool IsSandboxed() const { return m_bSandboxed; }

    // ---- pages and processes; used by the views, the resource and the
    // audio thread, from any thread ------------------------------------------
    // The view showing a page (by WebKit's page identifier); null when none
    // does.
    std::shared_ptr<WpeServedView> FindViewForPage(uint64_t pageId);
    void RegisterPage(uint64_t pageId, const std::shared_ptr<WpeServedView>& view);
    void UnregisterPage(uint64_t pageId);
    // The view whose page a web process shows (the most recent claim wins);
    // null when none is known.
    std::shared_ptr<WpeServedView> FindViewForProcess(int pid);
    // The two halves of a page claim (see WpePageClaims): the view's, and
    // the process's with the pid from its socket's credentials. The latter
    // is false when the claim is refused; *holder then names the process
    // that holds the token (0 when the claims are full).
    void ClaimPageFromView(uint64_t token, const std::shared_ptr<WpeServedView>& view);
    bool ClaimPageFromProcess(uint64_t token, int pid, int* holder);
    // Forgets the processes known to show the view's page; returns them.
    std::vector<int> UnregisterProcessesOf(const WpeServedView* view);
    // Engine context. The view's page goes: its page and process records
    // (pageId becomes 0), and the requests it kept open, which end now; with
    // cancelHandlers their handlers hear of it on the resource thread.
    void ForgetServedPage(const WpeServedView* view, uint64_t& pageId, OpenSchemeRequests& openRequests,
                          bool cancelHandlers);
    // A sandboxed web process knows its own pid only inside its process
    // namespace: its answer to the render-process-ID question gets the pid
    // this process sees (from the page claims) when it is known.
    void CorrectProcessId(const WpeServedView& view, EngineProcessMessage& message);
    // True when the web process pid has claimed the page (every completed
    // claim counts, also one before a process swap).
    bool ProcessShowsPage(int pid, uint64_t pageId);

protected:
    WpeEngineServices();

    // At Initialize, on the pump thread, before the web context is made:
    // decides whether the web processes run in WebKit's sandbox (logged
    // once, prefixed with owner, when not), starts the resource and audio
    // threads on sockets the web processes reach, and puts pluginFolder
    // (our GStreamer sink) first on their plugin path. sandboxedInDocker:
    // the engine runs its sandbox inside Docker too (see WpeSandboxWorksHere).
    void StartWebProcessServices(const char* owner, const std::string& pluginFolder, bool sandboxedInDocker);
    // Then for the web context: the sandbox on or off, showing the web
    // processes sandboxPaths and the sockets read-only; the internal scheme
    // of taken-over requests.
    void ApplyWebProcessServices(WebKitWebContext* context, const std::vector<std::string>& sandboxPaths);
    // The module's initialisation data: data (sunk here) with the values
    // of SetExtensionInitValue added; the result is floating.
    GVariant* AddExtensionInitValues(GVariant* data) const;
    // The threads end and the socket folder goes; idempotent.
    void StopWebProcessServices();

private:
    static void SchemeRequestThunk(WebKitURISchemeRequest* request, gpointer self);

    bool m_bSandboxed = false;
    // The private folder of the sockets; empty while they are abstract.
    std::string m_strSocketFolder;
    std::unique_ptr<WpeResourceServer> m_pResourceServer;
    std::unique_ptr<WpeAudioServer> m_pAudioServer;
    std::vector<std::pair<std::string, GVariant*>> m_ExtraInitValues;

    // Views by page identifier and by web process, for the resource and
    // audio threads. Lock order: a leaf lock.
    std::mutex m_PageMutex;
    std::map<uint64_t, std::weak_ptr<WpeServedView>> m_Pages;
    std::map<int, std::weak_ptr<WpeServedView>> m_Processes;
    WpePageClaims<WpeServedView> m_Claims;
    // Every completed (process, view) claim, until the view closes.
    std::set<std::pair<int, const WpeServedView*>> m_ProcessViews;
};

} // namespace SLF_ChromiumEmbeddedFramework
