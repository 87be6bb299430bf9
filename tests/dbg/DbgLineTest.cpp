#include "tests/dbg/DbgFixture.h"
#include "tests/dbg/Matches.h"

#include "platform/NplThreading.h"
#include "platform/NplTime.h"

#include <atomic>
#include <thread>

namespace {

const char* kLongSignature =
    "virtual void SLF_ChromiumEmbeddedFramework::CBrowserClient::OnAudioSteamStopped(CefRefPtr<CefBrowser>, int)";

class DbgLineTest : public DbgFixture {
protected:
    void SetUp() override
    {
        DbgFixture::SetUp();
        dbgcommand("notime");
    }
};

TEST_F(DbgLineTest, ModulesRegisterOnceAndTheTableHolds128)
{
    dbgunregisterall();
    const int32_t first = dbgregister("alpha");
    EXPECT_EQ(dbgregister("alpha"), first);
    EXPECT_EQ(_dbgGetModuleIndex("alpha"), first);
    EXPECT_EQ(_dbgGetModuleIndex("Alpha"), -1);
    for (int i = 1; i < DBG_MAX_MODULES; ++i)
        EXPECT_EQ(dbgregister(("m" + std::to_string(i)).c_str()), i);
    EXPECT_EQ(dbgregister("one-too-many"), -1);
    EXPECT_EQ(dbgregister("m5"), 5);

    // A freed entry is reused; its flag word stays as it was.
    dbgsetflagvalue(7, 4, 1);
    dbgunregister("m7");
    EXPECT_EQ(_dbgGetModuleIndex("m7"), -1);
    EXPECT_EQ(_dbgGetModuleName(7), nullptr);
    EXPECT_EQ(_dbgGetModuleFlags(7), 1u << 4);
    EXPECT_EQ(dbgregister("newcomer"), 7);
    EXPECT_STREQ(_dbgGetModuleName(7), "newcomer");
    dbgunregisterall();
    EXPECT_EQ(_dbgGetModuleIndex("alpha"), -1);
}

TEST_F(DbgLineTest, FlagsRegisterOnceAndTheListHolds32)
{
    dbgunregisterall();
    const int32_t module = dbgregister("flags");
    dbgsetflagvalue(module, 0, 0);
    dbgsetflagvalue(module, 31, 0);
    EXPECT_EQ(dbgregisterflag(module, "f0", 1), 0);
    EXPECT_EQ(dbgregisterflag(module, "f0", 0), 0);
    EXPECT_EQ(_dbgGetModuleFlags(module) & 1u, 1u); // existing flag keeps its value
    for (int i = 1; i < DBG_MAX_FLAGS; ++i)
        EXPECT_EQ(dbgregisterflag(module, ("f" + std::to_string(i)).c_str(), i == 31), i);
    EXPECT_EQ(dbgregisterflag(module, "f32", 1), 0);
    EXPECT_EQ(_dbgGetModuleFlags(module), 0x80000001u);
    EXPECT_EQ(dbgregisterflag(-1, "x", 1), 0);
    EXPECT_EQ(dbgregisterflag(DBG_MAX_MODULES, "x", 1), 0);

    dbgsetflagvalue(module, 33, 1); // bit 33 mod 32
    EXPECT_EQ(_dbgGetModuleFlags(module) & 2u, 2u);
    dbgsetflagvalue(DBG_MAX_MODULES, 0, 1); // ignored
    EXPECT_EQ(_dbgGetModuleFlags(DBG_MAX_MODULES), 0u);
}

TEST_F(DbgLineTest, PrintInitRegistersLevelFlagsAndExtras)
{
    dbgunregisterall();
    NplDebugInfo info;
    const NplDebugFlagRecord extras[] = {{4, "AUDIO", 1}, {5, "VIDEO", 0}};
    int32_t* table = NplDebugPrintInit(&info, "engine", 2, extras, 2);
    ASSERT_EQ(table, info.flagIndices);
    ASSERT_GE(info.moduleIndex, 0);
    EXPECT_STREQ(_dbgGetModuleName(info.moduleIndex), "engine");
    EXPECT_EQ(table[0], 0);
    EXPECT_EQ(table[1], 1);
    EXPECT_EQ(table[2], 2);
    EXPECT_EQ(table[3], 3);
    EXPECT_EQ(table[4], 4);
    EXPECT_EQ(table[5], 5);
    EXPECT_EQ(_dbgGetModuleFlags(info.moduleIndex) & 0x3F, 0x17u);
    EXPECT_EQ(dbgquery("engine INF"), 1);
    EXPECT_EQ(dbgquery("engine DBG"), 0);
    EXPECT_EQ(dbgquery("engine AUDIO"), 1);
}

TEST_F(DbgLineTest, DefaultLineHasTimeTagLevelAndFunction)
{
    dbgcommand("time");
    const std::string line = LogOne(2, "net", "void Net::Send(int)", "sent 5");
    EXPECT_TRUE(Matches(line, (R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} net  inf void Net::Send\(\): sent 5\n)")))
        << line;
    EXPECT_FALSE(Matches(line, R"(\d{4}-.* wrn .*\n)"));
    EXPECT_FALSE(Matches(line + "x", R"(\d{4}-.*sent 5\n)"));
}

TEST_F(DbgLineTest, EachDecorationCanBeLeftOut)
{
    EXPECT_EQ(LogOne(2, "net", "void Net::Send(int)", "m"), "net  inf void Net::Send(): m\n");
    dbgcommand("noaddtag");
    EXPECT_EQ(LogOne(2, "net", "void Net::Send(int)", "m"), "inf void Net::Send(): m\n");
    dbgcommand("noaddlevel");
    EXPECT_EQ(LogOne(2, "net", "void Net::Send(int)", "m"), "void Net::Send(): m\n");
    dbgcommand("nofunctionname");
    EXPECT_EQ(LogOne(2, "net", "void Net::Send(int)", "m"), "m\n");
    dbgcommand("addtag");
    EXPECT_EQ(LogOne(2, "network", nullptr, "m"), "network m\n");
    EXPECT_EQ(LogOne(2, "", nullptr, "m"), "m\n");
    EXPECT_EQ(LogOne(2, nullptr, nullptr, "m"), "m\n");
}

TEST_F(DbgLineTest, LevelTags)
{
    dbgcommand("nofunctionname");
    EXPECT_EQ(LogOne(0, "ab", nullptr, "x"), "ab   ERR x\n");
    EXPECT_EQ(LogOne(1, "ab", nullptr, "x"), "ab   wrn x\n");
    EXPECT_EQ(LogOne(2, "ab", nullptr, "x"), "ab   inf x\n");
    EXPECT_EQ(LogOne(3, "ab", nullptr, "x"), "ab       x\n");
    EXPECT_EQ(LogOne(9, "ab", nullptr, "x"), "ab       x\n");
    const auto lines = Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, 9);
    EXPECT_EQ(lines[0].length, static_cast<int>(lines[0].text.size()));
}

TEST_F(DbgLineTest, FunctionNameShapes)
{
    dbgcommand("noaddtag");
    dbgcommand("noaddlevel");
    EXPECT_EQ(LogOne(2, "m", kLongSignature, "x"),
              "virtual void SLF_ChromiumEmbeddedFramework::CBrowserClient::OnAudioSteamStopped(): x\n");
    EXPECT_EQ(LogOne(2, "m", "-[SLFCefOverlayXPC openBrowserWithURL:size:]", "x"),
              "-[SLFCefOverlayXPC openBrowserWithURL:size:]: x\n");
    EXPECT_EQ(LogOne(2, "m", "main", "x"), "main(): x\n");
    EXPECT_EQ(LogOne(2, "m", "", "x"), "x\n");

    dbgcommand("functionpurename");
    EXPECT_EQ(LogOne(2, "m", kLongSignature, "x"),
              "SLF_ChromiumEmbeddedFramework::CBrowserClient::OnAudioSteamStopped(): x\n");
    EXPECT_EQ(LogOne(2, "m", "char *Foo::Name(int) const", "x"), "Foo::Name(): x\n");
    EXPECT_EQ(LogOne(2, "m", "Foo &*Foo::Self()", "x"), "Foo::Self(): x\n");
    EXPECT_EQ(LogOne(2, "m", "int main(int, char**)", "x"), "main(): x\n");
    EXPECT_EQ(LogOne(2, "m", "Plain()", "x"), "Plain(): x\n");
    // Bracketed method names are never shortened.
    EXPECT_EQ(LogOne(2, "m", "+[SLFCefWindowManager shared]", "x"), "+[SLFCefWindowManager shared]: x\n");
    // A name starting with a path keeps the folder part as a prefix.
    EXPECT_EQ(LogOne(2, "m", "/src/engine/file.cpp void run(int)", "x"), "/src/engine/ run(): x\n");
}

TEST_F(DbgLineTest, FunctionNameFilterHidesTheNameForMatchingMessages)
{
    dbgcommand("functionnamefilter PUMP");
    EXPECT_EQ(LogOne(2, "m", "void Pump()", "PUMP pass"), "m    inf PUMP pass\n");
    EXPECT_EQ(LogOne(2, "m", "void Pump()", "pump pass"), "m    inf void Pump(): pump pass\n");
    EXPECT_EQ(dbgquery("functionnamefilter"), 1);
    dbgcommand("functionnamefilter 0123456789abcdefXYZ");
    EXPECT_STREQ(DbgGetSettings().functionNameFilter, "0123456789abcde");
    dbgcommand("functionnamefilter");
    EXPECT_EQ(dbgquery("functionnamefilter"), 0);
}

TEST_F(DbgLineTest, ColoursWrapTheLine)
{
    dbgcommand("colorizeloglevel");
    dbgcommand("nofunctionname");
    EXPECT_EQ(LogOne(0, "m", nullptr, "bad  \r\n"), "m    ERR \x1b[1;31mbad\x1b[1;30m\n");
    EXPECT_EQ(LogOne(1, "m", nullptr, "warn"), "m    wrn \x1b[1;33mwarn\x1b[1;30m\n");
    EXPECT_EQ(LogOne(2, "m", nullptr, "info"), "m    inf \x1b[1;34minfo\x1b[1;30m\n");
    EXPECT_EQ(LogOne(3, "m", nullptr, "debug\n"), "m        debug\n");
    EXPECT_EQ(LogOne(5, "m", nullptr, "other"), "m        other\n");
}

TEST_F(DbgLineTest, ThreadIdColumn)
{
    dbgcommand("threadid");
    char expected[64];
    snprintf(expected, sizeof expected, "%5d m    inf x\n", NplThreading_GetThreadId());
    EXPECT_EQ(LogOne(2, "m", nullptr, "x"), expected);
}

TEST_F(DbgLineTest, ElapsedFieldsArePaddedWithSpaces)
{
    char text[64];
    DbgFormatElapsed(text, sizeof text, 1234567);
    EXPECT_STREQ(text, " 1.234.567 ");
    DbgFormatElapsed(text, sizeof text, 5000007);
    EXPECT_STREQ(text, " 5.  0.  7 ");
    DbgFormatElapsed(text, sizeof text, 1061001002);
    EXPECT_STREQ(text, "61.  1.  2 ");
    DbgFormatElapsed(text, sizeof text, 0);
    EXPECT_STREQ(text, " 0.  0.  0 ");
}

TEST_F(DbgLineTest, ReferenceTimeCountsFromTheCommand)
{
    dbgcommand("reftime");
    EXPECT_EQ(dbgquery("reftime"), 1);
    // 1.234567 s before now.
    DbgGetSettings().referenceTimeUs = NplTime_GetTimeOfDayNanoseconds() / 1000 - 1234567;
    const std::string line = LogOne(2, "m", nullptr, "x");
    EXPECT_TRUE(Matches(line, (R"( 1\.2[3-9]\d\.[ \d]{3} m    inf x\n)"))) << line;
    dbgcommand("noreftime");
    EXPECT_EQ(dbgquery("reftime"), 0);
    EXPECT_EQ(LogOne(2, "m", nullptr, "x"), "m    inf x\n");
}

TEST_F(DbgLineTest, DeltaTimeStartsAfterTheFirstLine)
{
    dbgcommand("deltatime");
    EXPECT_EQ(dbgquery("deltatime"), 1);
    EXPECT_EQ(LogOne(2, "m", nullptr, "first"), "m    inf first\n");
    const std::string second = LogOne(2, "m", nullptr, "second");
    EXPECT_TRUE(Matches(second, (R"( 0\.[ \d]{3}\.[ \d]{3} m    inf second\n)"))) << second;
    dbgcommand("nodeltatime");
    EXPECT_EQ(LogOne(2, "m", nullptr, "third"), "m    inf third\n");
}

TEST_F(DbgLineTest, LevelFiltersKeepMatchingMessagesOnly)
{
    dbgsetfilter("audio", 2);
    dbgcommand("nofunctionname");
    Clear();
    dbgprintf(2, "npl", "eng", "void Client::Stop(int)", "---> Stopping audio stream : %d\n", 4);
    dbgprintf(2, "npl", "eng", "void Client::Paint()", "painted %d\n", 1);
    dbgprintf(2, "npl", "eng", "void Client::OnAudioSteamStopped()", "stopped\n");
    dbgprintf(1, "npl", "eng", "void Client::Paint()", "late frame\n");
    auto texts = Texts();
    ASSERT_EQ(texts.size(), 3u);
    EXPECT_EQ(texts[0], "eng  inf ---> Stopping audio stream : 4\n");
    EXPECT_EQ(texts[1], "eng  inf stopped\n"); // matched in the function name, without regard to case
    EXPECT_EQ(texts[2], "eng  wrn late frame\n");

    // The command forms, with a quoted text that holds a space.
    dbgsetfilter(nullptr, 2);
    dbgcommand("filter_warning \"late frame\"");
    dbgcommand("filter_debug 'x y' ignored");
    EXPECT_STREQ(DbgGetSettings().filters[1], "late frame");
    EXPECT_STREQ(DbgGetSettings().filters[3], "x y");
    EXPECT_EQ(dbgquery("filter_warning"), 1);
    Clear();
    dbgprintf(1, "npl", "eng", nullptr, "LATE FRAME");
    dbgprintf(1, "npl", "eng", nullptr, "late");
    dbgprintf(2, "npl", "eng", nullptr, "late");
    texts = Texts();
    ASSERT_EQ(texts.size(), 2u);
    EXPECT_EQ(texts[0], "eng  wrn LATE FRAME\n");
    EXPECT_EQ(texts[1], "eng  inf late\n");
    dbgcommand("filter_warning");
    EXPECT_EQ(DbgGetSettings().filters[1], nullptr);
}

TEST_F(DbgLineTest, LineEndsAndLongLines)
{
    dbgcommand("noaddtag");
    dbgcommand("noaddlevel");
    dbgcommand("nofunctionname");
    EXPECT_EQ(LogOne(2, "m", nullptr, "cr\r"), "cr\r");
    EXPECT_EQ(LogOne(2, "m", nullptr, "lf\n"), "lf\n");
    EXPECT_EQ(LogOne(2, "m", nullptr, ""), "");

    const std::string longMessage(5000, 'a');
    const std::string line = LogOne(2, "m", nullptr, longMessage.c_str());
    EXPECT_EQ(line.size(), 4095u);
    EXPECT_EQ(line.back(), 'a');
    EXPECT_EQ(Lines().back().length, 4095);
    const std::string nearlyFull(4093, 'b');
    EXPECT_EQ(LogOne(2, "m", nullptr, nearlyFull.c_str()), nearlyFull + "\n");
    const std::string tooLongForLf(4094, 'c');
    EXPECT_EQ(LogOne(2, "m", nullptr, tooLongForLf.c_str()), tooLongForLf);
}

int g_formatted = 0;
const char* CountedArgument()
{
    ++g_formatted;
    return "arg";
}

TEST_F(DbgLineTest, CallSiteMacroTestsTheFlagBeforeFormatting)
{
    const int32_t module = dbgregister("macro");
    dbgsetflagvalue(module, 2, 0);
    dbgsetflagvalue(module, 1, 1);
    dbgcommand("functionpurename");
    g_formatted = 0;
    NPL_DBGPRINTF(module, 2, "off %s", CountedArgument());
    NPL_DBGPRINTF(-1, 1, "bad module %s", CountedArgument());
    NPL_DBGPRINTF(DBG_MAX_MODULES, 1, "bad module %s", CountedArgument());
    EXPECT_EQ(g_formatted, 0);
    EXPECT_TRUE(Lines().empty());
    NPL_DBGPRINTF(module, 1, "on %s", CountedArgument());
    NPL_DBGPRINTF(module, 1, "no arguments");
    EXPECT_EQ(g_formatted, 1);
    const auto texts = Texts();
    ASSERT_EQ(texts.size(), 2u);
    EXPECT_EQ(texts[0].rfind("macro wrn ", 0), 0u) << texts[0];
    EXPECT_NE(texts[0].find("DbgLineTest_CallSiteMacroTestsTheFlagBeforeFormatting_Test::TestBody(): on arg\n"),
              std::string::npos)
        << texts[0];
    EXPECT_NE(texts[1].find("TestBody(): no arguments\n"), std::string::npos) << texts[1];
}

TEST_F(DbgLineTest, NullSinkMaskLogsNothing)
{
    dbgcommand("null");
    EXPECT_EQ(dbgquery("null"), 1);
    EXPECT_EQ(LogOne(0, "m", nullptr, "x"), "");
}

TEST_F(DbgLineTest, ConcurrentLinesStayWhole)
{
    dbgcommand("threadid");
    dbgcommand("deltatime");
    dbgcommand("functionpurename");
    const int32_t module = dbgregister("threads");
    dbgsetflagvalue(module, 2, 1);
    constexpr int kThreads = 4;
    constexpr int kLines = 200;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([module, t] {
            for (int i = 0; i < kLines; ++i)
                NPL_DBGPRINTF(module, 2, "thread %d line %d", t, i);
        });
    for (auto& thread : threads)
        thread.join();
    const auto lines = Lines();
    ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kLines));
    const std::string shape(R"(( \d\.[ \d]{3}\.[ \d]{3} )?[ \d]{4,}\d threads inf .*\(\): thread \d line \d+\n)");
    for (const auto& line : lines)
        EXPECT_TRUE(Matches(line.text, shape)) << line.text;
}

} // namespace
