// Scripts and the URL-fragment round trips, the application object on both
// sides, and percent-decoding.
#include "engine/CBrowserApp.h"
#include "engine/CBrowserHelper.h"
#include "tests/engine/EngineTestSupport.h"

#include <gtest/gtest.h>

#include <map>
#include <stdexcept>
#include <unistd.h>

namespace SLF_ChromiumEmbeddedFramework {
namespace {

constexpr const char* kPage = "https://overlay.test/editor.html";

// The page's side of the round trips: each script sets the URL fragment to
// the answer given for it.
class ScriptRoundTrips : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_Port.SetScriptHandler([this](int id, const std::string& code) {
            std::lock_guard<std::mutex> guard(m_Mutex);
            if (m_Answers.count(code))
                m_Port.SetUrl(id, std::string(kPage) + "#" + m_Answers[code]);
        });
        m_Port.Install();
        ASSERT_TRUE(m_Wrapper.StartCEF());
        ASSERT_EQ(m_Wrapper.StartBrowser(kPage, 320, 240, 30, nullptr, nullptr, nullptr, nullptr, nullptr, false), 1);
    }
    void TearDown() override { m_Wrapper.StopCEF(); }
    void Answer(const std::string& script, const std::string& fragment)
    {
        std::lock_guard<std::mutex> guard(m_Mutex);
        m_Answers[script] = fragment;
    }

    FakeEnginePort m_Port;
    CBrowserWrapper m_Wrapper;
    std::mutex m_Mutex;
    std::map<std::string, std::string> m_Answers;
};

TEST_F(ScriptRoundTrips, ScriptsRunInTheMainFrameAndNumbersAreReadFromTheFragment)
{
    m_Wrapper.ExecuteJavaScript(1, "document.title = 'x';");
    m_Wrapper.ExecuteJavaScript(42, "never();");
    const auto calls = m_Port.HostCalls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].kind, FakeHostCall::ExecuteJavaScript);
    EXPECT_EQ(calls[0].script, "document.title = 'x';");
    EXPECT_EQ(calls[0].scriptUrl, kPage);
    EXPECT_EQ(calls[0].startLine, 0);
    EXPECT_EQ(m_Wrapper.GetUrl(42), "");

    Answer("getContentHeight();", "height=240px");
    EXPECT_EQ(m_Wrapper.TinyMce_GetHtmlTextHeight(1), 240);
    // No answer: about one second, then 0.
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(m_Wrapper.TinyMce_GetHtmlTextWidth(1), 0);
    EXPECT_GE(SecondsSince(start), 0.9);
    EXPECT_LT(SecondsSince(start), 3.0);
    Answer("getContentWidth();", "width=abc");
    EXPECT_THROW(m_Wrapper.TinyMce_GetHtmlTextWidth(1), std::invalid_argument);
}

TEST_F(ScriptRoundTrips, TextIsDecodedOnlyWhenAsked)
{
    Answer("location.hash = 'editor1=' + tinyMCE.activeEditor.save();", "editor1=%3Cp%3Ea%20b%3C/p%3E");
    EXPECT_EQ(m_Wrapper.TinyMce_GetHtmlText(1, true, true), "<p>a b</p>");
    // Without the script the URL does not change: after the wait the last answer comes back.
    EXPECT_EQ(m_Wrapper.TinyMce_GetHtmlText(1, false, false), "%3Cp%3Ea%20b%3C/p%3E");
    // A "+" among the last two bytes stays.
    Answer("saveOverlayConfiguration();", "settings=a%20b+c");
    EXPECT_EQ(m_Wrapper.CustomOverlays_GetSettings(1, true), "a b+c");
    Answer("saveOverlayConfiguration();", "settings=a%20b+cd");
    EXPECT_EQ(m_Wrapper.CustomOverlays_GetSettings(1, false), "a%20b+cd");
}

// A browser as the web process sees it: what it sends is kept.
class RenderSideBrowser : public EngineBrowser {
public:
    int GetIdentifier() override { return 3; }
    EngineBrowserHostRef GetHost() override { return nullptr; }
    EngineFrameRef GetMainFrame() override { return nullptr; }
    void Reload() override {}
    void SendProcessMessage(const EngineProcessMessageRef& message) override { sent.push_back(message); }
    std::vector<EngineProcessMessageRef> sent;
};

TEST(BrowserApp, ScaleFactorOneEverywhereAndTheProcessIdAnswer)
{
    CBrowserApp app;
    FakeEnginePort port; // applies the command lines as the real port does
    EXPECT_TRUE(port.Initialize(EngineSettings(), &app));
    EXPECT_EQ(port.ServiceCommandLine().GetSwitchValue("force-device-scale-factor"), "1");
    EXPECT_EQ(port.ChildCommandLine().GetSwitchValue("force-device-scale-factor"), "1");

    auto browser = std::make_shared<RenderSideBrowser>();
    auto request = EngineProcessMessage::Create("SlfCef_Request_GetRenderProcessId");
    EXPECT_FALSE(app.OnProcessMessageReceived(nullptr, request));
    EXPECT_FALSE(app.OnProcessMessageReceived(browser, nullptr));
    EXPECT_FALSE(app.OnProcessMessageReceived(browser, EngineProcessMessage::Create("SlfCef_Request_Other")));
    EXPECT_TRUE(browser->sent.empty());
    EXPECT_TRUE(app.OnProcessMessageReceived(browser, request));
    ASSERT_EQ(browser->sent.size(), 1u);
    EXPECT_EQ(browser->sent[0]->GetName(), "SlfCef_Response_GetRenderProcessId");
    ASSERT_TRUE(browser->sent[0]->HasArgumentList());
    EXPECT_EQ(*browser->sent[0]->Arguments(), std::vector<EngineValue>{getpid()});
}

TEST(BrowserHelper, UriDecode)
{
    const std::pair<const char*, const char*> cases[] = {
        {"a+b%41cd", "a bAcd"}, {"a%41b+c", "aAb+c"}, {"ab+", "ab+"}, {"%2FUsers%2Fa%20b.txt&x=1", "/Users/a b.txt&x=1"},
        {"%zz%4a%4A", "%zzJJ"}, {"x%4", "x%4"},       {"+%", "+%"},   {"", ""}};
    for (const auto& [in, out] : cases)
        EXPECT_EQ(CBrowserHelper::UriDecode(in), out) << in;
}

} // namespace
} // namespace SLF_ChromiumEmbeddedFramework
