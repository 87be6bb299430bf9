// Text commands that configure the diagnostic log, and queries of the
// settings.
#include "dbg/DbgState.h"
#include "platform/NplThreading.h"
#include "platform/NplTime.h"

#include <cstdlib>
#include <cstring>
#include <glib.h>
#include <string>
#include <strings.h>

namespace {

bool IsSeparator(char c)
{
    const unsigned char u = static_cast<unsigned char>(c);
    return u >= 1 && u <= 32;
}

// Splits command text into words separated by runs of bytes 1-32.
class Words {
public:
    explicit Words(const char* text) : m_pos(text) {}

    // The next word, or empty at the end.
    std::string Next()
    {
        SkipSeparators();
        const char* start = m_pos;
        while (*m_pos && !IsSeparator(*m_pos))
            ++m_pos;
        return std::string(start, static_cast<size_t>(m_pos - start));
    }

    // The next word of a filter text: may be enclosed in double or single
    // quotes, which are removed and may enclose spaces.
    std::string NextFilterText()
    {
        SkipSeparators();
        if (*m_pos == '"' || *m_pos == '\'') {
            const char quote = *m_pos++;
            const char* start = m_pos;
            while (*m_pos && *m_pos != quote)
                ++m_pos;
            std::string word(start, static_cast<size_t>(m_pos - start));
            if (*m_pos == quote)
                ++m_pos;
            return word;
        }
        return Next();
    }

    // Everything after the current position, without the separators around
    // it.
    std::string Rest()
    {
        SkipSeparators();
        std::string rest(m_pos);
        while (!rest.empty() && IsSeparator(rest.back()))
            rest.pop_back();
        return rest;
    }

private:
    void SkipSeparators()
    {
        while (*m_pos && IsSeparator(*m_pos))
            ++m_pos;
    }

    const char* m_pos;
};

void SetMaskBit(uint32_t bit, bool on)
{
    DbgSettings& settings = DbgGetSettings();
    if (on)
        settings.sinkMask.fetch_or(bit, std::memory_order_relaxed);
    else
        settings.sinkMask.fetch_and(~bit, std::memory_order_relaxed);
}

// Messages about the configuration: level 3, no module tag, in the name of
// the command entry point.
#define DBG_CONFIG_LOG(...) dbgprintf(3, "npl", nullptr, "int32_t dbgcommand(const char*)", __VA_ARGS__)

void CommandSyslog(Words& words)
{
    DbgSyslogState& state = DbgGetSyslog();
    DbgSyslogCloseUdp();
    SetMaskBit(DBG_SINK_SYSLOG, true);
    const std::string host = words.Next();
    if (host.empty()) {
        state.host[0] = 0;
        DBG_CONFIG_LOG("using syslog (local)");
        return;
    }
    snprintf(state.host, sizeof state.host, "%.63s", host.c_str());
    int type = 1;
    const std::string typeWord = words.Next();
    if (strcasecmp(typeWord.c_str(), "none") == 0)
        type = 0;
    else if (strcasecmp(typeWord.c_str(), "PRI") == 0 || strcasecmp(typeWord.c_str(), "LevelOnly") == 0)
        type = 1;
    else if (strcasecmp(typeWord.c_str(), "RFC3164") == 0)
        type = 2;
    else if (strcasecmp(typeWord.c_str(), "RFC5424") == 0)
        type = 3;
    state.headerType.store(type, std::memory_order_relaxed);
    DbgSyslogSetUpUdp();
    DBG_CONFIG_LOG("using syslog via UDP to %s:%d (header type = %d)", state.host,
                   state.port.load(std::memory_order_relaxed), type);
}

void CommandLogFile(Words& words)
{
    std::string path = words.Rest();
    if (path.empty())
        path = "~/norvik.log";
    // "~/" stands for the log folder under the home folder.
    if (path.compare(0, 2, "~/") == 0)
        path.erase(0, 2);
    SetMaskBit(DBG_SINK_LOGFILE, true);
    DbgResetLogFile();
    DbgLogFileState& file = DbgGetLogFile();
    free(file.path);
    file.path = strdup(path.c_str());
    DBG_CONFIG_LOG("using log file '%s'\n", file.path);
}

int32_t CommandModule(const std::string& name, Words& words)
{
    const int32_t module = dbgregister(name.c_str());
    for (std::string word = words.Next(); !word.empty(); word = words.Next()) {
        if (word.size() > 2 && word[word.size() - 2] == ':') {
            const int value = word.back() != '0';
            const int32_t flag = dbgregisterflag(module, word.substr(0, word.size() - 2).c_str(), value);
            dbgsetflagvalue(module, flag, value);
        } else {
            dbgregisterflag(module, word.c_str(), 0);
        }
    }
    return module;
}

struct Switch {
    const char* on;
    const char* off;
    std::atomic<bool> DbgSettings::*setting;
};

const Switch kSwitches[] = {
    {"colorizeloglevel", nullptr, &DbgSettings::colorize},
    {"time", "notime", &DbgSettings::addTime},
    {"functionname", "nofunctionname", &DbgSettings::functionName},
    {"threadid", "nothreadid", &DbgSettings::threadId},
    {"addtag", "noaddtag", &DbgSettings::addTag},
    {"addlevel", "noaddlevel", &DbgSettings::addLevel},
    {"functionpurename", "nofunctionpurename", &DbgSettings::functionPureName},
    {"deltatime", "nodeltatime", &DbgSettings::deltaTime},
};

int FilterLevel(const std::string& keyword)
{
    if (keyword == "filter_debug")
        return 3;
    if (keyword == "filter_info")
        return 2;
    if (keyword == "filter_warning")
        return 1;
    return -1;
}

} // namespace

extern "C" {

int32_t dbgcommand(const char* command)
{
    if (!command)
        return -1;
    if (!g_utf8_validate(command, -1, nullptr)) {
        BreakIntoDebugger();
        return 0;
    }
    DbgSettings& settings = DbgGetSettings();
    Words words(command);
    const std::string keyword = words.Next();

    if (keyword == "null") {
        settings.sinkMask.store(0, std::memory_order_relaxed);
        DBG_CONFIG_LOG("using /dev/null\n");
    } else if (keyword == "callback") {
        SetMaskBit(DBG_SINK_CALLBACK, true);
        DBG_CONFIG_LOG("using callback\n");
    } else if (keyword == "nocallback") {
        SetMaskBit(DBG_SINK_CALLBACK, false);
        DBG_CONFIG_LOG("removing callback\n");
    } else if (keyword == "syslog") {
        CommandSyslog(words);
    } else if (keyword == "oslog") {
        SetMaskBit(DBG_SINK_OSLOG, true);
    } else if (keyword == "printf") {
        SetMaskBit(DBG_SINK_PRINTF, true);
        DBG_CONFIG_LOG("using printf\n");
    } else if (keyword == "noprintf") {
        SetMaskBit(DBG_SINK_PRINTF, false);
        DBG_CONFIG_LOG("removing printf\n");
    } else if (keyword == "logfile") {
        CommandLogFile(words);
    } else if (keyword == "android_logcat") {
        // Nothing to do on this system.
    } else if (FilterLevel(keyword) >= 0) {
        const std::string text = words.NextFilterText();
        dbgsetfilter(text.c_str(), FilterLevel(keyword));
    } else if (keyword == "reftime") {
        settings.referenceTimeUs.store(NplTime_GetTimeOfDayNanoseconds() / 1000, std::memory_order_relaxed);
    } else if (keyword == "noreftime") {
        settings.referenceTimeUs.store(0, std::memory_order_relaxed);
    } else if (keyword == "functionnamefilter") {
        const std::string text = words.Next();
        snprintf(settings.functionNameFilter, sizeof settings.functionNameFilter, "%.15s", text.c_str());
    } else if (keyword == "functionminlength" || keyword == "nofunctionminlength") {
        // Both spellings leave names unpadded.
        settings.functionMinLength.store(0, std::memory_order_relaxed);
    } else if (!keyword.empty()) {
        for (const Switch& entry : kSwitches) {
            if (keyword == entry.on || (entry.off && keyword == entry.off)) {
                (settings.*entry.setting).store(keyword == entry.on, std::memory_order_relaxed);
                if (entry.setting == &DbgSettings::deltaTime && keyword == entry.on)
                    settings.previousTimeUs.store(0, std::memory_order_relaxed);
                return 0;
            }
        }
        return CommandModule(keyword, words);
    }
    return 0;
}

int32_t dbgquery(const char* query)
{
    if (!query)
        return -1;
    const DbgSettings& settings = DbgGetSettings();
    Words words(query);
    const std::string keyword = words.Next();
    if (keyword.empty())
        return -1;
    const uint32_t mask = settings.sinkMask.load(std::memory_order_relaxed);

    if (keyword == "null")
        return mask == 0;
    if (keyword == "callback")
        return (mask & DBG_SINK_CALLBACK) && settings.callback.load(std::memory_order_relaxed);
    if (keyword == "logfile")
        return (mask & DBG_SINK_LOGFILE) && DbgGetLogFile().path;
    if (keyword == "syslog")
        return (mask & DBG_SINK_SYSLOG) ? 1 : 0;
    if (keyword == "printf")
        return (mask & DBG_SINK_PRINTF) ? 1 : 0;
    if (keyword == "oslog")
        return (mask & DBG_SINK_OSLOG) ? 1 : 0;
    if (keyword == "android_logcat")
        return static_cast<int32_t>(mask & DBG_SINK_ANDROID_LOGCAT);
    if (keyword == "functionminlength")
        return settings.functionMinLength.load(std::memory_order_relaxed);
    if (keyword == "reftime")
        return settings.referenceTimeUs.load(std::memory_order_relaxed) != 0;
    if (keyword == "functionnamefilter")
        return settings.functionNameFilter[0] != 0;
    if (FilterLevel(keyword) >= 0) {
        const char* filter = settings.filters[FilterLevel(keyword)];
        return filter && filter[0];
    }
    for (const Switch& entry : kSwitches)
        if (keyword == entry.on)
            return (settings.*entry.setting).load(std::memory_order_relaxed) ? 1 : 0;

    const int32_t module = _dbgGetModuleIndex(keyword.c_str());
    if (module < 0)
        return -1;
    const std::string flagName = words.Next();
    if (flagName.empty())
        return -1;
    const int32_t flag = DbgFindFlag(module, flagName.c_str());
    if (flag < 0)
        return -1;
    return (_dbgGetModuleFlags(module) >> flag) & 1u;
}

} // extern "C"
