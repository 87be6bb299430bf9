#include "service/SLFCefEngineChoice.h"

#include "platform/NplFile.h"

// This file is built into both service executables; each sees its own
// engine's headers.
#if SLF_HAVE_GTK_ENGINE
#include <webkit2/webkit2.h>
#else
#include <wpe/webkit.h>
#endif

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

// The service executable of each engine.
const char* ExecutableOf(const std::string& engine)
{
    if (engine == kSLFCefEngineWpe)
        return "StreamloftCEFOverlayHelper";
    if (engine == kSLFCefEngineGtk)
        return "StreamloftCEFOverlayHelperGtk";
    return nullptr;
}

} // namespace

bool SLFCefChooseEngine(const std::string* commandLine, std::string& engine, std::string& error)
{
    const char* environment = std::getenv(kSLFCefEngineVariable);
    std::string source;
    if (commandLine) {
        engine = *commandLine;
        source = "--engine";
    } else if (environment && *environment) {
        engine = environment;
        source = kSLFCefEngineVariable;
    } else {
        engine = kSLFCefDefaultEngine;
        return true;
    }
    if (ExecutableOf(engine))
        return true;
    error = "unknown engine \"" + engine + "\" (from " + source + "): expected " + kSLFCefEngineWpe + " or " +
            kSLFCefEngineGtk;
    return false;
}

const char* SLFCefThisEngine()
{
#if SLF_HAVE_GTK_ENGINE
    return kSLFCefEngineGtk;
#else
    return kSLFCefEngineWpe;
#endif
}

void SLFCefRunEngineExecutable(const std::string& engine, char** argv, std::string& error)
{
    const char* name = ExecutableOf(engine);
    if (!name) {
        error = "unknown engine \"" + engine + "\"";
        return;
    }
    const std::string path = NplFile_AddPathComponent(NplFile_ExecutableFolder(), name);
    execv(path.c_str(), argv);
    error = "the " + engine + " engine's service " + path + " cannot be run: " + std::strerror(errno);
}

std::string SLFCefEngineDescription()
{
#if SLF_HAVE_GTK_ENGINE
    const char* library = "WebKitGTK";
#else
    const char* library = "WPE WebKit";
#endif
    return std::string(SLFCefThisEngine()) + " (" + library + " " + std::to_string(webkit_get_major_version()) + "." +
           std::to_string(webkit_get_minor_version()) + "." + std::to_string(webkit_get_micro_version()) + ")";
}
