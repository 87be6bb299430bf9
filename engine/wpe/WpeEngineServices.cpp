#include "engine/wpe/WpeEngineServices.h"

#include "dbg/NSLog.h"
#include "engine/CBrowserApp.h"
#include "engine/wpe/WpeAudioServer.h"
#include "engine/wpe/WpeAudioWire.h"
#include "engine/wpe/WpeResourceChannel.h"
#include "engine/wpe/WpeResourceServer.h"
#include "engine/wpe/WpeSandbox.h"

#include <wpe/webkit.h>

#include <unistd.h>

namespace SLF_ChromiumEmbeddedFramework {

WpeEngineServices::WpeEngineServices() = default;

WpeEngineServices::~WpeEngineServices()
{
    StopWebProcessServices();
    for (auto& entry : m_ExtraInitValues)
        g_variant_unref(entry.second);
}

// ---- start and stop ----------------------------------------------------------

void WpeEngineServices::StartWebProcessServices(const char* owner, const std::string& pluginFolder,
                                                bool sandboxedInDocker)
{
    // Web processes run in WebKit's bubblewrap sandbox where the machine
    // can make its namespaces. Sandboxed, they have a network namespace of
    // their own, so the resource and audio threads listen on path sockets
    // in a private folder that the sandbox shows them; otherwise on
    // abstract addresses unique to this process.
    std::string why;
    m_bSandboxed = WpeSandboxWorksHere(why, sandboxedInDocker);
    std::string socketBase;
    if (m_bSandboxed && (socketBase = MakeEngineSocketFolder(why)).empty())
        m_bSandboxed = false;
    if (m_bSandboxed)
        m_strSocketFolder = socketBase;
    else
        NSLog("%s - web processes run without a sandbox: %s", owner, why.c_str());
    if (socketBase.empty()) {
        gchar* token = g_uuid_string_random();
        socketBase = "@slf-engine-" + std::to_string(getpid()) + "-" + token;
        g_free(token);
    }

    // Resource requests of every page are offered to the clients through
    // the resource thread; the web processes learn its socket.
    m_pResourceServer = std::make_unique<WpeResourceServer>(*this);
    if (m_pResourceServer->Start(socketBase + "/resources")) {
        SetExtensionInitValue(kResourceSocketKey, g_variant_new_string(m_pResourceServer->GetSocketPath().c_str()));
    } else {
        NSLog("%s - resource requests go unchecked: the resource thread did not start", owner);
        m_pResourceServer.reset();
    }

    // Page audio: the web processes find our sink through the plugin path
    // and its way back to the service through the environment.
    m_pAudioServer = std::make_unique<WpeAudioServer>(*this);
    const std::string audioSocket = socketBase + "/audio";
    if (m_pAudioServer->Start(audioSocket)) {
        g_setenv(kAudioSocketVariable, audioSocket.c_str(), TRUE);
        std::string pluginPath = pluginFolder;
        if (const char* existing = g_getenv("GST_PLUGIN_PATH"); existing && *existing)
            pluginPath += std::string(":") + existing;
        g_setenv("GST_PLUGIN_PATH", pluginPath.c_str(), TRUE);
    } else {
        NSLog("%s - page audio is not delivered: the audio thread did not start", owner);
        m_pAudioServer.reset();
    }
}

void WpeEngineServices::ApplyWebProcessServices(WebKitWebContext* context, const std::vector<std::string>& sandboxPaths)
{
    webkit_web_context_set_sandbox_enabled(context, m_bSandboxed);
    if (m_bSandboxed) {
        // What our web processes load and reach from inside the sandbox,
        // read-only: the module, the audio sink and the sockets.
        for (const std::string& path : sandboxPaths)
            webkit_web_context_add_path_to_sandbox(context, path.c_str(), TRUE);
        webkit_web_context_add_path_to_sandbox(context, m_strSocketFolder.c_str(), TRUE);
    }
    if (m_pResourceServer) {
        webkit_web_context_register_uri_scheme(context, kResourceScheme, SchemeRequestThunk, this, nullptr);
        WebKitSecurityManager* security = webkit_web_context_get_security_manager(context);
        // Taken-over requests of any page (also https pages, also fetches)
        // may load from the internal scheme.
        webkit_security_manager_register_uri_scheme_as_secure(security, kResourceScheme);
        webkit_security_manager_register_uri_scheme_as_cors_enabled(security, kResourceScheme);
    }
}

void WpeEngineServices::StopWebProcessServices()
{
    if (m_pResourceServer)
        m_pResourceServer->Stop();
    if (m_pAudioServer)
        m_pAudioServer->Stop();
    RemoveEngineSocketFolder();
}

void WpeEngineServices::SchemeRequestThunk(WebKitURISchemeRequest* request, gpointer self)
{
    auto* services = static_cast<WpeEngineServices*>(self);
    if (services->m_pResourceServer) {
        services->m_pResourceServer->OnSchemeRequest(request);
    } else {
        GError* error = g_error_new_literal(G_IO_ERROR, G_IO_ERROR_NOT_FOUND, "no resource thread");
        webkit_uri_scheme_request_finish_error(request, error);
        g_error_free(error);
    }
}

// ---- the module's initialisation data ------------------------------------------

void WpeEngineServices::SetExtensionInitValue(const std::string& key, GVariant* value)
{
    if (!value)
        return;
    g_variant_ref_sink(value);
    for (auto& entry : m_ExtraInitValues) {
        if (entry.first == key) {
            g_variant_unref(entry.second);
            entry.second = value;
            return;
        }
    }
    m_ExtraInitValues.emplace_back(key, value);
}

GVariant* WpeEngineServices::AddExtensionInitValues(GVariant* data) const
{
    if (m_ExtraInitValues.empty())
        return data;
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE_VARDICT);
    GVariantIter iter;
    g_variant_iter_init(&iter, data);
    const gchar* key = nullptr;
    GVariant* value = nullptr;
    while (g_variant_iter_next(&iter, "{&sv}", &key, &value)) {
        g_variant_builder_add(&builder, "{sv}", key, value);
        g_variant_unref(value);
    }
    for (const auto& entry : m_ExtraInitValues)
        g_variant_builder_add(&builder, "{sv}", entry.first.c_str(), entry.second);
    g_variant_unref(g_variant_ref_sink(data));
    return g_variant_builder_end(&builder);
}

// ---- pages and processes; any thread, under m_PageMutex ------------------

std::shared_ptr<WpeServedView> WpeEngineServices::FindViewForPage(uint64_t pageId)
{
    std::lock_guard<std::mutex> lock(m_PageMutex);
    auto found = m_Pages.find(pageId);
    return found == m_Pages.end() ? nullptr : found->second.lock();
}

void WpeEngineServices::RegisterPage(uint64_t pageId, const std::shared_ptr<WpeServedView>& view)
{
    std::lock_guard<std::mutex> lock(m_PageMutex);
    m_Pages[pageId] = view;
}

void WpeEngineServices::UnregisterPage(uint64_t pageId)
{
    std::lock_guard<std::mutex> lock(m_PageMutex);
    m_Pages.erase(pageId);
}

void WpeEngineServices::ForgetServedPage(const WpeServedView* view, uint64_t& pageId, OpenSchemeRequests& openRequests,
                                         bool cancelHandlers)
{
    if (pageId)
        UnregisterPage(pageId);
    pageId = 0;
    UnregisterProcessesOf(view);
    std::vector<EngineResourceHandler*> handlers;
    for (auto& open : openRequests) {
        GError* error = g_error_new_literal(G_IO_ERROR, G_IO_ERROR_CANCELLED, "the browser closed");
        webkit_uri_scheme_request_finish_error(open.first, error);
        g_error_free(error);
        g_object_unref(open.first);
        if (open.second)
            handlers.push_back(open.second);
    }
    openRequests.clear();
    if (!handlers.empty() && cancelHandlers && m_pResourceServer)
        m_pResourceServer->CancelRequests(handlers);
}

std::shared_ptr<WpeServedView> WpeEngineServices::FindViewForProcess(int pid)
{
    std::lock_guard<std::mutex> lock(m_PageMutex);
    auto found = m_Processes.find(pid);
    return found == m_Processes.end() ? nullptr : found->second.lock();
}

void WpeEngineServices::ClaimPageFromView(uint64_t token, const std::shared_ptr<WpeServedView>& view)
{
    int claimed = 0;
    {
        std::lock_guard<std::mutex> lock(m_PageMutex);
        if ((claimed = m_Claims.FromView(token, view))) {
            m_Processes[claimed] = view;
            m_ProcessViews.emplace(claimed, view.get());
        }
    }
    // Questions of that process may have been waiting for this claim.
    if (claimed && m_pResourceServer)
        m_pResourceServer->PagesChanged();
}

bool WpeEngineServices::ClaimPageFromProcess(uint64_t token, int pid, int* holder)
{
    bool complete = false;
    {
        std::lock_guard<std::mutex> lock(m_PageMutex);
        std::shared_ptr<WpeServedView> view;
        if (!m_Claims.FromProcess(token, pid, &view)) {
            *holder = m_Claims.HolderOf(token);
            return false;
        }
        if (view) {
            m_Processes[pid] = view;
            m_ProcessViews.emplace(pid, view.get());
            complete = true;
        }
    }
    if (complete && m_pResourceServer)
        m_pResourceServer->PagesChanged();
    return true;
}

void WpeEngineServices::CorrectProcessId(const WpeServedView& view, EngineProcessMessage& message)
{
    if (!m_bSandboxed || message.GetName() != kResponseGetRenderProcessId || !message.HasArgumentList() ||
        message.GetArgumentList().empty() || !std::holds_alternative<int>(message.GetArgumentList()[0]))
        return;
    std::lock_guard<std::mutex> lock(m_PageMutex);
    // After a process swap the view's older process may still be known:
    // the one that claimed its newest page shows it.
    if (const int pid = m_Claims.ProcessOf(&view)) {
        message.GetArgumentList()[0] = pid;
        return;
    }
    for (const auto& [pid, known] : m_Processes) {
        if (known.lock().get() == &view)
            message.GetArgumentList()[0] = pid;
    }
}

std::vector<int> WpeEngineServices::UnregisterProcessesOf(const WpeServedView* view)
{
    std::vector<int> pids;
    {
        std::lock_guard<std::mutex> lock(m_PageMutex);
        std::erase_if(m_Processes, [view, &pids](const auto& entry) {
            auto known = entry.second.lock();
            if (known && known.get() == view)
                pids.push_back(entry.first);
            return !known || known.get() == view;
        });
        std::erase_if(m_ProcessViews, [view](const auto& entry) { return entry.second == view; });
        m_Claims.Forget(view);
    }
    if (m_pResourceServer)
        m_pResourceServer->PagesChanged();
    return pids;
}

bool WpeEngineServices::ProcessShowsPage(int pid, uint64_t pageId)
{
    std::lock_guard<std::mutex> lock(m_PageMutex);
    auto page = m_Pages.find(pageId);
    const std::shared_ptr<WpeServedView> view = page == m_Pages.end() ? nullptr : page->second.lock();
    return view && m_ProcessViews.count({pid, view.get()}) != 0;
}

} // namespace SLF_ChromiumEmbeddedFramework
