// The host library and the capture tool with the real service: started on
// demand by the library on a socket in a temporary folder, serving several
// hosts, surviving a host that is killed, refusing a second instance.
#include <fcntl.h>
#include <glib.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>

#include "streamloft/OverlayClient.h"

using namespace std::chrono_literals;
using streamloft::OverlayClient;

namespace {

const std::string kHelper = SLF_TEST_HELPER_PATH;
const std::string kCapture = SLF_TEST_CAPTURE_PATH;
const std::string kPages = SLF_TEST_PAGES_DIR;

class Host : public streamloft::OverlayCallbacks {
 public:
  void BrowserDidStart(int id) override {
    std::lock_guard<std::mutex> guard(lock_);
    started_.push_back(id);
    changed_.notify_all();
  }
  void OpenBrowserDidReply(int id) override {
    std::lock_guard<std::mutex> guard(lock_);
    replies_.push_back(id);
    changed_.notify_all();
  }
  void RequestSettingsDataForBrowser(int) override {}
  void ClientDidReportProblem(const std::string& message) override {
    std::lock_guard<std::mutex> guard(lock_);
    problems_.push_back(message);
  }

  // The ID of the next BrowserDidStart; nullopt when none came in time.
  std::optional<int> WaitForStart(size_t n = 1, std::chrono::milliseconds timeout = 30s) {
    std::unique_lock<std::mutex> guard(lock_);
    if (!changed_.wait_for(guard, timeout, [&] { return started_.size() >= n; })) return std::nullopt;
    return started_[n - 1];
  }
  std::optional<int> WaitForReply(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> guard(lock_);
    if (!changed_.wait_for(guard, timeout, [&] { return !replies_.empty(); })) return std::nullopt;
    return replies_[0];
  }
  std::vector<std::string> Problems() {
    std::lock_guard<std::mutex> guard(lock_);
    return problems_;
  }

 private:
  std::mutex lock_;
  std::condition_variable changed_;
  std::vector<int> started_;
  std::vector<int> replies_;
  std::vector<std::string> problems_;
};

struct ProcessResult {
  int status = -1;
  std::string out, err;
};

// Runs a program to its end with `extraEnv` added to the environment.
ProcessResult RunProgram(const std::vector<std::string>& args, const std::vector<std::string>& extraEnv = {}) {
  std::vector<char*> argv;
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  gchar** env = g_get_environ();
  for (const auto& e : extraEnv) {
    auto eq = e.find('=');
    env = g_environ_setenv(env, e.substr(0, eq).c_str(), e.substr(eq + 1).c_str(), TRUE);
  }
  ProcessResult result;
  gchar *out = nullptr, *err = nullptr;
  GError* error = nullptr;
  if (!g_spawn_sync(nullptr, argv.data(), env, G_SPAWN_DEFAULT, nullptr, nullptr, &out, &err, &result.status, &error)) {
    result.err = error->message;
    g_error_free(error);
  }
  if (out) result.out = out;
  if (err) result.err += err;
  g_free(out);
  g_free(err);
  g_strfreev(env);
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

class OverlayServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/slf-service-test-XXXXXX";
    dir_ = mkdtemp(pattern);
    socket_ = dir_ + "/overlay-helper.sock";
    pageURL_ = "file://" + kPages + "/client_overlay.html";
  }
  void TearDown() override {
    for (pid_t pid : services_) {
      kill(pid, SIGTERM);
      auto deadline = std::chrono::steady_clock::now() + 10s;
      while (!ProcessIsGone(pid) && std::chrono::steady_clock::now() < deadline) std::this_thread::sleep_for(20ms);
      if (!ProcessIsGone(pid)) kill(pid, SIGKILL);
    }
    if (HasFailure()) {
      std::ifstream log(socket_ + ".log");
      std::stringstream text;
      text << log.rdbuf();
      printf("---- service log ----\n%s---------------------\n", text.str().c_str());
    }
    std::filesystem::remove_all(dir_);
  }

  std::unique_ptr<OverlayClient> Connect(Host& host, std::string* error = nullptr) {
    streamloft::ConnectOptions options;
    options.socketPath = socket_;
    options.helperPath = kHelper;
    options.startTimeout = 20s;
    std::string message;
    auto client = OverlayClient::Connect(host, options, &message);
    if (error) *error = message;
    EXPECT_TRUE(client) << message;
    if (client && client->StartedService() && client->ServiceProcessID() > 0)
      services_.push_back(client->ServiceProcessID());
    return client;
  }

  std::vector<std::string> Permitted() const { return {"file://" + kPages + "/"}; }

  std::string dir_, socket_, pageURL_;
  std::vector<pid_t> services_;
};

TEST_F(OverlayServiceTest, StartedOnDemandOpensAndCloseAnswersTheOpenRequest) {
  Host host;
  auto client = Connect(host);
  ASSERT_TRUE(client);
  EXPECT_TRUE(client->StartedService());
  EXPECT_GT(client->ServiceProcessID(), 0);
  EXPECT_TRUE(std::filesystem::exists(socket_));

  ASSERT_TRUE(client->OpenBrowser(pageURL_, 320, 240, 30, Permitted()));
  auto id = host.WaitForStart();
  ASSERT_TRUE(id.has_value()) << "no BrowserDidStart";
  EXPECT_TRUE(*id == -1 || *id > 0) << *id;
  std::string error;
  ASSERT_TRUE(client->CloseBrowser(*id, &error)) << error;
  if (*id > 0) {
    EXPECT_EQ(host.WaitForReply(10s), id);
  } else {
    // Without an engine no browser was registered, so the close finds no
    // kept reply to answer.
    EXPECT_FALSE(host.WaitForReply(500ms).has_value());
  }
  EXPECT_TRUE(host.Problems().empty());
}

TEST_F(OverlayServiceTest, TwoHostsShareOneServiceWithBrowsersOfTheirOwn) {
  Host first, second;
  auto a = Connect(first);
  auto b = Connect(second);
  ASSERT_TRUE(a && b);
  EXPECT_TRUE(a->StartedService());
  EXPECT_FALSE(b->StartedService());
  EXPECT_EQ(a->ServiceProcessID(), b->ServiceProcessID());
  ASSERT_TRUE(a->OpenBrowser(pageURL_, 200, 100, 10, Permitted()));
  ASSERT_TRUE(b->OpenBrowser(pageURL_, 200, 100, 10, Permitted()));
  auto idA = first.WaitForStart();
  auto idB = second.WaitForStart();
  ASSERT_TRUE(idA && idB);
  if (*idA > 0 || *idB > 0) {
    EXPECT_NE(*idA, *idB);
  }
}

TEST_F(OverlayServiceTest, AHostKilledWithoutClosingLeavesTheServiceServingOthers) {
  Host survivor;
  auto client = Connect(survivor);
  ASSERT_TRUE(client);

  // A second host process (this test program again, see
  // OverlayServiceChild below) connects, opens a browser and ends at once
  // with _exit: no close, no disconnect.
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    setenv("SLF_TEST_CHILD_SOCKET", socket_.c_str(), 1);
    execl("/proc/self/exe", "client_service_test", "--gtest_filter=OverlayServiceChild.*",
          static_cast<char*>(nullptr));
    _exit(127);
  }
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(WIFEXITED(status)) << status;
  ASSERT_EQ(WEXITSTATUS(status), 0) << "the child host did not get its browser started";

  ASSERT_TRUE(client->OpenBrowser(pageURL_, 160, 90, 10, Permitted()));
  EXPECT_TRUE(survivor.WaitForStart().has_value());
  Host late;
  auto another = Connect(late);
  ASSERT_TRUE(another);
  EXPECT_EQ(another->ServiceProcessID(), client->ServiceProcessID());
  ASSERT_TRUE(another->OpenBrowser(pageURL_, 160, 90, 10, Permitted()));
  EXPECT_TRUE(late.WaitForStart().has_value());
  EXPECT_FALSE(ProcessIsGone(client->ServiceProcessID()));
}

TEST_F(OverlayServiceTest, ASecondServiceOnTheSameSocketLeavesQuietly) {
  Host host;
  auto client = Connect(host);
  ASSERT_TRUE(client);
  ProcessResult second = RunProgram({kHelper, "--listen=" + socket_});
  ASSERT_TRUE(WIFEXITED(second.status)) << second.status;
  EXPECT_EQ(WEXITSTATUS(second.status), 0) << second.err;
  // The first one still answers.
  Host other;
  auto again = Connect(other);
  ASSERT_TRUE(again);
  EXPECT_FALSE(again->StartedService());
  EXPECT_EQ(again->ServiceProcessID(), client->ServiceProcessID());
}

TEST_F(OverlayServiceTest, CaptureToolReportsTheBrowserOfAFreshService) {
  ProcessResult r = RunProgram({kCapture, "--url", pageURL_, "--seconds", "1", "--socket", socket_, "--size", "160x90",
                         "--out", dir_ + "/frames"},
                        {"SLF_OVERLAY_HELPER=" + kHelper});
  // The tool started the service: find it to end it after the test.
  auto at = r.out.find("(process ");
  if (at != std::string::npos) services_.push_back(std::atoi(r.out.c_str() + at + 9));
  ASSERT_TRUE(WIFEXITED(r.status)) << r.out << r.err;
  EXPECT_EQ(WEXITSTATUS(r.status), 0) << r.out << r.err;
  EXPECT_NE(r.out.find("service: started on demand"), std::string::npos) << r.out;
  auto idAt = r.out.find("browser ID: ");
  ASSERT_NE(idAt, std::string::npos) << r.out;
  EXPECT_GT(std::atoi(r.out.c_str() + idAt + 12), 0) << r.out;
  EXPECT_NE(r.out.find("frames received: "), std::string::npos) << r.out;
}

TEST_F(OverlayServiceTest, CaptureToolFailsClearlyWhenTheServiceCannotBeReached) {
  ProcessResult noStart = RunProgram({kCapture, "--url", pageURL_, "--seconds", "1", "--socket", socket_, "--no-start"});
  ASSERT_TRUE(WIFEXITED(noStart.status));
  EXPECT_NE(WEXITSTATUS(noStart.status), 0);
  EXPECT_NE(noStart.err.find("cannot reach the overlay service at " + socket_), std::string::npos) << noStart.err;

  ProcessResult bogus = RunProgram({kCapture, "--url", pageURL_, "--seconds", "1", "--socket", socket_},
                            {"SLF_OVERLAY_HELPER=" + dir_ + "/no-such-helper"});
  ASSERT_TRUE(WIFEXITED(bogus.status));
  EXPECT_NE(WEXITSTATUS(bogus.status), 0);
  EXPECT_NE(bogus.err.find("cannot start the overlay service '" + dir_ + "/no-such-helper'"), std::string::npos)
      << bogus.err;
  EXPECT_FALSE(std::filesystem::exists(socket_));
}

// The body of the child host above; skipped when run on its own.
TEST(OverlayServiceChild, ConnectOpenAndVanish) {
  const char* socket = getenv("SLF_TEST_CHILD_SOCKET");
  if (!socket) GTEST_SKIP() << "runs only as the child of AHostKilledWithoutClosingLeavesTheServiceServingOthers";
  Host host;
  streamloft::ConnectOptions options;
  options.socketPath = socket;
  options.startOnDemand = false;
  std::string error;
  auto client = OverlayClient::Connect(host, options, &error);
  if (!client) _exit(2);
  if (!client->OpenBrowser("file://" + kPages + "/client_overlay.html", 160, 90, 10, {"file://" + kPages + "/"}))
    _exit(3);
  if (!host.WaitForStart()) _exit(4);
  _exit(0);
}

}  // namespace
