// A clean log configuration for every test: the start settings of the
// decorations, only the callback sink (collecting lines), log files under a
// temporary home folder, and datagrams only ever sent to 127.0.0.1 (any
// other destination is recorded and dropped).
#pragma once

#include "dbg/DbgState.h"
#include "dbg/dbg.h"
#include "platform/NplFile.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

struct DbgCapturedLine {
    int level;
    std::string text;
    int length;
};

struct DbgDroppedDatagram {
    std::string destination;
    std::string data;
};

class DbgFixture : public ::testing::Test {
protected:
    void SetUp() override
    {
        DbgSetSendFunction(&DbgFixture::SendToLoopbackOnly);
        char folder[] = "/tmp/slf-dbg-test-XXXXXX";
        ASSERT_NE(mkdtemp(folder), nullptr);
        m_home = folder;
        DbgSetHomeFolderOverride(m_home.c_str());

        dbgcommand("null");
        DbgSyslogCloseUdp();
        DbgGetSyslog().host[0] = 0;
        DbgGetSyslog().port = 514;
        DbgGetSyslog().headerType = 1;
        DbgResetLogFile();
        for (const char* command : {"time", "addtag", "addlevel", "functionname", "nothreadid", "nodeltatime",
                                    "nofunctionpurename", "noreftime", "functionnamefilter", "nofunctionminlength",
                                    "filter_debug", "filter_info", "filter_warning"})
            dbgcommand(command);
        DbgGetSettings().colorize = false;
        for (int level = 0; level < DBG_MAX_FLAGS; ++level)
            dbgsetfilter(nullptr, level);
        dbgsetcallback(&DbgFixture::Receive, this);
        dbgcommand("callback");
        Clear();
    }

    void TearDown() override
    {
        dbgcommand("null");
        dbgsetcallback(nullptr, nullptr);
        DbgSyslogCloseUdp();
        DbgResetLogFile();
        DbgSetHomeFolderOverride(nullptr);
        NplFile_DeleteFolder(m_home);
        std::lock_guard<std::mutex> guard(DroppedMutex());
        Dropped().clear();
    }

    std::vector<DbgCapturedLine> Lines()
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        return m_lines;
    }
    std::vector<std::string> Texts()
    {
        std::vector<std::string> texts;
        for (const auto& line : Lines())
            texts.push_back(line.text);
        return texts;
    }
    void Clear()
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        m_lines.clear();
    }
    // Logs one line with the time stamp off and returns what the callback got
    // ("" when nothing).
    std::string LogOne(int level, const char* module, const char* function, const char* message)
    {
        Clear();
        dbgprintf(level, "npl", module, function, "%s", message);
        const auto lines = Texts();
        return lines.empty() ? std::string() : lines.back();
    }

    static std::vector<DbgDroppedDatagram>& Dropped()
    {
        static std::vector<DbgDroppedDatagram> dropped;
        return dropped;
    }
    static std::mutex& DroppedMutex()
    {
        static std::mutex mutex;
        return mutex;
    }

    std::string m_home;

private:
    static void Receive(void* context, int level, const char* line, int length)
    {
        DbgFixture* self = static_cast<DbgFixture*>(context);
        std::lock_guard<std::mutex> guard(self->m_mutex);
        self->m_lines.push_back({level, std::string(line), length});
    }

    static ssize_t SendToLoopbackOnly(int fd, const void* data, size_t length, int flags, const struct sockaddr* to,
                                      socklen_t toLength)
    {
        const auto* address = reinterpret_cast<const struct sockaddr_in*>(to);
        if (address->sin_family == AF_INET && ntohl(address->sin_addr.s_addr) == INADDR_LOOPBACK)
            return sendto(fd, data, length, flags, to, toLength);
        char text[INET_ADDRSTRLEN] = {0};
        inet_ntop(AF_INET, &address->sin_addr, text, sizeof text);
        std::lock_guard<std::mutex> guard(DroppedMutex());
        Dropped().push_back({std::string(text) + ":" + std::to_string(ntohs(address->sin_port)),
                             std::string(static_cast<const char*>(data), length)});
        return static_cast<ssize_t>(length);
    }

    std::mutex m_mutex;
    std::vector<DbgCapturedLine> m_lines;
};
