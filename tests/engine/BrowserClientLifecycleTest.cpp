// Browser creation and close against the engine's life-span notices, the
// browser record, popups, dialogs, load notices and the render-process-ID
// round trip.
#include "tests/engine/EngineTestSupport.h"

#include <gtest/gtest.h>

#include <unistd.h>

namespace SLF_ChromiumEmbeddedFramework {
namespace {

using Clock = std::chrono::steady_clock;

EngineProcessMessageRef Message(const char* name, int value)
{
    auto message = EngineProcessMessage::Create(name);
    message->GetArgumentList().resize(1);
    message->GetArgumentList()[0] = value;
    return message;
}

class BrowserLifecycle : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_Port.Install();
        m_Engine = std::make_unique<HostedEngine>();
        ASSERT_TRUE(m_Engine->Started());
    }
    CBrowserWrapper& Wrapper() { return m_Engine->Wrapper(); }
    CBrowserClient& Client() { return m_Engine->Client(); }

    FakeEnginePort m_Port;
    CallbackRecorder m_Recorder;
    std::unique_ptr<HostedEngine> m_Engine; // goes first
};

TEST_F(BrowserLifecycle, StartBrowserCreatesAWindowlessBrowserWithTheRequestedSettings)
{
    EXPECT_EQ(m_Engine->Open(m_Recorder, ""), -1);
    EXPECT_EQ(m_Port.CreateBrowserCalls(), 0);
    ASSERT_EQ(Wrapper().StartBrowser("https://overlay.test/a.html", 1280, 720, 60, &CallbackRecorder::Frame,
                                     &CallbackRecorder::Audio, &m_Recorder, nullptr, nullptr, false),
              1);
    EXPECT_EQ(m_Port.LastCreateUrl(), "https://overlay.test/a.html");
    EXPECT_TRUE(m_Port.LastWindowInfo().windowless_rendering_enabled);
    const EngineBrowserSettings settings = m_Port.LastBrowserSettings();
    EXPECT_EQ(settings.windowless_frame_rate, 60);
    EXPECT_EQ(settings.javascript, STATE_ENABLED);
    EXPECT_EQ(settings.file_access_from_file_urls, STATE_DISABLED);
    EXPECT_EQ(settings.universal_access_from_file_urls, STATE_DISABLED);
    bool found = false;
    const CBrowser record = Client().GetCBrowserForCEFID(1, found);
    ASSERT_TRUE(found);
    EXPECT_EQ(record.width, 1280u);
    EXPECT_EQ(record.height, 720u);
    EXPECT_EQ(record.callbackContext, &m_Recorder);
    EXPECT_TRUE(Client().IsBrowserResumed(1));
    // Pause and resume keep only the state; nothing reaches the engine.
    Wrapper().PauseBrowser(1);
    EXPECT_FALSE(Client().IsBrowserResumed(1));
    Wrapper().ResumeBrowser(1);
    EXPECT_TRUE(Client().IsBrowserResumed(1));
    EXPECT_TRUE(m_Port.HostCalls(1).empty());
    EXPECT_EQ(m_Engine->Open(m_Recorder), 2);
    EXPECT_EQ(Client().GetBrowserCount(), 2u);
}

TEST_F(BrowserLifecycle, ABrowserTheEngineNeverReportsIsGivenUpAfterTwoSeconds)
{
    m_Port.SetReportCreation(false);
    const auto start = Clock::now();
    EXPECT_EQ(m_Engine->Open(m_Recorder), -1);
    EXPECT_GE(SecondsSince(start), 1.9);
    EXPECT_LT(SecondsSince(start), 4.0);
    m_Port.SetAcceptCreateBrowser(false); // a refused creation does not wait
    EXPECT_EQ(m_Engine->Open(m_Recorder), -1);
    EXPECT_EQ(Client().GetBrowserCount(), 0u);
}

TEST_F(BrowserLifecycle, StopBrowserClosesWaitsForTheNoticeAndStopsOpenAudioStreams)
{
    EXPECT_FALSE(Client().StopBrowser(5));
    const int id = m_Engine->Open(m_Recorder);
    m_Port.EmitAudioStarted(id, 11, 48000, 2, 16);
    m_Port.EmitAudioStarted(id, 12, 44100, 1, 16);
    EXPECT_TRUE(Client().StopBrowser(id));
    const auto calls = m_Port.HostCalls(id);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].kind, FakeHostCall::CloseBrowser);
    EXPECT_TRUE(calls[0].forceClose);
    ASSERT_TRUE(WaitUntil([&] { return Client().GetBrowserCount() == 0; }));
    const auto audio = m_Recorder.AudioCalls();
    ASSERT_EQ(audio.size(), 4u);
    for (size_t i = 2; i < 4; ++i) {
        EXPECT_EQ(audio[i].streamId, int(9 + i));
        EXPECT_EQ(audio[i].size + audio[i].sampleRate + audio[i].channels + audio[i].bitsPerSample, 0u);
        EXPECT_FALSE(audio[i].hasData);
    }
    m_Port.EmitClose(id); // a notice for a browser the client no longer knows
    EXPECT_EQ(m_Recorder.AudioCalls().size(), 4u);

    // The engine never reports the close: true after about two seconds, and the record stays.
    m_Port.SetReportClose(false);
    const int second = m_Engine->Open(m_Recorder);
    const auto start = Clock::now();
    EXPECT_TRUE(Client().StopBrowser(second));
    EXPECT_GE(SecondsSince(start), 1.9);
    EXPECT_EQ(Client().GetBrowserCount(), 1u);
}

TEST_F(BrowserLifecycle, PopupsDialogsAndLoadNotices)
{
    const int id = m_Engine->Open(m_Recorder);
    EXPECT_TRUE(m_Port.EmitPopup(id, "https://elsewhere.test/"));
    EXPECT_EQ(m_Port.OpenBrowserIds().size(), 1u);
    for (EngineJSDialogType type : {JSDIALOGTYPE_ALERT, JSDIALOGTYPE_CONFIRM, JSDIALOGTYPE_PROMPT}) {
        bool suppress = false;
        EXPECT_FALSE(m_Port.EmitJSDialog(id, type, "hello", suppress));
        EXPECT_TRUE(suppress);
    }
    m_Port.SetUrl(id, "https://overlay.test/next.html");
    m_Port.EmitLoadStart(id);
    m_Port.EmitLoadEnd(id, 200);
    EXPECT_EQ(m_Recorder.UrlChanges(), std::vector<std::string>{"https://overlay.test/next.html"});
    // Without a URL-change callback nothing is called.
    const int other = Wrapper().StartBrowser("https://overlay.test/", 10, 10, 30, nullptr, nullptr, &m_Recorder,
                                             nullptr, nullptr, false);
    m_Port.EmitLoadStart(other);
    EXPECT_EQ(m_Recorder.UrlChanges().size(), 1u);
}

TEST_F(BrowserLifecycle, RenderProcessIdArrivesFromTheWebProcess)
{
    m_Port.SetAnswerProcessMessages(false);
    const int unanswered = m_Engine->Open(m_Recorder);
    EXPECT_EQ(Wrapper().GetRenderProcessId(unanswered), 0);
    m_Port.SetAnswerProcessMessages(true);
    const int id = m_Engine->Open(m_Recorder);
    const auto sent = m_Port.SentProcessMessages(id);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0]->GetName(), "SlfCef_Request_GetRenderProcessId");
    EXPECT_FALSE(sent[0]->HasArgumentList());
    ASSERT_TRUE(WaitUntil([&] { return Wrapper().GetRenderProcessId(id) == getpid(); }));

    // A response without an argument list is handled and changes nothing;
    // other names and browsers that were never asked are not taken.
    EXPECT_TRUE(m_Port.DeliverProcessMessage(id, EngineProcessMessage::Create("SlfCef_Response_GetRenderProcessId")));
    EXPECT_EQ(Wrapper().GetRenderProcessId(id), getpid());
    EXPECT_FALSE(m_Port.DeliverProcessMessage(id, Message("SlfCef_Response_Other", 5)));
    EXPECT_FALSE(m_Port.DeliverProcessMessage(9, Message("SlfCef_Response_GetRenderProcessId", 77)));
    EXPECT_EQ(Wrapper().GetRenderProcessId(9), 0);
    EXPECT_TRUE(m_Port.DeliverProcessMessage(id, Message("SlfCef_Response_GetRenderProcessId", 4321)));
    EXPECT_EQ(Wrapper().GetRenderProcessId(id), 4321);
}

} // namespace
} // namespace SLF_ChromiumEmbeddedFramework
