// Paint delivery and its size rules, the view size, input events with their
// button flags and click counts, and audio stream forwarding.
#include "dbg/dbg.h"
#include "engine/EngineLog.h"
#include "tests/engine/EngineTestSupport.h"

#include <gtest/gtest.h>

namespace SLF_ChromiumEmbeddedFramework {
namespace {

class WithBrowser : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_Port.Install();
        m_Engine = std::make_unique<HostedEngine>();
        ASSERT_TRUE(m_Engine->Started());
        ASSERT_EQ(m_Engine->Open(m_Recorder), m_nId);
        m_Port.ClearHostCalls();
    }
    CBrowserWrapper& Wrapper() { return m_Engine->Wrapper(); }
    CBrowserClient& Client() { return m_Engine->Client(); }
    std::vector<FakeHostCall> Calls() { return m_Port.HostCalls(m_nId); }
    size_t Frames() { return m_Recorder.Frames().size(); }

    FakeEnginePort m_Port;
    CallbackRecorder m_Recorder;
    std::unique_ptr<HostedEngine> m_Engine; // goes first
    const int m_nId = 1;
};

using PaintDelivery = WithBrowser;

TEST_F(PaintDelivery, OnlyFramesOfTheRenderSizeAreHandedOverWhole)
{
    m_Port.EmitPaint(m_nId, 800, 600);
    EXPECT_EQ(m_Recorder.Frames(), std::vector<unsigned>{800 * 600 * 4});
    Wrapper().SetRenderSize(m_nId, 1024, 768);
    ASSERT_EQ(Calls().size(), 1u);
    EXPECT_EQ(Calls()[0].kind, FakeHostCall::WasResized);
    // The engine asks for the view size after the notice.
    ASSERT_TRUE(WaitUntil([&] { return m_Port.LastViewRect(m_nId).width == 1024; }));
    EXPECT_EQ(m_Port.LastViewRect(m_nId).height, 768);
    m_Port.EmitPaint(m_nId, 800, 600); // stale size
    EXPECT_EQ(Frames(), 1u);
    m_Port.EmitPaint(m_nId, 1024, 768);
    EXPECT_EQ(m_Recorder.Frames().back(), 1024u * 768u * 4u);
    EngineRect rect;
    EXPECT_FALSE(Client().GetViewRect(m_Port.Browser(42), rect));
    EXPECT_FALSE(Client().GetViewRect(nullptr, rect));

    // The callback sees the engine's own buffer.
    struct Seen {
        static bool Frame(unsigned char* data, unsigned int size, void* context)
        {
            static_cast<std::vector<uint8_t>*>(context)->assign(data, data + size);
            return true;
        }
    };
    std::vector<uint8_t> seen;
    const int other =
        Wrapper().StartBrowser("https://overlay.test/", 2, 1, 30, &Seen::Frame, nullptr, &seen, nullptr, nullptr, false);
    const uint8_t pixels[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    m_Port.EmitPaintBuffer(other, pixels, 2, 1);
    EXPECT_EQ(seen, std::vector<uint8_t>(pixels, pixels + 8));
}

TEST_F(PaintDelivery, AReloadDropsExactlyTheNextPaint)
{
    Wrapper().ReloadBrowser(m_nId);
    ASSERT_EQ(Calls().size(), 1u);
    EXPECT_EQ(Calls()[0].kind, FakeHostCall::Reload);
    for (int i = 0; i < 3; ++i)
        m_Port.EmitPaint(m_nId, 800, 600);
    EXPECT_EQ(Frames(), 2u);
}

TEST_F(PaintDelivery, DisabledFramesAreDroppedAndTheViewHidden)
{
    Wrapper().EnableReceivingFrames(m_nId, false);
    m_Port.EmitPaint(m_nId, 800, 600);
    EXPECT_EQ(Frames(), 0u);
    Wrapper().EnableReceivingFrames(m_nId, true);
    m_Port.EmitPaint(m_nId, 800, 600);
    EXPECT_EQ(Frames(), 1u);
    Wrapper().RefreshBrowser(m_nId);
    std::vector<std::pair<FakeHostCall::Kind, bool>> calls;
    for (const auto& call : Calls())
        calls.emplace_back(call.kind, call.hidden);
    EXPECT_EQ(calls, (std::vector<std::pair<FakeHostCall::Kind, bool>>{
                         {FakeHostCall::WasHidden, true}, {FakeHostCall::Invalidate, false},
                         {FakeHostCall::WasHidden, false}, {FakeHostCall::Invalidate, false},
                         {FakeHostCall::Invalidate, false}}));
    // Unknown browsers: nothing reaches the engine.
    m_Port.ClearHostCalls();
    EXPECT_FALSE(Client().EnableReceivingFrames(9, false) || Client().SetRenderSize(9, 1, 1) ||
                 Client().RefreshBrowser(9) || Client().ReloadBrowser(9));
    m_Port.EmitPaint(9, 800, 600);
    EXPECT_TRUE(m_Port.HostCalls().empty());
    EXPECT_EQ(Frames(), 1u);
}

using InputEvents = WithBrowser;

TEST_F(InputEvents, MouseEventsCarryTheHeldButtonAndClickCounts)
{
    EXPECT_TRUE(Wrapper().EventMouseDown(m_nId, 2, 10, 20, false));
    Wrapper().EventMouseMove(m_nId, 11, 21);
    EXPECT_TRUE(Wrapper().EventMouseUp(m_nId, 2, 12, 22));
    Wrapper().EventMouseMove(m_nId, 13, 23);
    Wrapper().EventMouseDown(m_nId, 0, 5, 5, true); // a double click: the press counts two
    Wrapper().EventMouseMove(m_nId, 0, 0);
    Wrapper().EventMouseUp(m_nId, 0, 5, 5);
    Wrapper().EventMouseDown(m_nId, 1, 0, 0, false);
    Wrapper().EventMouseMove(m_nId, 0, 0);
    const struct {
        FakeHostCall::Kind kind;
        EngineMouseButtonType button;
        bool up;
        int clicks;
        uint32_t modifiers;
    } expected[] = {{FakeHostCall::MouseClick, MBT_RIGHT, false, 1, 64}, {FakeHostCall::MouseMove, MBT_LEFT, false, 0, 64},
                    {FakeHostCall::MouseClick, MBT_RIGHT, true, 1, 0},   {FakeHostCall::MouseMove, MBT_LEFT, false, 0, 0},
                    {FakeHostCall::MouseClick, MBT_LEFT, false, 2, 16},  {FakeHostCall::MouseMove, MBT_LEFT, false, 0, 16},
                    {FakeHostCall::MouseClick, MBT_LEFT, true, 1, 0},    {FakeHostCall::MouseClick, MBT_MIDDLE, false, 1, 32},
                    {FakeHostCall::MouseMove, MBT_LEFT, false, 0, 32}};
    const auto calls = Calls();
    ASSERT_EQ(calls.size(), std::size(expected));
    for (size_t i = 0; i < calls.size(); ++i) {
        EXPECT_EQ(calls[i].kind, expected[i].kind) << i;
        EXPECT_EQ(calls[i].button, expected[i].button) << i;
        EXPECT_EQ(calls[i].mouseUp, expected[i].up) << i;
        EXPECT_EQ(calls[i].clickCount, expected[i].clicks) << i;
        EXPECT_EQ(calls[i].mouse.modifiers, expected[i].modifiers) << i;
        EXPECT_FALSE(calls[i].mouseLeave);
    }
    EXPECT_EQ(calls[0].mouse.x, 10);
    EXPECT_EQ(calls[0].mouse.y, 20);
}

TEST_F(InputEvents, WheelStepsAndKeyEventsOfBothForms)
{
    EXPECT_TRUE(Wrapper().EventMouseWheelScrollUp(m_nId, 1, 2));
    EXPECT_TRUE(Wrapper().EventMouseWheelScrollDown(m_nId, 1, 2));
    EXPECT_TRUE(Wrapper().EventMouseWheelScrollLeft(m_nId, 1, 2));
    EXPECT_TRUE(Wrapper().EventMouseWheelScrollRight(m_nId, 1, 2));
    auto calls = Calls();
    ASSERT_EQ(calls.size(), 4u);
    const int deltas[4][2] = {{0, -1}, {0, 1}, {-1, 0}, {1, 0}};
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(calls[i].kind, FakeHostCall::MouseWheel);
        EXPECT_EQ(calls[i].deltaX, deltas[i][0]) << i;
        EXPECT_EQ(calls[i].deltaY, deltas[i][1]) << i;
        EXPECT_EQ(calls[i].mouse.y, 2);
    }

    m_Port.ClearHostCalls();
    EXPECT_TRUE(Wrapper().EventKeyDown(m_nId, true, 38));
    EXPECT_TRUE(Wrapper().EventKeyDown(m_nId, false, 39));
    EXPECT_TRUE(Wrapper().EventKeyUp(m_nId, 40));
    // The short form tests key-up first, the full form raw key-down first.
    EXPECT_TRUE(Client().EventKey(m_nId, true, true, 41));
    EXPECT_TRUE(Wrapper().EventKey(m_nId, true, true, true, 42, 65, EVENTFLAG_SHIFT_DOWN));
    EXPECT_TRUE(Wrapper().EventKey(m_nId, false, true, false, 43, 66, 0));
    EXPECT_TRUE(Wrapper().EventKey(m_nId, false, false, false, 44, 67, 0));
    const EngineKeyEventType types[] = {KEYEVENT_RAWKEYDOWN, KEYEVENT_CHAR,  KEYEVENT_KEYUP, KEYEVENT_KEYUP,
                                        KEYEVENT_RAWKEYDOWN, KEYEVENT_KEYUP, KEYEVENT_CHAR};
    calls = Calls();
    ASSERT_EQ(calls.size(), 7u);
    for (size_t i = 0; i < 7; ++i) {
        EXPECT_EQ(calls[i].key.type, types[i]) << i;
        EXPECT_EQ(calls[i].key.native_key_code, int(38 + i)) << i;
    }
    EXPECT_EQ(calls[0].key.windows_key_code, 0);
    EXPECT_TRUE(calls[4].key.is_system_key);
    EXPECT_EQ(calls[4].key.windows_key_code, 65);
    EXPECT_EQ(calls[4].key.modifiers, static_cast<uint32_t>(EVENTFLAG_SHIFT_DOWN));
}

TEST_F(InputEvents, MovesReportTheCursorTypeAndUnknownBrowsersGetNothing)
{
    EXPECT_EQ(Client().EventMouseMove(m_nId, 0, 0), 0);
    EXPECT_FALSE(Wrapper().EventMouseMove(m_nId, 0, 0));
    m_Port.EmitCursorChange(m_nId, CT_HAND);
    EXPECT_EQ(Client().EventMouseMove(m_nId, 0, 0), CT_HAND);
    EXPECT_TRUE(Wrapper().EventMouseMove(m_nId, 0, 0));
    m_Port.ClearHostCalls();
    EXPECT_FALSE(Wrapper().EventMouseDown(5, 0, 0, 0, true) || Wrapper().EventMouseUp(5, 0, 0, 0) ||
                 Wrapper().EventMouseMove(5, 0, 0) || Wrapper().EventMouseWheelScrollUp(5, 0, 0) ||
                 Wrapper().EventKeyDown(5, true, 1) || Wrapper().EventKeyUp(5, 1) ||
                 Wrapper().EventKey(5, true, false, false, 1, 1, 0));
    EXPECT_TRUE(m_Port.HostCalls().empty());
}

using AudioForwarding = WithBrowser;

TEST_F(AudioForwarding, PacketsCarryTheFormatOfTheirStreamsStart)
{
    const int16_t samples[4] = {1, -1, 2, -2};
    m_Port.EmitAudioPacket(m_nId, 3, samples, sizeof samples); // never started
    m_Port.EmitAudioStarted(8, 1, 44100, 2, 16);              // unknown browser
    m_Port.EmitAudioStarted(m_nId, 3, 48000, 2, 16, 10);
    m_Port.EmitAudioPacket(m_nId, 3, samples, sizeof samples);
    m_Port.EmitAudioStarted(m_nId, 3, 22050, 1, 16); // overwrites the format
    m_Port.EmitAudioPacket(m_nId, 3, samples, sizeof samples);
    m_Port.EmitAudioStopped(m_nId, 3);
    m_Port.EmitAudioPacket(m_nId, 3, samples, sizeof samples); // the stopped stream's format is kept
    // Delivery off: nothing is forwarded, but the format is still taken.
    Wrapper().EnableReceivingFrames(m_nId, false);
    m_Port.EmitAudioStarted(m_nId, 5, 32000, 2, 16);
    m_Port.EmitAudioPacket(m_nId, 5, samples, sizeof samples);
    Wrapper().EnableReceivingFrames(m_nId, true);
    m_Port.EmitAudioPacket(m_nId, 5, samples, 2);

    const AudioCall expected[] = {{3, 0, 48000, 2, 16, false},  {3, 8, 48000, 2, 16, true}, {3, 0, 22050, 1, 16, false},
                                  {3, 8, 22050, 1, 16, true},   {3, 0, 0, 0, 0, false},     {3, 8, 22050, 1, 16, true},
                                  {5, 2, 32000, 2, 16, true}};
    const auto calls = m_Recorder.AudioCalls();
    ASSERT_EQ(calls.size(), std::size(expected));
    for (size_t i = 0; i < calls.size(); ++i) {
        EXPECT_EQ(calls[i].streamId, expected[i].streamId) << i;
        EXPECT_EQ(calls[i].size, expected[i].size) << i;
        EXPECT_EQ(calls[i].sampleRate, expected[i].sampleRate) << i;
        EXPECT_EQ(calls[i].channels, expected[i].channels) << i;
        EXPECT_EQ(calls[i].bitsPerSample, expected[i].bitsPerSample) << i;
        EXPECT_EQ(calls[i].hasData, expected[i].hasData) << i;
    }
}

TEST_F(AudioForwarding, StreamStartAndStopAreLoggedAtInfoLevel)
{
    static std::mutex mutex;
    static std::vector<std::string> lines;
    dbgsetcallback(
        [](void*, int level, const char* line, int) {
            std::lock_guard<std::mutex> guard(mutex);
            if (level == 2)
                lines.push_back(line);
        },
        nullptr);
    dbgcommand("callback");
    dbgcommand("cef INF:1");
    ASSERT_GE(EngineLog_GetModuleIndex(), 0);
    m_Port.EmitAudioStarted(m_nId, 4, 48000, 2, 16, 20);
    m_Port.EmitAudioStopped(77, 4); // logged also for an unknown browser
    dbgcommand("cef INF:0");
    dbgcommand("nocallback");
    dbgsetcallback(nullptr, nullptr);
    std::lock_guard<std::mutex> guard(mutex);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_NE(lines[0].find("---> Starting audio stream: 4, channels: 2, samplerate: 48000, buffer_duration: 20, "
                            "bits_per_sample: 16"),
              std::string::npos);
    EXPECT_NE(lines[1].find("---> Stopping audio stream : 4"), std::string::npos);
}

} // namespace
} // namespace SLF_ChromiumEmbeddedFramework
