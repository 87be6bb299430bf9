#include "engine/gtk/GtkHeadlessDisplay.h"

#include "dbg/NSLog.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <thread>

extern char** environ;

namespace SLF_ChromiumEmbeddedFramework {

namespace {

// How long a server may take to accept connections (a loaded machine).
constexpr auto kStartWait = std::chrono::seconds(10);
constexpr auto kStopWait = std::chrono::milliseconds(500);

bool CanConnect(const std::string& path)
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    sockaddr_un address {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    const bool ok = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    close(fd);
    return ok;
}

// The folder of the display that runs, for RemoveHeadlessDisplayFolder.
// Lock order: a leaf lock.
std::mutex g_FolderMutex;
std::string g_strLiveFolder;

bool Exited(pid_t pid)
{
    int status = 0;
    return waitpid(pid, &status, WNOHANG) == pid;
}

} // namespace

GtkHeadlessDisplay::~GtkHeadlessDisplay()
{
    Stop();
}

GtkHeadlessDisplay::Kind GtkHeadlessDisplay::KindFromEnvironment()
{
    const char* value = getenv("SLF_GTK_DISPLAY");
    if (value && std::strcmp(value, "xvfb") == 0)
        return Kind::Xvfb;
    return Kind::Weston;
}

bool GtkHeadlessDisplay::Start(Kind kind)
{
    if (m_nPid > 0)
        return true;
    m_Kind = kind;
    char pattern[] = "/tmp/slf-gtk-display-XXXXXX";
    if (!mkdtemp(pattern)) {
        NSLog("GtkHeadlessDisplay - cannot make a private folder: %s", std::strerror(errno));
        return false;
    }
    m_strFolder = pattern;
    {
        std::lock_guard<std::mutex> lock(g_FolderMutex);
        g_strLiveFolder = m_strFolder;
    }
    const bool started = kind == Kind::Weston ? StartWeston() : StartXvfb();
    if (!started)
        Stop();
    return started;
}

pid_t GtkHeadlessDisplay::Spawn(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv,
                                int keepFd)
{
    // Everything the child needs is made before fork: only async-signal-safe
    // calls run between fork and exec.
    std::vector<char*> args;
    for (const auto& arg : argv)
        args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    std::vector<std::string> envStrings;
    for (char** e = environ; e && *e; ++e) {
        bool replaced = false;
        for (const auto& extra : extraEnv) {
            const size_t eq = extra.find('=');
            if (std::strncmp(*e, extra.c_str(), eq + 1) == 0)
                replaced = true;
        }
        if (!replaced)
            envStrings.emplace_back(*e);
    }
    envStrings.insert(envStrings.end(), extraEnv.begin(), extraEnv.end());
    std::vector<char*> env;
    for (auto& e : envStrings)
        env.push_back(e.data());
    env.push_back(nullptr);
    const std::string logPath = m_strFolder + "/server.log";
    const int log = open(logPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const int null = open("/dev/null", O_RDONLY | O_CLOEXEC);

    const pid_t pid = fork();
    if (pid == 0) {
        // The server ends with the service, however the service ends.
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (null >= 0)
            dup2(null, STDIN_FILENO);
        if (log >= 0) {
            dup2(log, STDOUT_FILENO);
            dup2(log, STDERR_FILENO);
        }
        if (keepFd >= 0)
            fcntl(keepFd, F_SETFD, 0);
        execve(args[0], args.data(), env.data());
        _exit(127);
    }
    if (log >= 0)
        close(log);
    if (null >= 0)
        close(null);
    if (pid < 0)
        NSLog("GtkHeadlessDisplay - cannot start %s: %s", argv[0].c_str(), std::strerror(errno));
    return pid;
}

bool GtkHeadlessDisplay::StartWeston()
{
    // No renderer (the headless backend's default) and the kiosk shell,
    // which starts no shell client of its own: the compositor idles.
    const std::string socketName = "wayland-slf";
    m_nPid = Spawn({"/usr/bin/weston", "--backend=headless-backend.so", "--shell=kiosk-shell.so", "--no-config",
                    "--idle-time=0", "--socket=" + socketName},
                   {"XDG_RUNTIME_DIR=" + m_strFolder}, -1);
    if (m_nPid <= 0)
        return false;
    const std::string path = m_strFolder + "/" + socketName;
    const auto deadline = std::chrono::steady_clock::now() + kStartWait;
    while (std::chrono::steady_clock::now() < deadline) {
        if (Exited(m_nPid)) {
            NSLog("GtkHeadlessDisplay - weston ended at start (log in %s/server.log)", m_strFolder.c_str());
            m_nPid = -1;
            return false;
        }
        if (CanConnect(path)) {
            // An absolute WAYLAND_DISPLAY: the service's own runtime folder
            // stays as it is.
            m_strName = path;
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    NSLog("GtkHeadlessDisplay - weston did not accept connections in time");
    return false;
}

bool GtkHeadlessDisplay::StartXvfb()
{
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
        return false;
    // The server picks a free display number and writes it to the pipe.
    m_nPid = Spawn({"/usr/bin/Xvfb", "-displayfd", std::to_string(fds[1]), "-nolisten", "tcp", "-noreset", "-screen",
                    "0", "1920x1080x24"},
                   {}, fds[1]);
    close(fds[1]);
    if (m_nPid <= 0) {
        close(fds[0]);
        return false;
    }
    std::string number;
    const auto deadline = std::chrono::steady_clock::now() + kStartWait;
    while (std::chrono::steady_clock::now() < deadline) {
        pollfd p {fds[0], POLLIN, 0};
        if (poll(&p, 1, 50) > 0) {
            char buffer[32];
            const ssize_t n = read(fds[0], buffer, sizeof buffer);
            if (n <= 0)
                break;
            number.append(buffer, static_cast<size_t>(n));
            if (number.find('\n') != std::string::npos)
                break;
        }
        if (Exited(m_nPid)) {
            m_nPid = -1;
            break;
        }
    }
    close(fds[0]);
    while (!number.empty() && (number.back() == '\n' || number.back() == ' '))
        number.pop_back();
    if (number.empty() || m_nPid <= 0) {
        NSLog("GtkHeadlessDisplay - Xvfb did not start (log in %s/server.log)", m_strFolder.c_str());
        return false;
    }
    m_strName = ":" + number;
    return true;
}

void GtkHeadlessDisplay::Stop()
{
    if (m_nPid > 0) {
        kill(m_nPid, SIGTERM);
        const auto deadline = std::chrono::steady_clock::now() + kStopWait;
        bool gone = false;
        while (!(gone = Exited(m_nPid)) && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        if (!gone) {
            kill(m_nPid, SIGKILL);
            waitpid(m_nPid, nullptr, 0);
        }
        m_nPid = -1;
    }
    if (!m_strFolder.empty()) {
        {
            std::lock_guard<std::mutex> lock(g_FolderMutex);
            if (g_strLiveFolder == m_strFolder)
                g_strLiveFolder.clear();
        }
        std::error_code ignored;
        std::filesystem::remove_all(m_strFolder, ignored);
        m_strFolder.clear();
    }
    m_strName.clear();
}

void RemoveHeadlessDisplayFolder()
{
    std::lock_guard<std::mutex> lock(g_FolderMutex);
    if (g_strLiveFolder.empty())
        return;
    std::error_code ignored;
    std::filesystem::remove_all(g_strLiveFolder, ignored);
    g_strLiveFolder.clear();
}

} // namespace SLF_ChromiumEmbeddedFramework
