#include "tests/dbg/DbgFixture.h"

#include "platform/NplDebug.h"
#include "platform/NplThreading.h"
#include "platform/NplTime.h"

namespace {

using DbgLineTest = DbgFixture;

TEST_F(DbgLineTest, ModuleAndFlagTablesHaveFixedSizes)
{
    dbgunregisterall();
    EXPECT_EQ(dbgregister("m0"), 0);
    EXPECT_EQ(dbgregister("m0"), 0);
    for (int i = 1; i < DBG_MAX_MODULES; ++i)
        EXPECT_EQ(dbgregister(("m" + std::to_string(i)).c_str()), i);
    EXPECT_EQ(dbgregister("one-too-many"), -1);
    // A freed entry is reused; its flag word stays as it was.
    dbgsetflagvalue(7, 4, 1);
    dbgunregister("m7");
    EXPECT_EQ(_dbgGetModuleIndex("m7"), -1);
    EXPECT_EQ(dbgregister("newcomer"), 7);
    EXPECT_EQ(_dbgGetModuleFlags(7), 1u << 4);

    dbgunregisterall();
    const int32_t module = dbgregister("flags");
    EXPECT_EQ(dbgregisterflag(module, "f0", 1), 0);
    EXPECT_EQ(dbgregisterflag(module, "f0", 0), 0); // an existing flag keeps its value
    for (int i = 1; i < DBG_MAX_FLAGS; ++i)
        EXPECT_EQ(dbgregisterflag(module, ("f" + std::to_string(i)).c_str(), i == 31), i);
    EXPECT_EQ(dbgregisterflag(module, "f32", 1), 0);
    EXPECT_EQ(_dbgGetModuleFlags(module), 0x80000001u);
    EXPECT_EQ(dbgregisterflag(DBG_MAX_MODULES, "x", 1), 0);
    dbgsetflagvalue(DBG_MAX_MODULES, 0, 1); // ignored
    dbgunregisterall();
}

TEST_F(DbgLineTest, DecorationsLevelTagsAndThreadId)
{
    dbgcommand("time");
    EXPECT_TRUE(Matches(LogOne(2, "net", "void Net::Send(int)", "sent 5"),
                        "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:]{8}\\.[0-9]{3} net  inf void Net::Send\\(\\): sent 5\n"))
        << Last();
    dbgcommand("notime");
    const struct {
        const char* command;
        int level;
        const char* module;
        const char* expected;
    } cases[] = {{nullptr, 0, "ab", "ab   ERR void F(): m\n"}, {nullptr, 1, "ab", "ab   wrn void F(): m\n"},
                 {nullptr, 3, "ab", "ab       void F(): m\n"}, {nullptr, 9, "network", "network     void F(): m\n"},
                 {"noaddtag", 2, "net", "inf void F(): m\n"},  {"noaddlevel", 2, "net", "void F(): m\n"},
                 {"nofunctionname", 2, "net", "m\n"},          {"addtag", 2, "", "m\n"}};
    for (const auto& c : cases) {
        if (c.command)
            dbgcommand(c.command);
        EXPECT_EQ(LogOne(c.level, c.module, "void F(int)", "m"), c.expected) << c.level << c.module;
        EXPECT_EQ(Lines()[0].level, c.level);
    }
    EXPECT_EQ(Lines()[0].length, 2);
    dbgcommand("threadid");
    char expected[64];
    snprintf(expected, sizeof expected, "%5d m\n", NplThreading_GetThreadId());
    EXPECT_EQ(LogOne(2, nullptr, nullptr, "m"), expected);

    // Colours wrap the message, trailing white space cut; debug lines stay plain.
    for (const char* command : {"nothreadid", "noaddtag", "addlevel", "colorizeloglevel"})
        dbgcommand(command);
    EXPECT_EQ(LogOne(0, "m", nullptr, "bad  \r\n"), "ERR \x1b[1;31mbad\x1b[1;30m\n");
    EXPECT_EQ(LogOne(1, "m", nullptr, "warn"), "wrn \x1b[1;33mwarn\x1b[1;30m\n");
    EXPECT_EQ(LogOne(3, "m", nullptr, "debug\n"), "    debug\n");
}

TEST_F(DbgLineTest, FunctionNameShapes)
{
    dbgcommand("noaddtag");
    dbgcommand("noaddlevel");
    const char* kLong =
        "virtual void SLF_ChromiumEmbeddedFramework::CBrowserClient::OnAudioSteamStopped(CefRefPtr<CefBrowser>, int)";
    const struct {
        bool pure;
        const char* function;
        const char* expected;
    } cases[] = {
        {false, kLong, "virtual void SLF_ChromiumEmbeddedFramework::CBrowserClient::OnAudioSteamStopped(): x\n"},
        {false, "-[SLFCefOverlayXPC open:size:]", "-[SLFCefOverlayXPC open:size:]: x\n"},
        {false, "", "x\n"},
        {true, kLong, "SLF_ChromiumEmbeddedFramework::CBrowserClient::OnAudioSteamStopped(): x\n"},
        {true, "char *Foo::Name(int) const", "Foo::Name(): x\n"},
        {true, "Foo &*Foo::Self()", "Foo::Self(): x\n"},
        {true, "+[SLFCefWindowManager shared]", "+[SLFCefWindowManager shared]: x\n"},
    };
    for (const auto& c : cases) {
        dbgcommand(c.pure ? "functionpurename" : "nofunctionpurename");
        EXPECT_EQ(LogOne(2, "m", c.function, "x"), c.expected) << c.function;
    }

    // The function-name filter hides the name of lines whose message holds it.
    dbgcommand("functionnamefilter PUMP");
    EXPECT_EQ(LogOne(2, "m", "void Pump()", "PUMP pass"), "PUMP pass\n");
    EXPECT_EQ(LogOne(2, "m", "void Pump()", "pump pass"), "Pump(): pump pass\n");
    dbgcommand("functionnamefilter 0123456789abcdefXYZ");
    EXPECT_STREQ(DbgGetSettings().functionNameFilter, "0123456789abcde");
}

TEST_F(DbgLineTest, ReferenceAndDeltaTimes)
{
    char text[32];
    for (const auto& [us, expected] : {std::pair<int64_t, const char*> {1234567, " 1.234.567 "},
                                       {5000007, " 5.  0.  7 "},
                                       {1061001002, "61.  1.  2 "}}) {
        DbgFormatElapsed(text, sizeof text, us);
        EXPECT_STREQ(text, expected);
    }
    dbgcommand("reftime");
    EXPECT_EQ(dbgquery("reftime"), 1);
    DbgGetSettings().referenceTimeUs = NplTime_GetTimeOfDayNanoseconds() / 1000 - 1234567;
    EXPECT_TRUE(Matches(LogOne(2, "m", nullptr, "x"), " 1\\.2[3-9][0-9]\\.[ 0-9]{3} m    inf x\n")) << Last();
    dbgcommand("noreftime");
    dbgcommand("deltatime");
    EXPECT_EQ(LogOne(2, "m", nullptr, "first"), "m    inf first\n");
    EXPECT_TRUE(Matches(LogOne(2, "m", nullptr, "second"), " 0\\.[ 0-9]{3}\\.[ 0-9]{3} m    inf second\n")) << Last();
}

TEST_F(DbgLineTest, LevelFiltersKeepMatchingMessagesOnly)
{
    dbgcommand("nofunctionname");
    dbgsetfilter("audio", 2);
    dbgprintf(2, "npl", "eng", "void Client::Stop(int)", "---> Stopping audio stream : %d\n", 4);
    dbgprintf(2, "npl", "eng", "void Client::Paint()", "painted %d\n", 1);
    dbgprintf(2, "npl", "eng", "void Client::OnAudioSteamStopped()", "stopped\n"); // matched in the name
    dbgprintf(1, "npl", "eng", "void Client::Paint()", "late frame\n");
    dbgsetfilter(nullptr, 2);
    // The command form, with a quoted text that holds a space, matched without regard to case.
    dbgcommand("filter_warning \"late frame\"");
    dbgcommand("filter_debug 'x y' ignored");
    EXPECT_STREQ(DbgGetSettings().filters[3], "x y");
    dbgprintf(1, "npl", "eng", nullptr, "LATE FRAME");
    dbgprintf(1, "npl", "eng", nullptr, "late");
    std::vector<std::string> texts;
    for (const auto& line : Lines())
        texts.push_back(line.text);
    EXPECT_EQ(texts, (std::vector<std::string> {"eng  inf ---> Stopping audio stream : 4\n", "eng  inf stopped\n",
                                                "eng  wrn late frame\n", "eng  wrn LATE FRAME\n"}));
}

TEST_F(DbgLineTest, LinesAreCutAt4096BytesWithTheirEnd)
{
    dbgcommand("noaddtag");
    dbgcommand("noaddlevel");
    EXPECT_EQ(LogOne(2, "m", nullptr, "cr\r"), "cr\r");
    EXPECT_EQ(LogOne(2, "m", nullptr, ""), "");
    EXPECT_EQ(LogOne(2, "m", nullptr, std::string(5000, 'a').c_str()), std::string(4095, 'a'));
    EXPECT_EQ(Lines().back().length, 4095);
    EXPECT_EQ(LogOne(2, "m", nullptr, std::string(4093, 'b').c_str()), std::string(4093, 'b') + "\n");
    EXPECT_EQ(LogOne(2, "m", nullptr, std::string(4094, 'c').c_str()), std::string(4094, 'c'));
}

int g_formatted = 0;
const char* Counted()
{
    ++g_formatted;
    return "arg";
}

// A call site whose flag is off does not even evaluate its arguments.
TEST_F(DbgLineTest, CallSiteMacroTestsTheFlagBeforeFormatting)
{
    const int32_t module = dbgregister("macro");
    dbgsetflagvalue(module, 2, 0);
    dbgsetflagvalue(module, 1, 1);
    dbgcommand("functionpurename");
    NPL_DBGPRINTF(module, 2, "off %s", Counted());
    NPL_DBGPRINTF(-1, 1, "bad module %s", Counted());
    NPL_DBGPRINTF(DBG_MAX_MODULES, 1, "bad module %s", Counted());
    EXPECT_EQ(g_formatted, 0);
    EXPECT_TRUE(Lines().empty());
    NPL_DBGPRINTF(module, 1, "on %s", Counted());
    EXPECT_EQ(g_formatted, 1);
    EXPECT_EQ(
        Last(),
        "macro wrn {anonymous}::DbgLineTest_CallSiteMacroTestsTheFlagBeforeFormatting_Test::TestBody(): on arg\n");
}

using DbgCommandTest = DbgFixture;

TEST_F(DbgCommandTest, ModuleCommandRegistersModuleAndFlags)
{
    dbgunregisterall();
    const int32_t net = dbgregister("net");
    dbgregisterflag(net, "trace", 1);
    EXPECT_EQ(dbgcommand("net send:1 recv:0 trace"), net);
    std::string flags; // an existing flag without a value is unchanged
    for (const char* query : {"net send", "net recv", "net trace"})
        flags += std::to_string(dbgquery(query));
    EXPECT_EQ(flags, "101");
    // A given value replaces an existing flag's; anything but '0' is on; ":1" alone is no value.
    EXPECT_EQ(dbgcommand("net send:0 fresh x:y :1"), net);
    flags.clear();
    for (const char* query : {"net send", "net fresh", "net x", "net :1", "net nope", "nomodule send"})
        flags += std::to_string(dbgquery(query)) + " ";
    EXPECT_EQ(flags, "0 0 1 0 -1 -1 ");
    for (int i = 0; dbgregister(("fill" + std::to_string(i)).c_str()) >= 0; ++i) {
    }
    EXPECT_EQ(dbgcommand("overflow flag:1"), -1);
    dbgunregisterall();
}

TEST_F(DbgCommandTest, SyslogHostIsCutToItsFieldAndAnUnparsableOneOpensNoSocket)
{
    const std::string longHost(80, '9');
    dbgcommand(("syslog " + longHost + " RFC5424").c_str());
    EXPECT_EQ(dbgquery("syslog"), 1);
    EXPECT_EQ(std::string(DbgGetSyslog().host), longHost.substr(0, 63));
    EXPECT_TRUE(DbgGetSyslog().headerType == 3 && DbgGetSyslog().socket == -1);
    dbgcommand("syslog");
    EXPECT_EQ(DbgGetSyslog().host[0], 0);
}

// Invalid UTF-8 stops at the debugger hook and changes nothing.
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
