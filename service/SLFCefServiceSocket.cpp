#include "service/SLFCefServiceSocket.h"

#include <glib.h>
#include <systemd/sd-daemon.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

std::string SystemError(const std::string& what, int error)
{
    return what + ": " + strerror(error);
}

// Takes the lock next to the socket. Ready, AlreadyServed or Failed.
SLFCefServiceSocketResult TakeLock(SLFCefServiceSocket& socket, std::string& error)
{
    socket.lockPath = socket.socketPath + ".lock";
    // A service that ends removes its lock file while it still holds the
    // lock. A lock taken on a file that has been removed since it was opened
    // keeps nobody out, so the file at the path is opened again until the
    // lock is on it.
    for (int attempt = 0; attempt < 100; ++attempt) {
        int fd = open(socket.lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (fd < 0) {
            error = SystemError("cannot open the lock file " + socket.lockPath, errno);
            return SLFCefServiceSocketResult::Failed;
        }
        if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
            int lockError = errno;
            close(fd);
            if (lockError == EWOULDBLOCK)
                return SLFCefServiceSocketResult::AlreadyServed;
            error = SystemError("cannot lock " + socket.lockPath, lockError);
            return SLFCefServiceSocketResult::Failed;
        }
        struct stat locked = {}, atPath = {};
        if (fstat(fd, &locked) == 0 && stat(socket.lockPath.c_str(), &atPath) == 0 && locked.st_dev == atPath.st_dev &&
            locked.st_ino == atPath.st_ino) {
            socket.lockFd = fd;
            return SLFCefServiceSocketResult::Ready;
        }
        close(fd);
    }
    error = "the lock file " + socket.lockPath + " keeps being replaced";
    return SLFCefServiceSocketResult::Failed;
}

SLFCefServiceSocketResult UseActivatedSocket(SLFCefServiceSocket& socket, std::string& error)
{
    const int fd = SD_LISTEN_FDS_START;
    if (sd_is_socket_unix(fd, SOCK_STREAM, 1, nullptr, 0) <= 0) {
        error = "the socket handed over by systemd is not a listening Unix stream socket";
        return SLFCefServiceSocketResult::Failed;
    }
    socket.listenFd = fd;
    socket.socketActivated = true;
    fcntl(fd, F_SETFD, FD_CLOEXEC);
    struct sockaddr_un address = {};
    socklen_t length = sizeof address;
    if (getsockname(fd, reinterpret_cast<struct sockaddr*>(&address), &length) == 0 &&
        length > offsetof(struct sockaddr_un, sun_path) && address.sun_path[0] != '\0') {
        socket.socketPath = address.sun_path;
        SLFCefServiceSocketResult result = TakeLock(socket, error);
        if (result != SLFCefServiceSocketResult::Ready) {
            socket.listenFd = -1;
            return result;
        }
    }
    return SLFCefServiceSocketResult::Ready;
}

SLFCefServiceSocketResult CreateSocket(SLFCefServiceSocket& socket, bool privateFolder, std::string& error)
{
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (socket.socketPath.empty() || socket.socketPath.size() >= sizeof address.sun_path) {
        error = "the socket path '" + socket.socketPath + "' is empty or longer than " +
                std::to_string(sizeof address.sun_path - 1) + " bytes";
        return SLFCefServiceSocketResult::Failed;
    }
    gchar* folder = g_path_get_dirname(socket.socketPath.c_str());
    int made = g_mkdir_with_parents(folder, 0700);
    int mkdirError = errno;
    if (made == 0 && privateFolder)
        chmod(folder, 0700);
    std::string folderText = folder;
    g_free(folder);
    if (made != 0) {
        error = SystemError("cannot create the folder " + folderText, mkdirError);
        return SLFCefServiceSocketResult::Failed;
    }

    SLFCefServiceSocketResult locked = TakeLock(socket, error);
    if (locked != SLFCefServiceSocketResult::Ready)
        return locked;

    // The lock is ours, so a socket file left at the path belongs to a
    // service that has ended: it is replaced.
    if (unlink(socket.socketPath.c_str()) != 0 && errno != ENOENT) {
        error = SystemError("cannot remove the stale socket " + socket.socketPath, errno);
        return SLFCefServiceSocketResult::Failed;
    }
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        error = SystemError("cannot create a socket", errno);
        return SLFCefServiceSocketResult::Failed;
    }
    memcpy(address.sun_path, socket.socketPath.c_str(), socket.socketPath.size() + 1);
    // Only the owner may connect: the socket file is made with mode 0600.
    mode_t oldMask = umask(0177);
    int bound = bind(fd, reinterpret_cast<struct sockaddr*>(&address), sizeof address);
    int bindError = errno;
    umask(oldMask);
    if (bound != 0) {
        close(fd);
        error = SystemError("cannot bind " + socket.socketPath, bindError);
        return SLFCefServiceSocketResult::Failed;
    }
    socket.createdByUs = true;
    if (listen(fd, SOMAXCONN) != 0) {
        error = SystemError("cannot listen on " + socket.socketPath, errno);
        close(fd);
        return SLFCefServiceSocketResult::Failed;
    }
    socket.listenFd = fd;
    return SLFCefServiceSocketResult::Ready;
}

} // namespace

std::string SLFCefDefaultSocketPath()
{
    gchar* path = g_build_filename(g_get_user_runtime_dir(), "streamloft", "overlay-helper.sock", nullptr);
    std::string result = path;
    g_free(path);
    return result;
}

SLFCefServiceSocketResult SLFCefOpenServiceSocket(const std::string& listenPath, SLFCefServiceSocket& socket,
                                                  std::string& error)
{
    socket = SLFCefServiceSocket();
    SLFCefServiceSocketResult result;
    if (!listenPath.empty()) {
        socket.socketPath = listenPath;
        result = CreateSocket(socket, false, error);
    } else {
        int handedOver = sd_listen_fds(1);
        if (handedOver > 1) {
            error = "systemd handed over " + std::to_string(handedOver) + " sockets; expected one";
            result = SLFCefServiceSocketResult::Failed;
        } else if (handedOver == 1) {
            result = UseActivatedSocket(socket, error);
        } else {
            socket.socketPath = SLFCefDefaultSocketPath();
            result = CreateSocket(socket, true, error);
        }
    }
    if (result != SLFCefServiceSocketResult::Ready)
        SLFCefReleaseServiceSocket(socket);
    return result;
}

void SLFCefReleaseServiceSocket(SLFCefServiceSocket& socket)
{
    if (socket.createdByUs && socket.lockFd >= 0)
        unlink(socket.socketPath.c_str());
    socket.createdByUs = false;
    if (socket.lockFd >= 0) {
        // Removed while still held (see TakeLock), then released.
        unlink(socket.lockPath.c_str());
        close(socket.lockFd);
    }
    socket.lockFd = -1;
}
