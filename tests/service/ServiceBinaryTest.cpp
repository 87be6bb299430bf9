// The real StreamloftCEFOverlayHelper executable: command line, address,
// one service per address, socket activation and tool access.
#include "tests/service/ServiceTestSupport.h"

#include <gtest/gtest.h>

#include <csignal>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#ifndef SLF_SERVICE_BINARY
#error "SLF_SERVICE_BINARY must name the service executable"
#endif

namespace {

struct RunResult {
    int exitCode = -1;
    std::string out;
    std::string err;
};

RunResult RunToEnd(std::vector<std::string> arguments, std::vector<std::string> environment = {})
{
    std::vector<gchar*> argv;
    for (auto& argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    gchar** envp = g_get_environ();
    for (const auto& entry : environment) {
        auto equals = entry.find('=');
        envp = g_environ_setenv(envp, entry.substr(0, equals).c_str(), entry.substr(equals + 1).c_str(), TRUE);
    }
    RunResult run;
    gchar* out = nullptr;
    gchar* err = nullptr;
    gint status = 0;
    GError* error = nullptr;
    if (g_spawn_sync(nullptr, argv.data(), envp, G_SPAWN_SEARCH_PATH, nullptr, nullptr, &out, &err, &status, &error)) {
        run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        run.out = out;
        run.err = err;
    } else {
        run.err = error->message;
        g_error_free(error);
    }
    g_free(out);
    g_free(err);
    g_strfreev(envp);
    return run;
}

// A running service, ended with SIGTERM.
class RunningService {
public:
    explicit RunningService(std::vector<std::string> arguments, std::vector<std::string> environment = {})
    {
        m_pid = fork();
        if (m_pid == 0) {
            for (const auto& entry : environment)
                putenv(strdup(entry.c_str()));
            std::vector<char*> argv;
            for (auto& argument : arguments)
                argv.push_back(strdup(argument.c_str()));
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            _exit(127);
        }
    }
    ~RunningService()
    {
        if (m_pid > 0 && !m_ended) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
    }
    // SIGTERM and the exit code.
    int terminate()
    {
        kill(m_pid, SIGTERM);
        int status = 0;
        waitpid(m_pid, &status, 0);
        m_ended = true;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    pid_t pid() const { return m_pid; }

private:
    pid_t m_pid = -1;
    bool m_ended = false;
};

bool Exists(const std::string& path)
{
    GStatBuf info;
    return g_stat(path.c_str(), &info) == 0;
}

bool WaitForSocket(const std::string& path)
{
    return WaitFor([&] {
        GStatBuf info;
        return g_stat(path.c_str(), &info) == 0 && S_ISSOCK(info.st_mode);
    });
}

} // namespace

TEST(ServiceBinary, HelpVersionAndUnknownOptions)
{
    RunResult help = RunToEnd({SLF_SERVICE_BINARY, "--help"});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_NE(help.out.find("--listen"), std::string::npos) << help.out;
    EXPECT_NE(help.out.find("--log"), std::string::npos) << help.out;

    RunResult version = RunToEnd({SLF_SERVICE_BINARY, "--version"});
    EXPECT_EQ(version.exitCode, 0);
    EXPECT_NE(version.out.find("StreamloftCEFOverlayHelper"), std::string::npos) << version.out;

    RunResult bogus = RunToEnd({SLF_SERVICE_BINARY, "--bogus"});
    EXPECT_EQ(bogus.exitCode, 2);
    EXPECT_NE(bogus.err.find("--bogus"), std::string::npos) << bogus.err;

    RunResult stray = RunToEnd({SLF_SERVICE_BINARY, "stray"});
    EXPECT_EQ(stray.exitCode, 2);
}

TEST(ServiceBinary, SecondServiceForTheSameAddressExitsQuietly)
{
    TemporaryFolder folder;
    std::string socket = folder.path() + "/s.sock";
    RunningService first({SLF_SERVICE_BINARY, "--listen=" + socket});
    ASSERT_TRUE(WaitForSocket(socket));

    RunResult second = RunToEnd({SLF_SERVICE_BINARY, "--listen=" + socket});
    EXPECT_EQ(second.exitCode, 0);
    EXPECT_EQ(second.out, "");
    EXPECT_EQ(second.err, "");

    // The first still serves, and a tool can look at it.
    RunResult introspect = RunToEnd({"gdbus", "introspect", "--address", "unix:path=" + socket, "--dest",
                               "com.streamloft.SLFCefOverlayHelper", "--object-path",
                               "/com/streamloft/SLFCefOverlayXPC"});
    EXPECT_EQ(introspect.exitCode, 0) << introspect.err;
    EXPECT_NE(introspect.out.find("interface com.streamloft.SLFCefOverlayXPCProtocol"), std::string::npos)
        << introspect.out;
    EXPECT_NE(introspect.out.find("OpenBrowser("), std::string::npos) << introspect.out;

    // An orderly end removes the socket file.
    EXPECT_EQ(first.terminate(), 0);
    EXPECT_FALSE(Exists(socket));
    g_unlink((socket + ".lock").c_str());
}

TEST(ServiceBinary, DefaultAddressIsAPrivateFolderInTheRuntimeFolder)
{
    TemporaryFolder runtime;
    std::string socket = runtime.path() + "/streamloft/overlay-helper.sock";
    RunningService service({SLF_SERVICE_BINARY}, {"XDG_RUNTIME_DIR=" + runtime.path()});
    ASSERT_TRUE(WaitForSocket(socket));
    GStatBuf info;
    ASSERT_EQ(g_stat((runtime.path() + "/streamloft").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0700u);

    TestHost host("unix:path=" + socket);
    auto pending = host.openBrowser("https://x.test/", 64, 64, 30);
    EXPECT_TRUE(WaitFor([&] { return host.didStartIDs().size() == 1; }));
    host.disconnect();
    EXPECT_EQ(service.terminate(), 0);
    g_unlink((socket + ".lock").c_str());
    g_rmdir((runtime.path() + "/streamloft").c_str());
}

TEST(ServiceBinary, ServesASocketHandedOverBySocketActivation)
{
    TemporaryFolder folder;
    std::string path = folder.path() + "/activated.sock";
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(fd, 8), 0);

    pid_t pid = fork();
    if (pid == 0) {
        dup2(fd, 3);
        setenv("LISTEN_FDS", "1", 1);
        setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
        execl(SLF_SERVICE_BINARY, SLF_SERVICE_BINARY, static_cast<char*>(nullptr));
        _exit(127);
    }
    close(fd);
    {
        TestHost host("unix:path=" + path);
        auto pending = host.openBrowser("https://x.test/", 64, 64, 30);
        EXPECT_TRUE(WaitFor([&] { return host.didStartIDs().size() == 1; }));
    }
    kill(pid, SIGTERM);
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    // The socket belongs to systemd: it stays.
    EXPECT_TRUE(Exists(path));
    g_unlink(path.c_str());
    g_unlink((path + ".lock").c_str());
}
