// Resource requests through the client: which requests it takes over, what
// it answers for them (service-side bodies, text files), the percent-decoding
// of file names, and cancelling.
#include "engine/CBrowserClient.h"
#include "engine/CBrowserHelper.h"
#include "tests/engine/EngineTestSupport.h"
#include "tests/engine/FakeEnginePort.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace SLF_ChromiumEmbeddedFramework {
namespace {

class TestRequest : public EngineRequest {
public:
    TestRequest(uint64_t id, std::string url) : m_nId(id), m_strUrl(std::move(url)) {}
    uint64_t GetIdentifier() override { return m_nId; }
    std::string GetURL() override { return m_strUrl; }

private:
    uint64_t m_nId;
    std::string m_strUrl;
};

class TestResponse : public EngineResponse {
public:
    void SetStatus(int status) override { m_nStatus = status; }
    int GetStatus() override { return m_nStatus; }
    void SetMimeType(const std::string& mimeType) override { m_strMimeType = mimeType; }
    void SetHeader(const std::string&, const std::string&) override {}

    int m_nStatus = -1; // -1: never set
    std::string m_strMimeType;
};

class TestFrame : public EngineFrame {
public:
    std::string GetURL() override { return "file:///page.html"; }
    void ExecuteJavaScript(const std::string&, const std::string&, int) override {}
};

class CountingCallback : public EngineCallback {
public:
    void Continue() override { ++m_nContinued; }
    void Cancel() override {}
    int m_nContinued = 0;
};

// Plays the service side behind the two access callbacks.
struct AccessService {
    bool takeOver = false;
    int statusWritten = 404;
    std::string body;
    bool answer = false;
    std::vector<std::string> asked;
    std::string startUrlSeen;

    static bool Handle(const std::string& url, const void* context)
    {
        auto* self = static_cast<AccessService*>(const_cast<void*>(context));
        self->asked.push_back(url);
        return self->takeOver;
    }
    static bool Respond(const std::string&, const std::string& startURL, std::vector<char>* data, int64_t* length,
                        int* status, const void* context)
    {
        auto* self = static_cast<AccessService*>(const_cast<void*>(context));
        self->startUrlSeen = startURL;
        data->assign(self->body.begin(), self->body.end());
        *length = static_cast<int64_t>(data->size());
        *status = self->statusWritten;
        return self->answer;
    }
};

// What one pass through the handler produced.
struct Served {
    bool takenOver = false;
    int status = -1;
    int64_t length = -2;
    std::string body;
    // Short of the announced length (or none announced), ReadResponse
    // answered true with nothing to give.
    bool leftOpen = false;
};

class BrowserClientResources : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_Port.Install();
        m_Engine = std::make_unique<HostedEngine>();
        ASSERT_TRUE(m_Engine->Started());
        CAccessHandlingForRequestSettings access;
        access.handleRequestURL = &AccessService::Handle;
        access.getResponseHeadersForURL = &AccessService::Respond;
        access.accessControlEnabled = true;
        m_nBrowserId = m_Engine->Wrapper().StartBrowser(kStartUrl, 320, 240, 30, &CallbackRecorder::Frame,
                                                        &CallbackRecorder::Audio, &m_Service, &access, nullptr, false);
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

    CBrowserClient& Client() { return m_Engine->Client(); }
    EngineRequestRef Request(const std::string& url) { return std::make_shared<TestRequest>(++m_nNextRequest, url); }
    std::string TextRequestFor(const std::string& path) { return "http://streamloft/requestText?filePath=" + path; }
    std::string WriteFile(const std::string& name, const std::string& content)
    {
        const std::string path = m_strDir + "/" + name;
        std::ofstream(path, std::ios::binary) << content;
        return path;
    }

    // GetResourceHandler, then (when taken over) the rest of the request as
    // the port runs it, reading in chunks of `chunk` bytes.
    Served Serve(const std::string& url, int chunk = 4096, EngineBrowserRef browser = nullptr)
    {
        Served served;
        EngineRequestRef request = Request(url);
        EngineResourceHandler* handler =
            Client().GetResourceHandler(browser ? browser : m_Port.Browser(m_nBrowserId), m_Frame, request);
        served.takenOver = handler != nullptr;
        if (!handler)
            return served;
        EXPECT_EQ(handler, static_cast<EngineResourceHandler*>(&Client()));
        auto callback = std::make_shared<CountingCallback>();
        EXPECT_TRUE(handler->ProcessRequest(request, callback));
        EXPECT_EQ(callback->m_nContinued, 1);
        auto response = std::make_shared<TestResponse>();
        std::string redirect = "untouched";
        handler->GetResponseHeaders(response, served.length, redirect);
        EXPECT_EQ(redirect, "untouched");
        served.status = response->m_nStatus;
        EXPECT_TRUE(response->m_strMimeType.empty());
        std::vector<char> buffer(static_cast<size_t>(chunk));
        // Like the engine: read until the announced length arrived.
        for (int reads = 0; reads < 10000; ++reads) {
            if (served.length >= 0 && served.body.size() >= static_cast<size_t>(served.length))
                break;
            int bytesRead = 0;
            if (!handler->ReadResponse(buffer.data(), chunk, bytesRead, callback))
                break;
            if (bytesRead == 0) {
                served.leftOpen = true;
                break;
            }
            EXPECT_LE(bytesRead, chunk);
            served.body.append(buffer.data(), static_cast<size_t>(bytesRead));
        }
        return served;
    }

    static constexpr const char* kStartUrl = "file:///overlay/start.html";
    FakeEnginePort m_Port;
    std::unique_ptr<HostedEngine> m_Engine;
    AccessService m_Service;
    EngineFrameRef m_Frame = std::make_shared<TestFrame>();
    int m_nBrowserId = -1;
    uint64_t m_nNextRequest = 0;
    std::string m_strDir;
};

TEST(BrowserClientResourceHelpers, PercentDecodingLeavesTheLastTwoBytesAlone)
{
    const std::pair<const char*, const char*> cases[] = {
        {"a+b%41cd", "a bAcd"},
        {"a%41b+c", "aAb+c"}, // the "+" is among the last two bytes
        {"ab+", "ab+"},
        {"+", "+"},
        {"%4", "%4"},
        {"", ""},
        {"%2f%2F", "//"},
        {"x%zz%4", "x%zz%4"}, // not an escape, and an incomplete one at the end
        {"%41", "A"},
        {"a%4", "a%4"},
        {"%2FUsers%2Fa%20b.txt&x=1", "/Users/a b.txt&x=1"},
    };
    for (const auto& [in, out] : cases)
        EXPECT_EQ(CBrowserHelper::UriDecode(in), out) << in;
}

TEST(BrowserClientResourceHelpers, TextConversionYieldsNothingAndLeavesTheFlag)
{
    bool flag = true;
    EXPECT_EQ(CBrowserHelper::GetUTF8StringWithBOM("\xEF\xBB\xBFhello", 8, flag), "");
    EXPECT_TRUE(flag);
}

TEST_F(BrowserClientResources, TextRequestsAreRecognisedExactlyAndTheirFileNamesDecoded)
{
    struct Case {
        const char* url;
        bool text;
        const char* fileName;
    };
    const Case cases[] = {
        {"http://streamloft/requestText?filePath=%2FUsers%2Fa%20b.txt&x=1", true, "/Users/a b.txt&x=1"},
        {"http://streamloft/requestText?x=1&filePath=/tmp/a.txt", true, "/tmp/a.txt"},
        {"http://streamloft/requestText?other=1", true, ""},
        {"http://streamloft/requestText", false, ""},
        {"http://streamloft/requestText/?filePath=/a", false, ""},
        {"https://streamloft/requestText?filePath=/a", false, ""},
        {"http://Streamloft/requestText?filePath=/a", false, ""},
        {"http://streamloft/requesttext?filePath=/a", false, ""},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(Client().IsTextRequest(Request(c.url)), c.text) << c.url;
        EXPECT_EQ(Client().GetFilenameFromTextRequest(Request(c.url)), c.fileName) << c.url;
    }
    EXPECT_EQ(Client().GetFilenameFromRequest(Request("file:///tmp/a.txt?x=1?y")), "tmp/a.txt?x=1");
    EXPECT_EQ(Client().GetFilenameFromRequest(Request("https://a.test/b")), "https://a.test/b");
    EXPECT_FALSE(Client().ForceBlockFileAccessForURLandBrowserID("file:///etc/passwd", m_nBrowserId));
}

TEST_F(BrowserClientResources, OnlyRequestsOfKnownOpenBrowsersThatTheServiceOrATextRequestClaimsAreTakenOver)
{
    EXPECT_EQ(Client().GetResourceHandler(nullptr, m_Frame, Request("file:///a")), nullptr);
    EXPECT_EQ(Client().GetResourceHandler(m_Port.Browser(m_nBrowserId), nullptr, Request("file:///a")), nullptr);
    EXPECT_EQ(Client().GetResourceHandler(m_Port.Browser(m_nBrowserId), m_Frame, nullptr), nullptr);
    EXPECT_EQ(Client().GetRequestHandler(), static_cast<EngineRequestHandler*>(&Client()));

    // The service side declines: normal load, asked for the URL.
    m_Service.takeOver = false;
    EXPECT_FALSE(Serve("https://remote.test/a.png").takenOver);
    ASSERT_FALSE(m_Service.asked.empty());
    EXPECT_EQ(m_Service.asked.back(), "https://remote.test/a.png");

    // A text request is taken over even when the service side declines,
    // unless the browser has no record.
    const std::string text = TextRequestFor(WriteFile("empty.txt", ""));
    EXPECT_TRUE(Serve(text).takenOver);
    EXPECT_FALSE(Serve(text, 4096, m_Port.Browser(m_nBrowserId + 50)).takenOver);
    m_Service.takeOver = true;
    EXPECT_FALSE(Serve("file:///x", 4096, m_Port.Browser(m_nBrowserId + 50)).takenOver);

    // A close the engine does not report within the wait: the service side
    // lets go of the callback context afterwards, so neither callback is
    // called; requests are refused, text requests still served.
    m_Port.SetReportClose(false);
    EXPECT_TRUE(Client().StopBrowser(m_nBrowserId));
    m_Service.asked.clear();
    m_Service.answer = true;
    const Served refused = Serve("http://streamloft/settings");
    EXPECT_TRUE(refused.takenOver);
    EXPECT_EQ(refused.status, 403);
    EXPECT_EQ(Serve(text).status, 200);
    EXPECT_TRUE(m_Service.asked.empty());
    EXPECT_TRUE(m_Service.startUrlSeen.empty());
}

TEST_F(BrowserClientResources, TheServiceSideBodyIsDeliveredAndItsStatusIsNotApplied)
{
    m_Service.takeOver = true;
    m_Service.answer = true;
    m_Service.statusWritten = 404;
    m_Service.body = "0123456789";
    const Served served = Serve("http://streamloft/settings", 4);
    EXPECT_TRUE(served.takenOver);
    EXPECT_EQ(served.status, -1);
    EXPECT_EQ(served.length, 10);
    EXPECT_EQ(served.body, "0123456789");
    EXPECT_FALSE(served.leftOpen);
    EXPECT_EQ(m_Service.startUrlSeen, kStartUrl);

    // A refusal by the service side: whatever status it wrote, the page
    // gets an empty body of length 0.
    m_Service.answer = false;
    m_Service.body.clear();
    const Served refused = Serve("file:///not/permitted.txt");
    EXPECT_TRUE(refused.takenOver);
    EXPECT_EQ(refused.status, -1);
    EXPECT_EQ(refused.length, 0);
    EXPECT_EQ(refused.body, "");
}

TEST_F(BrowserClientResources, WithAccessControlOffOnlyTextRequestsAreTakenOver)
{
    CAccessHandlingForRequestSettings access;
    access.handleRequestURL = &AccessService::Handle;
    access.getResponseHeadersForURL = &AccessService::Respond;
    access.accessControlEnabled = false;
    const int id = m_Engine->Wrapper().StartBrowser("https://a.test/", 320, 240, 30, &CallbackRecorder::Frame,
                                                    &CallbackRecorder::Audio, &m_Service, &access, nullptr, false);
    ASSERT_GT(id, 0);
    m_Service.takeOver = true;
    m_Service.asked.clear();
    EXPECT_FALSE(Serve("file:///etc/passwd", 4096, m_Port.Browser(id)).takenOver);
    EXPECT_TRUE(m_Service.asked.empty());
    const Served text = Serve(TextRequestFor(WriteFile("e.txt", "")), 4096, m_Port.Browser(id));
    EXPECT_TRUE(text.takenOver);
    EXPECT_EQ(text.status, 200);
}

TEST_F(BrowserClientResources, TextFilesAreServedOnlyWhenEmpty)
{
    const Served empty = Serve(TextRequestFor(WriteFile("empty.txt", "")));
    EXPECT_EQ(empty.status, 200);
    EXPECT_EQ(empty.length, 0);
    EXPECT_EQ(empty.body, "");

    // Any content converts to no text and is refused.
    const Served content = Serve(TextRequestFor(WriteFile("hello.txt", "hello")));
    EXPECT_EQ(content.status, 403);
    EXPECT_EQ(content.length, 0);
    EXPECT_EQ(content.body, "");

    const Served missing = Serve(TextRequestFor(m_strDir + "/missing.txt"));
    EXPECT_EQ(missing.status, 404);
    EXPECT_EQ(missing.body, "");

    // A name with an escaped space reaches the file.
    WriteFile("a b.txt", "");
    EXPECT_EQ(Serve(TextRequestFor(m_strDir + "/a%20b.txt")).status, 200);
}

TEST_F(BrowserClientResources, TextFilesOfTwentyMebibytesAndMoreAreRefused)
{
    // Sparse files: exactly the limit passes the size check and is read (and
    // then yields no text); one byte more is refused without reading.
    for (const off_t size : {off_t{0x1400000}, off_t{0x1400000 + 1}}) {
        const std::string path = m_strDir + "/big.txt";
        const int fd = open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(ftruncate(fd, size), 0);
        close(fd);
        const Served served = Serve(TextRequestFor(path));
        EXPECT_EQ(served.status, 403) << size;
        EXPECT_EQ(served.length, 0) << size;
        EXPECT_EQ(served.body, "") << size;
    }
}

TEST_F(BrowserClientResources, ARefusedRequestStaysOpenWithUnknownLength)
{
    // Taken over by the service side, which changes its mind before the
    // headers: no text request either, so 403 and no body, ever.
    m_Service.takeOver = true;
    EngineRequestRef request = Request("file:///elsewhere/a.txt");
    EngineResourceHandler* handler = Client().GetResourceHandler(m_Port.Browser(m_nBrowserId), m_Frame, request);
    ASSERT_NE(handler, nullptr);
    m_Service.takeOver = false;
    ASSERT_TRUE(handler->ProcessRequest(request, nullptr));
    auto response = std::make_shared<TestResponse>();
    int64_t length = 0;
    std::string redirect;
    handler->GetResponseHeaders(response, length, redirect);
    EXPECT_EQ(response->m_nStatus, 403);
    EXPECT_EQ(length, -1);
    char byte = 0;
    for (int i = 0; i < 3; ++i) {
        int bytesRead = 7;
        EXPECT_TRUE(handler->ReadResponse(&byte, 1, bytesRead, nullptr));
        EXPECT_EQ(bytesRead, 7); // untouched
    }
}

TEST_F(BrowserClientResources, CancelEndsTheNextReadOnceAndTheClientServesTheNextRequest)
{
    m_Service.takeOver = true;
    m_Service.answer = true;
    m_Service.body = "abcdef";
    EngineRequestRef request = Request("http://streamloft/settings");
    EngineResourceHandler* handler = Client().GetResourceHandler(m_Port.Browser(m_nBrowserId), m_Frame, request);
    ASSERT_NE(handler, nullptr);
    ASSERT_TRUE(handler->ProcessRequest(request, nullptr));
    int64_t length = 0;
    std::string redirect;
    handler->GetResponseHeaders(std::make_shared<TestResponse>(), length, redirect);
    ASSERT_EQ(length, 6);
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
    const Served next = Serve("http://streamloft/settings");
    EXPECT_EQ(next.body, "next");
    EXPECT_FALSE(next.leftOpen);
}

} // namespace
} // namespace SLF_ChromiumEmbeddedFramework
