// The connection object's requests and states against a window manager that
// records what it is asked (no engine, no D-Bus).
#include "service/SLFCefOverlayXPC.h"

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

namespace {

class RecordingWindowManager : public SLFCefWindowManager {
public:
    SLFCefWindowRepresentationRef startBrowserWithURL(const std::string& url, NSSize size, double framerate,
                                                      const std::vector<std::string>& permitted) override
    {
        auto representation = std::make_shared<SLFCefWindowRepresentation>();
        representation->setUrl(url);
        representation->setSize(size);
        representation->setFramerate(framerate);
        representation->setPermittedFileURLStrings(permitted);
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
    void record(const std::string& event)
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_events.push_back(event);
    }
    std::vector<std::string> events()
    {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_events;
    }

private:
    int m_nextID = 1;
    std::mutex m_lock;
    std::vector<std::string> m_events;
};

class SLFCefOverlayXPCStates : public ::testing::Test {
protected:
    SLFCefOverlayXPCStates()
    {
        m_connection.setCallbackProxy(m_proxy);
    }

    // A reply that records into the manager's event list, so that its order
    // against stop requests shows.
    SLFCefReplyBlock Reply()
    {
        std::weak_ptr<RecordingWindowManager> manager = m_manager;
        return [manager](int id) {
            if (auto strong = manager.lock())
                strong->record("reply " + std::to_string(id));
        };
    }

    std::shared_ptr<RecordingWindowManager> m_manager = std::make_shared<RecordingWindowManager>();
    SLFCefCallbackProxyRef m_proxy = SLFCefCallbackProxy::Create(nullptr);
    SLFCefOverlayXPC m_connection{m_manager};
};

using Events = std::vector<std::string>;

} // namespace

TEST_F(SLFCefOverlayXPCStates, OpenBindsAndCloseAnswersAfterTheStop)
{
    EXPECT_EQ(m_connection.state(), SLFCefOverlayXPC::State::Idle);
    m_connection.openBrowserWithURL("https://x.test/", {800, 600}, 30, {}, Reply());
    EXPECT_EQ(m_connection.state(), SLFCefOverlayXPC::State::Bound);
    SLFCefWindowRepresentationRef representation = m_connection.windowRepresentation();
    ASSERT_NE(representation, nullptr);
    EXPECT_EQ(*representation->receiverProxies(), SLFCefReceiverList{m_proxy});

    m_connection.closeBrowser(1);
    EXPECT_EQ(m_manager->events(), (Events{"start 1", "stop 1", "reply 1"}));
    EXPECT_EQ(m_connection.state(), SLFCefOverlayXPC::State::Spent);
    EXPECT_EQ(m_connection.callbackProxy(), nullptr);
    EXPECT_TRUE(representation->receiverProxies()->empty());
    EXPECT_EQ(m_manager->numberOfOpenBrowserWindows(), 0);

    // Invalidation of a spent connection does nothing.
    m_connection.invalidate();
    EXPECT_EQ(m_manager->events(), (Events{"start 1", "stop 1", "reply 1"}));
}

TEST_F(SLFCefOverlayXPCStates, CloseOfAnUnknownIDStopsBrowserZeroAndLogs)
{
    testing::internal::CaptureStderr();
    m_connection.closeBrowser(42);
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(m_manager->events(), Events{"stop 0"});
    EXPECT_NE(log.find("-[SLFCefOverlayXPC closeBrowser:] - Did not find a reply for browser 42 (" +
                       m_proxy->description() + ")"),
              std::string::npos)
        << log;
    EXPECT_EQ(m_connection.state(), SLFCefOverlayXPC::State::Spent);
}

TEST_F(SLFCefOverlayXPCStates, OpenWhileSpentMakesABrowserWithoutReceiverOrReply)
{
    m_connection.closeBrowser(9);
    auto token = std::make_shared<int>(0);
    std::weak_ptr<int> watch = token;
    bool replied = false;
    m_connection.openBrowserWithURL("https://x.test/", {10, 10}, 30, {}, [token, &replied](int) { replied = true; });
    token.reset();
    EXPECT_EQ(m_connection.state(), SLFCefOverlayXPC::State::BoundWithoutProxy);
    SLFCefWindowRepresentationRef representation = m_connection.windowRepresentation();
    ASSERT_NE(representation, nullptr);
    EXPECT_EQ(representation->receiverProxies(), nullptr);
    // Nobody keeps the reply: it is gone without being called.
    EXPECT_TRUE(watch.expired());
    EXPECT_FALSE(replied);

    // Invalidation stops the browser nobody receives.
    m_connection.invalidate();
    EXPECT_EQ(m_manager->events(), (Events{"stop 0", "start 1", "stop 1"}));
    EXPECT_EQ(m_connection.state(), SLFCefOverlayXPC::State::Spent);
}

TEST_F(SLFCefOverlayXPCStates, InvalidationStopsTheBrowserAndDropsTheReply)
{
    bool replied = false;
    m_connection.openBrowserWithURL("https://x.test/", {10, 10}, 30, {}, [&](int) { replied = true; });
    m_connection.invalidate();
    EXPECT_EQ(m_manager->events(), (Events{"start 1", "stop 1"}));
    EXPECT_FALSE(replied);
    EXPECT_EQ(m_connection.state(), SLFCefOverlayXPC::State::Spent);
}

TEST_F(SLFCefOverlayXPCStates, InvalidationOfAnIdleConnectionDoesNothing)
{
    m_connection.invalidate();
    EXPECT_TRUE(m_manager->events().empty());
    EXPECT_EQ(m_connection.state(), SLFCefOverlayXPC::State::Idle);
}

TEST_F(SLFCefOverlayXPCStates, ABrowserWithAnotherReceiverLeftIsNotStopped)
{
    m_connection.openBrowserWithURL("https://x.test/", {10, 10}, 30, {}, Reply());
    SLFCefCallbackProxyRef other = SLFCefCallbackProxy::Create(nullptr);
    m_connection.windowRepresentation()->addReceiverProxiesObject(other, [](int) {});
    m_connection.closeBrowser(1);
    EXPECT_EQ(m_manager->events(), (Events{"start 1", "reply 1"}));
    EXPECT_EQ(m_manager->numberOfOpenBrowserWindows(), 1);
}

TEST_F(SLFCefOverlayXPCStates, ClosingAnotherConnectionsBrowser)
{
    SLFCefOverlayXPC owner{m_manager};
    SLFCefCallbackProxyRef ownerProxy = SLFCefCallbackProxy::Create(nullptr);
    owner.setCallbackProxy(ownerProxy);
    owner.openBrowserWithURL("https://x.test/", {10, 10}, 30, {}, Reply());

    // This connection never opened browser 1: no reply of its own, and the
    // owner still receives, so nothing stops.
    testing::internal::CaptureStderr();
    m_connection.closeBrowser(1);
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("Did not find a reply for browser 1"), std::string::npos) << log;
    EXPECT_EQ(m_manager->events(), Events{"start 1"});
    EXPECT_EQ(m_connection.state(), SLFCefOverlayXPC::State::Spent);
    EXPECT_EQ(owner.state(), SLFCefOverlayXPC::State::Bound);
}

TEST_F(SLFCefOverlayXPCStates, ASecondOpenReplacesTheFirstWithoutClosingIt)
{
    m_connection.openBrowserWithURL("https://x.test/1", {10, 10}, 30, {}, Reply());
    m_connection.openBrowserWithURL("https://x.test/2", {10, 10}, 30, {}, Reply());
    EXPECT_EQ(m_connection.state(), SLFCefOverlayXPC::State::Bound);
    EXPECT_EQ(m_connection.windowRepresentation()->browserID(), 2);
    m_connection.invalidate();
    // The first browser keeps its (now gone) receiver and runs on.
    EXPECT_EQ(m_manager->events(), (Events{"start 1", "start 2", "stop 2"}));
    EXPECT_EQ(m_manager->numberOfOpenBrowserWindows(), 1);
}

TEST_F(SLFCefOverlayXPCStates, SettingsPermittedFilesAndResize)
{
    m_connection.openBrowserWithURL("https://x.test/", {10, 10}, 30, {"file:///a/"}, Reply());
    SLFCefWindowRepresentationRef representation = m_connection.windowRepresentation();
    auto data = std::make_shared<const std::vector<uint8_t>>(std::vector<uint8_t>{'{', '}'});
    m_connection.updateBrowserWithSettingsData(1, data);
    EXPECT_EQ(representation->settingsData(), data);
    m_connection.updateBrowserWithPermittedFileURLStrings(1, {"file:///b/", "file:///c/"});
    EXPECT_EQ(representation->permittedFileURLStrings(), (std::vector<std::string>{"file:///b/", "file:///c/"}));

    // Unknown IDs: the settings updates are silent, the resize logs.
    testing::internal::CaptureStderr();
    m_connection.updateBrowserWithSettingsData(5, data);
    m_connection.updateBrowserWithPermittedFileURLStrings(5, {});
    m_connection.updateBrowserWithSize(5, {20, 20});
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("-[SLFCefOverlayXPC updateBrowser:withSize:] - Did not find a window representation for "
                       "browser 5"),
              std::string::npos)
        << log;
    EXPECT_EQ(log.find("withSettingsData"), std::string::npos);
}
