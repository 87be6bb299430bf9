// A clean log configuration for every test: the start decorations, only the
// callback sink (collecting lines), log files under a temporary home folder,
// and datagrams sent only to 127.0.0.1 (others are recorded and dropped).
#pragma once

#include "dbg/DbgState.h"
#include "dbg/dbg.h"
#include "platform/NplFile.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <mutex>
#include <regex.h>
#include <string>
#include <vector>

// Whole-text match against a POSIX extended regular expression.
inline bool Matches(const std::string& text, const std::string& pattern)
{
    regex_t re;
    if (regcomp(&re, ("^" + pattern + "$").c_str(), REG_EXTENDED | REG_NOSUB) != 0)
        return false;
    const bool matched = regexec(&re, text.c_str(), 0, nullptr, 0) == 0;
    regfree(&re);
    return matched;
}

class DbgFixture : public ::testing::Test {
protected:
    struct Line {
        int level;
        std::string text;
        int length;
    };

    void SetUp() override
    {
        DbgSetSendFunction(&SendToLoopbackOnly);
        char folder[] = "/tmp/slf-dbg-test-XXXXXX";
        ASSERT_NE(mkdtemp(folder), nullptr);
        m_home = folder;
        DbgSetHomeFolderOverride(m_home.c_str());
        DbgGetSyslog().host[0] = 0;
        DbgGetSyslog().port = 514;
        DbgGetSyslog().headerType = 1;
        DbgGetSettings().colorize = false;
        for (const char* command : {"null", "time", "addtag", "addlevel", "functionname", "nothreadid", "nodeltatime",
                                    "nofunctionpurename", "noreftime", "functionnamefilter", "filter_debug",
                                    "filter_info", "filter_warning", "callback"})
            dbgcommand(command);
        dbgsetcallback(&Receive, this);
    }
    void TearDown() override
    {
        dbgcommand("null");
        dbgsetcallback(nullptr, nullptr);
        DbgSyslogCloseUdp();
        DbgResetLogFile();
        DbgSetHomeFolderOverride(nullptr);
        NplFile_DeleteFolder(m_home);
        std::lock_guard<std::mutex> guard(s_mutex);
        s_dropped.clear();
    }

    std::vector<Line> Lines()
    {
        std::lock_guard<std::mutex> guard(s_mutex);
        return m_lines;
    }
    void Clear()
    {
        std::lock_guard<std::mutex> guard(s_mutex);
        m_lines.clear();
    }
    std::string Last()
    {
        const auto lines = Lines();
        return lines.empty() ? std::string() : lines.back().text;
    }
    // Logs one line and returns what the callback got ("" when nothing).
    std::string LogOne(int level, const char* module, const char* function, const char* message)
    {
        Clear();
        dbgprintf(level, "npl", module, function, "%s", message);
        return Last();
    }
    // Datagrams to other hosts than 127.0.0.1: "host:port" and the bytes.
    static std::vector<std::pair<std::string, std::string>> Dropped()
    {
        std::lock_guard<std::mutex> guard(s_mutex);
        return s_dropped;
    }

    std::string m_home;

private:
    static void Receive(void* context, int level, const char* line, int length)
    {
        std::lock_guard<std::mutex> guard(s_mutex);
        static_cast<DbgFixture*>(context)->m_lines.push_back({level, line, length});
    }
    static ssize_t SendToLoopbackOnly(int fd, const void* data, size_t length, int flags, const sockaddr* to,
                                      socklen_t toLength)
    {
        const auto* address = reinterpret_cast<const sockaddr_in*>(to);
        if (ntohl(address->sin_addr.s_addr) == INADDR_LOOPBACK)
            return sendto(fd, data, length, flags, to, toLength);
        std::lock_guard<std::mutex> guard(s_mutex);
        s_dropped.emplace_back(std::string(inet_ntoa(address->sin_addr)) + ":" +
                                   std::to_string(ntohs(address->sin_port)),
                               std::string(static_cast<const char*>(data), length));
        return static_cast<ssize_t>(length);
    }

    static inline std::mutex s_mutex;
    static inline std::vector<std::pair<std::string, std::string>> s_dropped;
    std::vector<Line> m_lines;
};
