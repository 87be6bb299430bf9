// Paint delivery and its rules, input events and audio stream forwarding.
#include "tests/engine/EngineTestSupport.h"

#include <gtest/gtest.h>

namespace SLF_ChromiumEmbeddedFramework {
namespace {

class WithBrowser : public EngineTest {
protected:
    void SetUp() override
    {
        EngineTest::SetUp();
        ASSERT_EQ(m_Engine->Open(m_Recorder), m_nId);
        m_Port.ClearHostCalls();
    }
    void PaintAt(int width, int height, int id = 1) { Paint(Client(), m_Port.Browser(id), width, height); }
    // One field (or pair of fields) of each recorded call of the browser.
    template <typename Fn>
    auto Calls(Fn field)
    {
        std::vector<decltype(field(FakeHostCall {}))> values;
        for (const auto& call : m_Port.HostCalls(m_nId))
            values.push_back(field(call));
        return values;
    }
    std::vector<FakeHostCall::Kind> CallKinds()
    {
        return Calls([](const FakeHostCall& c) { return c.kind; });
    }
    size_t Frames() { return m_Recorder.Frames().size(); }

    const int m_nId = 1;
};

using PaintDelivery = WithBrowser;

TEST_F(PaintDelivery, StaleSizesAreDroppedAndTheViewTakesTheNewSize)
{
    PaintAt(800, 600);
    EXPECT_EQ(m_Recorder.Frames(), std::vector<unsigned> {800 * 600 * 4});
    Wrapper().SetRenderSize(m_nId, 1024, 768);
    EXPECT_EQ(CallKinds(), std::vector<FakeHostCall::Kind> {FakeHostCall::WasResized});
    ASSERT_TRUE(WaitUntil([&] { return m_Port.LastViewRect(m_nId).width == 1024; }));
    EXPECT_EQ(m_Port.LastViewRect(m_nId).height, 768);
    PaintAt(800, 600);
    PaintAt(1024, 767);
    EXPECT_EQ(Frames(), 1u);
    PaintAt(1024, 768);
    EXPECT_EQ(m_Recorder.Frames().back(), 1024u * 768u * 4u);
    PaintAt(1024, 768, 9); // unknown browser
    EXPECT_EQ(Frames(), 2u);
}

TEST_F(PaintDelivery, AReloadSkipsExactlyTheNextPaint)
{
    Wrapper().ReloadBrowser(m_nId);
    EXPECT_EQ(CallKinds(), std::vector<FakeHostCall::Kind> {FakeHostCall::Reload});
    for (int i = 0; i < 3; ++i)
        PaintAt(800, 600);
    EXPECT_EQ(Frames(), 2u);
}

TEST_F(PaintDelivery, DisabledFramesAreDroppedTheViewHiddenAndRefreshAsksForARepaint)
{
    Wrapper().EnableReceivingFrames(m_nId, false);
    PaintAt(800, 600);
    EXPECT_EQ(Frames(), 0u);
    Wrapper().EnableReceivingFrames(m_nId, true);
    PaintAt(800, 600);
    EXPECT_EQ(Frames(), 1u);
    Wrapper().RefreshBrowser(m_nId);
    using Call = std::pair<FakeHostCall::Kind, bool>;
    EXPECT_EQ(Calls([](const FakeHostCall& c) { return Call(c.kind, c.hidden); }),
              (std::vector<Call> {{FakeHostCall::WasHidden, true},
                                  {FakeHostCall::Invalidate, false},
                                  {FakeHostCall::WasHidden, false},
                                  {FakeHostCall::Invalidate, false},
                                  {FakeHostCall::Invalidate, false}}));
    m_Port.ClearHostCalls();
    EXPECT_FALSE(Client().EnableReceivingFrames(9, false) || Client().SetRenderSize(9, 1, 1) ||
                 Client().RefreshBrowser(9) || Client().ReloadBrowser(9));
    EXPECT_TRUE(m_Port.HostCalls().empty());
}

using InputEvents = WithBrowser;

// Catches: a drag that loses its button, a release that keeps it, a double
// click sent as one click, wheel steps in the wrong direction.
TEST_F(InputEvents, MouseButtonsAreHeldDuringDragsAndWheelStepsPointTheRightWay)
{
    EXPECT_TRUE(Wrapper().EventMouseDown(m_nId, MBT_RIGHT, 10, 20, false));
    Wrapper().EventMouseMove(m_nId, 11, 21);
    EXPECT_TRUE(Wrapper().EventMouseUp(m_nId, MBT_RIGHT, 12, 22));
    Wrapper().EventMouseMove(m_nId, 13, 23);
    Wrapper().EventMouseDown(m_nId, MBT_LEFT, 5, 5, true);
    auto calls = m_Port.HostCalls(m_nId);
    ASSERT_EQ(calls.size(), 5u);
    EXPECT_EQ(calls[0].button, MBT_RIGHT);
    EXPECT_EQ(calls[1].mouse.modifiers, uint32_t(EVENTFLAG_RIGHT_MOUSE_BUTTON));
    EXPECT_TRUE(calls[2].mouseUp);
    EXPECT_EQ(calls[3].mouse.modifiers, 0u);
    EXPECT_EQ(calls[4].clickCount, 2);
    EXPECT_EQ(calls[4].mouse.modifiers, uint32_t(EVENTFLAG_LEFT_MOUSE_BUTTON));

    m_Port.ClearHostCalls();
    Wrapper().EventMouseWheelScrollUp(m_nId, 1, 2), Wrapper().EventMouseWheelScrollDown(m_nId, 1, 2);
    Wrapper().EventMouseWheelScrollLeft(m_nId, 1, 2), Wrapper().EventMouseWheelScrollRight(m_nId, 1, 2);
    EXPECT_EQ(Calls([](const FakeHostCall& c) { return std::make_pair(c.deltaX, c.deltaY); }),
              (std::vector<std::pair<int, int>> {{0, -1}, {0, 1}, {-1, 0}, {1, 0}}));
}

// The short form tests key-up first, the full form raw key-down first.
TEST_F(InputEvents, KeyEventTypesOfBothFormsTheCursorAndUnknownBrowsers)
{
    Client().EventKey(m_nId, true, true, 40);
    Wrapper().EventKey(m_nId, true, true, false, 41, 65, 0);
    Wrapper().EventKeyDown(m_nId, false, 42);
    EXPECT_EQ(Calls([](const FakeHostCall& c) { return std::make_pair(c.key.type, c.key.native_key_code); }),
              (std::vector<std::pair<EngineKeyEventType, int>> {
                  {KEYEVENT_KEYUP, 40}, {KEYEVENT_RAWKEYDOWN, 41}, {KEYEVENT_CHAR, 42}}));

    // A move reports whether the engine's cursor is other than the pointer.
    EXPECT_FALSE(Wrapper().EventMouseMove(m_nId, 0, 0));
    Client().OnCursorChange(m_Port.Browser(m_nId), CT_HAND);
    EXPECT_TRUE(Wrapper().EventMouseMove(m_nId, 0, 0));
    m_Port.ClearHostCalls();
    EXPECT_FALSE(Wrapper().EventMouseDown(5, 0, 0, 0, true) || Wrapper().EventMouseMove(5, 0, 0) ||
                 Wrapper().EventMouseWheelScrollUp(5, 0, 0) || Wrapper().EventKeyUp(5, 1) ||
                 Wrapper().EventKey(5, true, false, false, 1, 1, 0));
    EXPECT_TRUE(m_Port.HostCalls().empty());
}

using AudioForwarding = WithBrowser;

TEST_F(AudioForwarding, PacketsCarryTheFormatOfTheirStreamsStart)
{
    CBrowserClient& client = Client();
    const EngineBrowserRef browser = m_Port.Browser(m_nId);
    const int16_t samples[4] = {1, -1, 2, -2};
    client.OnAudioStreamPacket(browser, 3, samples, sizeof samples);    // never started
    client.OnAudioStreamStarted(m_Port.Browser(8), 1, 44100, 2, 16, 0); // unknown browser
    client.OnAudioStreamStarted(browser, 3, 48000, 2, 16, 10);
    client.OnAudioStreamPacket(browser, 3, samples, sizeof samples);
    client.OnAudioStreamStarted(browser, 3, 22050, 1, 16, 0); // a new format
    client.OnAudioSteamStopped(browser, 3);
    client.OnAudioStreamPacket(browser, 3, samples, sizeof samples); // the stopped stream keeps its format
    // Delivery off: nothing forwarded, but the format is taken.
    Wrapper().EnableReceivingFrames(m_nId, false);
    client.OnAudioStreamStarted(browser, 5, 32000, 2, 16, 0);
    client.OnAudioStreamPacket(browser, 5, samples, sizeof samples);
    Wrapper().EnableReceivingFrames(m_nId, true);
    client.OnAudioStreamPacket(browser, 5, samples, 2);
    EXPECT_EQ(m_Recorder.AudioCalls(), (std::vector<AudioCall> {{3, 0, 48000, 2, 16, false},
                                                                {3, 8, 48000, 2, 16, true},
                                                                {3, 0, 22050, 1, 16, false},
                                                                {3, 0, 0, 0, 0, false},
                                                                {3, 8, 22050, 1, 16, true},
                                                                {5, 2, 32000, 2, 16, true}}));
}

} // namespace
} // namespace SLF_ChromiumEmbeddedFramework
