// The real service executable, with the host library and the capture tool,
// on a socket in a temporary folder.
#include <glib.h>
#include <sys/stat.h>

#include "tests/support/RecordingCallbacks.h"
#include "tests/support/RunProgram.h"
#include "tests/support/ServiceProcess.h"

using streamloft::OverlayClient;
using namespace slftest;

namespace {

const std::string kCapture = SLF_TEST_CAPTURE_PATH;

// A tool other than ours sees the request interface on the socket.
void ExpectServed(const std::string& socket)
{
    ProcessResult r =
        RunProgram({"gdbus", "introspect", "--address", "unix:path=" + socket, "--dest",
                    "com.streamloft.SLFCefOverlayHelper", "--object-path", "/com/streamloft/SLFCefOverlayXPC"});
    EXPECT_EQ(r.exit, 0) << r.err;
    EXPECT_NE(r.out.find("interface com.streamloft.SLFCefOverlayXPCProtocol"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("OpenBrowser("), std::string::npos) << r.out;
}

class OverlayServiceTest : public ServiceTest {
protected:
    std::unique_ptr<OverlayClient> Connect(RecordingCallbacks& host)
    {
        return ServiceTest::Connect(host.Options(Options()));
    }
    const std::string pageURL_ = PageURL("client_overlay.html");
};

// Two hosts share the service the first one started. (Their browsers, and
// closing them: BrowserHandleTest, ServiceLifetimeTest.)
TEST_F(OverlayServiceTest, StartedOnDemandOnlyOnceForTwoHosts)
{
    std::ofstream(socket_) << "stale"; // left by a service that ended: replaced
    RecordingCallbacks first, second;
    auto a = Connect(first);
    auto b = Connect(second);
    ASSERT_TRUE(a && b);
    struct stat info;
    ASSERT_EQ(stat(socket_.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & (S_IFMT | 0777), S_IFSOCK | 0600u);
    EXPECT_TRUE(a->StartedService());
    EXPECT_FALSE(b->StartedService());
    EXPECT_GT(a->ServiceProcessID(), 0);
    EXPECT_EQ(a->ServiceProcessID(), b->ServiceProcessID());
    // A second service exits quietly; the first serves on, also other tools,
    // and its orderly end removes the socket.
    ProcessResult again = RunProgram({kHelper, "--listen=" + socket_});
    EXPECT_EQ(again.exit, 0);
    EXPECT_EQ(again.out + again.err, "");
    ExpectServed(socket_);
    StopProcess(a->ServiceProcessID());
    EXPECT_FALSE(std::filesystem::exists(socket_));
}

TEST_F(OverlayServiceTest, ServiceCommandLineAndUnusableAddresses)
{
    struct {
        std::string argument;
        int exit;
        const char* output; // expected in stdout when it exits with 0, else in stderr
    } cases[] = {{"--help", 0, "--listen"},
                 {"--help", 0, "--log"},
                 {"--help", 0, "--idle-exit"},
                 {"--idle-exit=soon", 2, "--idle-exit"},
                 {"--idle-exit=-5", 2, "--idle-exit"},
                 {"--version", 0, "StreamloftCEFOverlayHelper"},
                 {"--bogus", 2, "--bogus"},
                 {"stray", 2, "not expected: stray"},
                 {"--listen=/proc/no/such/folder/s.sock", 1, "cannot create the folder"},
                 {"--listen=/tmp/" + std::string(200, 'x') + ".sock", 1, "longer than"}};
    for (const auto& c : cases) {
        ProcessResult r = RunProgram({kHelper, c.argument});
        EXPECT_EQ(r.exit, c.exit) << c.argument;
        EXPECT_NE((c.exit == 0 ? r.out : r.err).find(c.output), std::string::npos)
            << c.argument << ": " << r.out << r.err;
    }
}

TEST_F(OverlayServiceTest, CaptureToolReportsTheBrowserOfAFreshService)
{
    // 3 s: a fresh engine's first frame can take over a second on a busy machine.
    ProcessResult r = RunProgram({"env", "SLF_OVERLAY_HELPER=" + kHelper, kCapture, "--url", pageURL_, "--seconds", "3",
                                  "--socket", socket_, "--size", "160x90", "--out", dir_ + "/frames"});
    auto at = r.out.find("(process ");
    if (at != std::string::npos)
        services_.push_back(std::atoi(r.out.c_str() + at + 9));
    EXPECT_EQ(r.exit, 0) << r.out << r.err;
    EXPECT_NE(r.out.find("service: started on demand"), std::string::npos) << r.out;
    auto idAt = r.out.find("browser ID: ");
    ASSERT_NE(idAt, std::string::npos) << r.out;
    EXPECT_GT(std::atoi(r.out.c_str() + idAt + 12), 0) << r.out;
    EXPECT_NE(r.out.find("frames received: "), std::string::npos) << r.out;
}

// (A service that cannot be started: BrowserHandleTest.)
TEST_F(OverlayServiceTest, CaptureToolFailsClearlyWhenTheServiceCannotBeReached)
{
    ProcessResult noStart =
        RunProgram({kCapture, "--url", pageURL_, "--seconds", "1", "--socket", socket_, "--no-start"});
    EXPECT_GT(noStart.exit, 0);
    EXPECT_NE(noStart.err.find("cannot reach the overlay service at " + socket_), std::string::npos) << noStart.err;
    EXPECT_FALSE(std::filesystem::exists(socket_));
}

} // namespace
