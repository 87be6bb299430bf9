#include "tests/dbg/DbgFixture.h"
#include "tests/dbg/Matches.h"

#include "platform/NplDebug.h"


namespace {

using DbgCommandTest = DbgFixture;

uint32_t Mask()
{
    return DbgGetSettings().sinkMask.load();
}

TEST_F(DbgCommandTest, SinkKeywordsSetAndClearTheirBits)
{
    EXPECT_EQ(Mask(), static_cast<uint32_t>(DBG_SINK_CALLBACK));
    EXPECT_EQ(dbgquery("callback"), 1);
    EXPECT_EQ(dbgcommand("printf"), 0);
    EXPECT_EQ(dbgquery("printf"), 1);
    EXPECT_EQ(dbgcommand("oslog"), 0);
    EXPECT_EQ(dbgquery("oslog"), 1);
    EXPECT_EQ(Mask(), static_cast<uint32_t>(DBG_SINK_CALLBACK | DBG_SINK_PRINTF | DBG_SINK_OSLOG));
    EXPECT_EQ(dbgcommand("printf"), 0); // setting a set bit again changes nothing
    EXPECT_EQ(Mask(), static_cast<uint32_t>(DBG_SINK_CALLBACK | DBG_SINK_PRINTF | DBG_SINK_OSLOG));
    dbgcommand("noprintf");
    EXPECT_EQ(dbgquery("printf"), 0);
    dbgcommand("android_logcat");
    EXPECT_EQ(dbgquery("android_logcat"), 0);
    EXPECT_EQ(dbgquery("null"), 0);
    EXPECT_EQ(dbgquery("syslog"), 0);

    const auto texts = Texts();
    ASSERT_GE(texts.size(), 3u);
    EXPECT_NE(texts[0].find("using printf\n"), std::string::npos);
    EXPECT_NE(texts.back().find("removing printf\n"), std::string::npos) << texts.back();
    // Configuration messages are debug lines without a module tag.
    EXPECT_EQ(Lines()[0].level, 3);
    EXPECT_TRUE(Matches(texts[0], (R"(\d{4}-.{19} {4}int32_t dbgcommand\(\): using printf\n)")))
        << texts[0];

    dbgcommand("nocallback");
    EXPECT_EQ(dbgquery("callback"), 0);
    dbgcommand("callback");
    dbgsetcallback(nullptr, nullptr);
    EXPECT_EQ(dbgquery("callback"), 0); // the bit alone is not enough

    dbgcommand("null");
    EXPECT_EQ(Mask(), 0u);
    EXPECT_EQ(dbgquery("null"), 1);
}

TEST_F(DbgCommandTest, SwitchesAndTheirQueries)
{
    struct {
        const char* on;
        const char* off;
    } switches[] = {{"time", "notime"},         {"functionname", "nofunctionname"},
                    {"threadid", "nothreadid"}, {"addtag", "noaddtag"},
                    {"addlevel", "noaddlevel"}, {"functionpurename", "nofunctionpurename"},
                    {"deltatime", "nodeltatime"}};
    for (const auto& entry : switches) {
        EXPECT_EQ(dbgcommand(entry.on), 0);
        EXPECT_EQ(dbgquery(entry.on), 1) << entry.on;
        EXPECT_EQ(dbgcommand(entry.off), 0);
        EXPECT_EQ(dbgquery(entry.on), 0) << entry.on;
        EXPECT_EQ(dbgquery(entry.off), -1) << entry.off; // only the affirmative spelling is a query
    }
    EXPECT_EQ(dbgquery("colorizeloglevel"), 0);
    dbgcommand("colorizeloglevel");
    EXPECT_EQ(dbgquery("colorizeloglevel"), 1);
    // No command turns colours off or sets a minimum width.
    dbgcommand("nocolorizeloglevel");
    EXPECT_EQ(dbgquery("colorizeloglevel"), 1);
    DbgGetSettings().colorize = false;
    dbgcommand("functionminlength 40");
    EXPECT_EQ(dbgquery("functionminlength"), 0);
    EXPECT_EQ(dbgquery(""), -1);
    EXPECT_EQ(dbgquery(" \t"), -1);
    EXPECT_EQ(dbgquery(nullptr), -1);
    EXPECT_EQ(dbgcommand(nullptr), -1);
    // Words are separated by any run of control characters and spaces.
    EXPECT_EQ(dbgcommand("\t\r\nthreadid\x01"), 0);
    EXPECT_EQ(dbgquery("  threadid  "), 1);
}

TEST_F(DbgCommandTest, ModuleCommandRegistersModuleAndFlags)
{
    dbgunregisterall();
    const int32_t net = dbgregister("net");
    const int32_t trace = dbgregisterflag(net, "trace", 1);
    EXPECT_EQ(dbgcommand("net send:1 recv:0 trace"), net);
    EXPECT_EQ(dbgquery("net send"), 1);
    EXPECT_EQ(dbgquery("net recv"), 0);
    EXPECT_EQ(dbgquery("net trace"), 1); // existed: unchanged
    EXPECT_EQ((_dbgGetModuleFlags(net) >> trace) & 1u, 1u);
    // A given value replaces the value of an existing flag.
    EXPECT_EQ(dbgcommand("net send:0 trace:1 fresh"), net);
    EXPECT_EQ(dbgquery("net send"), 0);
    EXPECT_EQ(dbgquery("net fresh"), 0);
    // ":" followed by anything but '0' is on; "a:" is too short to be a value.
    dbgcommand("net x:y");
    EXPECT_EQ(dbgquery("net x"), 1);
    dbgcommand("net :1");
    EXPECT_EQ(dbgquery("net :1"), 0);

    EXPECT_EQ(dbgquery("net nope"), -1);
    EXPECT_EQ(dbgquery("net"), -1);
    EXPECT_EQ(dbgquery("nomodule send"), -1);
    const int32_t created = dbgcommand("newmod");
    EXPECT_GE(created, 0);
    EXPECT_EQ(_dbgGetModuleIndex("newmod"), created);

    for (int i = 0; dbgregister(("fill" + std::to_string(i)).c_str()) >= 0; ++i) {
    }
    EXPECT_EQ(dbgcommand("overflow flag:1"), -1);
    dbgunregisterall();
}

TEST_F(DbgCommandTest, SyslogCommandWithHostAndHeaderType)
{
    dbgcommand("nofunctionname");
    // The datagram of the command's own message goes nowhere: the fixture
    // drops every destination but 127.0.0.1.
    EXPECT_EQ(dbgcommand("syslog 192.0.2.7 RFC5424"), 0);
    EXPECT_EQ(dbgquery("syslog"), 1);
    EXPECT_STREQ(DbgGetSyslog().host, "192.0.2.7");
    EXPECT_EQ(DbgGetSyslog().port.load(), 514);
    EXPECT_EQ(DbgGetSyslog().headerType.load(), 3);
    const auto texts = Texts();
    ASSERT_FALSE(texts.empty());
    EXPECT_NE(texts.back().find("using syslog via UDP to 192.0.2.7:514 (header type = 3)\n"), std::string::npos)
        << texts.back();
    {
        std::lock_guard<std::mutex> guard(DroppedMutex());
        ASSERT_EQ(Dropped().size(), 1u);
        EXPECT_EQ(Dropped()[0].destination, "192.0.2.7:514");
        EXPECT_EQ(Dropped()[0].data.rfind("<15>1 - ", 0), 0u) << Dropped()[0].data;
        EXPECT_NE(Dropped()[0].data.back(), '\n');
    }

    const struct {
        const char* word;
        int type;
    } types[] = {{"none", 0}, {"NONE", 0}, {"PRI", 1}, {"levelonly", 1}, {"rfc3164", 2}, {"RFC5424", 3}, {"other", 1}, {"", 1}};
    for (const auto& entry : types) {
        dbgcommand((std::string("syslog 192.0.2.7 ") + entry.word).c_str());
        EXPECT_EQ(DbgGetSyslog().headerType.load(), entry.type) << entry.word;
    }

    const std::string longHost(80, '9');
    dbgcommand(("syslog " + longHost).c_str());
    EXPECT_EQ(std::string(DbgGetSyslog().host), longHost.substr(0, 63));
    // An address that does not parse leaves the socket closed.
    EXPECT_EQ(DbgGetSyslog().socket.load(), -1);

    dbgcommand("null");
    dbgcommand("callback");
    Clear();
    dbgcommand("syslog");
    EXPECT_EQ(DbgGetSyslog().host[0], 0);
    EXPECT_NE(Texts().back().find("     using syslog (local)\n"), std::string::npos) << Texts().back();
    dbgcommand("null");
}

TEST_F(DbgCommandTest, LogfileCommandSetsThePath)
{
    dbgcommand("logfile");
    EXPECT_STREQ(DbgGetLogFile().path, "norvik.log");
    EXPECT_EQ(dbgquery("logfile"), 1);
    EXPECT_NE(Texts().back().find("using log file 'norvik.log'\n"), std::string::npos);
    dbgcommand("logfile ~/logs/a b.log  ");
    EXPECT_STREQ(DbgGetLogFile().path, "logs/a b.log");
    const std::string absolute = m_home + "/abs.log";
    dbgcommand(("logfile " + absolute).c_str());
    EXPECT_EQ(std::string(DbgGetLogFile().path), absolute);
    dbgunregisterall();
    EXPECT_EQ(DbgGetLogFile().path, nullptr);
    EXPECT_EQ(dbgquery("logfile"), 0);
}

TEST_F(DbgCommandTest, InvalidUtf8IsIgnored)
{
    const int32_t npl = NplDebugModule();
    const uint32_t flags = _dbgGetModuleFlags(npl);
    dbgsetflagvalue(npl, 3, 1);
    EXPECT_EQ(dbgcommand("printf \xff\xfe"), 0);
    EXPECT_EQ(dbgquery("printf"), 0);
    EXPECT_EQ(dbgcommand("bad\xc3module"), 0);
    EXPECT_EQ(_dbgGetModuleIndex("bad\xc3module"), -1);
    int debugger = 0;
    for (const auto& text : Texts())
        debugger += text.find("Debugger!!!") != std::string::npos;
    EXPECT_EQ(debugger, 2);
    dbgsetflagvalue(npl, 3, (flags >> 3) & 1);
    // Valid multi-byte text is a module name like any other.
    EXPECT_GE(dbgcommand("modül"), 0);
}

} // namespace
