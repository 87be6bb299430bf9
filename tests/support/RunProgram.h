// Runs a program to its end and keeps its exit code and output (tests that
// start the service's or the tools' executables themselves). Needs GLib.
#pragma once

#include <glib.h>
#include <sys/wait.h>

#include <string>
#include <vector>

namespace slftest {

struct ProcessResult {
    int exit = -1; // -1 when it did not exit normally
    std::string out, err;
};

// Runs a program (found on PATH; "env" sets variables for one) to its end.
inline ProcessResult RunProgram(const std::vector<std::string>& args)
{
    std::vector<char*> argv;
    for (const auto& a : args)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    ProcessResult result;
    gchar *out = nullptr, *err = nullptr;
    int status = 0;
    if (g_spawn_sync(nullptr, argv.data(), nullptr, G_SPAWN_SEARCH_PATH, nullptr, nullptr, &out, &err, &status,
                     nullptr))
        result = {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out, err};
    g_free(out);
    g_free(err);
    return result;
}

} // namespace slftest
