// Browser creation and close against the engine's life-span notices, the
// browser record, popups and the render-process-ID round trip.
#include "engine/CBrowserApp.h"
#include "engine/CBrowserClient.h"
#include "tests/engine/EngineTestSupport.h"
#include "tests/engine/FakeEnginePort.h"

#include <gtest/gtest.h>

#include <chrono>
#include <unistd.h>

namespace SLF_ChromiumEmbeddedFramework {
namespace {

using Clock = std::chrono::steady_clock;

EngineProcessMessageRef MessageWithInt(const char* name, int value)
{
    auto message = EngineProcessMessage::Create(name);
    auto& arguments = message->GetArgumentList();
    arguments.resize(1);
    arguments[0] = value;
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
    void TearDown() override { m_Engine.reset(); }

    CBrowserWrapper& Wrapper() { return m_Engine->Wrapper(); }
    CBrowserClient& Client() { return m_Engine->Client(); }

    FakeEnginePort m_Port;
    std::unique_ptr<HostedEngine> m_Engine;
    CallbackRecorder m_Recorder;
};

TEST_F(BrowserLifecycle, StartBrowserCreatesAWindowlessBrowserWithTheRequestedSettings)
{
    EXPECT_EQ(m_Engine->Open(m_Recorder, ""), -1);
    EXPECT_EQ(m_Port.CreateBrowserCalls(), 0);
    EXPECT_EQ(Client().GetBrowserCount(), 0u);

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
    EXPECT_TRUE(Client().IsBrowserResumed(1));

    bool found = false;
    const CBrowser record = Client().GetCBrowserForCEFID(1, found);
    ASSERT_TRUE(found);
    EXPECT_EQ(record.startURL, "https://overlay.test/a.html");
    EXPECT_EQ(record.width, 1280u);
    EXPECT_EQ(record.height, 720u);
    EXPECT_EQ(record.frameRate, 60);
    EXPECT_TRUE(record.m_bReceivingFrames);
    EXPECT_EQ(record.callbackContext, &m_Recorder);

    EXPECT_EQ(m_Engine->Open(m_Recorder), 2);
    EXPECT_EQ(Client().GetBrowserCount(), 2u);
    Client().GetCBrowserForCEFID(7, found);
    EXPECT_FALSE(found);
}

TEST_F(BrowserLifecycle, ABrowserTheEngineNeverReportsIsGivenUpAfterTwoSeconds)
{
    m_Port.SetReportCreation(false);
    const auto start = Clock::now();
    EXPECT_EQ(m_Engine->Open(m_Recorder), -1);
    const double waited = SecondsSince(start);
    EXPECT_GE(waited, 1.9);
    EXPECT_LT(waited, 4.0);
    EXPECT_EQ(Client().GetBrowserCount(), 0u);

    // A refused creation does not wait at all.
    m_Port.SetReportCreation(true);
    m_Port.SetAcceptCreateBrowser(false);
    EXPECT_EQ(m_Engine->Open(m_Recorder), -1);
    EXPECT_EQ(Client().GetBrowserCount(), 0u);
}

TEST_F(BrowserLifecycle, StopBrowserClosesAndWaitsForTheEnginesNotice)
{
    EXPECT_FALSE(Client().StopBrowser(5));
    EXPECT_TRUE(m_Port.HostCalls().empty());

    const int id = m_Engine->Open(m_Recorder);
    ASSERT_EQ(id, 1);
    EXPECT_TRUE(Client().StopBrowser(id));
    const auto calls = m_Port.HostCalls(id);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].kind, FakeHostCall::CloseBrowser);
    EXPECT_TRUE(calls[0].forceClose);
    EXPECT_TRUE(WaitUntil([&] { return Client().GetBrowserCount() == 0; }));
    EXPECT_FALSE(Client().IsBrowserResumed(id));

    // The engine never reports the close: true after about two seconds,
    // and the record stays.
    m_Port.SetReportClose(false);
    const int second = m_Engine->Open(m_Recorder);
    ASSERT_EQ(second, 2);
    const auto start = Clock::now();
    EXPECT_TRUE(Client().StopBrowser(second));
    EXPECT_GE(SecondsSince(start), 1.9);
    EXPECT_EQ(Client().GetBrowserCount(), 1u);
}

TEST_F(BrowserLifecycle, ClosingABrowserStopsEachOpenAudioStream)
{
    const int id = m_Engine->Open(m_Recorder);
    ASSERT_EQ(id, 1);
    m_Port.EmitAudioStarted(id, 11, 48000, 2, 16);
    m_Port.EmitAudioStarted(id, 12, 44100, 1, 16);
    Wrapper().StopBrowser(id);
    ASSERT_TRUE(WaitUntil([&] { return Client().GetBrowserCount() == 0; }));

    const auto calls = m_Recorder.AudioCalls();
    ASSERT_EQ(calls.size(), 4u);
    for (size_t i = 2; i < 4; ++i) {
        EXPECT_EQ(calls[i].size, 0u);
        EXPECT_EQ(calls[i].sampleRate, 0u);
        EXPECT_EQ(calls[i].channels, 0u);
        EXPECT_EQ(calls[i].bitsPerSample, 0u);
        EXPECT_FALSE(calls[i].hasData);
    }
    EXPECT_EQ(calls[2].streamId, 11);
    EXPECT_EQ(calls[3].streamId, 12);

    // A notice for a browser the client no longer knows changes nothing.
    m_Port.EmitClose(id);
    EXPECT_EQ(m_Recorder.AudioCalls().size(), 4u);
}

TEST_F(BrowserLifecycle, PauseAndResumeOnlyKeepTheResumeState)
{
    const int id = m_Engine->Open(m_Recorder);
    Wrapper().PauseBrowser(id);
    EXPECT_FALSE(Client().IsBrowserResumed(id));
    Wrapper().ResumeBrowser(id);
    EXPECT_TRUE(Client().IsBrowserResumed(id));
    EXPECT_TRUE(m_Port.HostCalls(id).empty());
}

TEST_F(BrowserLifecycle, PopupsAreRefusedAndDialogsSuppressed)
{
    const int id = m_Engine->Open(m_Recorder);
    EXPECT_TRUE(m_Port.EmitPopup(id, "https://elsewhere.test/"));
    EXPECT_EQ(m_Port.OpenBrowserIds().size(), 1u);

    for (EngineJSDialogType type : {JSDIALOGTYPE_ALERT, JSDIALOGTYPE_CONFIRM, JSDIALOGTYPE_PROMPT}) {
        bool suppress = false;
        EXPECT_FALSE(m_Port.EmitJSDialog(id, type, "hello", suppress));
        EXPECT_TRUE(suppress);
    }
}

TEST_F(BrowserLifecycle, LoadStartReportsTheFramesUrlToTheUrlChangeCallback)
{
    const int id = m_Engine->Open(m_Recorder);
    m_Port.SetUrl(id, "https://overlay.test/next.html");
    m_Port.EmitLoadStart(id);
    m_Port.EmitLoadEnd(id, 200);
    ASSERT_EQ(m_Recorder.UrlChanges().size(), 1u);
    EXPECT_EQ(m_Recorder.UrlChanges()[0], "https://overlay.test/next.html");

    // Without a URL-change callback nothing is called.
    const int other = Wrapper().StartBrowser("https://overlay.test/", 10, 10, 30, nullptr, nullptr, &m_Recorder,
                                             nullptr, nullptr, false);
    ASSERT_EQ(other, 2);
    m_Port.EmitLoadStart(other);
    EXPECT_EQ(m_Recorder.UrlChanges().size(), 1u);
}

TEST_F(BrowserLifecycle, RenderProcessIdArrivesFromTheWebProcess)
{
    EXPECT_EQ(Wrapper().GetRenderProcessId(1), 0);
    const int id = m_Engine->Open(m_Recorder);
    const auto sent = m_Port.SentProcessMessages(id);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0]->GetName(), "SlfCef_Request_GetRenderProcessId");
    EXPECT_FALSE(sent[0]->HasArgumentList());
    ASSERT_TRUE(WaitUntil([&] { return Wrapper().GetRenderProcessId(id) == getpid(); }));

    // A response without an argument list is handled and changes nothing.
    auto bare = EngineProcessMessage::Create("SlfCef_Response_GetRenderProcessId");
    EXPECT_TRUE(m_Port.DeliverProcessMessage(id, bare));
    EXPECT_EQ(Wrapper().GetRenderProcessId(id), getpid());

    auto other = MessageWithInt("SlfCef_Response_Other", 5);
    EXPECT_FALSE(m_Port.DeliverProcessMessage(id, other));

    // Answers for browsers that were never asked are not taken.
    auto stray = MessageWithInt("SlfCef_Response_GetRenderProcessId", 77);
    EXPECT_FALSE(m_Port.DeliverProcessMessage(9, stray));
    EXPECT_EQ(Wrapper().GetRenderProcessId(9), 0);

    auto update = MessageWithInt("SlfCef_Response_GetRenderProcessId", 4321);
    EXPECT_TRUE(m_Port.DeliverProcessMessage(id, update));
    EXPECT_EQ(Wrapper().GetRenderProcessId(id), 4321);
}

TEST_F(BrowserLifecycle, ARenderProcessIdNotYetAnsweredReadsZero)
{
    m_Port.SetAnswerProcessMessages(false);
    const int id = m_Engine->Open(m_Recorder);
    ASSERT_EQ(id, 1);
    EXPECT_EQ(Wrapper().GetRenderProcessId(id), 0);
}

} // namespace
} // namespace SLF_ChromiumEmbeddedFramework
