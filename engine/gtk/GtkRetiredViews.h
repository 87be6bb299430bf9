// Web views of closed browsers whose web process had not come up yet.
//
// WebKitGTK keeps a web process whose last page closed, so a closing view
// ends its process (webkit_web_view_terminate_web_process). While the
// process is still being launched that request is lost: the launch goes
// on, and the process then runs with no page and no owner for as long as
// the service does. A browser closed right after it was opened would leave
// one behind each time. Such a view is kept here, loading nothing, until
// its process has come up (its page reports from the process, or its load
// commits), and is then ended like any other; after kRetireLimit it is
// ended whatever happened. Pump thread only.
#pragma once

#include <glib.h>

#include <memory>
#include <vector>

typedef struct _GtkWidget GtkWidget;
typedef struct _WebKitWebView WebKitWebView;

namespace SLF_ChromiumEmbeddedFramework {

class GtkRetiredViews {
public:
    static constexpr gint64 kRetireLimitMicroseconds = 10 * 1000 * 1000;
    static constexpr gint64 kSettleMicroseconds = 2 * 1000 * 1000;

    GtkRetiredViews();
    ~GtkRetiredViews();
    GtkRetiredViews(const GtkRetiredViews&) = delete;
    GtkRetiredViews& operator=(const GtkRetiredViews&) = delete;

    // Takes over the window (which holds the view); the caller has
    // disconnected its own signal handlers from the view.
    void Retire(GtkWidget* window, WebKitWebView* view, GMainContext* context);
    // Ends every view kept here (the engine shuts down).
    void EndAll();
    // Views are kept, or one was ended less than kSettleMicroseconds ago:
    // WebKit ends the process over its next few passes.
    bool Busy() const { return !m_Entries.empty() || g_get_monotonic_time() < m_nSettledAt; }

private:
    struct Entry;
    // Ends the view's process (unless it is gone already) and destroys the
    // window with its view.
    void End(Entry* entry);

    std::vector<std::unique_ptr<Entry>> m_Entries;
    gint64 m_nSettledAt = 0;
};

} // namespace SLF_ChromiumEmbeddedFramework
