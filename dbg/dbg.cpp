// Module table and line building of the diagnostic log.
#include "dbg/dbg.h"

#include "dbg/DbgState.h"
#include "platform/NplThreading.h"
#include "platform/NplTime.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

namespace {

constexpr size_t kLineSize = 4096;

struct DbgModule {
    char* name = nullptr;
    char* flagNames[DBG_MAX_FLAGS] = {nullptr};
    std::atomic<uint32_t> flags {0};
};

// The table is static state, zero at start. No lock: modules are registered
// at start-up and read by call sites on any thread afterwards.
DbgModule g_modules[DBG_MAX_MODULES];

bool ValidModule(int32_t index)
{
    return index >= 0 && index < DBG_MAX_MODULES;
}

char* CopyText(const char* text)
{
    return text ? strdup(text) : nullptr;
}

// A line under construction: appends only while there is room; the text
// always stays terminated.
struct LineBuffer {
    char* data;
    size_t size;
    size_t length = 0;

    void Append(const char* text, size_t count)
    {
        if (length + 1 >= size)
            return;
        const size_t room = size - 1 - length;
        if (count > room)
            count = room;
        memcpy(data + length, text, count);
        length += count;
        data[length] = 0;
    }
    void Append(const char* text) { Append(text, strlen(text)); }
    void AppendFormat(const char* format, ...) __attribute__((format(printf, 2, 3)))
    {
        if (length + 1 >= size)
            return;
        va_list args;
        va_start(args, format);
        const int n = vsnprintf(data + length, size - length, format, args);
        va_end(args);
        if (n > 0)
            length += (static_cast<size_t>(n) < size - length) ? static_cast<size_t>(n) : size - 1 - length;
    }
};

const char* LevelTag(int level)
{
    switch (level) {
    case 0:
        return "ERR";
    case 1:
        return "wrn";
    case 2:
        return "inf";
    default:
        return "   ";
    }
}

void AppendElapsed(LineBuffer& line, int64_t d)
{
    char text[64];
    DbgFormatElapsed(text, sizeof text, d);
    line.Append(text);
}

// Writes "<prefix><name><suffix>: " for a caller's signature: the text up
// to the first "(" followed by "()", or a bracketed method name as it is.
// With pure names the return type and qualifiers before the qualified name
// are left out.
void AppendFunctionName(LineBuffer& line, const char* name, bool pureName, int minLength)
{
    const size_t nameLength = strlen(name);
    const char* suffix = "()";
    size_t end;
    if ((name[0] == '-' || name[0] == '+') && name[1] == '[') {
        suffix = "";
        end = nameLength;
    } else {
        const char* paren = strchr(name, '(');
        end = paren ? static_cast<size_t>(paren - name) : nameLength;
    }

    size_t start = 0;
    if (pureName && suffix[0] != 0) {
        start = end;
        while (start > 0 && name[start] != ' ')
            --start;
        if (start > 0)
            ++start;
        if (name[start] == '*')
            ++start;
        if (name[start] == '&')
            ++start;
        if (name[start] == '*')
            ++start;
        if (start > end)
            start = end;
    }

    char prefix[kLineSize];
    prefix[0] = 0;
    if (name[0] == ' ' || name[0] == '\\' || name[0] == '/') {
        int last = -1;
        for (size_t i = 0; i < start; ++i)
            if (name[i] == '\\' || name[i] == '/')
                last = static_cast<int>(i);
        snprintf(prefix, sizeof prefix, "%.*s ", last + 1, name);
    }

    char part[kLineSize];
    int n = snprintf(part, sizeof part, "%s%.*s%s: ", prefix, static_cast<int>(end - start), name + start, suffix);
    if (n < 0)
        n = 0;
    size_t partLength = (static_cast<size_t>(n) < sizeof part) ? static_cast<size_t>(n) : sizeof part - 1;
    while (minLength > 0 && partLength < static_cast<size_t>(minLength) && partLength + 1 < sizeof part) {
        part[partLength++] = ' ';
        part[partLength] = 0;
    }
    line.Append(part, partLength);
}

} // namespace

void DbgFormatElapsed(char* out, size_t size, int64_t d)
{
    // Seconds, milliseconds and microseconds; the last two are padded with
    // spaces, not zeros.
    snprintf(out, size, "%2lld.%3lld.%3lld ", static_cast<long long>((d / 1000000) % 1000),
             static_cast<long long>((d / 1000) % 1000), static_cast<long long>(d % 1000));
}

int32_t DbgFindFlag(int32_t moduleIndex, const char* name)
{
    if (!ValidModule(moduleIndex) || !name)
        return -1;
    for (int32_t i = 0; i < DBG_MAX_FLAGS; ++i)
        if (g_modules[moduleIndex].flagNames[i] && strcmp(g_modules[moduleIndex].flagNames[i], name) == 0)
            return i;
    return -1;
}

extern "C" {

int32_t _dbgGetModuleIndex(const char* name)
{
    if (!name)
        return -1;
    for (int32_t i = 0; i < DBG_MAX_MODULES; ++i)
        if (g_modules[i].name && strcmp(g_modules[i].name, name) == 0)
            return i;
    return -1;
}

int32_t dbgregister(const char* name)
{
    if (!name)
        return -1;
    const int32_t existing = _dbgGetModuleIndex(name);
    if (existing >= 0)
        return existing;
    for (int32_t i = 0; i < DBG_MAX_MODULES; ++i) {
        if (!g_modules[i].name) {
            g_modules[i].name = CopyText(name);
            return i;
        }
    }
    return -1;
}

void dbgunregister(const char* name)
{
    const int32_t index = _dbgGetModuleIndex(name);
    if (index < 0)
        return;
    DbgModule& module = g_modules[index];
    free(module.name);
    module.name = nullptr;
    for (char*& flag : module.flagNames) {
        free(flag);
        flag = nullptr;
    }
    // The flag word stays as it is.
}

void dbgunregisterall(void)
{
    for (DbgModule& module : g_modules)
        if (module.name)
            dbgunregister(module.name);
    DbgLogFileState& file = DbgGetLogFile();
    free(file.path);
    file.path = nullptr;
}

void dbgsetflagvalue(int32_t moduleIndex, int32_t flagIndex, int value)
{
    if (!ValidModule(moduleIndex))
        return;
    const uint32_t bit = 1u << (static_cast<uint32_t>(flagIndex) % DBG_MAX_FLAGS);
    if (value)
        g_modules[moduleIndex].flags.fetch_or(bit, std::memory_order_relaxed);
    else
        g_modules[moduleIndex].flags.fetch_and(~bit, std::memory_order_relaxed);
}

int32_t dbgregisterflag(int32_t moduleIndex, const char* flagName, int value)
{
    if (!ValidModule(moduleIndex) || !flagName)
        return 0;
    DbgModule& module = g_modules[moduleIndex];
    for (int32_t i = 0; i < DBG_MAX_FLAGS; ++i)
        if (module.flagNames[i] && strcmp(module.flagNames[i], flagName) == 0)
            return i;
    for (int32_t i = 0; i < DBG_MAX_FLAGS; ++i) {
        if (!module.flagNames[i]) {
            module.flagNames[i] = CopyText(flagName);
            dbgsetflagvalue(moduleIndex, i, value);
            return i;
        }
    }
    // A full list: 0 stands for both the first slot and failure.
    return 0;
}

uint32_t _dbgGetModuleFlags(int32_t moduleIndex)
{
    return ValidModule(moduleIndex) ? g_modules[moduleIndex].flags.load(std::memory_order_relaxed) : 0;
}

const char* _dbgGetModuleName(int32_t moduleIndex)
{
    return ValidModule(moduleIndex) ? g_modules[moduleIndex].name : nullptr;
}

void dbgsetfilter(const char* text, int level)
{
    if (level < 0 || level >= DBG_MAX_FLAGS)
        return;
    DbgSettings& settings = DbgGetSettings();
    free(settings.filters[level]);
    settings.filters[level] = (text && text[0]) ? CopyText(text) : nullptr;
}

void dbgvprintf(int level, const char* libraryTag, const char* moduleName, const char* functionName, const char* format,
                va_list args)
{
    (void)libraryTag;
    DbgSettings& settings = DbgGetSettings();

    char message[kLineSize];
    message[0] = 0;
    if (format)
        vsnprintf(message, sizeof message, format, args);

    if (level >= 0 && level < DBG_MAX_FLAGS) {
        const char* filter = settings.filters[level];
        if (filter && filter[0]) {
            const bool inName = functionName && strcasestr(functionName, filter);
            if (!inName && !strcasestr(message, filter))
                return;
        }
    }

    char buffer[kLineSize];
    buffer[0] = 0;
    LineBuffer line {buffer, sizeof buffer};

    if (settings.addTime.load(std::memory_order_relaxed)) {
        char now[32];
        NplTime_GetCurrentTimeString(now, sizeof now);
        line.Append(now);
    }

    const int64_t nowUs = NplTime_GetTimeOfDayNanoseconds() / 1000;
    const int64_t reference = settings.referenceTimeUs.load(std::memory_order_relaxed);
    if (reference != 0)
        AppendElapsed(line, nowUs - reference);
    const int64_t previous = settings.previousTimeUs.exchange(nowUs, std::memory_order_relaxed);
    if (settings.deltaTime.load(std::memory_order_relaxed) && previous != 0)
        AppendElapsed(line, nowUs - previous);

    if (settings.threadId.load(std::memory_order_relaxed)) {
        const int id = NplThreading_GetThreadId();
        if (id != -1)
            line.AppendFormat("%5d ", id);
    }

    char tag[kLineSize];
    tag[0] = 0;
    if (moduleName && moduleName[0])
        snprintf(tag, sizeof tag, "%-4s ", moduleName);
    if (settings.addTag.load(std::memory_order_relaxed))
        line.Append(tag);

    if (settings.addLevel.load(std::memory_order_relaxed))
        line.AppendFormat("%-3s ", LevelTag(level));

    char colour = 0;
    if (settings.colorize.load(std::memory_order_relaxed) && level <= 3) {
        if (level == 0)
            colour = '1';
        else if (level == 1)
            colour = '3';
        else if (level == 2)
            colour = '4';
    }
    if (colour)
        line.AppendFormat("%c[1;3%cm", 27, colour);

    if (settings.functionName.load(std::memory_order_relaxed) && functionName && functionName[0]) {
        const char* nameFilter = settings.functionNameFilter;
        if (!(nameFilter[0] && strstr(message, nameFilter)))
            AppendFunctionName(line, functionName, settings.functionPureName.load(std::memory_order_relaxed),
                               settings.functionMinLength.load(std::memory_order_relaxed));
    }

    line.Append(message);

    if (colour) {
        while (line.length > 0 &&
               (buffer[line.length - 1] == '\r' || buffer[line.length - 1] == '\n' || buffer[line.length - 1] == ' '))
            buffer[--line.length] = 0;
        // Ends in the program's end-of-line colour (bold dark grey).
        line.AppendFormat("%c[1;30m", 27);
    }

    if (line.length > 0 && line.length < kLineSize - 2 && buffer[line.length - 1] != '\n' &&
        buffer[line.length - 1] != '\r')
        line.Append("\n", 1);

    DbgDispatch(level, tag, buffer, static_cast<int>(line.length));
}

void dbgprintf(int level, const char* libraryTag, const char* moduleName, const char* functionName, const char* format,
               ...)
{
    va_list args;
    va_start(args, format);
    dbgvprintf(level, libraryTag, moduleName, functionName, format, args);
    va_end(args);
}

int32_t* NplDebugPrintInit(NplDebugInfo* info, const char* moduleName, int highestLevel,
                           const NplDebugFlagRecord* extraFlags, int extraCount)
{
    int32_t table[DBG_MAX_FLAGS] = {0};
    const int32_t module = dbgregister(moduleName);
    if (info)
        info->moduleIndex = module;
    table[0] = dbgregisterflag(module, "ERR", highestLevel >= 0);
    table[1] = dbgregisterflag(module, "WRN", highestLevel >= 1);
    table[2] = dbgregisterflag(module, "INF", highestLevel >= 2);
    table[3] = dbgregisterflag(module, "DBG", highestLevel >= 3);
    for (int i = 0; extraFlags && i < extraCount; ++i) {
        const NplDebugFlagRecord& record = extraFlags[i];
        const int32_t flag = dbgregisterflag(module, record.name, record.defaultValue);
        if (record.slot >= 0 && record.slot < DBG_MAX_FLAGS)
            table[record.slot] = flag;
    }
    if (!info)
        return nullptr;
    memcpy(info->flagIndices, table, sizeof table);
    return info->flagIndices;
}

} // extern "C"
