// Browser handles against the real service (started on demand on a socket
// in a temporary folder): events that stay with their handle, the close on
// drop, typed errors, requests from inside callbacks, and events dispatched
// on a host's own main context.
#include <glib.h>

#include <set>

#include "tests/support/RecordingCallbacks.h"
#include "tests/support/ServiceProcess.h"

using streamloft::OverlayClient;
using namespace slftest;

namespace {

pid_t ParentOf(pid_t pid)
{
    const std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
    return std::atoi(stat.c_str() + stat.rfind(')') + 4); // after ") S "
}

class BrowserHandleTest : public ServiceTest {
protected:
    std::unique_ptr<OverlayClient> Connect(RecordingCallbacks& host, GMainContext* context = nullptr)
    {
        streamloft::ConnectOptions options = host.Options(Options());
        options.context = context;
        return ServiceTest::Connect(options);
    }
    static streamloft::BrowserOptions Page(const std::string& page = "client_overlay.html")
    {
        return slftest::Page(page, 160, 90);
    }
    // Whether the service has no browser with this ID any more: a request for
    // it from another connection is logged as naming no browser.
    bool ServiceForgot(int id)
    {
        const std::string line = "Did not find a window representation for browser " + std::to_string(id);
        return WaitUntil(
            [&] {
                gchar* out = nullptr;
                std::string command = "gdbus call --address unix:path=" + socket_ +
                                      " --dest com.streamloft.SLFCefOverlayHelper --object-path "
                                      "/com/streamloft/SLFCefOverlayXPC --method "
                                      "com.streamloft.SLFCefOverlayXPCProtocol.UpdateBrowserSize " +
                                      std::to_string(id) + " 10 10";
                g_spawn_command_line_sync(command.c_str(), &out, nullptr, nullptr, nullptr);
                g_free(out);
                return Log().find(line) != std::string::npos;
            },
            20s);
    }
};

TEST_F(BrowserHandleTest, TwoHandlesOnOneClientGetTheirOwnEventsAndDroppingOneClosesItsBrowser)
{
    RecordingCallbacks client, first, second, third;
    auto overlay = Connect(client);
    ASSERT_TRUE(overlay);
    // Started on demand, detached: not a child of this process.
    EXPECT_TRUE(overlay->StartedService());
    EXPECT_NE(ParentOf(overlay->ServiceProcessID()), getpid());

    auto a = overlay->OpenBrowser(Page(), first.events());
    auto b = overlay->OpenBrowser(Page(), second.events());
    const int idA = Id(first.WaitFor("start ", 30s)), idB = Id(second.WaitFor("start ", 30s));
    ASSERT_TRUE(idA > 0 && idB > 0 && idA != idB) << idA << " " << idB;
    EXPECT_EQ(a->ID(), idA);
    EXPECT_EQ(b->ID(), idB);
    ASSERT_NE(first.WaitFor("frame ", 30s, 5), "");
    ASSERT_NE(second.WaitFor("frame ", 30s, 5), "");
    for (const auto& [recorder, id] : {std::make_pair(&first, idA), std::make_pair(&second, idB)}) {
        for (const auto& event : recorder->Events())
            EXPECT_EQ(Id(event), id) << event;
        for (const auto& frame : recorder->Take(recorder->frames))
            EXPECT_EQ(frame->browserID(), id);
    }

    // Dropping the only reference closes the browser in the service; the other
    // one goes on.
    a.reset();
    EXPECT_TRUE(ServiceForgot(idA));
    const size_t framesOfB = second.Events().size();
    EXPECT_NE(second.WaitFor("frame ", 30s, framesOfB + 5), "");
    EXPECT_EQ(second.WaitFor("closed", 0ms), "");
    // A browser opened after a close works as well (the service binds one
    // browser to a connection, so it gets a connection of its own).
    auto c = overlay->OpenBrowser(Page(), third.events());
    EXPECT_GT(Id(third.WaitFor("start ", 30s)), 0);
    EXPECT_NE(third.WaitFor("frame ", 30s), "");
    c->Close(third.Done("close"));
    EXPECT_EQ(third.WaitFor("close "), "close ok");
    EXPECT_EQ(Id(third.WaitFor("closed ", 10s)), c->ID());
    EXPECT_EQ(client.WaitFor("problem", 0ms), "");
    if (HasFailure())
        for (auto* recorder : {&client, &first, &second, &third})
            for (const auto& e : recorder->Events())
                if (e.rfind("frame", 0) != 0)
                    std::cout << "event: " << e << "\n";
}

// A service executable that cannot run, and one that ends at once without
// answering: Connect fails with ServiceUnreachable and says why.
TEST_F(BrowserHandleTest, AServiceThatCannotRunOrEndsAtOnceIsReported)
{
    const std::string broken = dir_ + "/broken-helper", quitting = dir_ + "/quitting-helper";
    std::ofstream(broken) << "#!/no/such/interpreter\n";
    std::ofstream(quitting) << "#!/bin/sh\nexit 3\n";
    for (const auto& path : {broken, quitting})
        std::filesystem::permissions(path, std::filesystem::perms::owner_all);
    for (const auto& [helper, expected] :
         {std::make_pair(broken, "cannot start the overlay service '" + broken + "': "),
          std::make_pair(quitting, "ended 8 times before it answered at " + socket_)}) {
        streamloft::ConnectOptions options = Options();
        options.helperPath = helper;
        streamloft::Error error;
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_FALSE(OverlayClient::Connect(options, &error));
        EXPECT_EQ(error.kind, streamloft::ErrorKind::ServiceUnreachable);
        EXPECT_NE(error.message.find(expected), std::string::npos) << error.message;
        EXPECT_LT(std::chrono::steady_clock::now() - begin, 15s) << "the failure waited for the time-out";
    }
}

TEST_F(BrowserHandleTest, RefusedRequestsGiveTypedErrors)
{
    RecordingCallbacks client, badURL, badSize;
    auto overlay = Connect(client);
    ASSERT_TRUE(overlay);
    auto a = overlay->OpenBrowser({"not a url", 64, 64, 30, {}}, badURL.events());
    auto b = overlay->OpenBrowser({PageURL("client_overlay.html"), -5, 64, 30, {}}, badSize.events());
    EXPECT_EQ(badURL.WaitFor("failed ", 30s).rfind("failed invalid-url ", 0), 0u) << badURL.WaitFor("failed ", 0ms);
    EXPECT_NE(badURL.WaitFor("failed ", 0ms).find("(com.streamloft.Error.InvalidURL)"), std::string::npos);
    EXPECT_EQ(badSize.WaitFor("failed ", 30s).rfind("failed invalid-argument ", 0), 0u)
        << badSize.WaitFor("failed ", 0ms);
    EXPECT_EQ(badURL.WaitFor("start", 0ms), "");
}

// A host that makes requests from inside its callbacks (resize on every
// frame, the settings answer) gets its frames on time: no callback waits for
// the service.
TEST_F(BrowserHandleTest, ACallbackThatMakesRequestsDoesNotStallDelivery)
{
    struct BusyHost : RecordingCallbacks {
        void BrowserReceivedVideoFrame(Browser& b, std::shared_ptr<const streamloft::VideoFrame> frame) override
        {
            const auto begin = std::chrono::steady_clock::now();
            b.Resize(frame->width() == 160 ? 161 : 160, 90, Done("resize"));
            b.UpdateSettingsData({'x'}, Done("settings-data"));
            const auto took = std::chrono::steady_clock::now() - begin;
            RecordingCallbacks::BrowserReceivedVideoFrame(b, std::move(frame));
            std::lock_guard<std::mutex> guard(lock);
            longest = std::max(longest, took);
        }
        std::chrono::steady_clock::duration longest {};
    } host;
    auto overlay = Connect(host);
    ASSERT_TRUE(overlay);
    auto browser = overlay->OpenBrowser(Page("recovery_overlay.html"), host.events());
    ASSERT_NE(host.WaitFor("frame ", 60s, 30), "");
    EXPECT_NE(host.WaitFor("resize ok", 10s, 20), "");
    EXPECT_NE(host.WaitFor("settings-data ok", 10s, 20), "");
    // The page's own settings request, answered from its event.
    EXPECT_NE(host.WaitFor("settings ", 30s).find("answered"), std::string::npos);
    std::lock_guard<std::mutex> guard(host.lock);
    EXPECT_LT(host.longest, 20ms) << "a request made inside a callback waited";
}

TEST_F(BrowserHandleTest, EventsAreDispatchedOnTheHostsMainContext)
{
    struct ThreadRecorder : RecordingCallbacks {
        void BrowserReceivedVideoFrame(Browser& b, std::shared_ptr<const streamloft::VideoFrame> frame) override
        {
            threads.insert(std::this_thread::get_id());
            RecordingCallbacks::BrowserReceivedVideoFrame(b, std::move(frame));
        }
        void BrowserDidStart(Browser& b, int id) override
        {
            threads.insert(std::this_thread::get_id());
            RecordingCallbacks::BrowserDidStart(b, id);
        }
        std::set<std::thread::id> threads; // only touched on the host's thread
    } host;
    GMainContext* context = g_main_context_new();
    auto overlay = Connect(host, context);
    ASSERT_TRUE(overlay);
    auto browser = overlay->OpenBrowser(Page(), host.events());
    auto iterateUntil = [&](const std::string& prefix, size_t n) {
        for (auto deadline = std::chrono::steady_clock::now() + 30s; std::chrono::steady_clock::now() < deadline;) {
            if (!host.WaitFor(prefix, 0ms, n).empty())
                return true;
            g_main_context_iteration(context, FALSE);
            std::this_thread::sleep_for(2ms);
        }
        return false;
    };
    // Nothing arrives while the host does not run its context.
    std::this_thread::sleep_for(1s);
    EXPECT_EQ(host.Events().size(), 0u);
    ASSERT_TRUE(iterateUntil("frame ", 3));
    EXPECT_EQ(host.threads, std::set<std::thread::id> {std::this_thread::get_id()});
    const size_t seen = host.Events().size();
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(host.Events().size(), seen);

    // Disconnect: the browser fails, connectionClosed, then the completion.
    bool done = false;
    overlay->Disconnect([&] {
        host.Add("disconnect done");
        done = true;
    });
    ASSERT_TRUE(iterateUntil("disconnect done", 1));
    std::vector<std::string> tail;
    for (const auto& e : host.Events())
        if (e.rfind("frame", 0) != 0)
            tail.push_back(e);
    ASSERT_GE(tail.size(), 3u);
    EXPECT_EQ(std::vector<std::string>(tail.end() - 3, tail.end()),
              (std::vector<std::string> {"failed connection-closed the connection to the overlay service closed",
                                         "disconnected", "disconnect done"}));
    EXPECT_TRUE(done);
    EXPECT_FALSE(overlay->IsConnected());
    overlay.reset();
    browser.reset();
    while (g_main_context_iteration(context, FALSE)) {
    }
    g_main_context_unref(context);
}

} // namespace
