// The private headless display the GTK engine port renders on: a display
// server started and owned by the service, used by nobody else. GTK needs a
// display to make windows at all; the views are offscreen windows, so the
// server only answers the connection and never composites a frame.
//
// Two kinds: "weston" (a Wayland compositor with its headless backend and no
// renderer; the default) and "xvfb" (an X server in memory). The server is a
// child of the service that ends with it (parent-death signal) or on Stop.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace SLF_ChromiumEmbeddedFramework {

class GtkHeadlessDisplay {
public:
    enum class Kind { Weston, Xvfb };

    GtkHeadlessDisplay() = default;
    ~GtkHeadlessDisplay();
    GtkHeadlessDisplay(const GtkHeadlessDisplay&) = delete;
    GtkHeadlessDisplay& operator=(const GtkHeadlessDisplay&) = delete;

    // The kind named by SLF_GTK_DISPLAY ("weston" or "xvfb"), weston when
    // unset or unknown.
    static Kind KindFromEnvironment();

    // Starts the server and waits (bounded) until it accepts connections.
    // On success GetName() is what GDK opens (a Wayland socket path or an
    // X display name) and GetBackend() the GDK backend for it.
    bool Start(Kind kind);
    // Ends the server (SIGTERM, then SIGKILL after a short wait) and
    // removes its private folder.
    void Stop();

    const std::string& GetName() const { return m_strName; }
    const char* GetBackend() const { return m_Kind == Kind::Weston ? "wayland" : "x11"; }
    pid_t GetPid() const { return m_nPid; }
    // The server's private folder (its socket and log).
    const std::string& GetFolder() const { return m_strFolder; }

private:
    bool StartWeston();
    bool StartXvfb();
    pid_t Spawn(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv, int keepFd);

    Kind m_Kind = Kind::Weston;
    pid_t m_nPid = -1;
    std::string m_strName;
    std::string m_strFolder;
};

// Removes the private folder of the display that runs, if one does: for a
// process that ends without stopping its engine (told to end by a signal).
// The server itself ends with the process (parent-death signal). Any thread.
void RemoveHeadlessDisplayFolder();

} // namespace SLF_ChromiumEmbeddedFramework
