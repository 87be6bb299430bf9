// Resource requests through the client: which requests it takes over, what
// it answers for them (service-side bodies, text files), and cancelling.
#include "tests/engine/EngineTestSupport.h"

#include <gtest/gtest.h>

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <thread>

namespace SLF_ChromiumEmbeddedFramework {
namespace {

struct TestRequest : EngineRequest {
    TestRequest(uint64_t id, std::string url) : id(id), url(std::move(url)) {}
    uint64_t GetIdentifier() override { return id; }
    std::string GetURL() override { return url; }
    uint64_t id;
    std::string url;
};

struct TestResponse : EngineResponse {
    void SetStatus(int s) override { status = s; }
    int GetStatus() override { return status; }
    void SetMimeType(const std::string&) override {}
    void SetHeader(const std::string&, const std::string&) override {}
    int status = -1; // never set
};

struct CountingCallback : EngineCallback {
    void Continue() override { ++continued; }
    void Cancel() override {}
    int continued = 0;
};

// Plays the service side behind the two access callbacks.
struct AccessService {
    bool takeOver = false, answer = false;
    std::string body, startUrlSeen;
    std::vector<std::string> asked;

    static AccessService* Self(const void* context) { return static_cast<AccessService*>(const_cast<void*>(context)); }
    static bool Handle(const std::string& url, const void* context)
    {
        Self(context)->asked.push_back(url);
        return Self(context)->takeOver;
    }
    static bool Respond(const std::string&, const std::string& startURL, std::vector<char>* data, int64_t* length,
                        int* status, const void* context)
    {
        auto* self = Self(context);
        self->startUrlSeen = startURL;
        data->assign(self->body.begin(), self->body.end());
        *length = static_cast<int64_t>(data->size());
        *status = 404;
        return self->answer;
    }
};

struct Served {
    bool takenOver = false, leftOpen = false; // leftOpen: no length, and a read gave nothing without ending it
    int status = -1;
    int64_t length = -2;
    std::string body;
};

class BrowserClientResources : public EngineTest {
protected:
    void SetUp() override
    {
        EngineTest::SetUp();
        m_nBrowserId = Open(kStartUrl, true);
        ASSERT_GT(m_nBrowserId, 0);
        char pattern[] = "/tmp/slf-resource-test-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        m_strDir = pattern;
    }
    void TearDown() override
    {
        m_Engine.reset();
        std::filesystem::remove_all(m_strDir);
    }
    int Open(const std::string& url, bool accessControl)
    {
        CAccessHandlingForRequestSettings access {.handleRequestURL = &AccessService::Handle,
                                                  .getResponseHeadersForURL = &AccessService::Respond,
                                                  .accessControlEnabled = accessControl};
        return m_Engine->Wrapper().StartBrowser(url, 320, 240, 30, &CallbackRecorder::Frame, &CallbackRecorder::Audio,
                                                &m_Service, &access, nullptr, false);
    }

    EngineResourceHandler* Handler(const EngineRequestRef& request, int browserId = 0)
    {
        EngineBrowserRef browser = m_Port.Browser(browserId ? browserId : m_nBrowserId);
        return Client().GetResourceHandler(browser, browser->GetMainFrame(), request);
    }
    EngineRequestRef Request(const std::string& url) { return std::make_shared<TestRequest>(++m_nNextRequest, url); }
    std::string TextRequest(const std::string& path) { return "http://streamloft/requestText?filePath=" + path; }
    std::string WriteFile(const std::string& name, const std::string& content)
    {
        const std::string path = m_strDir + "/" + name;
        std::ofstream(path, std::ios::binary) << content;
        return path;
    }

    // The whole request as the port runs it, reading `chunk` bytes at a time;
    // `beforeHeaders` runs between the take-over and the headers.
    Served Serve(const std::string& url, int chunk = 4096, int browserId = 0,
                 const std::function<void()>& beforeHeaders = nullptr)
    {
        Served served;
        EngineRequestRef request = Request(url);
        EngineResourceHandler* handler = Handler(request, browserId);
        served.takenOver = handler != nullptr;
        if (!handler)
            return served;
        auto callback = std::make_shared<CountingCallback>();
        EXPECT_TRUE(handler->ProcessRequest(request, callback));
        EXPECT_EQ(callback->continued, 1);
        auto response = std::make_shared<TestResponse>();
        if (beforeHeaders)
            beforeHeaders();
        std::string redirect;
        handler->GetResponseHeaders(response, served.length, redirect);
        served.status = response->status;
        std::vector<char> buffer(static_cast<size_t>(chunk));
        int unread = 0;
        served.leftOpen = served.length < 0 && handler->ReadResponse(buffer.data(), chunk, unread, callback) && !unread;
        while (served.length > 0 && served.body.size() < static_cast<size_t>(served.length)) {
            int bytesRead = 0;
            if (!handler->ReadResponse(buffer.data(), chunk, bytesRead, callback) || bytesRead == 0)
                break;
            EXPECT_LE(bytesRead, chunk);
            served.body.append(buffer.data(), static_cast<size_t>(bytesRead));
        }
        return served;
    }

    static constexpr const char* kStartUrl = "file:///overlay/start.html";
    AccessService m_Service;
    int m_nBrowserId = -1;
    uint64_t m_nNextRequest = 0;
    std::string m_strDir;
};

TEST_F(BrowserClientResources, TextRequestsAreRecognisedExactlyAndTheirFileNamesDecoded)
{
    const std::tuple<const char*, bool, const char*> cases[] = {
        {"http://streamloft/requestText?filePath=%2FUsers%2Fa%20b.txt&x=1", true, "/Users/a b.txt&x=1"},
        {"http://streamloft/requestText?x=1&filePath=/tmp/a.txt", true, "/tmp/a.txt"},
        {"http://streamloft/requestText?filePath=/a%zz%4a%4", true, "/a%zzJ%4"}, // bad, lower-case, cut escapes
        {"http://streamloft/requestText?other=1", true, ""},
        {"http://streamloft/requestText", false, ""},
        {"http://streamloft/requestText/?filePath=/a", false, ""},
        {"https://streamloft/requestText?filePath=/a", false, ""},
        {"http://Streamloft/requestText?filePath=/a", false, ""},
    };
    for (const auto& [url, text, fileName] : cases) {
        EXPECT_EQ(Client().IsTextRequest(Request(url)), text) << url;
        EXPECT_EQ(Client().GetFilenameFromTextRequest(Request(url)), fileName) << url;
    }
}

TEST_F(BrowserClientResources, RequestsTakenOverAreThoseOfKnownBrowsersThatTheServiceOrATextRequestClaims)
{
    const EngineBrowserRef browser = m_Port.Browser(m_nBrowserId);
    EXPECT_EQ(Client().GetResourceHandler(nullptr, browser->GetMainFrame(), Request("file:///a")), nullptr);
    EXPECT_EQ(Client().GetResourceHandler(browser, nullptr, Request("file:///a")), nullptr);
    EXPECT_EQ(Client().GetResourceHandler(browser, browser->GetMainFrame(), nullptr), nullptr);

    EXPECT_FALSE(Serve("https://remote.test/a.png").takenOver);
    ASSERT_FALSE(m_Service.asked.empty());
    EXPECT_EQ(m_Service.asked.back(), "https://remote.test/a.png");
    const std::string text = TextRequest(WriteFile("empty.txt", ""));
    EXPECT_TRUE(Serve(text).takenOver);
    EXPECT_FALSE(Serve(text, 4096, m_nBrowserId + 50).takenOver);
    m_Service.takeOver = true;
    EXPECT_FALSE(Serve("file:///x", 4096, m_nBrowserId + 50).takenOver);

    // Access control off: only text requests, and the service is not asked.
    const int open = Open("https://a.test/", false);
    m_Service.asked.clear();
    EXPECT_FALSE(Serve("file:///etc/passwd", 4096, open).takenOver);
    EXPECT_TRUE(m_Service.asked.empty());
    EXPECT_EQ(Serve(text, 4096, open).status, 200);
}

// The service side lets go of its callback context once StopBrowser
// returns, even when the engine has not reported the close yet.
TEST_F(BrowserClientResources, AClosingBrowsersRequestsReachNoCallback)
{
    m_Port.SetReportClose(false);
    EXPECT_TRUE(Client().StopBrowser(m_nBrowserId));
    m_Service.asked.clear();
    m_Service.takeOver = m_Service.answer = true;
    const Served refused = Serve("http://streamloft/settings");
    EXPECT_TRUE(refused.takenOver && refused.status == 403) << refused.status;
    EXPECT_EQ(Serve(TextRequest(WriteFile("empty.txt", ""))).status, 200);
    EXPECT_TRUE(m_Service.asked.empty());
    EXPECT_TRUE(m_Service.startUrlSeen.empty());
}

TEST_F(BrowserClientResources, TheServiceSideBodyIsDeliveredWithoutItsStatus)
{
    m_Service.takeOver = m_Service.answer = true;
    m_Service.body = "0123456789";
    const Served served = Serve("http://streamloft/settings", 4);
    EXPECT_EQ(std::tie(served.takenOver, served.status, served.length, served.body),
              std::make_tuple(true, -1, int64_t(10), std::string("0123456789")));
    EXPECT_EQ(m_Service.startUrlSeen, kStartUrl);

    // A refusal by the service side: an empty body of length 0.
    m_Service.answer = false;
    m_Service.body.clear();
    const Served refused = Serve("file:///not/permitted.txt");
    EXPECT_EQ(std::make_pair(refused.status, refused.length), std::make_pair(-1, int64_t(0)));
}

TEST_F(BrowserClientResources, TextFilesAreServedOnlyWhenEmpty)
{
    const Served empty = Serve(TextRequest(WriteFile("a b.txt", "")));
    EXPECT_EQ(std::make_pair(empty.status, empty.length), std::make_pair(200, int64_t(0)));
    EXPECT_EQ(Serve(TextRequest(m_strDir + "/a%20b.txt")).status, 200);
    // Content converts to no text and is refused.
    const Served content = Serve(TextRequest(WriteFile("hello.txt", "hello")));
    EXPECT_EQ(std::make_pair(content.status, content.length), std::make_pair(403, int64_t(0)));
    EXPECT_EQ(Serve(TextRequest(m_strDir + "/missing.txt")).status, 404);
}

// Catches a refused request that ends or gets a body, and a cancel that
// sticks to the next request.
TEST_F(BrowserClientResources, ARefusedRequestStaysOpenAndACancelEndsOneRead)
{
    m_Service.takeOver = true;
    const Served refused = Serve("file:///elsewhere/a.txt", 4096, 0, [&] { m_Service.takeOver = false; });
    EXPECT_EQ(std::make_tuple(refused.status, refused.length, refused.leftOpen),
              std::make_tuple(403, int64_t(-1), true));

    m_Service.takeOver = m_Service.answer = true;
    m_Service.body = "abcdef";
    EngineRequestRef request = Request("http://streamloft/settings");
    EngineResourceHandler* handler = Handler(request);
    ASSERT_NE(handler, nullptr);
    handler->ProcessRequest(request, nullptr);
    int64_t length = 0;
    std::string redirect;
    handler->GetResponseHeaders(std::make_shared<TestResponse>(), length, redirect);
    char buffer[8] = {};
    int bytesRead = 0;
    ASSERT_TRUE(handler->ReadResponse(buffer, 2, bytesRead, nullptr));
    EXPECT_EQ(std::string(buffer, 2), "ab");
    handler->Cancel();
    EXPECT_FALSE(handler->ReadResponse(buffer, 8, bytesRead, nullptr));
    bytesRead = 0;
    EXPECT_TRUE(handler->ReadResponse(buffer, 8, bytesRead, nullptr));
    EXPECT_EQ(bytesRead, 0); // the rest was dropped
    m_Service.body = "next";
    EXPECT_EQ(Serve("http://streamloft/settings").body, "next");
}

// The service side as the window manager has it: an object on the heap that
// is freed as soon as StopBrowser returns. One of its two callbacks is held
// mid-way until the test lets it go on; then it reads its own fields.
struct HeldService {
    enum Hold { InTakeOver, InResponse } hold;
    std::promise<void>* entered; // both belong to the test
    std::shared_future<void> release;
    std::string body = "settings-body";

    static HeldService* Self(const void* context) { return static_cast<HeldService*>(const_cast<void*>(context)); }
    void Wait(Hold where)
    {
        if (hold != where)
            return;
        entered->set_value();
        release.wait();
    }
    static bool Handle(const std::string&, const void* context)
    {
        Self(context)->Wait(InTakeOver);
        return !Self(context)->body.empty();
    }
    static bool Respond(const std::string&, const std::string&, std::vector<char>* data, int64_t* length, int*,
                        const void* context)
    {
        Self(context)->Wait(InResponse);
        data->assign(Self(context)->body.begin(), Self(context)->body.end());
        *length = static_cast<int64_t>(data->size());
        return true;
    }
};

// Under AddressSanitizer a callback that runs on after StopBrowser returned
// reads freed memory; without it, the stop returning early is seen directly.
TEST_F(BrowserClientResources, StopBrowserReturnsOnlyAfterTheBrowsersRunningCallbackReturned)
{
    for (const HeldService::Hold hold : {HeldService::InTakeOver, HeldService::InResponse}) {
        SCOPED_TRACE(hold == HeldService::InTakeOver ? "held while deciding" : "held while answering");
        std::promise<void> entering, release;
        std::future<void> entered = entering.get_future();
        auto* service = new HeldService {hold, &entering, release.get_future().share()};
        CAccessHandlingForRequestSettings access {.handleRequestURL = &HeldService::Handle,
                                                  .getResponseHeadersForURL = &HeldService::Respond,
                                                  .accessControlEnabled = true};
        const int id = m_Engine->Wrapper().StartBrowser("https://overlay.test/", 320, 240, 30, &CallbackRecorder::Frame,
                                                        &CallbackRecorder::Audio, service, &access, nullptr, false);
        ASSERT_GT(id, 0);

        // The port's serving thread.
        std::thread serving([&, id] {
            EngineRequestRef request = Request("http://streamloft/settings");
            EngineResourceHandler* handler = Handler(request, id);
            if (!handler)
                return;
            handler->ProcessRequest(request, nullptr);
            int64_t length = 0;
            std::string redirect;
            handler->GetResponseHeaders(std::make_shared<TestResponse>(), length, redirect);
        });
        ASSERT_EQ(entered.wait_for(std::chrono::seconds(20)), std::future_status::ready);

        // The window manager: stop, then let go of the context.
        std::atomic<bool> stopReturned {false};
        std::thread stopping([&, id, service] {
            EXPECT_TRUE(Client().StopBrowser(id));
            stopReturned = true;
            delete service;
        });
        EXPECT_FALSE(WaitUntil([&] { return stopReturned.load(); }, std::chrono::milliseconds(1500)))
            << "StopBrowser returned while a callback into the service side was running";
        release.set_value(); // the callback goes on
        serving.join();
        stopping.join();
        EXPECT_TRUE(stopReturned);
    }
}

} // namespace
} // namespace SLF_ChromiumEmbeddedFramework
