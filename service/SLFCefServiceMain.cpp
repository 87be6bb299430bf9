#include "service/SLFCefServiceMain.h"

#include "audio_transport/NVKXPCAudioBufferPool.h"
#include "dbg/FlowLog.h"
#include "dbg/NSLog.h"
#include "dbg/dbg.h"
#include "engine/EngineLog.h"
#include "engine/port/EnginePort.h"
#include "platform/NplDebug.h"
#include "service/SLFCefEngineChoice.h"
#include "service/SLFCefServiceDelegate.h"
#include "service/SLFCefServiceSocket.h"
#include "service/SLFCefXPCListener.h"
#include "windows/SLFCefWindowManager.h"

// The service executable links one engine port: WPE WebKit by default, or
// WebKitGTK in the second executable of an SLF_ENGINE_GTK build (the two
// export the same symbols, so one process cannot hold both).
#if SLF_HAVE_GTK_ENGINE
#include "engine/gtk/GtkEnginePort.h"
#else
#include "engine/wpe/WpeEnginePort.h"
#endif
#include "engine/wpe/WpeSandbox.h"

#include <CLI/CLI.hpp>
#include <glib-unix.h>

#include <csignal>
#include <unistd.h>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#ifndef SLF_VERSION
#define SLF_VERSION "0"
#endif

namespace {

constexpr int kUsageExitCode = 2;

void ApplyLogCommand(const std::string& command)
{
    if (command.find_first_not_of(" \t") == std::string::npos)
        return;
    dbgcommand(command.c_str());
}

// STREAMLOFT_LOG first (commands separated by ";"), then every --log in
// order, so that the command line has the last word.
void ConfigureLog(const std::vector<std::string>& commands)
{
    // Syslog lines carry the service's name.
    dbgopen("StreamloftCEFOverlayHelper");
    // The modules are registered with their default flags before any
    // command names them: a command for a module that does not exist yet
    // would make it, and its registration would then lay the default level
    // flags over the command's.
    NplDebugModule();
    SLF_ChromiumEmbeddedFramework::EngineLog_GetModuleIndex();
    FramesLog_GetModuleIndex();
    AudioLog_GetModuleIndex();
    if (const char* environment = getenv("STREAMLOFT_LOG")) {
        std::stringstream list(environment);
        std::string command;
        while (std::getline(list, command, ';'))
            ApplyLogCommand(command);
    }
    for (const std::string& command : commands)
        ApplyLogCommand(command);
}

void InstallEngine()
{
#if SLF_HAVE_GTK_ENGINE
    SLF_ChromiumEmbeddedFramework::SetEnginePort(SLF_ChromiumEmbeddedFramework::CreateGtkEnginePort());
#else
    SLF_ChromiumEmbeddedFramework::SetEnginePort(SLF_ChromiumEmbeddedFramework::CreateWpeEnginePort());
#endif
}

gboolean OnTerminate(gpointer data)
{
    static_cast<SLFCefXPCListener*>(data)->quit();
    return G_SOURCE_CONTINUE;
}

} // namespace

int SLFCefServiceMain(int argc, char** argv)
{
    CLI::App app("Renders web pages off screen for a streaming application (the host) and hands it the frames "
                 "and the audio. Started on demand by the host library, or by systemd socket activation.",
                 "StreamloftCEFOverlayHelper");
    std::string listenPath;
    std::vector<std::string> logCommands;
    unsigned idleExitSeconds = 60;
    std::string engineName;
    app.add_option("--listen", listenPath,
                   "Listen on this Unix socket path (default: a socket handed over by systemd, else "
                   "$XDG_RUNTIME_DIR/streamloft/overlay-helper.sock)");
    app.add_option("--log", logCommands,
                   "Apply a log configuration command (repeatable; also STREAMLOFT_LOG, commands separated "
                   "by ';')")
        ->allow_extra_args(false);
    app.add_option("--idle-exit", idleExitSeconds,
                   "Exit after this many seconds without a host connection; 0 never exits (default 60). The host "
                   "library, or systemd socket activation, starts the service again on the next connect")
        ->check(CLI::NonNegativeNumber);
    app.add_option("--engine", engineName,
                   std::string("The web engine: wpe (WPE WebKit) or gtk (WebKitGTK); also ") + kSLFCefEngineVariable +
                       ", which the command line overrides (default " + kSLFCefDefaultEngine + ")");
    app.set_version_flag("--version", std::string("StreamloftCEFOverlayHelper ") + SLF_VERSION);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        app.exit(e);
        return kUsageExitCode;
    }

    // The engine is settled before anything else happens: an unknown one
    // ends the process having touched nothing, and the other engine's
    // executable takes over this process as it was started.
    std::string engine, engineError;
    if (!SLFCefChooseEngine(app.count("--engine") ? &engineName : nullptr, engine, engineError)) {
        fprintf(stderr, "StreamloftCEFOverlayHelper: %s\n", engineError.c_str());
        return kUsageExitCode;
    }
    if (engine != SLFCefThisEngine()) {
        SLFCefRunEngineExecutable(engine, argv, engineError);
        fprintf(stderr, "StreamloftCEFOverlayHelper: %s\n", engineError.c_str());
        return 1;
    }

    ConfigureLog(logCommands);
    signal(SIGPIPE, SIG_IGN);

    SLFCefServiceSocket socket;
    std::string error;
    switch (SLFCefOpenServiceSocket(listenPath, socket, error)) {
    case SLFCefServiceSocketResult::AlreadyServed:
        // Another service answers on this address: nothing to do.
        return 0;
    case SLFCefServiceSocketResult::Failed:
        NSLog("Cannot listen: %s", error.c_str());
        return 1;
    case SLFCefServiceSocketResult::Ready:
        break;
    }

    NSLog("engine: %s", SLFCefEngineDescription().c_str());

    InstallEngine();

    GError* listenError = nullptr;
    int listenFd = socket.listenFd;
    socket.listenFd = -1; // the listener owns it now
    std::shared_ptr<SLFCefXPCListener> listener = SLFCefXPCListener::CreateWithListeningSocket(listenFd, &listenError);
    if (!listener) {
        NSLog("Cannot listen: %s", listenError ? listenError->message : "?");
        g_clear_error(&listenError);
        SLFCefReleaseServiceSocket(socket);
        return 1;
    }
    // Lives for the whole process.
    auto* delegate = new SLFCefServiceDelegate();
    listener->setDelegate(delegate);
    g_unix_signal_add(SIGTERM, OnTerminate, listener.get());
    g_unix_signal_add(SIGINT, OnTerminate, listener.get());
    bool idleExit = false;
    listener->setIdleHandler(idleExitSeconds, [&] {
        NSLog("No host connection for %u s: the service ends", idleExitSeconds);
        idleExit = true;
        // The address goes first, in this order: no new connection is
        // accepted, the socket file goes (a host that connects from now on
        // finds nothing and starts a new service), connections still queued
        // on the socket are refused (their hosts start one too), and the lock
        // is given up so that the new service can take the address while
        // this one is still ending.
        listener->stopAccepting();
        SLFCefReleaseServiceSocket(socket);
        listener->quit();
    });
    // Runs until the process is told to end, or has been idle long enough.
    listener->resume();

    if (idleExit) {
        // No connection is left, so no browser either: the engine is stopped
        // (its web processes end within the engine's bound), and with it
        // every audio pool, whose segment is unlinked as the pool goes.
        listener->stop();
        // This thread owns the main context again (the loop has let it go),
        // so the engine's stop runs here directly.
        GMainContext* mainContext = g_main_context_default();
        const bool owner = g_main_context_acquire(mainContext);
        SLFCefWindowManager::sharedManager()->shutdownBrowser();
        if (owner)
            g_main_context_release(mainContext);
    }
    // When told to end, nothing is torn down: browsers, connections and the
    // engine go with the process (the web processes end when their
    // connection to it closes). Only the address is given back, so that the
    // next service can take it at once.
    SLFCefReleaseServiceSocket(socket);
    // Audio segments are named in /dev/shm: they would outlive the process.
    NVKXPCAudioBufferPool::unlinkAllSegments();
    // So would the folder of the engine's sockets (either port makes one
    // when its web processes are sandboxed).
    SLF_ChromiumEmbeddedFramework::RemoveEngineSocketFolder();
#if SLF_HAVE_GTK_ENGINE
    // The private display's folder (its server ends with this process).
    SLF_ChromiumEmbeddedFramework::RemoveHeadlessDisplayFolder();
#endif
    fflush(nullptr);
    _exit(0);
}
