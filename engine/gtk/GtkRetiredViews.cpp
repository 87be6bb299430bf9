#include "engine/gtk/GtkRetiredViews.h"

#include "engine/wpe/WpeAudioWire.h"

#include <gtk/gtk.h>
#include <webkit2/webkit2.h>

#include <algorithm>
#include <cstring>

namespace SLF_ChromiumEmbeddedFramework {

struct GtkRetiredViews::Entry {
    GtkRetiredViews* owner = nullptr;
    GtkWidget* window = nullptr;
    WebKitWebView* view = nullptr;
    // Fires at the limit, or at once when the process came up or went: the
    // view is not destroyed inside one of its own signals.
    GSource* limit = nullptr;
    bool processGone = false;

    void EndSoon() { g_source_set_ready_time(limit, 0); }
};

GtkRetiredViews::GtkRetiredViews() = default;

GtkRetiredViews::~GtkRetiredViews()
{
    EndAll();
}

void GtkRetiredViews::Retire(GtkWidget* window, WebKitWebView* view, GMainContext* context)
{
    auto entry = std::make_unique<Entry>();
    Entry* raw = entry.get();
    raw->owner = this;
    raw->window = window;
    raw->view = view;
    // The page need not load any further: its process only has to come up.
    webkit_web_view_stop_loading(view);

    g_signal_connect(view, "user-message-received",
                     G_CALLBACK(+[](WebKitWebView*, WebKitUserMessage* message, gpointer data) -> gboolean {
                         auto* entry = static_cast<Entry*>(data);
                         const char* name = webkit_user_message_get_name(message);
                         if (name && std::strcmp(name, kPageProcessMessage) == 0)
                             entry->EndSoon();
                         return TRUE;
                     }),
                     raw);
    g_signal_connect(view, "load-changed", G_CALLBACK(+[](WebKitWebView*, WebKitLoadEvent event, gpointer data) {
                         if (event == WEBKIT_LOAD_COMMITTED)
                             static_cast<Entry*>(data)->EndSoon();
                     }),
                     raw);
    g_signal_connect(view, "web-process-terminated",
                     G_CALLBACK(+[](WebKitWebView*, WebKitWebProcessTerminationReason, gpointer data) {
                         auto* entry = static_cast<Entry*>(data);
                         entry->processGone = true;
                         entry->EndSoon();
                     }),
                     raw);
    raw->limit = g_timeout_source_new(kRetireLimitMicroseconds / 1000);
    g_source_set_callback(
        raw->limit,
        [](gpointer data) -> gboolean {
            auto* entry = static_cast<Entry*>(data);
            entry->owner->End(entry);
            return G_SOURCE_REMOVE;
        },
        raw, nullptr);
    g_source_attach(raw->limit, context);
    m_Entries.push_back(std::move(entry));
}

void GtkRetiredViews::End(Entry* entry)
{
    auto found = std::find_if(m_Entries.begin(), m_Entries.end(), [entry](const auto& e) { return e.get() == entry; });
    if (found == m_Entries.end())
        return;
    // Out of the list first: what follows may emit signals of the view.
    std::unique_ptr<Entry> owned = std::move(*found);
    m_Entries.erase(found);
    if (owned->limit) {
        g_source_destroy(owned->limit);
        g_source_unref(owned->limit);
    }
    g_signal_handlers_disconnect_by_data(owned->view, owned.get());
    if (!owned->processGone)
        webkit_web_view_terminate_web_process(owned->view);
    gtk_widget_destroy(owned->window);
    m_nSettledAt = g_get_monotonic_time() + kSettleMicroseconds;
}

void GtkRetiredViews::EndAll()
{
    while (!m_Entries.empty())
        End(m_Entries.front().get());
}

} // namespace SLF_ChromiumEmbeddedFramework
