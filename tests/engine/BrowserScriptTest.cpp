// The page round trips through the URL fragment.
#include "tests/engine/EngineTestSupport.h"

#include <gtest/gtest.h>

#include <map>
#include <stdexcept>

namespace SLF_ChromiumEmbeddedFramework {
namespace {

constexpr const char* kPage = "https://overlay.test/editor.html";

// The page's side: each script sets the URL fragment to the answer given
// for it.
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

TEST_F(ScriptRoundTrips, NumbersAndTextAreReadFromTheFragment)
{
    m_Wrapper.ExecuteJavaScript(42, "never();");
    EXPECT_TRUE(m_Port.HostCalls().empty());

    Answer("getContentHeight();", "height=240px");
    EXPECT_EQ(m_Wrapper.TinyMce_GetHtmlTextHeight(1), 240);
    // No answer: about one second, then 0.
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(m_Wrapper.TinyMce_GetHtmlTextWidth(1), 0);
    EXPECT_GE(SecondsSince(start), 0.9);
    EXPECT_LT(SecondsSince(start), 3.0);
    Answer("getContentWidth();", "width=abc");
    EXPECT_THROW(m_Wrapper.TinyMce_GetHtmlTextWidth(1), std::invalid_argument);

    Answer("location.hash = 'editor1=' + tinyMCE.activeEditor.save();", "editor1=%3Cp%3Ea%20b%3C/p%3E");
    EXPECT_EQ(m_Wrapper.TinyMce_GetHtmlText(1, true, true), "<p>a b</p>");
    Answer("saveOverlayConfiguration();", "settings=a%20b+c"); // the last two bytes are never decoded
    EXPECT_EQ(m_Wrapper.CustomOverlays_GetSettings(1, true), "a b+c");
    Answer("saveOverlayConfiguration();", "settings=a%20b+cd");
    EXPECT_EQ(m_Wrapper.CustomOverlays_GetSettings(1, false), "a%20b+cd");
}

} // namespace
} // namespace SLF_ChromiumEmbeddedFramework
