#include "engine/wpe/WpeSandbox.h"

#include <glib.h>

#include <unistd.h>

namespace SLF_ChromiumEmbeddedFramework {

namespace {

// The folder of the engine's path sockets (sandboxed web processes cannot
// reach abstract ones: they have a network namespace of their own); empty
// while the sockets are abstract. One engine per process.
std::string g_strSocketFolder;

} // namespace

bool WpeSandboxWorksHere(std::string& why, bool usedInDocker)
{
    // WebKit itself never uses bubblewrap inside these (it would not work
    // in many of them), whatever the context asks for.
    for (const char* marker : {"/.dockerenv", "/.flatpak-info"}) {
        if (usedInDocker && g_str_equal(marker, "/.dockerenv"))
            continue;
        if (g_file_test(marker, G_FILE_TEST_EXISTS)) {
            why = std::string("WebKit does not use bubblewrap in this container (") + marker + " exists)";
            return false;
        }
    }
    for (const char* program : {"bwrap", "xdg-dbus-proxy"}) {
        gchar* path = g_find_program_in_path(program);
        if (!path) {
            why = std::string(program) + " is not installed";
            return false;
        }
        g_free(path);
    }
    const gchar* argv[] = {
        "bwrap", "--unshare-all", "--die-with-parent", "--ro-bind", "/", "/", "--dev", "/dev", "--proc", "/proc",
        "true",  nullptr};
    gchar* errors = nullptr;
    gint status = 0;
    GError* error = nullptr;
    bool works = g_spawn_sync(nullptr, const_cast<gchar**>(argv), nullptr,
                              static_cast<GSpawnFlags>(G_SPAWN_SEARCH_PATH | G_SPAWN_STDOUT_TO_DEV_NULL), nullptr,
                              nullptr, nullptr, &errors, &status, &error);
    if (!works) {
        why = std::string("bwrap does not start: ") + error->message;
        g_error_free(error);
    } else if (!g_spawn_check_wait_status(status, nullptr)) {
        works = false;
        std::string message = errors ? errors : "";
        if (const size_t end = message.find('\n'); end != std::string::npos)
            message.resize(end);
        why = "bwrap cannot make its namespaces here (" + (message.empty() ? std::string("no reason given") : message) +
              ")";
    }
    g_free(errors);
    return works;
}

std::string MakeEngineSocketFolder(std::string& why)
{
    GError* error = nullptr;
    gchar* folder = g_dir_make_tmp("slf-engine-XXXXXX", &error);
    if (!folder) {
        why = std::string("no folder for the engine's sockets: ") + error->message;
        g_error_free(error);
        return std::string();
    }
    g_strSocketFolder = folder;
    g_free(folder);
    return g_strSocketFolder;
}

void RemoveEngineSocketFolder()
{
    if (g_strSocketFolder.empty())
        return;
    for (const char* name : {"/resources", "/audio"})
        unlink((g_strSocketFolder + name).c_str());
    rmdir(g_strSocketFolder.c_str());
    g_strSocketFolder.clear();
}

} // namespace SLF_ChromiumEmbeddedFramework
