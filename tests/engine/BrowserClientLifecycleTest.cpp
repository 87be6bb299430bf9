// Browser creation and close against the engine's life-span notices, the
// browser record, popups, dialogs, load notices and the render-process ID.
#include "engine/CBrowserApp.h"
#include "tests/engine/EngineTestSupport.h"

#include <gtest/gtest.h>

namespace SLF_ChromiumEmbeddedFramework {
namespace {

using Clock = std::chrono::steady_clock;

using BrowserLifecycle = EngineTest;

TEST_F(BrowserLifecycle, StartBrowserKeepsARecordWithTheRequestedSizeAndSafeSettings)
{
    EXPECT_EQ(m_Engine->Open(m_Recorder, ""), -1);
    EXPECT_EQ(m_Port.CreateBrowserCalls(), 0);
    ASSERT_EQ(Wrapper().StartBrowser("https://overlay.test/a.html", 1280, 720, 60, &CallbackRecorder::Frame,
                                     &CallbackRecorder::Audio, &m_Recorder, nullptr, nullptr, false),
              1);
    EXPECT_EQ(m_Port.LastCreateUrl(), "https://overlay.test/a.html");
    const EngineBrowserSettings settings = m_Port.LastBrowserSettings();
    EXPECT_EQ(std::tie(settings.windowless_frame_rate, settings.file_access_from_file_urls,
                       settings.universal_access_from_file_urls),
              std::make_tuple(60, STATE_DISABLED, STATE_DISABLED));
    bool found = false;
    const CBrowser record = Client().GetCBrowserForCEFID(1, found);
    ASSERT_TRUE(found);
    EXPECT_EQ(std::tie(record.width, record.height), std::make_tuple(1280u, 720u));
    EXPECT_EQ(m_Engine->Open(m_Recorder), 2);
    EXPECT_EQ(Client().GetBrowserCount(), 2u);
}

TEST_F(BrowserLifecycle, CreationAndCloseWaitTwoSecondsForTheEngine)
{
    auto expectTwoSecondWait = [](auto&& act) {
        const auto start = Clock::now();
        act();
        EXPECT_GE(SecondsSince(start), 1.9);
        EXPECT_LT(SecondsSince(start), 4.0);
    };
    m_Port.SetReportCreation(false);
    expectTwoSecondWait([&] { EXPECT_EQ(m_Engine->Open(m_Recorder), -1); });
    EXPECT_EQ(Client().GetBrowserCount(), 0u); // no half-made record left

    m_Port.SetReportCreation(true);
    m_Port.SetReportClose(false);
    const int id = m_Engine->Open(m_Recorder);
    ASSERT_GT(id, 0);
    expectTwoSecondWait([&] { EXPECT_TRUE(Client().StopBrowser(id)); });
    EXPECT_EQ(Client().GetBrowserCount(), 1u); // the record waits for the notice
    Client().OnLoadStart(m_Port.Browser(id), m_Port.Browser(id)->GetMainFrame());
    EXPECT_TRUE(m_Recorder.UrlChanges().empty()) << "a closing browser's callback context may be gone";
    m_Port.EmitClose(id);
    EXPECT_EQ(Client().GetBrowserCount(), 0u);
}

TEST_F(BrowserLifecycle, ClosingABrowserStopsEachOfItsAudioStreams)
{
    EXPECT_FALSE(Client().StopBrowser(5));
    const int id = m_Engine->Open(m_Recorder);
    Client().OnAudioStreamStarted(m_Port.Browser(id), 11, 48000, 2, 16, 0);
    Client().OnAudioStreamStarted(m_Port.Browser(id), 12, 44100, 1, 16, 0);
    EXPECT_TRUE(Client().StopBrowser(id));
    const auto calls = m_Port.HostCalls(id);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_TRUE(calls[0].kind == FakeHostCall::CloseBrowser && calls[0].forceClose);
    ASSERT_TRUE(WaitUntil([&] { return Client().GetBrowserCount() == 0; }));
    const auto audio = m_Recorder.AudioCalls();
    ASSERT_EQ(audio.size(), 4u);
    EXPECT_EQ(std::vector(audio.begin() + 2, audio.end()),
              (std::vector<AudioCall> {{11, 0, 0, 0, 0, false}, {12, 0, 0, 0, 0, false}}));
    m_Port.EmitClose(id); // a notice for a browser the client no longer knows
    EXPECT_EQ(m_Recorder.AudioCalls().size(), 4u);
}

TEST_F(BrowserLifecycle, PopupsAndDialogsAreRefusedAndLoadsReportTheUrl)
{
    const int id = m_Engine->Open(m_Recorder);
    EXPECT_TRUE(Client().OnBeforePopup(m_Port.Browser(id), "https://elsewhere.test/"));
    bool suppress = false;
    EXPECT_FALSE(Client().OnJSDialog(m_Port.Browser(id), "", JSDIALOGTYPE_CONFIRM, "sure?", "", suppress));
    EXPECT_TRUE(suppress);
    EngineBrowserRef browser = m_Port.Browser(id);
    m_Port.SetUrl(id, "https://overlay.test/next.html");
    Client().OnLoadStart(browser, browser->GetMainFrame());
    EXPECT_EQ(m_Recorder.UrlChanges(), std::vector<std::string> {"https://overlay.test/next.html"});
    // A browser without a URL-change callback.
    const int other = Wrapper().StartBrowser("https://overlay.test/", 10, 10, 30, nullptr, nullptr, &m_Recorder,
                                             nullptr, nullptr, false);
    Client().OnLoadStart(m_Port.Browser(other), m_Port.Browser(other)->GetMainFrame());
    EXPECT_EQ(m_Recorder.UrlChanges().size(), 1u);
}

TEST_F(BrowserLifecycle, RenderProcessIdIsTakenOnlyFromTheAnswerOfABrowserThatWasAsked)
{
    const int id = m_Engine->Open(m_Recorder);
    auto answer = [](const char* name, int pid) {
        auto message = EngineProcessMessage::Create(name);
        message->GetArgumentList() = {EngineValue(pid)};
        return message;
    };
    EXPECT_FALSE(Client().OnProcessMessageReceived(m_Port.Browser(id), answer("SlfCef_Response_Other", 5)));
    EXPECT_FALSE(Client().OnProcessMessageReceived(m_Port.Browser(9), answer(kResponseGetRenderProcessId, 77)));
    EXPECT_EQ(Wrapper().GetRenderProcessId(id) + Wrapper().GetRenderProcessId(9), 0);
    EXPECT_TRUE(Client().OnProcessMessageReceived(m_Port.Browser(id), answer(kResponseGetRenderProcessId, 4321)));
    EXPECT_EQ(Wrapper().GetRenderProcessId(id), 4321);
    EXPECT_EQ(m_Port.ProcessMessages(id), std::vector<std::string> {kRequestGetRenderProcessId});

    // The web process ended and the engine replaced it: its ID is unknown
    // until the new process answers the question, asked again.
    Client().OnRenderProcessTerminated(m_Port.Browser(id), TS_PROCESS_CRASHED);
    EXPECT_EQ(Wrapper().GetRenderProcessId(id), 0);
    EXPECT_EQ(m_Port.ProcessMessages(id),
              (std::vector<std::string> {kRequestGetRenderProcessId, kRequestGetRenderProcessId}));
    EXPECT_TRUE(Client().OnProcessMessageReceived(m_Port.Browser(id), answer(kResponseGetRenderProcessId, 4400)));
    EXPECT_EQ(Wrapper().GetRenderProcessId(id), 4400);
    // A browser the client does not know is not asked.
    Client().OnRenderProcessTerminated(m_Port.Browser(9), TS_PROCESS_OOM);
    EXPECT_TRUE(m_Port.ProcessMessages(9).empty());
}

} // namespace
} // namespace SLF_ChromiumEmbeddedFramework
