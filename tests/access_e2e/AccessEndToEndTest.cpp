// Access control and the settings resource through the real service, web
// engine and host library: a page in a permitted folder loads a permitted
// image, is refused one outside the folder, reads an empty text file and gets
// its settings from the host. Two browsers side by side: one waits for a
// late settings answer while the other probes the internal scheme for it,
// loads and paints. The pages report what they saw by asking for a refused
// file URL, which the service logs as blocked.
#include "tests/support/RecordingCallbacks.h"
#include "tests/support/ServiceProcess.h"

using namespace slftest;

namespace {

const std::string kSvg = "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"4\" height=\"4\"><rect width=\"4\" "
                         "height=\"4\" fill=\"blue\"/></svg>";

// Each settings request answered at once with `settings`, except the held
// browser's; frames counted, not kept.
struct SettingsHost : RecordingCallbacks {
    explicit SettingsHost(const std::string& text)
    {
        settings = text;
        keepFrames = false;
    }
    int Frames(int id)
    {
        const auto events = Events();
        return int(std::count(events.begin(), events.end(), "frame " + std::to_string(id)));
    }
};

// The first line of `text` that contains `needle`, or "".
std::string FindLine(const std::string& text, const std::string& needle)
{
    const size_t at = text.find(needle);
    if (at == std::string::npos)
        return "";
    const size_t begin = text.rfind('\n', at) + 1; // npos + 1 == 0
    return text.substr(begin, text.find('\n', at) - begin);
}

// Pages copied into dir_/page (the permitted folder), an image there and
// one in dir_/secret.
class AccessEndToEnd : public ServiceTest {
protected:
    void CopyPages(std::initializer_list<const char*> pages)
    {
        std::filesystem::create_directories(dir_ + "/page");
        std::filesystem::create_directories(dir_ + "/secret");
        for (const char* page : pages)
            std::filesystem::copy_file(kPages + "/" + page, dir_ + "/page/" + page);
        std::ofstream(dir_ + "/page/allowed.svg") << kSvg;
        std::ofstream(dir_ + "/secret/blocked.svg") << kSvg;
    }
    // Waits (up to `limit`) for the log line that contains needle.
    std::string WaitForLogLine(const std::string& needle, std::chrono::seconds limit)
    {
        std::string line;
        WaitUntil([&] { return !(line = FindLine(Log(), needle)).empty(); }, limit);
        return line;
    }
    std::string Permitted() const { return "file://" + dir_ + "/page/"; }
};

TEST_F(AccessEndToEnd, PermittedFilesLoadOthersAreRefusedAndSettingsComeFromTheHost)
{
    CopyPages({"access_policy.html"});
    std::ofstream(dir_ + "/empty.txt").flush();
    SettingsHost host("hello-from-host");
    auto client = Connect(Options());
    ASSERT_TRUE(client);
    const std::string url = Permitted() + "access_policy.html?empty=" + dir_ + "/empty.txt";
    auto browser = client->OpenBrowser({url, 64, 64, 30, {Permitted()}}, host.events());
    const int id = Id(host.WaitFor("start ", 30s));
    ASSERT_GT(id, 0) << "no browser started";

    const std::string report = WaitForLogLine("Blocked URL file:///slf-access-report/", 60s);
    const std::string text = Log();
    // settings / text request status-body length / permitted image / refused image
    EXPECT_NE(report.find("file:///slf-access-report/hello-from-host/200-0/loaded/error "), std::string::npos)
        << report << "\n"
        << text;
    // A refusal names the URL and the whole permitted list.
    EXPECT_NE(FindLine(text, "Blocked URL file://" + dir_ + "/secret/blocked.svg [("), "") << text;
    EXPECT_NE(text.find("\"" + Permitted() + "\""), std::string::npos);
    EXPECT_EQ(FindLine(text, "allowed.svg"), "");
    EXPECT_EQ(host.WaitFor("settings-asked ", 0ms), "settings-asked " + std::to_string(id));
    EXPECT_EQ(host.WaitFor("settings-asked ", 0ms, 2), "");
}

// The victim's settings answer is held back until the prober has reported
// (or a minute has passed): with the host that slow, the prober's page must
// still load, paint, get its own settings and find nothing of the victim's.
TEST_F(AccessEndToEnd, ABrowserWaitingForSettingsHoldsUpNoNeighbourAndLeaksNothingToIt)
{
    CopyPages({"isolation_victim.html", "isolation_prober.html"});
    SettingsHost host("prober-own");
    auto client = Connect(Options());
    ASSERT_TRUE(client);
    const std::string secret = "token-of-the-victim-0123456789";

    // The victim's permitted list also holds an empty entry, which permits
    // nothing: its refused image stays refused.
    auto victimBrowser =
        client->OpenBrowser({Permitted() + "isolation_victim.html", 64, 64, 30, {"", Permitted()}}, host.events());
    const int victim = Id(host.WaitFor("start ", 30s));
    ASSERT_GT(victim, 0);
    host.heldBrowser = victim;
    ASSERT_NE(host.WaitFor("settings-asked " + std::to_string(victim), 30s), "") << Log();

    auto proberBrowser =
        client->OpenBrowser({Permitted() + "isolation_prober.html", 64, 64, 30, {Permitted()}}, host.events());
    const int prober = Id(host.WaitFor("start ", 30s, 2));
    ASSERT_GT(prober, 0);
    const std::string proberReport = WaitForLogLine("Blocked URL file:///slf-prober-report/", 60s);
    const int proberFramesWhileVictimWaited = host.Frames(prober);
    host.Answer(*victimBrowser, secret);
    const std::string victimReport = WaitForLogLine("Blocked URL file:///slf-victim-report/", 30s);
    const std::string text = Log();

    // leaks / own settings / permitted images loaded / tries
    EXPECT_NE(proberReport.find("file:///slf-prober-report/0/prober-own/5/"), std::string::npos)
        << "the prober did not report in time, or saw something: " << proberReport << "\n"
        << text;
    EXPECT_GT(proberFramesWhileVictimWaited, 0);
    // The pages' own loads of the scheme stop in their web process.
    EXPECT_NE(text.find("loads the internal URL slfcef-resource:"), std::string::npos) << text;
    // settings / permitted image / refused image
    EXPECT_NE(victimReport.find("file:///slf-victim-report/" + secret + "/loaded/error "), std::string::npos)
        << victimReport << "\n"
        << text;
}

} // namespace
