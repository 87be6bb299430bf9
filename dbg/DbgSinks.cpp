// Sinks of the diagnostic log: callback, system log (local or syslog
// datagrams over UDP), the systemd journal, the log file, standard output.
#include "dbg/DbgState.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <mutex>
#include <pwd.h>
#include <sys/stat.h>
#include <syslog.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

namespace {

DbgSettings g_settings;
DbgSyslogState g_syslog;
DbgLogFileState g_logFile;
char g_identity[1024];

std::atomic<DbgSendFunction> g_sendFunction {nullptr};
char* g_homeOverride = nullptr;

// Leaf locks: each is taken only around (re)creating its sink's descriptor
// and nothing else is locked while it is held. Lines themselves are sent
// and written without a lock.
std::mutex g_udpSetUpMutex;
std::mutex g_logFileOpenMutex;

// snprintf for texts that are cut to their buffer on purpose.
void FormatCut(char* out, size_t size, const char* format, ...) __attribute__((format(printf, 3, 4)));
void FormatCut(char* out, size_t size, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    vsnprintf(out, size, format, args);
    va_end(args);
}

int SyslogPriority(int level)
{
    // Facility user (8) with the level's severity.
    switch (level) {
    case 0:
        return 11;
    case 1:
        return 12;
    case 2:
        return 14;
    default:
        return 15;
    }
}

int JournalPriority(int level)
{
    switch (level) {
    case 0:
        return LOG_ERR;
    case 1:
    case 2:
        return LOG_INFO;
    case 3:
        return LOG_DEBUG;
    default:
        return LOG_NOTICE;
    }
}

void FindLocalAddress(char* out, size_t size)
{
    out[0] = 0;
    // Connecting a UDP socket sends nothing; it only picks the interface
    // (and so the address) that would carry traffic to the outside.
    const int fd = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    if (fd < 0)
        return;
    struct sockaddr_in remote = {};
    remote.sin_family = AF_INET;
    remote.sin_port = htons(53);
    inet_pton(AF_INET, "8.8.8.8", &remote.sin_addr);
    if (connect(fd, reinterpret_cast<struct sockaddr*>(&remote), sizeof remote) == 0) {
        struct sockaddr_in local = {};
        socklen_t length = sizeof local;
        if (getsockname(fd, reinterpret_cast<struct sockaddr*>(&local), &length) == 0) {
            char text[INET_ADDRSTRLEN] = {0};
            if (inet_ntop(AF_INET, &local.sin_addr, text, sizeof text))
                snprintf(out, size, "%s", text);
        }
    }
    close(fd);
}

bool MakeIPv4Address(const char* host, int port, struct sockaddr_in* out)
{
    memset(out, 0, sizeof *out);
    out->sin_family = AF_INET;
    out->sin_port = htons(static_cast<uint16_t>(port));
    return host && host[0] && inet_pton(AF_INET, host, &out->sin_addr) == 1;
}

void SetUpUdpLocked()
{
    g_syslog.udpSetUp.store(true, std::memory_order_relaxed);
    FindLocalAddress(g_syslog.localAddress, sizeof g_syslog.localAddress);

    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
    if (fd < 1) {
        if (fd == 0)
            close(fd);
        return;
    }
    if (!MakeIPv4Address(g_syslog.host, g_syslog.port.load(std::memory_order_relaxed), &g_syslog.destination)) {
        close(fd);
        return;
    }
    if (DbgIsMulticastAddress(g_syslog.host)) {
        struct in_addr any = {};
        any.s_addr = htonl(INADDR_ANY);
        setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &any, sizeof any);
        const unsigned char loop = 1;
        setsockopt(fd, IPPROTO_IP, IP_MULTICAST_LOOP, &loop, sizeof loop);
    }
    g_syslog.socket.store(fd, std::memory_order_release);
}

void SendUdp(int level, const char* line, int length)
{
    int fd = g_syslog.socket.load(std::memory_order_acquire);
    if (fd < 0) {
        std::lock_guard<std::mutex> guard(g_udpSetUpMutex);
        fd = g_syslog.socket.load(std::memory_order_acquire);
        if (fd < 0) {
            SetUpUdpLocked();
            fd = g_syslog.socket.load(std::memory_order_acquire);
        }
    }
    if (fd <= 0)
        return;

    const int priority = SyslogPriority(level);
    char header[128];
    header[0] = 0;
    switch (g_syslog.headerType.load(std::memory_order_relaxed)) {
    case 0:
        break;
    case 1:
        snprintf(header, sizeof header, "<%d> ", priority);
        break;
    case 2: {
        char stamp[64] = {0};
        const time_t now = time(nullptr);
        struct tm local;
        if (localtime_r(&now, &local))
            strftime(stamp, sizeof stamp, "%b %d %H:%M:%S", &local);
        FormatCut(header, sizeof header, "<%d>%s %s %s[%d]: ", priority, stamp, g_syslog.localAddress,
                  g_syslog.applicationName, static_cast<int>(getpid()));
        break;
    }
    default:
        FormatCut(header, sizeof header, "<%d>%d %s %s %s %d %s %s ", priority, 1, "-", g_syslog.localAddress,
                  g_syslog.applicationName, static_cast<int>(getpid()), "npl", "-");
        break;
    }

    char datagram[4096];
    const char* data = line;
    size_t size = length > 0 ? static_cast<size_t>(length) : 0;
    if (header[0]) {
        const int n = snprintf(datagram, sizeof datagram, "%s%.*s", header, length, line);
        size = (n < 0) ? 0 : (static_cast<size_t>(n) < sizeof datagram ? static_cast<size_t>(n) : sizeof datagram - 1);
        data = datagram;
    }
    if (size > 0 && data[size - 1] == '\n')
        --size;

    const DbgSendFunction send = g_sendFunction.load(std::memory_order_relaxed);
    const ssize_t sent =
        send ? send(fd, data, size, 0, reinterpret_cast<const struct sockaddr*>(&g_syslog.destination),
                    sizeof g_syslog.destination)
             : sendto(fd, data, size, MSG_NOSIGNAL, reinterpret_cast<const struct sockaddr*>(&g_syslog.destination),
                      sizeof g_syslog.destination);
    if (sent < 0) {
        // Set up again on the next line.
        int expected = fd;
        if (g_syslog.socket.compare_exchange_strong(expected, -1))
            close(fd);
    }
}

const char* HomeOf(uid_t uid)
{
    const struct passwd* entry = getpwuid(uid);
    return (entry && entry->pw_dir && entry->pw_dir[0]) ? entry->pw_dir : nullptr;
}

// Creates the missing folders of a file's path (mode 0700, as the user's
// state folder wants), but only inside folders this process owns: a service
// running as root must not leave root-owned folders in a user's home.
void CreateParentFolders(const char* path)
{
    char folder[4096];
    snprintf(folder, sizeof folder, "%s", path);
    char* slash = strrchr(folder, '/');
    if (!slash || slash == folder)
        return;
    *slash = 0;
    const size_t length = strlen(folder);
    for (size_t end = 1; end <= length; ++end) {
        if (folder[end] != '/' && folder[end] != 0)
            continue;
        const char saved = folder[end];
        folder[end] = 0;
        struct stat info;
        if (stat(folder, &info) != 0) {
            // The parent is the text up to the previous slash.
            char* parentEnd = strrchr(folder, '/');
            struct stat parent;
            bool owned = false;
            if (parentEnd) {
                const char keep = parentEnd == folder ? parentEnd[1] : parentEnd[0];
                if (parentEnd == folder)
                    parentEnd[1] = 0;
                else
                    parentEnd[0] = 0;
                owned = stat(folder, &parent) == 0 && parent.st_uid == geteuid();
                if (parentEnd == folder)
                    parentEnd[1] = keep;
                else
                    parentEnd[0] = keep;
            }
            if (!owned || mkdir(folder, 0700) != 0) {
                folder[end] = saved;
                return;
            }
        }
        folder[end] = saved;
    }
}

void WriteLogFile(const char* line, int length)
{
    int fd = g_logFile.fd.load(std::memory_order_acquire);
    if (fd < 0) {
        std::lock_guard<std::mutex> guard(g_logFileOpenMutex);
        fd = g_logFile.fd.load(std::memory_order_acquire);
        if (fd < 0) {
            if (!g_logFile.fullPath[0]) {
                DbgBuildLogFilePath(g_logFile.path, g_logFile.fullPath, sizeof g_logFile.fullPath);
                if (g_logFile.fullPath[0])
                    CreateParentFolders(g_logFile.fullPath);
            }
            if (g_logFile.fullPath[0]) {
                fd = open(g_logFile.fullPath, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
                g_logFile.fd.store(fd, std::memory_order_release);
            }
        }
    }
    if (fd > 0 && length > 0) {
        ssize_t written = write(fd, line, static_cast<size_t>(length));
        (void)written;
        fdatasync(fd);
    }
}

} // namespace

DbgSettings& DbgGetSettings()
{
    return g_settings;
}

DbgSyslogState& DbgGetSyslog()
{
    return g_syslog;
}

DbgLogFileState& DbgGetLogFile()
{
    return g_logFile;
}

bool DbgIsMulticastAddress(const char* host)
{
    struct in_addr address;
    if (!host || inet_pton(AF_INET, host, &address) != 1)
        return false;
    const uint32_t value = ntohl(address.s_addr);
    return value >= 0xE0000000u && value <= 0xEFFFFFFFu;
}

void DbgSyslogSetUpUdp()
{
    std::lock_guard<std::mutex> guard(g_udpSetUpMutex);
    SetUpUdpLocked();
}

void DbgSyslogCloseUdp()
{
    std::lock_guard<std::mutex> guard(g_udpSetUpMutex);
    const int fd = g_syslog.socket.exchange(-1);
    if (fd >= 0)
        close(fd);
}

void DbgBuildLogFilePath(const char* configured, char* out, size_t size)
{
    out[0] = 0;
    if (!configured || !configured[0])
        return;
    if (configured[0] == '/') {
        snprintf(out, size, "%s", configured);
        return;
    }
    const char* home = g_homeOverride;
    if (!home) {
        if (getuid() == 0) {
            // A service run as root logs for the desktop's first user.
            home = HomeOf(1000);
            if (!home)
                home = HomeOf(0);
        } else {
            home = getenv("HOME");
            if (!home || !home[0])
                home = HomeOf(getuid());
        }
    }
    if (!home)
        return;
    const size_t homeLength = strlen(home);
    const char* separator = (homeLength > 0 && home[homeLength - 1] == '/') ? "" : "/";
    const int n = snprintf(out, size, "%s%s.local/state/%s", home, separator, configured);
    if (n < 0 || static_cast<size_t>(n) >= size)
        out[0] = 0;
}

void DbgResetLogFile()
{
    std::lock_guard<std::mutex> guard(g_logFileOpenMutex);
    const int fd = g_logFile.fd.exchange(-1);
    if (fd >= 0)
        close(fd);
    g_logFile.fullPath[0] = 0;
}

void DbgSetHomeFolderOverride(const char* home)
{
    std::lock_guard<std::mutex> guard(g_logFileOpenMutex);
    free(g_homeOverride);
    g_homeOverride = home ? strdup(home) : nullptr;
}

void DbgSetSendFunction(DbgSendFunction function)
{
    g_sendFunction.store(function, std::memory_order_relaxed);
}

void DbgDispatch(int level, const char* tag, const char* line, int length)
{
    (void)tag;
    const uint32_t mask = g_settings.sinkMask.load(std::memory_order_relaxed);

    if (mask & DBG_SINK_CALLBACK) {
        const dbgcallback_t callback = g_settings.callback.load(std::memory_order_acquire);
        if (callback)
            callback(g_settings.callbackContext.load(std::memory_order_relaxed), level, line, length);
    }
    if (mask & DBG_SINK_SYSLOG) {
        if (!g_syslog.host[0] || g_syslog.port.load(std::memory_order_relaxed) == 0)
            syslog(SyslogPriority(level), "%s", line);
        else
            SendUdp(level, line, length);
    }
    if (mask & DBG_SINK_OSLOG) {
        // The journal keeps lines without their final line feed.
        int textLength = length;
        if (textLength > 0 && line[textLength - 1] == '\n')
            --textLength;
        sd_journal_print(JournalPriority(level), "%.*s", textLength, line);
    }
    if ((mask & DBG_SINK_LOGFILE) && g_logFile.path)
        WriteLogFile(line, length);
    if (mask & DBG_SINK_PRINTF) {
        printf("%s", line);
        fflush(stdout);
    }
}

extern "C" {

void dbgsetcallback(dbgcallback_t callback, void* context)
{
    g_settings.callbackContext.store(context, std::memory_order_relaxed);
    g_settings.callback.store(callback, std::memory_order_release);
}

void dbgopen(const char* identity)
{
    snprintf(g_identity, sizeof g_identity, "%s", identity ? identity : "");
    // The identity also names the application in syslog datagrams.
    FormatCut(g_syslog.applicationName, sizeof g_syslog.applicationName, "%s", g_identity);
    openlog(g_identity, LOG_CONS | LOG_NDELAY, 0);
}

void dbgDumpBufferToFile(const void* buffer, size_t length, int flags)
{
    (void)buffer;
    (void)length;
    (void)flags;
}

} // extern "C"
