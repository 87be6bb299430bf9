// The page's requests to the user interface, which an off-screen browser
// has none of: new windows go to the client's popup handler and are never
// made, script dialogs to its dialog handler and end unanswered, context
// and option menus are not shown, and the element under the pointer sets
// the cursor reported to the render handler.
#include "engine/gtk/GtkView.h"

#include "dbg/NSLog.h"
#include "engine/wpe/WpePageUi.h"

#include <webkit2/webkit2.h>

namespace SLF_ChromiumEmbeddedFramework {

void GtkView::ConnectUiSignals()
{
    // window.open and links to a new window (WebKit asks "create" after the
    // navigation policy allowed the new window).
    g_signal_connect(m_pView, "create",
                     G_CALLBACK(+[](WebKitWebView*, WebKitNavigationAction* action, gpointer self) -> GtkWidget* {
                         static_cast<GtkView*>(self)->OnPopupRequest(action);
                         return nullptr;
                     }),
                     this);
    g_signal_connect(m_pView, "script-dialog",
                     G_CALLBACK(+[](WebKitWebView*, WebKitScriptDialog* dialog, gpointer self) -> gboolean {
                         return static_cast<GtkView*>(self)->OnScriptDialog(dialog);
                     }),
                     this);
    // GTK would pop the menus up as windows of their own on the private
    // display, grabbing its pointer: the page still gets its contextmenu
    // event, and a <select> closes again at once (the keyboard still
    // changes its choice).
    g_signal_connect(m_pView, "context-menu",
                     G_CALLBACK(+[](WebKitWebView*, WebKitContextMenu*, GdkEvent*, WebKitHitTestResult*,
                                    gpointer) -> gboolean { return TRUE; }),
                     nullptr);
    g_signal_connect(
        m_pView, "show-option-menu",
        G_CALLBACK(+[](WebKitWebView*, WebKitOptionMenu* menu, GdkEvent*, GdkRectangle*, gpointer) -> gboolean {
            webkit_option_menu_close(menu);
            return TRUE;
        }),
        nullptr);
    g_signal_connect(m_pView, "mouse-target-changed",
                     G_CALLBACK(+[](WebKitWebView*, WebKitHitTestResult* hit, guint, gpointer self) {
                         static_cast<GtkView*>(self)->OnMouseTargetChanged(hit);
                     }),
                     this);
}

void GtkView::OnPopupRequest(WebKitNavigationAction* action)
{
    std::string target;
    if (WebKitURIRequest* request = webkit_navigation_action_get_request(action)) {
        if (const char* uri = webkit_uri_request_get_uri(request))
            target = uri;
    }
    bool cancelled = true;
    if (EngineLifeSpanHandler* handler = m_pClient->GetLifeSpanHandler())
        cancelled = handler->OnBeforePopup(shared_from_this(), target);
    if (!cancelled)
        NSLog("GtkView - browser %d: popup to %s refused; off-screen browsers open no windows", m_nId, target.c_str());
}

bool GtkView::OnScriptDialog(WebKitScriptDialog* dialog)
{
    return AnswerScriptDialog(dialog, m_pClient, shared_from_this(), GetURL());
}

void GtkView::OnMouseTargetChanged(WebKitHitTestResult* hit)
{
    const EngineCursorType cursor = CursorForHitTest(hit);
    if (cursor == m_nCursor)
        return;
    m_nCursor = cursor;
    if (EngineRenderHandler* handler = m_pClient->GetRenderHandler())
        handler->OnCursorChange(shared_from_this(), cursor);
}

} // namespace SLF_ChromiumEmbeddedFramework
