// The module every web process of the engine loads. It reads the command
// line the service made for the process, creates the application object and
// hands each message from the service to its render-process handler, with
// the page the message is for as the browser.

#include "engine/port/EnginePort.h"
#include "engine/wpe/WpeVariantCodec.h"
#include "engine/wpe/extension/WebPageBrowser.h"
#include "engine/wpe/extension/WebProcessApp.h"
#include "engine/wpe/extension/WebResourceFilter.h"
#include "engine/wpe/WpeAudioWire.h"
#include "engine/wpe/WpeResourceChannel.h"

#include <wpe/webkit-web-extension.h>

#include <sys/random.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>

using namespace SLF_ChromiumEmbeddedFramework;

namespace {

struct WebProcessState {
    std::unique_ptr<EngineApp> app;
    EngineCommandLine switches;
    // Pages by their identifier; an entry goes with its page.
    std::map<guint64, std::shared_ptr<WebPageBrowser>> pages;
    // Present when the service offers resource requests to its clients.
    std::unique_ptr<WebResourceFilter> resourceFilter;
    // The connection to the service's audio thread that carries the page
    // claims; -1 until the first page.
    int claimFd = -1;
};

WebProcessState* g_pState = nullptr;

gboolean OnPageMessage(WebKitWebPage* page, WebKitUserMessage* userMessage, gpointer)
{
    if (!g_pState || !g_pState->app)
        return FALSE;
    EngineRenderProcessHandler* handler = g_pState->app->GetRenderProcessHandler();
    if (!handler)
        return FALSE;
    auto found = g_pState->pages.find(webkit_web_page_get_id(page));
    if (found == g_pState->pages.end())
        return FALSE;

    const char* name = webkit_user_message_get_name(userMessage);
    std::string error;
    EngineProcessMessageRef message =
        ProcessMessageFromVariant(name ? name : "", webkit_user_message_get_parameters(userMessage), error);
    if (!message) {
        std::fprintf(stderr, "slf web process %d: message dropped: %s\n", static_cast<int>(getpid()), error.c_str());
        return TRUE;
    }
    return handler->OnProcessMessageReceived(found->second, message) ? TRUE : FALSE;
}

void OnPageGone(gpointer id, GObject*)
{
    if (g_pState)
        g_pState->pages.erase(*static_cast<guint64*>(id));
    delete static_cast<guint64*>(id);
}

// The service learns which process shows the page, to find the browser that
// this process's audio belongs to (also after a process swap): one random
// token goes to the page's view and, over the audio socket, to the audio
// thread, which knows this process by the socket's credentials.
void ClaimPage(WebKitWebPage* page)
{
    guint64 token = 0;
    while (!token) {
        if (getrandom(&token, sizeof(token), 0) != static_cast<ssize_t>(sizeof(token)))
            token = (static_cast<guint64>(g_random_int()) << 32) | g_random_int();
    }
    webkit_web_page_send_message_to_view(
        page, webkit_user_message_new(kPageProcessMessage, g_variant_new("(t)", token)), nullptr, nullptr, nullptr);
    const char* socketName = std::getenv(kAudioSocketVariable);
    if (!socketName || !*socketName)
        return;
    const AudioFrameHeader header = {AUDIO_FRAME_PAGE, 0, 0, 0};
    // One retry covers a connection the service dropped in between.
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (g_pState->claimFd < 0)
            g_pState->claimFd = ConnectToUnixSocket(socketName);
        if (g_pState->claimFd >= 0 && WriteFrame(g_pState->claimFd, &header, sizeof(header), &token, sizeof(token)))
            return;
        if (g_pState->claimFd >= 0)
            close(g_pState->claimFd);
        g_pState->claimFd = -1;
    }
    std::fprintf(stderr, "slf web process %d: the service's audio thread is out of reach; page audio goes unheard\n",
                 static_cast<int>(getpid()));
}

void OnPageCreated(WebKitWebExtension*, WebKitWebPage* page, gpointer)
{
    const guint64 id = webkit_web_page_get_id(page);
    g_pState->pages[id] = std::make_shared<WebPageBrowser>(page);
    g_object_weak_ref(G_OBJECT(page), OnPageGone, new guint64(id));
    g_signal_connect(page, "user-message-received", G_CALLBACK(OnPageMessage), nullptr);
    if (g_pState->resourceFilter)
        g_pState->resourceFilter->Attach(page);
    ClaimPage(page);
}

} // namespace

extern "C" G_MODULE_EXPORT void webkit_web_extension_initialize_with_user_data(WebKitWebExtension* extension,
                                                                               const GVariant* userData)
{
    if (g_pState)
        return;
    g_pState = new WebProcessState();

    auto* initData = const_cast<GVariant*>(userData);
    ExtensionInitData data = ExtensionInitDataFromVariant(initData);
    const gchar* socketPath = nullptr;
    if (initData && g_variant_is_of_type(initData, G_VARIANT_TYPE_VARDICT) &&
        g_variant_lookup(initData, kResourceSocketKey, "&s", &socketPath))
        g_pState->resourceFilter = std::make_unique<WebResourceFilter>(socketPath);
    g_pState->switches = data.switches;
    g_pState->app = CreateWebProcessApp();
    if (g_pState->app)
        g_pState->app->OnBeforeCommandLineProcessing(data.processType.empty() ? "renderer" : data.processType,
                                                     g_pState->switches);

    g_signal_connect(extension, "page-created", G_CALLBACK(OnPageCreated), nullptr);
}
