// Process-wide state of the diagnostic log, shared by the line builder, the
// commands and the sinks. Not part of the public interface; tests include it
// to look at settings and to redirect the network and home-folder lookups.
#pragma once

#include "dbg/dbg.h"

#include <atomic>
#include <cstdint>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/types.h>

// Settings. Single values are relaxed atomics, so that a reader on another
// thread sees either the old or the new value; texts are plain and belong to
// start-up configuration.
struct DbgSettings {
    std::atomic<uint32_t> sinkMask {DBG_SINK_SYSLOG};
    std::atomic<bool> addTime {true};
    std::atomic<bool> addTag {true};
    std::atomic<bool> addLevel {true};
    std::atomic<bool> functionName {true};
    std::atomic<bool> colorize {false};
    std::atomic<bool> threadId {false};
    std::atomic<bool> deltaTime {false};
    std::atomic<bool> functionPureName {false};
    std::atomic<int64_t> referenceTimeUs {0};
    std::atomic<int64_t> previousTimeUs {0};
    std::atomic<int> functionMinLength {0};
    char functionNameFilter[16] = {0};
    char* filters[DBG_MAX_FLAGS] = {nullptr};
    std::atomic<dbgcallback_t> callback {nullptr};
    std::atomic<void*> callbackContext {nullptr};
};

struct DbgSyslogState {
    std::atomic<bool> udpSetUp {false};
    char host[64] = {0};
    std::atomic<int> port {514};
    struct sockaddr_in destination = {};
    std::atomic<int> socket {-1};
    char localAddress[64] = {0};
    char applicationName[64] = {0};
    std::atomic<int> headerType {1};
};

struct DbgLogFileState {
    char* path = nullptr;
    char fullPath[4096] = {0};
    std::atomic<int> fd {-1};
};

DbgSettings& DbgGetSettings();
DbgSyslogState& DbgGetSyslog();
DbgLogFileState& DbgGetLogFile();

// The elapsed-time field of reference and delta times, microseconds in:
// "%2lld.%3lld.%3lld " of seconds (mod 1000), milliseconds, microseconds.
void DbgFormatElapsed(char* out, size_t size, int64_t microseconds);

// The index of a module's flag by name, -1 when the module has no such flag.
int32_t DbgFindFlag(int32_t moduleIndex, const char* name);

// Hands a finished line to every enabled sink.
void DbgDispatch(int level, const char* tag, const char* line, int length);

// UDP syslog: (re)creates the socket to the configured host and port, and
// closes it.
void DbgSyslogSetUpUdp();
void DbgSyslogCloseUdp();
// True for 224.0.0.0 to 239.255.255.255.
bool DbgIsMulticastAddress(const char* host);

// Builds the log file's full path from a configured path: absolute paths as
// they are, others under <home>/.local/state/. Empty when no home is known.
void DbgBuildLogFilePath(const char* configured, char* out, size_t size);
// Closes the log file and forgets its full path, so the next line opens the
// (new) configured path.
void DbgResetLogFile();

// Seams for tests. The home folder used for relative log paths (null:
// the account's home from the user database); the function that sends
// datagrams (null: sendto).
typedef ssize_t (*DbgSendFunction)(int fd, const void* data, size_t length, int flags, const struct sockaddr* to,
                                   socklen_t toLength);
void DbgSetHomeFolderOverride(const char* home);
void DbgSetSendFunction(DbgSendFunction function);
