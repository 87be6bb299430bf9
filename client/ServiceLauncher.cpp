#include "client/ServiceLauncher.h"

#include <fcntl.h>
#include <glib.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

extern char** environ;

namespace streamloft {

std::string DefaultServiceSocketPath() {
  return std::string(g_get_user_runtime_dir()) + "/streamloft/overlay-helper.sock";
}

std::string ResolveServiceExecutable(const std::string& explicitPath) {
  if (!explicitPath.empty()) return explicitPath;
  const char* fromEnvironment = getenv("SLF_OVERLAY_HELPER");
  if (fromEnvironment && *fromEnvironment) return fromEnvironment;
  return SLF_OVERLAY_HELPER_INSTALLED_PATH;
}

std::string ServiceLogPath(const std::string& socketPath) { return socketPath + ".log"; }

pid_t StartServiceProcess(const std::string& executable, const std::string& listenPath, const std::string& logPath,
                          std::string* error) {
  if (access(executable.c_str(), X_OK) != 0) {
    *error = "cannot start the overlay service '" + executable + "': " + strerror(errno);
    return -1;
  }
  std::string listenArgument = "--listen=" + listenPath;
  std::vector<char*> argv;
  argv.push_back(const_cast<char*>(executable.c_str()));
  if (!listenPath.empty()) argv.push_back(listenArgument.data());
  argv.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  int logFD = open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (logFD >= 0)
    posix_spawn_file_actions_adddup2(&actions, logFD, STDERR_FILENO);
  else
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);

  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none, defaults;
  sigemptyset(&none);
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGPIPE);
  sigaddset(&defaults, SIGINT);
  sigaddset(&defaults, SIGTERM);
  sigaddset(&defaults, SIGCHLD);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

  pid_t pid = -1;
  int rc = posix_spawn(&pid, executable.c_str(), &actions, &attributes, argv.data(), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  if (logFD >= 0) close(logFD);
  if (rc != 0) {
    *error = "cannot start the overlay service '" + executable + "': " + strerror(rc);
    return -1;
  }
  return pid;
}

bool ServiceProcessHasEnded(pid_t pid, int* status) {
  int st = 0;
  pid_t rc = waitpid(pid, &st, WNOHANG);
  if (rc == pid) {
    *status = st;
    return true;
  }
  return false;
}

void ReapServiceProcessWhenItEnds(pid_t pid) {
  std::thread([pid] {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
  }).detach();
}

std::string DescribeWaitStatus(int status) {
  if (WIFEXITED(status)) return "exited with status " + std::to_string(WEXITSTATUS(status));
  if (WIFSIGNALED(status)) return "was killed by signal " + std::to_string(WTERMSIG(status));
  return "ended (wait status " + std::to_string(status) + ")";
}

}  // namespace streamloft
