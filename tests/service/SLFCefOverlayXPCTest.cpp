// The connection object's requests and states against a window manager that
// records what it is asked (no engine, no D-Bus).
#include "service/SLFCefOverlayXPC.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Events = std::vector<std::string>;

class RecordingWindowManager : public SLFCefWindowManager {
public:
    SLFCefWindowRepresentationRef startBrowserWithURL(const std::string&, NSSize, double,
                                                      const std::vector<std::string>&) override
    {
        auto representation = std::make_shared<SLFCefWindowRepresentation>();
        representation->setBrowserID(m_nextID++);
        registerWindowRepresentation(representation);
        record("start " + std::to_string(representation->browserID()));
        return representation;
    }
    SLFCefWindowRepresentationRef stopBrowserWithID(int browserID) override
    {
        record("stop " + std::to_string(browserID));
        return SLFCefWindowManager::stopBrowserWithID(browserID);
    }
    void record(const std::string& event) { m_events.push_back(event); }
    const Events& events() const { return m_events; }

private:
    int m_nextID = 1;
    Events m_events; // everything runs on the test's thread
};

class SLFCefOverlayXPCStates : public ::testing::Test {
protected:
    SLFCefOverlayXPCStates() { m_connection.setCallbackProxy(m_proxy); }

    // A reply that records into the manager's events, so its order against
    // the stops shows.
    SLFCefReplyBlock Reply()
    {
        std::weak_ptr<RecordingWindowManager> manager = m_manager;
        return [manager](int id) {
            if (auto strong = manager.lock())
                strong->record("reply " + std::to_string(id));
        };
    }
    void Open() { m_connection.openBrowserWithURL("https://x.test/", {10, 10}, 30, {}, Reply()); }

    std::shared_ptr<RecordingWindowManager> m_manager = std::make_shared<RecordingWindowManager>();
    SLFCefCallbackProxyRef m_proxy = SLFCefCallbackProxy::Create(nullptr);
    SLFCefOverlayXPC m_connection {m_manager};
};

} // namespace

TEST_F(SLFCefOverlayXPCStates, CloseAnswersAfterTheStopAndInvalidationBeforeOpenOrAfterCloseDoesNothing)
{
    m_connection.invalidate();
    EXPECT_EQ(m_connection.state(), SLFCefOverlayXPC::State::Idle);
    Open();
    EXPECT_EQ(m_connection.state(), SLFCefOverlayXPC::State::Bound);
    SLFCefWindowRepresentationRef representation = m_connection.windowRepresentation();
    ASSERT_NE(representation, nullptr);
    EXPECT_EQ(*representation->receiverProxies(), SLFCefReceiverList {m_proxy});

    m_connection.closeBrowser(1);
    EXPECT_EQ(m_manager->events(), (Events {"start 1", "stop 1", "reply 1"}));
    EXPECT_EQ(m_connection.state(), SLFCefOverlayXPC::State::Spent);
    EXPECT_EQ(m_connection.callbackProxy(), nullptr);
    EXPECT_TRUE(representation->receiverProxies()->empty());
    EXPECT_EQ(m_manager->numberOfOpenBrowserWindows(), 0);

    m_connection.invalidate();
    EXPECT_EQ(m_manager->events(), (Events {"start 1", "stop 1", "reply 1"}));
}

TEST_F(SLFCefOverlayXPCStates, CloseOfAnUnknownIDLogsAndStopsBrowserZero)
{
    testing::internal::CaptureStderr();
    m_connection.closeBrowser(42);
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(m_manager->events(), Events {"stop 0"});
    EXPECT_NE(log.find("-[SLFCefOverlayXPC closeBrowser:] - Did not find a reply for browser 42 "
                       "(<SLFCefCallbackProxy: 0x"),
              std::string::npos)
        << log;
    EXPECT_NE(log.find("(" + m_proxy->description() + ")"), std::string::npos) << log;
    EXPECT_EQ(m_connection.state(), SLFCefOverlayXPC::State::Spent);
}

// Any connection may send the ID of another connection's browser.
TEST_F(SLFCefOverlayXPCStates, ClosingAnotherConnectionsBrowserDoesNotStopIt)
{
    SLFCefOverlayXPC owner {m_manager};
    owner.setCallbackProxy(SLFCefCallbackProxy::Create(nullptr));
    owner.openBrowserWithURL("https://x.test/", {10, 10}, 30, {}, Reply());
    testing::internal::CaptureStderr();
    m_connection.closeBrowser(1);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("Did not find a reply for browser 1"), std::string::npos);
    EXPECT_EQ(m_manager->events(), Events {"start 1"});
    EXPECT_EQ(owner.state(), SLFCefOverlayXPC::State::Bound);
}

TEST_F(SLFCefOverlayXPCStates, InvalidationStopsTheBoundBrowserWithoutReplying)
{
    Open();
    m_connection.invalidate();
    EXPECT_EQ(m_manager->events(), (Events {"start 1", "stop 1"}));
    EXPECT_EQ(m_connection.state(), SLFCefOverlayXPC::State::Spent);
}
