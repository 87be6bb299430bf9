// The real service executable, with the host library and the capture tool,
// on a socket in a temporary folder.
#include <glib.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <thread>

#include "streamloft/OverlayClient.h"
#include "tests/client/RecordingCallbacks.h"

using namespace std::chrono_literals;
using streamloft::OverlayClient;

namespace {

const std::string kHelper = SLF_TEST_HELPER_PATH;
const std::string kCapture = SLF_TEST_CAPTURE_PATH;
const std::string kPages = SLF_TEST_PAGES_DIR;

// The ID in an event line ("start 7"), or 0 when none came.
int Id(const std::string& event) { return event.empty() ? 0 : std::atoi(event.c_str() + event.rfind(' ') + 1); }

struct ProcessResult {
  int exit = -1;  // -1 when it did not exit normally
  std::string out, err;
};

// Runs a program (found on PATH; "env" sets variables for one) to its end.
ProcessResult RunProgram(const std::vector<std::string>& args) {
  std::vector<char*> argv;
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  ProcessResult result;
  gchar *out = nullptr, *err = nullptr;
  int status = 0;
  if (g_spawn_sync(nullptr, argv.data(), nullptr, G_SPAWN_SEARCH_PATH, nullptr, nullptr, &out, &err, &status, nullptr))
    result = {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out, err};
  g_free(out);
  g_free(err);
  return result;
}

bool ProcessIsGone(pid_t pid) {
  if (kill(pid, 0) != 0) return errno == ESRCH;
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  std::getline(stat, line);
  auto close = line.rfind(')');
  return close != std::string::npos && close + 2 < line.size() && line[close + 2] == 'Z';
}

// SIGTERM, then SIGKILL if it has not ended within 10 s.
void Stop(pid_t pid) {
  kill(pid, SIGTERM);
  for (auto deadline = std::chrono::steady_clock::now() + 10s; !ProcessIsGone(pid);) {
    if (std::chrono::steady_clock::now() > deadline) kill(pid, SIGKILL);
    std::this_thread::sleep_for(20ms);
  }
}

// A tool other than ours sees the request interface on the socket.
void ExpectServed(const std::string& socket) {
  ProcessResult r = RunProgram({"gdbus", "introspect", "--address", "unix:path=" + socket, "--dest",
                                "com.streamloft.SLFCefOverlayHelper", "--object-path",
                                "/com/streamloft/SLFCefOverlayXPC"});
  EXPECT_EQ(r.exit, 0) << r.err;
  EXPECT_NE(r.out.find("interface com.streamloft.SLFCefOverlayXPCProtocol"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("OpenBrowser("), std::string::npos) << r.out;
}

class OverlayServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/slf-service-test-XXXXXX";
    dir_ = mkdtemp(pattern);
    socket_ = dir_ + "/overlay-helper.sock";
    pageURL_ = "file://" + kPages + "/client_overlay.html";
  }
  void TearDown() override {
    for (pid_t pid : services_) Stop(pid);
    std::ifstream log(socket_ + ".log");
    if (HasFailure() && log) std::cout << "---- service log ----\n" << log.rdbuf() << "\n";
    std::filesystem::remove_all(dir_);
  }

  std::unique_ptr<OverlayClient> Connect(RecordingCallbacks& host) {
    streamloft::ConnectOptions options;
    options.socketPath = socket_;
    options.helperPath = kHelper;
    options.startTimeout = 20s;
    streamloft::Error error;
    auto client = OverlayClient::Connect(host.Options(options), &error);
    EXPECT_TRUE(client) << error.message;
    if (client && client->StartedService() && client->ServiceProcessID() > 0)
      services_.push_back(client->ServiceProcessID());
    return client;
  }

  streamloft::BrowserOptions Page(double width, double height, double fps) const {
    return {pageURL_, width, height, fps, {"file://" + kPages + "/"}};
  }

  std::string dir_, socket_, pageURL_;
  std::vector<pid_t> services_;
};

TEST_F(OverlayServiceTest, StartedOnDemandServesTwoHostsWithBrowsersOfTheirOwnAndOnlyOnce) {
  std::ofstream(socket_) << "stale";  // left by a service that ended: replaced
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
  auto browserA = a->OpenBrowser(Page(320, 240, 30), first.events());
  auto browserB = b->OpenBrowser(Page(320, 240, 30), second.events());
  int idA = Id(first.WaitFor("start ", 30s)), idB = Id(second.WaitFor("start ", 30s));
  ASSERT_TRUE(idA > 0 && idB > 0 && idA != idB) << idA << " " << idB;
  // Closing answers the opener's request with its ID, and only that one.
  browserA->Close(first.Done("close"));
  EXPECT_EQ(first.WaitFor("close ", 10s), "close ok");
  EXPECT_EQ(Id(first.WaitFor("closed", 10s)), idA);
  EXPECT_EQ(second.WaitFor("closed", 500ms), "");
  EXPECT_EQ(first.WaitFor("problem", 0ms), "");

  // A second service exits quietly; the first serves on, also other tools,
  // and its orderly end removes the socket.
  ProcessResult again = RunProgram({kHelper, "--listen=" + socket_});
  EXPECT_EQ(again.exit, 0);
  EXPECT_EQ(again.out + again.err, "");
  ExpectServed(socket_);
  Stop(a->ServiceProcessID());
  EXPECT_FALSE(std::filesystem::exists(socket_));
}

TEST_F(OverlayServiceTest, ServiceCommandLineAndUnusableAddresses) {
  struct {
    std::string argument;
    int exit;
    const char* output;  // expected in stdout when it exits with 0, else in stderr
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
    EXPECT_NE((c.exit == 0 ? r.out : r.err).find(c.output), std::string::npos) << c.argument << ": " << r.out << r.err;
  }
}

TEST_F(OverlayServiceTest, ServesASocketHandedOverBySocketActivation) {
  int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  strncpy(address.sun_path, socket_.c_str(), sizeof address.sun_path - 1);
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(fd, 8), 0);
  pid_t service = fork();
  if (service == 0) {  // handed over as systemd does
    dup2(fd, 3);
    setenv("LISTEN_FDS", "1", 1);
    setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
    execl(kHelper.c_str(), kHelper.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  close(fd);
  ExpectServed(socket_);
  kill(service, SIGTERM);
  int status = 0;
  waitpid(service, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_TRUE(std::filesystem::exists(socket_)) << "the socket belongs to systemd: it stays";
}

TEST_F(OverlayServiceTest, AHostKilledWithoutClosingLeavesTheServiceServingOthers) {
  RecordingCallbacks survivor;
  auto client = Connect(survivor);
  ASSERT_TRUE(client);
  // A second host process (this program again, as OverlayServiceChild)
  // connects, opens a browser and ends with _exit: no close, no disconnect.
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    setenv("SLF_TEST_CHILD_SOCKET", socket_.c_str(), 1);
    execl("/proc/self/exe", "client_service_test", "--gtest_filter=OverlayServiceChild.*", static_cast<char*>(nullptr));
    _exit(127);
  }
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the child host got no browser started: " << status;

  auto browser = client->OpenBrowser(Page(160, 90, 10), survivor.events());
  EXPECT_NE(survivor.WaitFor("start ", 30s), "");
  RecordingCallbacks late;
  auto another = Connect(late);
  ASSERT_TRUE(another);
  EXPECT_EQ(another->ServiceProcessID(), client->ServiceProcessID());
  auto lateBrowser = another->OpenBrowser(Page(160, 90, 10), late.events());
  EXPECT_NE(late.WaitFor("start ", 30s), "");
}

TEST_F(OverlayServiceTest, CaptureToolReportsTheBrowserOfAFreshService) {
  // 3 s: a fresh engine's first frame can take over a second on a busy machine.
  ProcessResult r = RunProgram({"env", "SLF_OVERLAY_HELPER=" + kHelper, kCapture, "--url", pageURL_, "--seconds", "3",
                                "--socket", socket_, "--size", "160x90", "--out", dir_ + "/frames"});
  auto at = r.out.find("(process ");
  if (at != std::string::npos) services_.push_back(std::atoi(r.out.c_str() + at + 9));
  EXPECT_EQ(r.exit, 0) << r.out << r.err;
  EXPECT_NE(r.out.find("service: started on demand"), std::string::npos) << r.out;
  auto idAt = r.out.find("browser ID: ");
  ASSERT_NE(idAt, std::string::npos) << r.out;
  EXPECT_GT(std::atoi(r.out.c_str() + idAt + 12), 0) << r.out;
  EXPECT_NE(r.out.find("frames received: "), std::string::npos) << r.out;
}

TEST_F(OverlayServiceTest, CaptureToolFailsClearlyWhenTheServiceCannotBeReached) {
  ProcessResult noStart =
      RunProgram({kCapture, "--url", pageURL_, "--seconds", "1", "--socket", socket_, "--no-start"});
  EXPECT_GT(noStart.exit, 0);
  EXPECT_NE(noStart.err.find("cannot reach the overlay service at " + socket_), std::string::npos) << noStart.err;
  ProcessResult bogus = RunProgram(
      {"env", "SLF_OVERLAY_HELPER=" + dir_ + "/no-such-helper", kCapture, "--url", pageURL_, "--socket", socket_});
  EXPECT_GT(bogus.exit, 0);
  EXPECT_NE(bogus.err.find("cannot start the overlay service '" + dir_ + "/no-such-helper'"), std::string::npos)
      << bogus.err;
  EXPECT_FALSE(std::filesystem::exists(socket_));
}

// The body of the child host above; skipped when run on its own.
TEST(OverlayServiceChild, ConnectOpenAndVanish) {
  const char* socket = getenv("SLF_TEST_CHILD_SOCKET");
  if (!socket) GTEST_SKIP() << "runs only as the child of AHostKilledWithoutClosingLeavesTheServiceServingOthers";
  RecordingCallbacks host;
  streamloft::ConnectOptions options;
  options.socketPath = socket;
  options.startOnDemand = false;
  auto client = OverlayClient::Connect(options);
  if (!client) _exit(2);
  auto browser = client->OpenBrowser({"file://" + kPages + "/client_overlay.html", 160, 90, 10, {"file://" + kPages + "/"}},
                                     host.events());
  _exit(host.WaitFor("start ", 30s).empty() ? 4 : 0);
}

}  // namespace
