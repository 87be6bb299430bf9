#include "client/ServiceLauncher.h"

#include <fcntl.h>
#include <glib.h>
#include <signal.h>
#include <linux/close_range.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

extern char** environ;

namespace streamloft {

std::string DefaultServiceSocketPath()
{
    return std::string(g_get_user_runtime_dir()) + "/streamloft/overlay-helper.sock";
}

std::string ResolveServiceExecutable(const std::string& explicitPath)
{
    if (!explicitPath.empty())
        return explicitPath;
    const char* fromEnvironment = getenv("SLF_OVERLAY_HELPER");
    if (fromEnvironment && *fromEnvironment)
        return fromEnvironment;
    return SLF_OVERLAY_HELPER_INSTALLED_PATH;
}

std::string ServiceLogPath(const std::string& socketPath)
{
    return socketPath + ".log";
}

namespace {

// Reads exactly `size` bytes unless the other end closes first; the count read.
size_t ReadFully(int fd, void* into, size_t size)
{
    size_t got = 0;
    while (got < size) {
        ssize_t n = read(fd, static_cast<char*>(into) + got, size - got);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        got += static_cast<size_t>(n);
    }
    return got;
}

// In the service's process, between fork and exec: async-signal-safe calls
// only (the host may have other threads).
[[noreturn]] void ExecService(const char* executable, char* const* argv, int logFD, int errorPipe)
{
    int in = open("/dev/null", O_RDONLY);
    int out = open("/dev/null", O_WRONLY);
    if (in >= 0)
        dup2(in, STDIN_FILENO);
    if (out >= 0)
        dup2(out, STDOUT_FILENO);
    dup2(logFD >= 0 ? logFD : out, STDERR_FILENO);
    // Everything else of the host closes at the exec; the error pipe too.
    syscall(SYS_close_range, STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
    struct sigaction fallback = {};
    fallback.sa_handler = SIG_DFL;
    for (int signal : {SIGPIPE, SIGINT, SIGTERM, SIGCHLD, SIGHUP})
        sigaction(signal, &fallback, nullptr);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execve(executable, argv, environ);
    int failure = errno;
    ssize_t ignored = write(errorPipe, &failure, sizeof failure);
    (void)ignored;
    _exit(127);
}

} // namespace

bool StartServiceProcess(const std::string& executable, const std::string& listenPath, const std::string& logPath,
                         StartedService* started, std::string* error)
{
    if (access(executable.c_str(), X_OK) != 0) {
        *error = "cannot start the overlay service '" + executable + "': " + strerror(errno);
        return false;
    }
    std::string listenArgument = "--listen=" + listenPath;
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(executable.c_str()));
    if (!listenPath.empty())
        argv.push_back(listenArgument.data());
    argv.push_back(nullptr);

    int pidPipe[2], errorPipe[2];
    if (pipe2(pidPipe, O_CLOEXEC) != 0) {
        *error = std::string("cannot start the overlay service: ") + strerror(errno);
        return false;
    }
    if (pipe2(errorPipe, O_CLOEXEC) != 0) {
        *error = std::string("cannot start the overlay service: ") + strerror(errno);
        close(pidPipe[0]);
        close(pidPipe[1]);
        return false;
    }
    int logFD = open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    pid_t middle = fork();
    if (middle == 0) {
        // The intermediate process: a new session, the service, and its end, so
        // that the service is nobody's child in the host.
        setsid();
        pid_t service = fork();
        if (service == 0)
            ExecService(executable.c_str(), argv.data(), logFD, errorPipe[1]);
        ssize_t ignored = write(pidPipe[1], &service, sizeof service);
        (void)ignored;
        _exit(service > 0 ? 0 : 1);
    }
    const int forkError = errno;
    close(pidPipe[1]);
    close(errorPipe[1]);
    if (logFD >= 0)
        close(logFD);
    pid_t service = -1;
    int execError = 0;
    bool ok = middle > 0;
    if (ok) {
        int status = 0;
        while (waitpid(middle, &status, 0) < 0 && errno == EINTR) {
        }
        ok = ReadFully(pidPipe[0], &service, sizeof service) == sizeof service && service > 0;
        // Closed by the exec, or the exec's error.
        if (ok && ReadFully(errorPipe[0], &execError, sizeof execError) == sizeof execError)
            ok = false;
    }
    close(pidPipe[0]);
    close(errorPipe[0]);
    if (!ok) {
        *error = "cannot start the overlay service '" + executable + "': " +
                 strerror(execError    ? execError
                          : middle < 0 ? forkError
                                       : EAGAIN);
        return false;
    }
    started->pid = service;
    started->watch = static_cast<int>(syscall(SYS_pidfd_open, service, 0));
    return true;
}

bool ServiceProcessHasEnded(const StartedService& service)
{
    if (service.watch < 0)
        return service.pid > 0 && kill(service.pid, 0) != 0 && errno == ESRCH;
    pollfd watch = {service.watch, POLLIN, 0};
    return poll(&watch, 1, 0) > 0;
}

void ForgetServiceProcess(StartedService* service)
{
    if (service->watch >= 0)
        close(service->watch);
    service->watch = -1;
}

} // namespace streamloft
