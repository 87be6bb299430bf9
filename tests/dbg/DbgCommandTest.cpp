#include "tests/dbg/DbgFixture.h"

#include "platform/NplDebug.h"

namespace {

using DbgCommandTest = DbgFixture;

TEST_F(DbgCommandTest, SinkKeywordsSetAndClearTheirBits)
{
    EXPECT_EQ(dbgcommand("printf"), 0);
    EXPECT_EQ(dbgcommand("oslog"), 0);
    EXPECT_EQ(dbgcommand("printf"), 0); // setting a set bit again changes nothing
    EXPECT_EQ(DbgGetSettings().sinkMask.load(), uint32_t(DBG_SINK_CALLBACK | DBG_SINK_PRINTF | DBG_SINK_OSLOG));
    EXPECT_EQ(dbgquery("oslog"), 1);
    // Configuration messages are debug lines without a module tag.
    EXPECT_EQ(Lines()[0].level, 3);
    EXPECT_TRUE(Matches(Lines()[0].text, "[0-9]{4}-.{19} {4}int32_t dbgcommand\\(\\): using printf\n")) << Last();
    dbgcommand("noprintf");
    EXPECT_EQ(dbgquery("printf"), 0);
    EXPECT_NE(Last().find("removing printf\n"), std::string::npos);
    dbgcommand("android_logcat");
    EXPECT_EQ(dbgquery("android_logcat"), 0);
    EXPECT_EQ(dbgquery("syslog"), 0);

    dbgcommand("nocallback");
    EXPECT_EQ(dbgquery("callback"), 0);
    dbgcommand("callback");
    EXPECT_EQ(dbgquery("callback"), 1);
    dbgsetcallback(nullptr, nullptr);
    EXPECT_EQ(dbgquery("callback"), 0); // the bit alone is not enough
    EXPECT_EQ(dbgquery("null"), 0);
    dbgcommand("null");
    EXPECT_EQ(DbgGetSettings().sinkMask.load(), 0u);
    EXPECT_EQ(dbgquery("null"), 1);
}

TEST_F(DbgCommandTest, SwitchesAndTheirQueries)
{
    for (const char* on : {"time", "functionname", "threadid", "addtag", "addlevel", "functionpurename", "deltatime"}) {
        const std::string off = std::string("no") + on;
        EXPECT_EQ(dbgcommand(on), 0);
        EXPECT_EQ(dbgquery(on), 1) << on;
        EXPECT_EQ(dbgcommand(off.c_str()), 0);
        EXPECT_EQ(dbgquery(on), 0) << on;
        EXPECT_EQ(dbgquery(off.c_str()), -1) << off; // only the affirmative spelling is a query
    }
    // No command turns colours off or sets a minimum width.
    dbgcommand("colorizeloglevel");
    dbgcommand("nocolorizeloglevel");
    EXPECT_EQ(dbgquery("colorizeloglevel"), 1);
    DbgGetSettings().colorize = false;
    dbgcommand("functionminlength 40");
    EXPECT_EQ(dbgquery("functionminlength"), 0);
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
    dbgregisterflag(net, "trace", 1);
    EXPECT_EQ(dbgcommand("net send:1 recv:0 trace"), net);
    EXPECT_EQ(dbgquery("net send"), 1);
    EXPECT_EQ(dbgquery("net recv"), 0);
    EXPECT_EQ(dbgquery("net trace"), 1); // existed: unchanged
    // A given value replaces the value of an existing flag; ":" and anything
    // but '0' is on; ":1" alone is too short to be a value.
    EXPECT_EQ(dbgcommand("net send:0 fresh x:y :1"), net);
    EXPECT_EQ(dbgquery("net send"), 0);
    EXPECT_EQ(dbgquery("net fresh"), 0);
    EXPECT_EQ(dbgquery("net x"), 1);
    EXPECT_EQ(dbgquery("net :1"), 0);
    EXPECT_EQ(dbgquery("net nope"), -1);
    EXPECT_EQ(dbgquery("net"), -1);
    EXPECT_EQ(dbgquery("nomodule send"), -1);
    for (int i = 0; dbgregister(("fill" + std::to_string(i)).c_str()) >= 0; ++i) {
    }
    EXPECT_EQ(dbgcommand("overflow flag:1"), -1);
    dbgunregisterall();
}

TEST_F(DbgCommandTest, SyslogCommandWithHostAndHeaderType)
{
    dbgcommand("nofunctionname");
    EXPECT_EQ(dbgcommand("syslog 192.0.2.7 RFC5424"), 0);
    EXPECT_EQ(dbgquery("syslog"), 1);
    EXPECT_STREQ(DbgGetSyslog().host, "192.0.2.7");
    EXPECT_EQ(DbgGetSyslog().headerType.load(), 3);
    EXPECT_NE(Last().find("using syslog via UDP to 192.0.2.7:514 (header type = 3)\n"), std::string::npos) << Last();
    // The command's own message went to that host (the fixture dropped it).
    const auto dropped = Dropped();
    ASSERT_EQ(dropped.size(), 1u);
    EXPECT_EQ(dropped[0].first, "192.0.2.7:514");
    EXPECT_EQ(dropped[0].second.rfind("<15>1 - ", 0), 0u) << dropped[0].second;
    EXPECT_NE(dropped[0].second.back(), '\n');

    for (const auto& [word, type] : {std::pair<const char*, int>{"none", 0}, {"NONE", 0}, {"PRI", 1}, {"levelonly", 1},
                                     {"rfc3164", 2}, {"RFC5424", 3}, {"other", 1}, {"", 1}}) {
        dbgcommand((std::string("syslog 192.0.2.7 ") + word).c_str());
        EXPECT_EQ(DbgGetSyslog().headerType.load(), type) << word;
    }
    const std::string longHost(80, '9');
    dbgcommand(("syslog " + longHost).c_str());
    EXPECT_EQ(std::string(DbgGetSyslog().host), longHost.substr(0, 63));
    EXPECT_EQ(DbgGetSyslog().socket.load(), -1); // the address does not parse

    dbgcommand("null");
    dbgcommand("callback");
    dbgcommand("syslog");
    EXPECT_EQ(DbgGetSyslog().host[0], 0);
    EXPECT_NE(Last().find("     using syslog (local)\n"), std::string::npos) << Last();
    dbgcommand("null");
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
    for (const auto& line : Lines())
        debugger += line.text.find("Debugger!!!") != std::string::npos;
    EXPECT_EQ(debugger, 2);
    dbgsetflagvalue(npl, 3, (flags >> 3) & 1);
    EXPECT_GE(dbgcommand("modül"), 0); // valid multi-byte text is a module name
}

} // namespace
