// Paint delivery and its size rules, the view size, input events with their
// button flags and click counts, and audio stream forwarding.
#include "dbg/dbg.h"
#include "engine/CBrowserClient.h"
#include "engine/EngineLog.h"
#include "tests/engine/EngineTestSupport.h"
#include "tests/engine/FakeEnginePort.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace SLF_ChromiumEmbeddedFramework {
namespace {

class BrowserClientWithBrowser : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_Port.Install();
        m_Engine = std::make_unique<HostedEngine>();
        ASSERT_TRUE(m_Engine->Started());
        m_nId = m_Engine->Open(m_Recorder);
        ASSERT_EQ(m_nId, 1);
        m_Port.ClearHostCalls();
    }
    void TearDown() override { m_Engine.reset(); }

    CBrowserWrapper& Wrapper() { return m_Engine->Wrapper(); }
    CBrowserClient& Client() { return m_Engine->Client(); }
    std::vector<FakeHostCall> Calls() { return m_Port.HostCalls(m_nId); }

    FakeEnginePort m_Port;
    std::unique_ptr<HostedEngine> m_Engine;
    CallbackRecorder m_Recorder;
    int m_nId = -1;
};

using PaintDelivery = BrowserClientWithBrowser;

TEST_F(PaintDelivery, AFrameOfTheRenderSizeIsHandedOverWhole)
{
    m_Port.EmitPaint(m_nId, 800, 600);
    ASSERT_EQ(m_Recorder.Frames().size(), 1u);
    EXPECT_EQ(m_Recorder.Frames()[0], 1920000u);

    // The callback sees the engine's own buffer.
    struct Seen {
        static bool Frame(unsigned char* data, unsigned int size, void* context)
        {
            auto* out = static_cast<std::vector<uint8_t>*>(context);
            out->assign(data, data + size);
            return true;
        }
    };
    std::vector<uint8_t> seen;
    const int other = Wrapper().StartBrowser("https://overlay.test/", 2, 1, 30, &Seen::Frame, nullptr, &seen,
                                             nullptr, nullptr, false);
    ASSERT_EQ(other, 2);
    const uint8_t pixels[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    m_Port.EmitPaintBuffer(other, pixels, 2, 1);
    EXPECT_EQ(seen, std::vector<uint8_t>(pixels, pixels + 8));
}

TEST_F(PaintDelivery, AStaleSizeAfterAResizeIsDropped)
{
    Wrapper().SetRenderSize(m_nId, 1024, 768);
    ASSERT_EQ(Calls().size(), 1u);
    EXPECT_EQ(Calls()[0].kind, FakeHostCall::WasResized);
    // The engine asks for the view size after the notice.
    ASSERT_TRUE(WaitUntil([&] { return m_Port.LastViewRect(m_nId).width == 1024; }));
    EXPECT_EQ(m_Port.LastViewRect(m_nId).height, 768);

    m_Port.EmitPaint(m_nId, 800, 600);
    EXPECT_TRUE(m_Recorder.Frames().empty());
    m_Port.EmitPaint(m_nId, 1024, 768);
    ASSERT_EQ(m_Recorder.Frames().size(), 1u);
    EXPECT_EQ(m_Recorder.Frames()[0], 1024u * 768u * 4u);

    EngineRect rect;
    EXPECT_FALSE(Client().GetViewRect(m_Port.Browser(42), rect));
    EXPECT_FALSE(Client().GetViewRect(nullptr, rect));
}

TEST_F(PaintDelivery, AReloadDropsExactlyTheNextPaint)
{
    Wrapper().ReloadBrowser(m_nId);
    ASSERT_EQ(Calls().size(), 1u);
    EXPECT_EQ(Calls()[0].kind, FakeHostCall::Reload);
    m_Port.EmitPaint(m_nId, 800, 600);
    EXPECT_TRUE(m_Recorder.Frames().empty());
    m_Port.EmitPaint(m_nId, 800, 600);
    m_Port.EmitPaint(m_nId, 800, 600);
    EXPECT_EQ(m_Recorder.Frames().size(), 2u);
}

TEST_F(PaintDelivery, DisabledFramesAreDroppedAndTheViewHidden)
{
    Wrapper().EnableReceivingFrames(m_nId, false);
    auto calls = Calls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].kind, FakeHostCall::WasHidden);
    EXPECT_TRUE(calls[0].hidden);
    EXPECT_EQ(calls[1].kind, FakeHostCall::Invalidate);

    m_Port.EmitPaint(m_nId, 800, 600);
    EXPECT_TRUE(m_Recorder.Frames().empty());

    Wrapper().EnableReceivingFrames(m_nId, true);
    calls = Calls();
    ASSERT_EQ(calls.size(), 4u);
    EXPECT_FALSE(calls[2].hidden);
    m_Port.EmitPaint(m_nId, 800, 600);
    EXPECT_EQ(m_Recorder.Frames().size(), 1u);

    Wrapper().RefreshBrowser(m_nId);
    EXPECT_EQ(Calls().back().kind, FakeHostCall::Invalidate);

    // Unknown browsers: nothing reaches the engine.
    m_Port.ClearHostCalls();
    EXPECT_FALSE(Client().EnableReceivingFrames(9, false));
    EXPECT_FALSE(Client().SetRenderSize(9, 1, 1));
    EXPECT_FALSE(Client().RefreshBrowser(9));
    EXPECT_FALSE(Client().ReloadBrowser(9));
    m_Port.EmitPaint(9, 800, 600);
    EXPECT_TRUE(m_Port.HostCalls().empty());
    EXPECT_EQ(m_Recorder.Frames().size(), 1u);
}

using InputEvents = BrowserClientWithBrowser;

TEST_F(InputEvents, AMoveCarriesTheHeldButton)
{
    EXPECT_TRUE(Wrapper().EventMouseDown(m_nId, 2, 10, 20, false));
    Wrapper().EventMouseMove(m_nId, 11, 21);
    EXPECT_TRUE(Wrapper().EventMouseUp(m_nId, 2, 12, 22));
    Wrapper().EventMouseMove(m_nId, 13, 23);
    Wrapper().EventMouseDown(m_nId, 0, 0, 0, false);
    Wrapper().EventMouseMove(m_nId, 0, 0);
    Wrapper().EventMouseDown(m_nId, 1, 0, 0, false);
    Wrapper().EventMouseMove(m_nId, 0, 0);

    const auto calls = Calls();
    ASSERT_EQ(calls.size(), 8u);
    EXPECT_EQ(calls[0].kind, FakeHostCall::MouseClick);
    EXPECT_EQ(calls[0].button, MBT_RIGHT);
    EXPECT_FALSE(calls[0].mouseUp);
    EXPECT_EQ(calls[0].mouse.modifiers, 64u);
    EXPECT_EQ(calls[0].mouse.x, 10);
    EXPECT_EQ(calls[0].mouse.y, 20);
    EXPECT_EQ(calls[1].kind, FakeHostCall::MouseMove);
    EXPECT_EQ(calls[1].mouse.modifiers, 64u);
    EXPECT_FALSE(calls[1].mouseLeave);
    EXPECT_TRUE(calls[2].mouseUp);
    EXPECT_EQ(calls[2].mouse.modifiers, 0u);
    EXPECT_EQ(calls[3].mouse.modifiers, 0u);
    EXPECT_EQ(calls[5].mouse.modifiers, 16u);
    EXPECT_EQ(calls[7].mouse.modifiers, 32u);
}

TEST_F(InputEvents, ADoubleClickPressCountsTwoAndItsReleaseOne)
{
    Wrapper().EventMouseDown(m_nId, 0, 5, 5, true);
    Wrapper().EventMouseUp(m_nId, 0, 5, 5);
    Wrapper().EventMouseDown(m_nId, 0, 5, 5, false);
    const auto calls = Calls();
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[0].clickCount, 2);
    EXPECT_EQ(calls[1].clickCount, 1);
    EXPECT_TRUE(calls[1].mouseUp);
    EXPECT_EQ(calls[2].clickCount, 1);
}

TEST_F(InputEvents, WheelOperationsSendSingleSteps)
{
    EXPECT_TRUE(Wrapper().EventMouseWheelScrollUp(m_nId, 1, 2));
    EXPECT_TRUE(Wrapper().EventMouseWheelScrollDown(m_nId, 1, 2));
    EXPECT_TRUE(Wrapper().EventMouseWheelScrollLeft(m_nId, 1, 2));
    EXPECT_TRUE(Wrapper().EventMouseWheelScrollRight(m_nId, 1, 2));
    const auto calls = Calls();
    ASSERT_EQ(calls.size(), 4u);
    const int expected[4][2] = {{0, -1}, {0, 1}, {-1, 0}, {1, 0}};
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(calls[i].kind, FakeHostCall::MouseWheel);
        EXPECT_EQ(calls[i].deltaX, expected[i][0]) << i;
        EXPECT_EQ(calls[i].deltaY, expected[i][1]) << i;
        EXPECT_EQ(calls[i].mouse.x, 1);
        EXPECT_EQ(calls[i].mouse.modifiers, 0u);
    }
}

TEST_F(InputEvents, KeyEventsOfBothForms)
{
    EXPECT_TRUE(Wrapper().EventKeyDown(m_nId, true, 38));
    EXPECT_TRUE(Wrapper().EventKeyDown(m_nId, false, 39));
    EXPECT_TRUE(Wrapper().EventKeyUp(m_nId, 40));
    // The short form tests key-up first, the full form raw key-down first.
    EXPECT_TRUE(Client().EventKey(m_nId, true, true, 41));
    EXPECT_TRUE(Wrapper().EventKey(m_nId, true, true, true, 42, 65, EVENTFLAG_SHIFT_DOWN));
    EXPECT_TRUE(Wrapper().EventKey(m_nId, false, true, false, 43, 66, 0));
    EXPECT_TRUE(Wrapper().EventKey(m_nId, false, false, false, 44, 67, 0));

    const auto calls = Calls();
    ASSERT_EQ(calls.size(), 7u);
    EXPECT_EQ(calls[0].key.type, KEYEVENT_RAWKEYDOWN);
    EXPECT_EQ(calls[0].key.native_key_code, 38);
    EXPECT_EQ(calls[0].key.windows_key_code, 0);
    EXPECT_EQ(calls[0].key.modifiers, 0u);
    EXPECT_EQ(calls[1].key.type, KEYEVENT_CHAR);
    EXPECT_EQ(calls[2].key.type, KEYEVENT_KEYUP);
    EXPECT_EQ(calls[3].key.type, KEYEVENT_KEYUP);
    EXPECT_EQ(calls[4].key.type, KEYEVENT_RAWKEYDOWN);
    EXPECT_TRUE(calls[4].key.is_system_key);
    EXPECT_EQ(calls[4].key.native_key_code, 42);
    EXPECT_EQ(calls[4].key.windows_key_code, 65);
    EXPECT_EQ(calls[4].key.modifiers, static_cast<uint32_t>(EVENTFLAG_SHIFT_DOWN));
    EXPECT_EQ(calls[5].key.type, KEYEVENT_KEYUP);
    EXPECT_EQ(calls[6].key.type, KEYEVENT_CHAR);
}

TEST_F(InputEvents, MovesReportTheCursorTypeAndUnknownBrowsersGetNothing)
{
    EXPECT_EQ(Client().EventMouseMove(m_nId, 0, 0), 0);
    EXPECT_FALSE(Wrapper().EventMouseMove(m_nId, 0, 0));
    m_Port.EmitCursorChange(m_nId, CT_HAND);
    EXPECT_EQ(Client().EventMouseMove(m_nId, 0, 0), CT_HAND);
    EXPECT_TRUE(Wrapper().EventMouseMove(m_nId, 0, 0));

    m_Port.ClearHostCalls();
    EXPECT_EQ(Client().EventMouseMove(5, 0, 0), 0);
    EXPECT_FALSE(Wrapper().EventMouseDown(5, 0, 0, 0, true));
    EXPECT_FALSE(Wrapper().EventMouseUp(5, 0, 0, 0));
    EXPECT_FALSE(Wrapper().EventMouseWheelScrollUp(5, 0, 0));
    EXPECT_FALSE(Wrapper().EventKeyDown(5, true, 1));
    EXPECT_FALSE(Wrapper().EventKeyUp(5, 1));
    EXPECT_FALSE(Wrapper().EventKey(5, true, false, false, 1, 1, 0));
    EXPECT_TRUE(m_Port.HostCalls().empty());
}

using AudioForwarding = BrowserClientWithBrowser;

TEST_F(AudioForwarding, PacketsCarryTheFormatOfTheirStreamsStart)
{
    const int16_t samples[4] = {1, -1, 2, -2};
    m_Port.EmitAudioPacket(m_nId, 3, samples, sizeof samples); // never started
    EXPECT_TRUE(m_Recorder.AudioCalls().empty());

    m_Port.EmitAudioStarted(m_nId, 3, 48000, 2, 16, 10);
    m_Port.EmitAudioPacket(m_nId, 3, samples, sizeof samples);
    m_Port.EmitAudioStarted(m_nId, 3, 22050, 1, 16); // overwrites the format
    m_Port.EmitAudioPacket(m_nId, 3, samples, sizeof samples);
    m_Port.EmitAudioStopped(m_nId, 3);

    const auto calls = m_Recorder.AudioCalls();
    ASSERT_EQ(calls.size(), 5u);
    EXPECT_EQ(calls[0].size, 0u);
    EXPECT_FALSE(calls[0].hasData);
    EXPECT_EQ(calls[0].sampleRate, 48000u);
    EXPECT_EQ(calls[0].channels, 2u);
    EXPECT_EQ(calls[0].bitsPerSample, 16u);
    EXPECT_TRUE(calls[1].hasData);
    EXPECT_EQ(calls[1].size, sizeof samples);
    EXPECT_EQ(calls[1].sampleRate, 48000u);
    EXPECT_EQ(calls[1].channels, 2u);
    EXPECT_EQ(calls[3].sampleRate, 22050u);
    EXPECT_EQ(calls[3].channels, 1u);
    EXPECT_EQ(calls[4].streamId, 3);
    EXPECT_EQ(calls[4].size, 0u);
    EXPECT_EQ(calls[4].sampleRate, 0u);
    EXPECT_EQ(calls[4].channels, 0u);
    EXPECT_EQ(calls[4].bitsPerSample, 0u);

    // The stopped stream's format is kept: a later packet still carries it.
    m_Port.EmitAudioPacket(m_nId, 3, samples, sizeof samples);
    ASSERT_EQ(m_Recorder.AudioCalls().size(), 6u);
    EXPECT_EQ(m_Recorder.AudioCalls()[5].sampleRate, 22050u);
}

TEST_F(AudioForwarding, TheFormatIsKeptWhileDeliveryIsOff)
{
    const int16_t samples[2] = {7, 7};
    Wrapper().EnableReceivingFrames(m_nId, false);
    m_Port.EmitAudioStarted(m_nId, 1, 44100, 2, 16);
    m_Port.EmitAudioPacket(m_nId, 1, samples, sizeof samples);
    m_Port.EmitAudioStopped(m_nId, 1);
    EXPECT_TRUE(m_Recorder.AudioCalls().empty());

    Wrapper().EnableReceivingFrames(m_nId, true);
    m_Port.EmitAudioPacket(m_nId, 1, samples, sizeof samples);
    ASSERT_EQ(m_Recorder.AudioCalls().size(), 1u);
    EXPECT_EQ(m_Recorder.AudioCalls()[0].sampleRate, 44100u);

    // Unknown browsers: nothing.
    m_Port.EmitAudioStarted(8, 1, 44100, 2, 16);
    m_Port.EmitAudioPacket(8, 1, samples, sizeof samples);
    m_Port.EmitAudioStopped(8, 1);
    EXPECT_EQ(m_Recorder.AudioCalls().size(), 1u);
}

struct LogLines {
    static void Sink(void* context, int level, const char* line, int length)
    {
        auto* self = static_cast<LogLines*>(context);
        std::lock_guard<std::mutex> guard(self->mutex);
        if (level == 2)
            self->lines.emplace_back(line, static_cast<size_t>(length));
    }
    std::mutex mutex;
    std::vector<std::string> lines;
};

TEST_F(AudioForwarding, StreamStartAndStopAreLoggedAtInfoLevel)
{
    LogLines log;
    const int32_t module = EngineLog_GetModuleIndex();
    ASSERT_GE(module, 0);
    dbgsetcallback(&LogLines::Sink, &log);
    dbgcommand("callback");
    dbgcommand("cef INF:1");
    m_Port.EmitAudioStarted(m_nId, 4, 48000, 2, 16, 20);
    m_Port.EmitAudioStopped(77, 4); // logged also for an unknown browser
    dbgcommand("cef INF:0");
    dbgcommand("nocallback");
    dbgsetcallback(nullptr, nullptr);

    ASSERT_EQ(log.lines.size(), 2u);
    EXPECT_NE(log.lines[0].find("---> Starting audio stream: 4, channels: 2, samplerate: 48000, buffer_duration: 20, "
                                "bits_per_sample: 16"),
              std::string::npos);
    EXPECT_NE(log.lines[1].find("---> Stopping audio stream : 4"), std::string::npos);
}

} // namespace
} // namespace SLF_ChromiumEmbeddedFramework
