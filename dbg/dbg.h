// The diagnostic log: named modules with up to 32 flags each, one line per
// message with optional decorations (time stamps, thread id, module and
// level tags, colour, the caller's function name), configured by text
// commands and handed to the enabled sinks (callback, system log locally or
// as syslog datagrams over UDP, the systemd journal, a log file, standard
// output).
//
// Levels: 0 error ("ERR"), 1 warning ("wrn"), 2 info ("inf"), 3 debug. A
// call site tests its module's flag bit with the level's number before it
// formats anything: use NPL_DBGPRINTF.
//
// Configuration is process-wide and not locked: configure at start-up, log
// from any thread afterwards.
#pragma once

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#define DBG_MAX_MODULES 128
#define DBG_MAX_FLAGS 32

// Sink mask bits.
#define DBG_SINK_SYSLOG 1
#define DBG_SINK_PRINTF 2
#define DBG_SINK_LOGFILE 4
#define DBG_SINK_ANDROID_LOGCAT 8
#define DBG_SINK_CALLBACK 16
#define DBG_SINK_OSLOG 32

#ifdef __cplusplus
extern "C" {
#endif

// Called by the callback sink with every finished line (line feed
// included) and its length in bytes.
typedef void (*dbgcallback_t)(void* context, int level, const char* line, int length);

// An extra flag for NplDebugPrintInit: registered with its default, its
// flag index stored at `slot` of the info's flag table.
typedef struct NplDebugFlagRecord {
    int32_t slot;
    const char* name;
    int defaultValue;
} NplDebugFlagRecord;

// Filled by NplDebugPrintInit: the module index and 32 flag indices
// (entries 0-3 are the flags ERR, WRN, INF and DBG).
typedef struct NplDebugInfo {
    int32_t moduleIndex;
    int32_t flagIndices[DBG_MAX_FLAGS];
} NplDebugInfo;

// Modules and flags.
int32_t dbgregister(const char* name);
int32_t _dbgGetModuleIndex(const char* name);
void dbgunregister(const char* name);
void dbgunregisterall(void);
int32_t dbgregisterflag(int32_t moduleIndex, const char* flagName, int value);
void dbgsetflagvalue(int32_t moduleIndex, int32_t flagIndex, int value);
// The flag word of a module (0 outside 0-127) and its name (null when free).
uint32_t _dbgGetModuleFlags(int32_t moduleIndex);
const char* _dbgGetModuleName(int32_t moduleIndex);

// Per-level message filter: only messages whose function name or text
// contains `text` (without regard to case) are logged at that level. Null
// or empty clears it.
void dbgsetfilter(const char* text, int level);

// Builds one line and hands it to the enabled sinks. The library tag is
// carried but not printed.
void dbgprintf(int level, const char* libraryTag, const char* moduleName, const char* functionName, const char* format,
               ...) __attribute__((format(printf, 5, 6)));
void dbgvprintf(int level, const char* libraryTag, const char* moduleName, const char* functionName, const char* format,
                va_list args) __attribute__((format(printf, 5, 0)));

// Configuration commands ("printf", "syslog 127.0.0.1 RFC5424", "net send:1",
// ...) and queries of the settings.
int32_t dbgcommand(const char* command);
int32_t dbgquery(const char* query);
void dbgsetcallback(dbgcallback_t callback, void* context);

// Opens the local system log under the given identity.
void dbgopen(const char* identity);
// Kept for callers of the library; does nothing.
void dbgDumpBufferToFile(const void* buffer, size_t length, int flags);

// Registers a module with the flags ERR, WRN, INF, DBG (on up to
// highestLevel) and the extra flags; returns info->flagIndices.
int32_t* NplDebugPrintInit(NplDebugInfo* info, const char* moduleName, int highestLevel,
                           const NplDebugFlagRecord* extraFlags, int extraCount);

#ifdef __cplusplus
}
#endif

// The call site: tests bit `level` of the module's flag word and only then
// formats and logs, with the caller's full signature as function name.
#define NPL_DBGPRINTF(moduleIndex, level, format, ...)                                                                 \
    do {                                                                                                               \
        const int32_t nplDbgModule_ = (moduleIndex);                                                                   \
        const int nplDbgLevel_ = (level);                                                                              \
        if (nplDbgModule_ >= 0 && nplDbgModule_ < DBG_MAX_MODULES && nplDbgLevel_ >= 0 && nplDbgLevel_ < 32 &&         \
            ((_dbgGetModuleFlags(nplDbgModule_) >> nplDbgLevel_) & 1u))                                                \
            dbgprintf(nplDbgLevel_, "npl", _dbgGetModuleName(nplDbgModule_), __PRETTY_FUNCTION__,                      \
                      format __VA_OPT__(, ) __VA_ARGS__);                                                              \
    } while (0)
