// The service front in process over the fake engine port, with hosts made
// of plain GDBus. (Its address and lock: tests/client, with the executable.)
#include "service/SLFCefServiceDelegate.h"
#include "service/SLFCefServiceSocket.h"
#include "service/SLFCefXPCListener.h"
#include "tests/engine/FakeEnginePort.h"
#include "tests/support/DBusPeer.h"
#include "tests/support/Wait.h"
#include "tests/windows/TestMainLoop.h"
#include "windows/SLFCefCallbackProxy.h"

#include <gio/gio.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <limits>
#include <cstring>
#include <thread>
#include <utility>

using namespace std::chrono_literals;
using SLF_ChromiumEmbeddedFramework::FakeEnginePort;
using SLF_ChromiumEmbeddedFramework::FakeHostCall;

namespace {

// One main loop (the service's main thread) and one engine for the whole
// binary, as in the service process.
struct ServiceEnvironment : ::testing::Environment {
    void SetUp() override
    {
        port = std::make_unique<FakeEnginePort>();
        port->Install();
        main = std::make_unique<TestMainLoop>();
    }
    void TearDown() override
    {
        main.reset(); // the pump stops with the loop, before the port goes
        port.reset();
    }
    std::unique_ptr<FakeEnginePort> port;
    std::unique_ptr<TestMainLoop> main;
};
auto* gEnvironment = static_cast<ServiceEnvironment*>(::testing::AddGlobalTestEnvironment(new ServiceEnvironment));

int CloseCalls(int browserID)
{
    auto calls = gEnvironment->port->HostCalls(browserID);
    return int(std::count_if(calls.begin(), calls.end(), [](auto& c) { return c.kind == FakeHostCall::CloseBrowser; }));
}

GVariant* OpenParameters(const char* url, double width, double height, double framerate)
{
    return g_variant_new("(sddd@as)", url, width, height, framerate, g_variant_new_strv(nullptr, 0));
}

// A host whose every callback is answered at once.
struct TestHost : DBusPeer {
    explicit TestHost(const std::string& address)
        : DBusPeer(g_dbus_connection_new_for_address_sync(
                       address.c_str(),
                       GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                            G_DBUS_CONNECTION_FLAGS_DELAY_MESSAGE_PROCESSING),
                       nullptr, nullptr, nullptr),
                   [](GDBusMessage* call) { return std::vector {g_dbus_message_new_method_reply(call)}; })
    {
    }
    guint32 request(const char* method, GVariant* parameters)
    {
        return send("/com/streamloft/SLFCefOverlayXPC", "com.streamloft.SLFCefOverlayXPCProtocol", method, parameters);
    }
    // A request answered at once: "" or the error name.
    std::string call(const char* method, GVariant* parameters)
    {
        return waitForReply(request(method, parameters)).value_or("no reply");
    }
    guint32 openBrowser(GVariant* parameters = OpenParameters("https://x.test/", 320, 240, 30))
    {
        return request("OpenBrowser", parameters);
    }
    // The ID of the first BrowserDidStart, or 0.
    int waitForStart()
    {
        auto calls = waitForCalls(1);
        return calls.empty() ? 0 : std::atoi(calls[0].c_str() + strlen("BrowserDidStart ("));
    }
};

class ServiceFront : public ::testing::Test {
protected:
    ServiceFront()
    {
        std::string error;
        if (SLFCefOpenServiceSocket(m_folder + "/s.sock", m_socket, error) != SLFCefServiceSocketResult::Ready)
            throw std::runtime_error(error);
        gEnvironment->main->run([this] {
            m_listener = SLFCefXPCListener::CreateWithListeningSocket(std::exchange(m_socket.listenFd, -1), nullptr);
            m_listener->setDelegate(&m_delegate);
            m_listener->start();
        });
    }
    ~ServiceFront() override
    {
        gEnvironment->main->run([this] { m_listener->stop(), m_listener.reset(); });
        SLFCefReleaseServiceSocket(m_socket);
        std::filesystem::remove_all(m_folder);
    }
    std::string address() const { return "unix:path=" + m_socket.socketPath; }
    size_t connections()
    {
        size_t count = 0;
        return gEnvironment->main->run([&] { count = m_listener->numberOfConnections(); }), count;
    }

    std::string m_folder = [] {
        char pattern[] = "/tmp/slf-service-XXXXXX";
        return std::string(mkdtemp(pattern));
    }();
    SLFCefServiceSocket m_socket;
    SLFCefServiceDelegate m_delegate;
    std::shared_ptr<SLFCefXPCListener> m_listener;
};

} // namespace

TEST_F(ServiceFront, BadInputCreatesNothingAndTheServiceGoesOn)
{
    TestHost host(address());
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    const char* invalidURL = "com.streamloft.Error.InvalidURL";
    const char* invalidArgument = "com.streamloft.Error.InvalidArgument";
    const char* invalidArgs = "org.freedesktop.DBus.Error.InvalidArgs";
    struct {
        const char* method;
        GVariant* parameters;
        const char* error;
    } cases[] = {
        {"OpenBrowser", OpenParameters("not a url", 100, 100, 30), invalidURL},
        {"OpenBrowser", OpenParameters("", 100, 100, 30), invalidURL},
        {"OpenBrowser", OpenParameters("http://x.test/%zz", 100, 100, 30), invalidURL},
        {"OpenBrowser", OpenParameters("http://[::1/", 100, 100, 30), invalidURL},
        {"OpenBrowser", OpenParameters("https://x.test/", nan, 100, 30), invalidArgument},
        {"OpenBrowser", OpenParameters("https://x.test/", 100, -1, 30), invalidArgument},
        {"OpenBrowser", OpenParameters("https://x.test/", 16385, 100, 30), invalidArgument},
        {"OpenBrowser", OpenParameters("https://x.test/", 100, inf, 30), invalidArgument},
        {"OpenBrowser", OpenParameters("https://x.test/", 100, 100, 1000.5), invalidArgument},
        {"OpenBrowser", OpenParameters("https://x.test/", 100, 100, -inf), invalidArgument},
        {"UpdateBrowserSize", g_variant_new("(idd)", 1, nan, 10.0), invalidArgument},
        {"UpdateBrowserSize", g_variant_new("(idd)", 1, 10.0, 1e9), invalidArgument},
        {"CloseBrowser", g_variant_new("(s)", "1"), invalidArgs},
        {"OpenBrowser", g_variant_new("(sdd)", "https://x.test/", 1.0, 2.0), invalidArgs},
        {"UpdateBrowserSize", g_variant_new("(iii)", 1, 2, 3), invalidArgs},
        // Well-formed requests for an unknown browser are answered plainly.
        {"UpdateBrowserSize", g_variant_new("(idd)", 42, 640.0, 360.0), ""},
        {"UpdateBrowserSettingsData", g_variant_new("(i@ay)", 42, g_variant_new_bytestring("{}")), ""},
        {"UpdateBrowserPermittedFileURLStrings", g_variant_new_parsed("(42, ['file:///tmp/a/'])"), ""},
    };
    testing::internal::CaptureStderr();
    for (const auto& c : cases)
        EXPECT_EQ(host.call(c.method, c.parameters), c.error) << c.method << " #" << (&c - cases);
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("Refused URL 'not a url'"), std::string::npos) << log;
    // Nothing was started, and the limits themselves pass.
    EXPECT_TRUE(host.waitForCalls(0).empty());
    auto open = host.openBrowser(OpenParameters("https://x.test/", 16384, 0, 1000));
    EXPECT_GE(host.waitForStart(), 1);
    EXPECT_FALSE(host.reply(open));
    EXPECT_EQ(connections(), 1u);
}

TEST_F(ServiceFront, AHostThatGoesWithoutClosingStopsItsBrowser)
{
    TestHost host(address());
    host.openBrowser();
    int id = host.waitForStart();
    ASSERT_GE(id, 1);
    host.close();
    EXPECT_TRUE(WaitUntil([&] { return CloseCalls(id) == 1; }));
    EXPECT_TRUE(WaitUntil([&] { return connections() == 0; }));
}

TEST_F(ServiceFront, CallbacksToAGoneHostAreSilent)
{
    TestHost host(address());
    SLFCefCallbackProxyRef proxy = SLFCefCallbackProxy::Create(host.connection());
    host.close();
    testing::internal::CaptureStderr();
    std::atomic<int> done {0};
    proxy->browserDidStart(1);
    proxy->requestSettingsDataForBrowser(1);
    proxy->browserWillStopAudioStream(1, 2);
    proxy->browserDidReceiveAudioStream(1, 2, g_variant_new_array(G_VARIANT_TYPE("{sv}"), nullptr, 0), [&] { ++done; });
    int fd = dup(STDIN_FILENO);
    proxy->browserReceivedVideoFrame(1, fd, g_variant_new_array(G_VARIANT_TYPE("{sv}"), nullptr, 0), [&] { ++done; });
    close(fd);
    // The completions run (on the main loop) although nothing was delivered.
    EXPECT_TRUE(WaitUntil([&] { return done == 2; }));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}
