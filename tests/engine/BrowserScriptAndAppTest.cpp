// Scripts and the URL-fragment round trips, the application object on both
// sides, and percent-decoding.
#include "engine/CBrowserApp.h"
#include "engine/CBrowserHelper.h"
#include "tests/engine/EngineTestSupport.h"
#include "tests/engine/FakeEnginePort.h"

#include <gtest/gtest.h>

#include <chrono>
#include <stdexcept>
#include <unistd.h>

namespace SLF_ChromiumEmbeddedFramework {
namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kPage = "https://overlay.test/editor.html";

// The page's side of the round trips: each script sets the URL fragment
// to the answer given for it.
class ScriptRoundTrips : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_Port.SetScriptHandler([this](int id, const std::string& code) {
            std::lock_guard<std::mutex> guard(m_Mutex);
            auto answer = m_Answers.find(code);
            if (answer != m_Answers.end())
                m_Port.SetUrl(id, std::string(kPage) + "#" + answer->second);
        });
        m_Port.Install();
        ASSERT_TRUE(m_Wrapper.StartCEF());
        m_nId = m_Wrapper.StartBrowser(kPage, 320, 240, 30, nullptr, nullptr, nullptr, nullptr, nullptr, false);
        ASSERT_EQ(m_nId, 1);
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
    int m_nId = -1;
};

TEST_F(ScriptRoundTrips, ScriptsRunInTheMainFrameWithItsUrl)
{
    m_Wrapper.ExecuteJavaScript(m_nId, "document.title = 'x';");
    m_Wrapper.ExecuteJavaScript(42, "never();");
    const auto calls = m_Port.HostCalls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].kind, FakeHostCall::ExecuteJavaScript);
    EXPECT_EQ(calls[0].script, "document.title = 'x';");
    EXPECT_EQ(calls[0].scriptUrl, kPage);
    EXPECT_EQ(calls[0].startLine, 0);
    EXPECT_EQ(m_Wrapper.GetUrl(m_nId), kPage);
    EXPECT_EQ(m_Wrapper.GetUrl(42), "");
}

TEST_F(ScriptRoundTrips, NumbersAreReadFromTheFragment)
{
    Answer("getContentHeight();", "height=240px");
    EXPECT_EQ(m_Wrapper.TinyMce_GetHtmlTextHeight(m_nId), 240);

    // No answer: about one second, then 0.
    const auto start = Clock::now();
    EXPECT_EQ(m_Wrapper.TinyMce_GetHtmlTextWidth(m_nId), 0);
    const double waited = SecondsSince(start);
    EXPECT_GE(waited, 0.9);
    EXPECT_LT(waited, 3.0);

    Answer("getContentWidth();", "width=abc");
    EXPECT_THROW(m_Wrapper.TinyMce_GetHtmlTextWidth(m_nId), std::invalid_argument);
}

TEST_F(ScriptRoundTrips, TextIsDecodedOnlyWhenAsked)
{
    Answer("location.hash = 'editor1=' + tinyMCE.activeEditor.save();", "editor1=%3Cp%3Ea%20b%3C/p%3E");
    EXPECT_EQ(m_Wrapper.TinyMce_GetHtmlText(m_nId, true, true), "<p>a b</p>");
    // The fragment stays: without the script the URL does not change, and
    // after the wait the last answer comes back again.
    EXPECT_EQ(m_Wrapper.TinyMce_GetHtmlText(m_nId, false, false), "%3Cp%3Ea%20b%3C/p%3E");

    // A "+" among the last two bytes stays.
    Answer("saveOverlayConfiguration();", "settings=a%20b+c");
    EXPECT_EQ(m_Wrapper.CustomOverlays_GetSettings(m_nId, true), "a b+c");
    Answer("saveOverlayConfiguration();", "settings=a%20b+cd");
    EXPECT_EQ(m_Wrapper.CustomOverlays_GetSettings(m_nId, false), "a%20b+cd");
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

TEST(BrowserApp, EveryProcessRunsAtScaleFactorOne)
{
    CBrowserApp app;
    EXPECT_EQ(app.GetBrowserProcessHandler(), static_cast<EngineBrowserProcessHandler*>(&app));
    EXPECT_EQ(app.GetRenderProcessHandler(), static_cast<EngineRenderProcessHandler*>(&app));

    EngineCommandLine service;
    app.OnBeforeCommandLineProcessing("", service);
    EXPECT_EQ(service.GetSwitchValue("force-device-scale-factor"), "1");
    EngineCommandLine child;
    app.OnBeforeChildProcessLaunch(child);
    EXPECT_EQ(child.GetSwitchValue("force-device-scale-factor"), "1");

    // What the engine port gets to apply.
    FakeEnginePort port;
    EXPECT_TRUE(port.Initialize(EngineSettings(), &app));
    EXPECT_EQ(port.ServiceCommandLine().GetSwitchValue("force-device-scale-factor"), "1");
    EXPECT_EQ(port.ChildCommandLine().GetSwitchValue("force-device-scale-factor"), "1");
}

TEST(BrowserApp, TheWebProcessAnswersOnlyTheProcessIdQuestion)
{
    CBrowserApp app;
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
    ASSERT_EQ(browser->sent[0]->Arguments()->size(), 1u);
    EXPECT_EQ(std::get<int>(browser->sent[0]->Arguments()->at(0)), getpid());
}

TEST(BrowserHelper, UriDecode)
{
    EXPECT_EQ(CBrowserHelper::UriDecode("a+b%41cd"), "a bAcd");
    EXPECT_EQ(CBrowserHelper::UriDecode("a%41b+c"), "aAb+c");
    EXPECT_EQ(CBrowserHelper::UriDecode("ab+"), "ab+");
    EXPECT_EQ(CBrowserHelper::UriDecode("%2FUsers%2Fa%20b.txt&x=1"), "/Users/a b.txt&x=1");
    EXPECT_EQ(CBrowserHelper::UriDecode("%zz%4a%4A"), "%zzJJ");
    EXPECT_EQ(CBrowserHelper::UriDecode("x%4"), "x%4");
    EXPECT_EQ(CBrowserHelper::UriDecode("+%"), "+%");
    EXPECT_EQ(CBrowserHelper::UriDecode(""), "");
}

} // namespace
} // namespace SLF_ChromiumEmbeddedFramework
