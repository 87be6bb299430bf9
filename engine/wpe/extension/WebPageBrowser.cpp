#include "engine/wpe/extension/WebPageBrowser.h"

#include "engine/wpe/WpeVariantCodec.h"

#include <wpe/webkit-web-extension.h>

namespace SLF_ChromiumEmbeddedFramework {

WebPageBrowser::WebPageBrowser(WebKitWebPage* page)
    : m_pPage(page),
      m_nId(static_cast<int>(webkit_web_page_get_id(page)))
{
    g_object_weak_ref(G_OBJECT(m_pPage), PageGone, this);
}

WebPageBrowser::~WebPageBrowser()
{
    if (m_pPage)
        g_object_weak_unref(G_OBJECT(m_pPage), PageGone, this);
}

void WebPageBrowser::PageGone(gpointer self, GObject*)
{
    static_cast<WebPageBrowser*>(self)->m_pPage = nullptr;
}

void WebPageBrowser::Reload()
{
    ExecuteJavaScript("location.reload()", std::string(), 0);
}

void WebPageBrowser::SendProcessMessage(const EngineProcessMessageRef& message)
{
    if (!m_pPage || !message)
        return;
    GVariant* parameters = ProcessMessageArgumentsToVariant(*message);
    WebKitUserMessage* userMessage = webkit_user_message_new(message->GetName().c_str(), parameters);
    webkit_web_page_send_message_to_view(m_pPage, userMessage, nullptr, nullptr, nullptr);
}

std::string WebPageBrowser::GetURL()
{
    const char* uri = m_pPage ? webkit_web_page_get_uri(m_pPage) : nullptr;
    return uri ? uri : "";
}

void WebPageBrowser::ExecuteJavaScript(const std::string& code, const std::string&, int)
{
    if (!m_pPage)
        return;
    WebKitFrame* frame = webkit_web_page_get_main_frame(m_pPage);
    if (!frame)
        return;
    JSCContext* context = webkit_frame_get_js_context(frame);
    if (!context)
        return;
    JSCValue* result = jsc_context_evaluate(context, code.c_str(), static_cast<gssize>(code.size()));
    if (result)
        g_object_unref(result);
    g_object_unref(context);
}

} // namespace SLF_ChromiumEmbeddedFramework
