// A clean log configuration per test: the callback sink only, log files under
// a temporary home, datagrams sent to 127.0.0.1 only.
#pragma once

#include "dbg/DbgState.h"
#include "dbg/dbg.h"
#include "platform/NplFile.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <mutex>
#include <regex>
#include <string>
#include <vector>

inline bool Matches(const std::string& text, const std::string& pattern)
{
    return std::regex_match(text, std::regex(pattern));
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
        for (const char* command :
             {"null", "notime", "addtag", "addlevel", "functionname", "nothreadid", "nodeltatime", "nofunctionpurename",
              "noreftime", "functionnamefilter", "filter_debug", "filter_info", "filter_warning", "callback"})
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
    }

    std::vector<Line> Lines()
    {
        std::lock_guard guard(m_mutex);
        return m_lines;
    }
    void Clear()
    {
        std::lock_guard guard(m_mutex);
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

    std::string m_home;

private:
    static void Receive(void* context, int level, const char* line, int length)
    {
        auto* self = static_cast<DbgFixture*>(context);
        std::lock_guard<std::mutex> guard(self->m_mutex);
        self->m_lines.push_back({level, line, length});
    }
    static ssize_t SendToLoopbackOnly(int fd, const void* data, size_t length, int flags, const sockaddr* to,
                                      socklen_t toLength)
    {
        if (ntohl(reinterpret_cast<const sockaddr_in*>(to)->sin_addr.s_addr) == INADDR_LOOPBACK)
            return sendto(fd, data, length, flags, to, toLength);
        return static_cast<ssize_t>(length);
    }

    std::mutex m_mutex;
    std::vector<Line> m_lines;
};
