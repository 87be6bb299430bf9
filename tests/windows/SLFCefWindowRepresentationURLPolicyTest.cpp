// The URL policy and settings resource, called as the engine calls them.
#include "windows/SLFCefWindowRepresentation.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

const std::string kSettings = "http://streamloft/settings";

SLFCefDataRef Data(const std::string& text)
{
    return std::make_shared<const std::vector<uint8_t>>(text.begin(), text.end());
}

struct Answer {
    bool handled = false;
    int status = 0;
    int64_t length = -7;
    std::string body;
};

class URLPolicy : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_rep->setBrowserID(7);
        m_rep->setPermittedFileURLStrings({"file:///Users/x/overlay/", "file:///tmp/other/"});
    }
    bool Wants(const std::string& url) { return SLFCefHandleRequestURL(url, m_rep.get()); }
    Answer Respond(const std::string& url, int initialStatus = 500)
    {
        Answer answer;
        answer.status = initialStatus;
        std::vector<char> data {'o', 'l', 'd'};
        answer.handled = SLFCefGetResponseHeadersForURL(url, "file:///Users/x/overlay/index.html", &data,
                                                        &answer.length, &answer.status, m_rep.get());
        answer.body.assign(data.begin(), data.end());
        return answer;
    }

    SLFCefWindowRepresentationRef m_rep = std::make_shared<SLFCefWindowRepresentation>();
};

TEST_F(URLPolicy, DecidesWhichRequestsAreTakenOver)
{
    const std::pair<const char*, bool> cases[] = {
        // The settings resource, query and fragment not looked at.
        {"http://streamloft/settings", true},
        {"http://streamloft/settings?x=1#top", true},
        // Other internal paths, other schemes and remote content load normally.
        {"http://streamloft/settings/x", false},
        {"http://streamloft/requestText?filePath=/etc/passwd", false},
        {"https://streamloft/settings", false},
        {"http://example.com/settings", false},
        {"not a url", false},
        // Permitted prefixes, tested on the whole text only.
        {"file:///Users/x/overlay/sub/a.png", false},
        {"file:///tmp/other/", false},
        {"file:///Users/x/overlayX/a.html", true},
        {"file:///Users/x/overlay", true},
        {"file:///etc/passwd", true},
        // Climbing out is refused even under a permitted prefix.
        {"file:///Users/x/overlay/../secret.txt", true},
        {"file:///Users/x/overlay/..", true},
        {"file:///Users/x/overlay/%2E%2E/secret.txt", true},
        {"file:///Users/x/overlay/..a/b", false},
    };
    for (const auto& [url, taken] : cases)
        EXPECT_EQ(Wants(url), taken) << url;
    // The list can change at any time; an empty list permits no file.
    m_rep->setPermittedFileURLStrings({});
    EXPECT_TRUE(Wants("file:///Users/x/overlay/index.html"));
    EXPECT_FALSE(SLFCefHandleRequestURL("file:///etc/passwd", nullptr));
    // An empty entry is no prefix: it permits nothing, the others still do.
    m_rep->setPermittedFileURLStrings({"", "file:///tmp/other/"});
    EXPECT_TRUE(Wants("file:///etc/passwd"));
    EXPECT_TRUE(Wants("file:///Users/x/overlay/index.html"));
    EXPECT_FALSE(Wants("file:///tmp/other/a.png"));
}

TEST_F(URLPolicy, RefusedFilesGet404AndALogLineOtherURLsAreLeftAlone)
{
    testing::internal::CaptureStderr();
    const Answer blocked = Respond("file:///Users/x/overlay/../secret.txt");
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(!blocked.handled && blocked.status == 404);
    EXPECT_EQ(blocked.length, 3); // the body's size, whatever the answer
    EXPECT_NE(log.find("Blocked URL file:///Users/x/overlay/../secret.txt [("), std::string::npos) << log;

    testing::internal::CaptureStderr();
    const Answer other = Respond("https://example.com/x", 123);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_TRUE(!other.handled && other.status == 123);
    int status = 5;
    int64_t length = 9;
    std::vector<char> data;
    EXPECT_FALSE(SLFCefGetResponseHeadersForURL(kSettings, "", &data, &length, &status, nullptr));
    EXPECT_TRUE(status == 5 && length == 9); // no context: nothing touched
}

// Settings: 408 at once without receivers, the host's answer (late or
// empty) when it comes, 408 when the last receiver goes while waiting.
TEST_F(URLPolicy, SettingsComeFromTheHostWhileTheRequestWaits)
{
    const struct {
        bool receiver;
        int answerAfterMs; // -1: the receiver goes after 300 ms instead
        const char* data;
        int status;
        double minSeconds;
    } cases[] = {{false, 0, nullptr, 408, 0},
                 {true, 1200, "{\"colour\":\"green\"}", 200, 1.0},
                 {true, 0, "", 200, 0},
                 {true, -1, nullptr, 408, 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.answerAfterMs);
        auto proxy = SLFCefCallbackProxy::Create(nullptr);
        if (c.receiver)
            m_rep->addReceiverProxiesObject(proxy, nullptr);
        m_rep->setSettingsData(Data("stale"));
        std::thread host([&] {
            if (c.answerAfterMs < 0) {
                std::this_thread::sleep_for(std::chrono::milliseconds(300));
                m_rep->removeReceiverProxiesObject(proxy);
            } else if (c.receiver) {
                while (m_rep->settingsData())
                    std::this_thread::sleep_for(std::chrono::milliseconds(5));
                std::this_thread::sleep_for(std::chrono::milliseconds(c.answerAfterMs));
                m_rep->setSettingsData(Data(c.data));
            }
        });
        testing::internal::CaptureStderr();
        const auto start = Clock::now();
        const Answer answer = Respond(kSettings);
        const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
        const std::string log = testing::internal::GetCapturedStderr();
        host.join();
        EXPECT_EQ(answer.handled, c.status == 200);
        EXPECT_EQ(answer.status, c.status);
        EXPECT_GE(elapsed, c.minSeconds);
        EXPECT_LT(elapsed, c.receiver ? 10.0 : 1.0);
        if (c.data) {
            EXPECT_EQ(answer.body, c.data);
            EXPECT_EQ(answer.length, static_cast<int64_t>(strlen(c.data)));
        }
        if (!c.receiver) {
            EXPECT_NE(log.find("Error: Could not retrieve settings data from host."), std::string::npos) << log;
            EXPECT_EQ(m_rep->settingsData(), nullptr); // the stale data was dropped
        }
        m_rep->removeReceiverProxiesObject(proxy);
    }
}

// A stop of the browser ends a fetch whose host stays silent (the engine's
// stop waits for it), and later fetches do not wait at all.
TEST_F(URLPolicy, StoppingTheBrowserEndsTheSettingsWait)
{
    auto proxy = SLFCefCallbackProxy::Create(nullptr);
    m_rep->addReceiverProxiesObject(proxy, nullptr);
    std::thread stopper([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        m_rep->endSettingsWaits();
    });
    testing::internal::CaptureStderr();
    const auto start = Clock::now();
    const Answer first = Respond(kSettings);
    const Answer second = Respond(kSettings);
    const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    testing::internal::GetCapturedStderr();
    stopper.join();
    EXPECT_EQ(std::make_pair(first.handled, first.status), std::make_pair(false, 408));
    EXPECT_EQ(std::make_pair(second.handled, second.status), std::make_pair(false, 408));
    EXPECT_LT(elapsed, 60.0); // far below the 120 s a silent host would cost
    m_rep->removeReceiverProxiesObject(proxy);
}

} // namespace
