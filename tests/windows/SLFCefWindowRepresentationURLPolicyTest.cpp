// The window representation's URL policy and settings resource, called the
// way the engine calls them: through SLFCefHandleRequestURL and
// SLFCefGetResponseHeadersForURL.
#include "windows/SLFCefWindowRepresentation.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

const std::string kSettings = "http://streamloft/settings";

double SecondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

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
        m_Representation = std::make_shared<SLFCefWindowRepresentation>();
        m_Representation->setBrowserID(7);
        m_Representation->setPermittedFileURLStrings({"file:///Users/x/overlay/", "file:///tmp/other/"});
    }

    bool Wants(const std::string& url) { return SLFCefHandleRequestURL(url, m_Representation.get()); }

    Answer Respond(const std::string& url, int initialStatus = 500)
    {
        Answer answer;
        answer.status = initialStatus;
        std::vector<char> data{'o', 'l', 'd'};
        answer.handled = SLFCefGetResponseHeadersForURL(url, "file:///Users/x/overlay/index.html", &data,
                                                        &answer.length, &answer.status, m_Representation.get());
        answer.body.assign(data.begin(), data.end());
        return answer;
    }

    SLFCefWindowRepresentationRef m_Representation;
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
        {"https://example.com/a.js", false},
        {"http://example.com/settings", false},
        {"data:text/plain,hi", false},
        {"not a url", false},
        // Permitted prefixes, tested on the whole text only.
        {"file:///Users/x/overlay/index.html", false},
        {"file:///Users/x/overlay/sub/a.png", false},
        {"file:///tmp/other/", false},
        {"file:///Users/x/overlayX/a.html", true},
        {"file:///Users/x/overlay", true},
        {"file:///etc/passwd", true},
        // Climbing out is refused even under a permitted prefix.
        {"file:///Users/x/overlay/../secret.txt", true},
        {"file:///a/b/../c", true},
        {"file:///Users/x/overlay/..", true},
        {"file:///Users/x/overlay/%2E%2E/secret.txt", true},
        {"file:///Users/x/overlay/..a/b", false},
    };
    for (const auto& [url, taken] : cases)
        EXPECT_EQ(Wants(url), taken) << url;

    // The list can change at any time; an empty list permits no file.
    m_Representation->setPermittedFileURLStrings({});
    EXPECT_TRUE(Wants("file:///Users/x/overlay/index.html"));
    EXPECT_FALSE(SLFCefHandleRequestURL("file:///etc/passwd", nullptr));
}

TEST_F(URLPolicy, RefusedFilesGet404AndALogLineOtherURLsAreLeftAlone)
{
    testing::internal::CaptureStderr();
    const Answer blocked = Respond("file:///a/b/../c");
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_FALSE(blocked.handled);
    EXPECT_EQ(blocked.status, 404);
    EXPECT_EQ(blocked.length, 3); // the body's size, whatever the answer
    EXPECT_NE(log.find("Blocked URL file:///a/b/../c [(\n    \"file:///Users/x/overlay/\",\n    "
                       "\"file:///tmp/other/\"\n)]"),
              std::string::npos)
        << log;

    testing::internal::CaptureStderr();
    const Answer other = Respond("https://example.com/x", 123);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_FALSE(other.handled);
    EXPECT_EQ(other.status, 123);

    int status = 5;
    int64_t length = 9;
    std::vector<char> data;
    EXPECT_FALSE(SLFCefGetResponseHeadersForURL(kSettings, "", &data, &length, &status, nullptr));
    EXPECT_EQ(status, 5);
    EXPECT_EQ(length, 9);
}

TEST_F(URLPolicy, SettingsWithoutAReceiverEndAtOnceWith408)
{
    m_Representation->setSettingsData(Data("stale"));
    testing::internal::CaptureStderr();
    const auto start = Clock::now();
    const Answer answer = Respond(kSettings);
    const double elapsed = SecondsSince(start);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_FALSE(answer.handled);
    EXPECT_EQ(answer.status, 408);
    EXPECT_LT(elapsed, 1.0); // no polling round
    EXPECT_NE(log.find("Error: Could not retrieve settings data from host."), std::string::npos) << log;
    // The stale data was dropped before asking.
    EXPECT_EQ(m_Representation->settingsData(), nullptr);
}

TEST_F(URLPolicy, SettingsArriveFromTheHostWhileTheRequestWaits)
{
    m_Representation->addReceiverProxiesObject(SLFCefCallbackProxy::Create(nullptr), nullptr);
    m_Representation->setSettingsData(Data("stale"));
    // The host answers some time after the request cleared the old data.
    std::thread host([this] {
        while (m_Representation->settingsData())
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        std::this_thread::sleep_for(std::chrono::milliseconds(1200));
        m_Representation->setSettingsData(Data("{\"colour\":\"green\"}"));
    });
    const auto start = Clock::now();
    const Answer answer = Respond(kSettings);
    const double elapsed = SecondsSince(start);
    host.join();
    EXPECT_TRUE(answer.handled);
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(answer.body, "{\"colour\":\"green\"}");
    EXPECT_EQ(answer.length, 18);
    // Seen on one of the once-a-second looks after the answer.
    EXPECT_GE(elapsed, 1.0);
    EXPECT_LT(elapsed, 10.0);
}

TEST_F(URLPolicy, EmptySettingsDataIsAnEmptyBodyWith200)
{
    auto proxy = SLFCefCallbackProxy::Create(nullptr);
    m_Representation->addReceiverProxiesObject(proxy, nullptr);
    m_Representation->setSettingsData(Data("stale"));
    std::thread host([this] {
        while (m_Representation->settingsData())
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        m_Representation->setSettingsData(Data(""));
    });
    const Answer answer = Respond(kSettings);
    host.join();
    EXPECT_TRUE(answer.handled);
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(answer.body, "");
    EXPECT_EQ(answer.length, 0);
}

TEST_F(URLPolicy, ASettingsFetchEndsWhenTheLastReceiverGoes)
{
    auto proxy = SLFCefCallbackProxy::Create(nullptr);
    m_Representation->addReceiverProxiesObject(proxy, nullptr);
    std::thread host([this, proxy] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        m_Representation->removeReceiverProxiesObject(proxy);
    });
    testing::internal::CaptureStderr();
    const auto start = Clock::now();
    const Answer answer = Respond(kSettings);
    const double elapsed = SecondsSince(start);
    testing::internal::GetCapturedStderr();
    host.join();
    EXPECT_FALSE(answer.handled);
    EXPECT_EQ(answer.status, 408);
    EXPECT_LT(elapsed, 10.0);
}

} // namespace
