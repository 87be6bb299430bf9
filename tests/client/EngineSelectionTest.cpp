// Choosing the service's engine (--engine, STREAMLOFT_ENGINE) against the
// real service executables of both engines: the one started hands over to
// the other in the same process, and a host gets frames from it.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "tests/support/RecordingCallbacks.h"
#include "tests/support/RunProgram.h"
#include "tests/support/ServiceProcess.h"

extern char** environ;

using streamloft::OverlayClient;
using namespace slftest;

namespace {

// The file name of the executable a process runs.
std::string ExecutableOf(pid_t pid)
{
    std::error_code error;
    return std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/exe", error).filename().string();
}

class EngineSelectionTest : public ServiceTest {
protected:
    // Starts the service executable (the WPE one) as a child with these
    // arguments and extra environment variables, standard error to the
    // service log; stopped when the test ends. With `activation`, that
    // listening socket is handed over as systemd does.
    pid_t StartService(const std::vector<std::string>& arguments, const std::vector<std::string>& variables,
                       int activation = -1)
    {
        std::vector<std::string> args = {kHelper};
        args.insert(args.end(), arguments.begin(), arguments.end());
        std::vector<char*> argv, envp;
        for (auto& a : args)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        // The extra variables first: they win over the same names in ours.
        std::vector<std::string> extra = variables;
        if (activation >= 0)
            extra.insert(extra.end(), {"LISTEN_FDS=1", "LISTEN_PID=" + std::string(16, '\0')});
        for (auto& v : extra)
            envp.push_back(v.data());
        for (char** e = environ; *e; ++e)
            envp.push_back(*e);
        envp.push_back(nullptr);
        const int log = open((socket_ + ".log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        const pid_t pid = fork();
        if (pid == 0) {
            dup2(log, STDERR_FILENO);
            if (activation >= 0) {
                // Descriptor 3 without close-on-exec, as systemd hands it over.
                if (activation == 3)
                    fcntl(3, F_SETFD, 0);
                else
                    dup2(activation, 3);
                snprintf(extra.back().data() + strlen("LISTEN_PID="), 16, "%d", static_cast<int>(getpid()));
            }
            execve(argv[0], argv.data(), envp.data());
            _exit(127);
        }
        close(log);
        if (pid > 0)
            services_.push_back(pid);
        return pid;
    }
    // Connects to the service on this test's socket once it listens.
    std::unique_ptr<OverlayClient> ConnectWhenListening(RecordingCallbacks& host)
    {
        std::unique_ptr<OverlayClient> client;
        WaitUntil([&] { return (client = OverlayClient::Connect(host.Options(Options(false)))) != nullptr; }, 60s);
        return client;
    }
    // Opens the colours page and waits for a frame that shows it: red top
    // left, green top right (BGRA), at the size asked for.
    void ExpectPageFrames(OverlayClient& overlay, RecordingCallbacks& host)
    {
        auto browser = overlay.OpenBrowser(Page("frames_colours.html", 64, 64), host.events());
        ASSERT_NE(host.WaitFor("frame ", 60s), "") << "no frame";
        auto pixel = [](const streamloft::VideoFrame& frame, int x, int y) {
            uint32_t value = 0;
            std::memcpy(&value, frame.row(y) + x * 4, 4);
            return value;
        };
        bool shown = false;
        WaitUntil(
            [&] {
                for (const auto& frame : host.Take(host.frames))
                    shown = shown || (frame->width() == 64 && frame->height() == 64 &&
                                      pixel(*frame, 16, 16) == 0xFFFF0000u && pixel(*frame, 48, 16) == 0xFF00FF00u);
                return shown;
            },
            30s);
        EXPECT_TRUE(shown) << "no frame showed the page's colours";
    }
};

// The command line wins over the environment; the GTK executable takes over
// the process the host (here the test) started, so its pid still holds.
TEST_F(EngineSelectionTest, GtkFromTheCommandLineServesFramesInTheProcessStarted)
{
    const pid_t pid = StartService({"--listen=" + socket_, "--engine=gtk"}, {"STREAMLOFT_ENGINE=wpe"});
    ASSERT_GT(pid, 0);
    RecordingCallbacks host;
    auto overlay = ConnectWhenListening(host);
    ASSERT_TRUE(overlay) << Log();
    EXPECT_EQ(overlay->ServiceProcessID(), pid);
    EXPECT_EQ(ExecutableOf(pid), "StreamloftCEFOverlayHelperGtk");
    ExpectPageFrames(*overlay, host);
    EXPECT_NE(Log().find("engine: gtk (WebKitGTK 2."), std::string::npos) << Log();
}

// Socket activation: the socket systemd handed over is still there for the
// GTK executable that took over the process.
TEST_F(EngineSelectionTest, GtkUnderSocketActivationServesOnTheHandedOverSocket)
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, socket_.c_str(), sizeof address.sun_path - 1);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(fd, 8), 0);
    const pid_t pid = StartService({}, {"STREAMLOFT_ENGINE=gtk"}, fd);
    close(fd);
    ASSERT_GT(pid, 0);
    RecordingCallbacks host;
    auto overlay = ConnectWhenListening(host);
    ASSERT_TRUE(overlay) << Log();
    EXPECT_EQ(ExecutableOf(pid), "StreamloftCEFOverlayHelperGtk");
    ExpectPageFrames(*overlay, host);
    EXPECT_NE(Log().find("engine: gtk (WebKitGTK 2."), std::string::npos) << Log();
}

// A host whose environment asks for GTK: the service it starts on demand
// inherits the variable.
TEST_F(EngineSelectionTest, GtkFromTheHostsEnvironmentWhenStartedOnDemand)
{
    setenv("STREAMLOFT_ENGINE", "gtk", 1);
    RecordingCallbacks host;
    auto overlay = Connect(host.Options(Options()));
    unsetenv("STREAMLOFT_ENGINE");
    ASSERT_TRUE(overlay);
    EXPECT_TRUE(overlay->StartedService());
    EXPECT_EQ(ExecutableOf(overlay->ServiceProcessID()), "StreamloftCEFOverlayHelperGtk");
    ExpectPageFrames(*overlay, host);
    EXPECT_NE(Log().find("engine: gtk (WebKitGTK 2."), std::string::npos) << Log();
}

// An unknown engine is refused before anything is touched: the service
// already on the address serves on, with the default engine.
TEST_F(EngineSelectionTest, AnUnknownEngineIsRefusedWithExitCode2AndTouchesNothing)
{
    RecordingCallbacks host;
    auto overlay = Connect(host.Options(Options()));
    ASSERT_TRUE(overlay);
    const pid_t pid = overlay->ServiceProcessID();
    EXPECT_EQ(ExecutableOf(pid), "StreamloftCEFOverlayHelper");
    EXPECT_NE(Log().find("engine: wpe (WPE WebKit 2."), std::string::npos) << Log();

    struct {
        std::vector<std::string> command;
        const char* message;
    } cases[] = {
        {{kHelper, "--listen=" + socket_, "--engine=chrome"}, "unknown engine \"chrome\" (from --engine)"},
        {{"env", "STREAMLOFT_ENGINE=GTK", kHelper, "--listen=" + socket_}, "unknown engine \"GTK\" (from"},
        {{"env", "STREAMLOFT_ENGINE=gtk", kHelper, "--listen=" + socket_, "--engine=webkit"}, "\"webkit\""},
    };
    for (const auto& c : cases) {
        const ProcessResult r = RunProgram(c.command);
        EXPECT_EQ(r.exit, 2) << c.command.back();
        EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
        EXPECT_NE(r.err.find("expected wpe or gtk"), std::string::npos) << r.err;
        EXPECT_EQ(r.out, "");
    }
    EXPECT_TRUE(std::filesystem::exists(socket_));
    RecordingCallbacks second;
    auto again = Connect(second.Options(Options(false)));
    ASSERT_TRUE(again);
    EXPECT_EQ(again->ServiceProcessID(), pid);
    ExpectPageFrames(*again, second);
}

} // namespace
