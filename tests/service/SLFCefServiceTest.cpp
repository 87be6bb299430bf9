// The service front in process: the real listener and per-connection
// threads on a socket in a temporary folder, hosts made of plain GDBus.
#include "tests/service/ServiceTestSupport.h"

#include "service/SLFCefOverlayInterface.h"
#include "windows/SLFCefCallbackProxy.h"

#include <gtest/gtest.h>

#if SLF_HAVE_FAKE_ENGINE
#include "tests/engine/FakeEnginePort.h"
#endif

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

// One main loop (the service's main thread) and one engine for the whole
// binary, as in the service process: the shared window manager starts the
// engine once and never stops it.
class ServiceEnvironment : public ::testing::Environment {
public:
    void SetUp() override
    {
#if SLF_HAVE_FAKE_ENGINE
        port = std::make_unique<SLF_ChromiumEmbeddedFramework::FakeEnginePort>();
        port->Install();
#endif
        main = std::make_unique<TestMainLoop>();
    }
    void TearDown() override
    {
        // The pump stops with the loop, before the port goes.
        main.reset();
#if SLF_HAVE_FAKE_ENGINE
        port.reset();
#endif
    }
    std::unique_ptr<TestMainLoop> main;
#if SLF_HAVE_FAKE_ENGINE
    std::unique_ptr<SLF_ChromiumEmbeddedFramework::FakeEnginePort> port;
#endif
};

ServiceEnvironment* gEnvironment =
    static_cast<ServiceEnvironment*>(::testing::AddGlobalTestEnvironment(new ServiceEnvironment));

class ServiceFront : public ::testing::Test {
protected:
    InProcessService m_service{*gEnvironment->main};
};

GVariant* OpenParameters(const char* url, double width, double height, double framerate)
{
    return g_variant_new("(sddd@as)", url, width, height, framerate, g_variant_new_strv(nullptr, 0));
}

} // namespace

TEST_F(ServiceFront, ExportsTheRequestInterface)
{
    TestHost host(m_service.address());
    GVariant* reply = g_dbus_connection_call_sync(host.connection(), nullptr, "/com/streamloft/SLFCefOverlayXPC",
                                                  "org.freedesktop.DBus.Introspectable", "Introspect", nullptr,
                                                  G_VARIANT_TYPE("(s)"), G_DBUS_CALL_FLAGS_NONE, 10000, nullptr,
                                                  nullptr);
    ASSERT_NE(reply, nullptr);
    const gchar* xml = nullptr;
    g_variant_get(reply, "(&s)", &xml);
    EXPECT_NE(std::string(xml).find("com.streamloft.SLFCefOverlayXPCProtocol"), std::string::npos);
    EXPECT_NE(std::string(xml).find("OpenBrowser"), std::string::npos);
    g_variant_unref(reply);
}

TEST_F(ServiceFront, ImmediateRequestsGetAnEmptyReplyAtOnce)
{
    TestHost host(m_service.address());
    testing::internal::CaptureStderr();
    EXPECT_EQ(host.call("UpdateBrowserSize", g_variant_new("(idd)", 42, 640.0, 360.0)), "");
    EXPECT_EQ(host.call("UpdateBrowserSettingsData",
                        g_variant_new("(i@ay)", 42, g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, "{}", 2, 1))),
              "");
    const gchar* files[] = {"file:///tmp/a/", nullptr};
    EXPECT_EQ(host.call("UpdateBrowserPermittedFileURLStrings", g_variant_new("(i^as)", 42, files)), "");
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("-[SLFCefOverlayXPC updateBrowser:withSize:] - Did not find a window representation for "
                       "browser 42"),
              std::string::npos)
        << log;
    // The two setting updates are silent for an unknown browser.
    EXPECT_EQ(log.find("withSettingsData"), std::string::npos);
}

TEST_F(ServiceFront, BadInputIsRefusedAndTheServiceGoesOn)
{
    TestHost host(m_service.address());
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    testing::internal::CaptureStderr();

    EXPECT_EQ(host.call("OpenBrowser", OpenParameters("not a url", 100, 100, 30)), "com.streamloft.Error.InvalidURL");
    EXPECT_EQ(host.call("OpenBrowser", OpenParameters("", 100, 100, 30)), "com.streamloft.Error.InvalidURL");
    EXPECT_EQ(host.call("OpenBrowser", OpenParameters("http://x.test/%zz", 100, 100, 30)),
              "com.streamloft.Error.InvalidURL");
    EXPECT_EQ(host.call("OpenBrowser", OpenParameters("http://[::1/", 100, 100, 30)),
              "com.streamloft.Error.InvalidURL");

    const char* invalidArgument = "com.streamloft.Error.InvalidArgument";
    EXPECT_EQ(host.call("OpenBrowser", OpenParameters("https://x.test/", nan, 100, 30)), invalidArgument);
    EXPECT_EQ(host.call("OpenBrowser", OpenParameters("https://x.test/", 100, -1, 30)), invalidArgument);
    EXPECT_EQ(host.call("OpenBrowser", OpenParameters("https://x.test/", 16385, 100, 30)), invalidArgument);
    EXPECT_EQ(host.call("OpenBrowser", OpenParameters("https://x.test/", 100, inf, 30)), invalidArgument);
    EXPECT_EQ(host.call("OpenBrowser", OpenParameters("https://x.test/", 100, 100, 1000.5)), invalidArgument);
    EXPECT_EQ(host.call("OpenBrowser", OpenParameters("https://x.test/", 100, 100, -inf)), invalidArgument);
    EXPECT_EQ(host.call("UpdateBrowserSize", g_variant_new("(idd)", 1, nan, 10.0)), invalidArgument);
    EXPECT_EQ(host.call("UpdateBrowserSize", g_variant_new("(idd)", 1, 10.0, 1e9)), invalidArgument);

    // Wrong D-Bus types are refused by the interface's signatures.
    EXPECT_EQ(host.call("CloseBrowser", g_variant_new("(s)", "1")), "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(host.call("OpenBrowser", g_variant_new("(sdd)", "https://x.test/", 1.0, 2.0)),
              "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(host.call("UpdateBrowserSize", g_variant_new("(iii)", 1, 2, 3)),
              "org.freedesktop.DBus.Error.InvalidArgs");
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("Refused URL 'not a url'"), std::string::npos) << log;

    // Nothing was started for any of them, and the limits themselves pass.
    EXPECT_TRUE(host.didStartIDs().empty());
    auto pending = host.openBrowser("https://x.test/", 16384, 0, 1000);
    ASSERT_TRUE(WaitFor([&] { return host.didStartIDs().size() == 1; }));
    EXPECT_FALSE(TestHost::IsDone(pending));
    EXPECT_EQ(m_service.numberOfConnections(), 1u);
}

TEST_F(ServiceFront, CloseOfUnknownBrowserLogsMissingReply)
{
    TestHost host(m_service.address());
    testing::internal::CaptureStderr();
    EXPECT_EQ(host.call("CloseBrowser", g_variant_new("(i)", 77)), "");
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("-[SLFCefOverlayXPC closeBrowser:] - Did not find a reply for browser 77 "
                       "(<SLFCefCallbackProxy: 0x"),
              std::string::npos)
        << log;
    // The connection is spent now, but still served.
    EXPECT_EQ(host.call("CloseBrowser", g_variant_new("(i)", 77)), "");
}

TEST_F(ServiceFront, EveryConnectionGetsItsOwnObjectAndThread)
{
    std::vector<std::unique_ptr<TestHost>> hosts;
    // Three hosts: each browser creation may take the engine's full
    // creation hand-shake.
    for (int i = 0; i < 3; ++i)
        hosts.push_back(std::make_unique<TestHost>(m_service.address()));
    std::vector<std::thread> threads;
    std::vector<std::shared_ptr<TestHost::PendingReply>> pending(hosts.size());
    for (size_t i = 0; i < hosts.size(); ++i)
        threads.emplace_back([&, i] { pending[i] = hosts[i]->openBrowser("https://x.test/", 320, 240, 30); });
    for (auto& thread : threads)
        thread.join();
    for (auto& host : hosts)
        EXPECT_TRUE(WaitFor([&] { return host->didStartIDs().size() == 1; }));
    EXPECT_EQ(m_service.numberOfConnections(), hosts.size());
    for (auto& entry : pending)
        EXPECT_FALSE(TestHost::IsDone(entry));
}

TEST_F(ServiceFront, DisconnectedHostIsInvalidatedAndItsOpenReplyNeverSent)
{
    auto host = std::make_unique<TestHost>(m_service.address());
    auto pending = host->openBrowser("https://x.test/", 320, 240, 30);
    ASSERT_TRUE(WaitFor([&] { return host->didStartIDs().size() == 1; }));
    ASSERT_EQ(m_service.numberOfConnections(), 1u);
    host->disconnect();
    // The connection's thread ends and the listener lets go of it.
    EXPECT_TRUE(WaitFor([&] { return m_service.numberOfConnections() == 0; }));
    // The open request ends only because the host's own connection closed.
    ASSERT_TRUE(WaitFor([&] { return TestHost::IsDone(pending); }));
    EXPECT_FALSE(pending->browserID.has_value());
    EXPECT_EQ(pending->errorName.rfind("local:", 0), 0u) << pending->errorName;
}

TEST_F(ServiceFront, CallbacksToAGoneHostAreSilent)
{
    TestHost host(m_service.address());
    SLFCefCallbackProxyRef proxy = SLFCefCallbackProxy::Create(host.connection());
    host.disconnect();
    testing::internal::CaptureStderr();
    std::atomic<int> done{0};
    proxy->browserDidStart(1);
    proxy->requestSettingsDataForBrowser(1);
    proxy->browserWillStopAudioStream(1, 2);
    proxy->browserDidReceiveAudioStream(1, 2, g_variant_new_array(G_VARIANT_TYPE("{sv}"), nullptr, 0), [&] { ++done; });
    int fd = dup(STDIN_FILENO);
    proxy->browserReceivedVideoFrame(1, fd, g_variant_new_array(G_VARIANT_TYPE("{sv}"), nullptr, 0), [&] { ++done; });
    close(fd);
    // The completions run (on the main loop) although nothing was delivered.
    EXPECT_TRUE(WaitFor([&] { return done == 2; }));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(ServiceSocket, OneServicePerAddressAndStaleSocketsAreReplaced)
{
    TemporaryFolder folder;
    std::string path = folder.path() + "/sub/s.sock";
    // A stale socket file left by a service that ended.
    g_mkdir_with_parents((folder.path() + "/sub").c_str(), 0700);
    g_file_set_contents(path.c_str(), "stale", -1, nullptr);

    SLFCefServiceSocket first;
    std::string error;
    ASSERT_EQ(SLFCefOpenServiceSocket(path, first, error), SLFCefServiceSocketResult::Ready) << error;
    EXPECT_TRUE(first.createdByUs);
    EXPECT_EQ(first.lockPath, path + ".lock");
    GStatBuf info;
    ASSERT_EQ(g_stat(path.c_str(), &info), 0);
    EXPECT_TRUE(S_ISSOCK(info.st_mode));
    EXPECT_EQ(info.st_mode & 0777, 0600u);

    SLFCefServiceSocket second;
    EXPECT_EQ(SLFCefOpenServiceSocket(path, second, error), SLFCefServiceSocketResult::AlreadyServed);
    // The refused one must not have touched the first one's socket.
    EXPECT_EQ(g_stat(path.c_str(), &info), 0);

    close(first.listenFd);
    SLFCefReleaseServiceSocket(first);
    EXPECT_NE(g_stat(path.c_str(), &info), 0);
    // Free again once the first has gone.
    ASSERT_EQ(SLFCefOpenServiceSocket(path, second, error), SLFCefServiceSocketResult::Ready) << error;
    close(second.listenFd);
    SLFCefReleaseServiceSocket(second);
    g_unlink((path + ".lock").c_str());
    g_rmdir((folder.path() + "/sub").c_str());
}

TEST(ServiceSocket, UnusablePathIsAClearError)
{
    SLFCefServiceSocket socket;
    std::string error;
    EXPECT_EQ(SLFCefOpenServiceSocket("/tmp/" + std::string(200, 'x') + ".sock", socket, error),
              SLFCefServiceSocketResult::Failed);
    EXPECT_NE(error.find("longer than"), std::string::npos) << error;
    EXPECT_EQ(SLFCefOpenServiceSocket("/proc/no/such/folder/s.sock", socket, error),
              SLFCefServiceSocketResult::Failed);
    EXPECT_NE(error.find("cannot create the folder"), std::string::npos) << error;
}

TEST(ServiceSocket, DefaultPathIsInTheRuntimeFolder)
{
    std::string path = SLFCefDefaultSocketPath();
    EXPECT_EQ(path, std::string(g_get_user_runtime_dir()) + "/streamloft/overlay-helper.sock");
}

#if SLF_HAVE_FAKE_ENGINE

namespace {

using SLF_ChromiumEmbeddedFramework::FakeHostCall;

int CloseCalls(int browserID)
{
    auto calls = gEnvironment->port->HostCalls(browserID);
    return static_cast<int>(std::count_if(calls.begin(), calls.end(),
                                          [](const FakeHostCall& call) { return call.kind == FakeHostCall::CloseBrowser; }));
}

} // namespace

TEST_F(ServiceFront, TwoConnectionsOpeningTheSamePageGetTwoBrowsers)
{
    TestHost first(m_service.address());
    TestHost second(m_service.address());
    auto a = first.openBrowser("https://x.test/same", 640, 360, 30);
    auto b = second.openBrowser("https://x.test/same", 640, 360, 30);
    ASSERT_TRUE(WaitFor([&] { return first.didStartIDs().size() == 1 && second.didStartIDs().size() == 1; }));
    int idA = first.didStartIDs()[0];
    int idB = second.didStartIDs()[0];
    EXPECT_GE(idA, 1);
    EXPECT_GE(idB, 1);
    EXPECT_NE(idA, idB);
}

TEST_F(ServiceFront, CloseAnswersTheOpenRequestWithItsIDAfterTheStop)
{
    TestHost host(m_service.address());
    auto pending = host.openBrowser("https://x.test/", 320, 240, 30);
    ASSERT_TRUE(WaitFor([&] { return host.didStartIDs().size() == 1; }));
    int id = host.didStartIDs()[0];
    EXPECT_FALSE(TestHost::IsDone(pending));
    EXPECT_EQ(CloseCalls(id), 0);

    EXPECT_EQ(host.call("CloseBrowser", g_variant_new("(i)", id)), "");
    // The deferred reply was sent before the close request's own reply; the
    // host handles it on its own thread, so it may land a moment later.
    ASSERT_TRUE(WaitFor([&] { return TestHost::IsDone(pending); }));
    ASSERT_TRUE(pending->browserID.has_value()) << pending->errorName;
    EXPECT_EQ(*pending->browserID, id);
    EXPECT_EQ(CloseCalls(id), 1);

    // The connection is spent: its end stops nothing more.
    host.disconnect();
    EXPECT_TRUE(WaitFor([&] { return m_service.numberOfConnections() == 0; }));
    EXPECT_EQ(CloseCalls(id), 1);
}

TEST_F(ServiceFront, AHostThatGoesWithoutClosingStopsItsBrowser)
{
    TestHost host(m_service.address());
    auto pending = host.openBrowser("https://x.test/", 320, 240, 30);
    ASSERT_TRUE(WaitFor([&] { return host.didStartIDs().size() == 1; }));
    int id = host.didStartIDs()[0];
    host.disconnect();
    EXPECT_TRUE(WaitFor([&] { return CloseCalls(id) == 1; }));
    EXPECT_TRUE(WaitFor([&] { return m_service.numberOfConnections() == 0; }));
    ASSERT_TRUE(WaitFor([&] { return TestHost::IsDone(pending); }));
    EXPECT_FALSE(pending->browserID.has_value());
}

TEST_F(ServiceFront, ResizeReachesTheEngineTruncated)
{
    TestHost host(m_service.address());
    auto pending = host.openBrowser("https://x.test/", 320, 240, 30);
    ASSERT_TRUE(WaitFor([&] { return host.didStartIDs().size() == 1; }));
    int id = host.didStartIDs()[0];
    EXPECT_EQ(host.call("UpdateBrowserSize", g_variant_new("(idd)", id, 1279.9, 719.5)), "");
    EXPECT_TRUE(WaitFor([&] { return gEnvironment->port->LastViewRect(id).width == 1279; }));
    EXPECT_EQ(gEnvironment->port->LastViewRect(id).height, 719);
}

#endif
