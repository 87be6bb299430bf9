// Access control and the settings resource through the real service, web
// engine and host library: a page in a permitted folder loads a permitted
// image, is refused one outside the folder, reads an empty text file and gets
// its settings from the host. The page reports what it saw by asking for a
// refused file URL, which the service logs as blocked.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>

#include "streamloft/OverlayClient.h"

using namespace std::chrono_literals;

namespace {

const std::string kPages = SLF_TEST_PAGES_DIR;
const std::string kSettings = "hello-from-host";
const std::string kSvg = "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"4\" height=\"4\"><rect width=\"4\" "
                         "height=\"4\" fill=\"blue\"/></svg>";

// Answers every settings request with kSettings.
class SettingsHost : public streamloft::OverlayCallbacks {
 public:
  void BrowserDidStart(int id) override {
    std::lock_guard<std::mutex> guard(lock_);
    browserID_ = id;
    changed_.notify_all();
  }
  void RequestSettingsDataForBrowser(int id) override {
    WithLock([&] { requestedFor_.push_back(id); });
    std::string error;
    streamloft::OverlayClient* client = client_.load();
    if (client && !client->UpdateBrowserSettingsData(id, {kSettings.begin(), kSettings.end()}, &error))
      ADD_FAILURE() << "UpdateBrowserSettingsData: " << error;
  }
  std::optional<int> WaitForStart() {
    std::unique_lock<std::mutex> guard(lock_);
    changed_.wait_for(guard, 30s, [&] { return browserID_.has_value(); });
    return browserID_;
  }
  std::vector<int> RequestedFor() { return WithLock([&] { return requestedFor_; }); }

  std::atomic<streamloft::OverlayClient*> client_{nullptr};

 private:
  template <typename Fn>
  auto WithLock(Fn fn) -> decltype(fn()) {
    std::lock_guard<std::mutex> guard(lock_);
    return fn();
  }
  std::mutex lock_;
  std::condition_variable changed_;
  std::optional<int> browserID_;
  std::vector<int> requestedFor_;
};

std::string ReadFile(const std::string& path) {
  std::stringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}


// The first log line that contains `needle`, or "".
std::string FindLogLine(const std::string& log, const std::string& needle) {
  const size_t at = log.find(needle);
  if (at == std::string::npos) return "";
  const size_t begin = log.rfind('\n', at) + 1;  // npos + 1 == 0
  return log.substr(begin, log.find('\n', at) - begin);
}

TEST(AccessEndToEnd, PermittedFilesLoadOthersAreRefusedAndSettingsComeFromTheHost) {
  char pattern[] = "/tmp/slf-access-e2e-XXXXXX";
  ASSERT_NE(mkdtemp(pattern), nullptr);
  const std::string dir = pattern;
  const std::string pageDir = dir + "/page";
  std::filesystem::create_directories(pageDir);
  std::filesystem::create_directories(dir + "/secret");
  std::filesystem::copy_file(kPages + "/access_policy.html", pageDir + "/access_policy.html");
  std::ofstream(pageDir + "/allowed.svg") << kSvg;
  std::ofstream(dir + "/secret/blocked.svg") << kSvg;
  std::ofstream(dir + "/empty.txt").flush();

  SettingsHost host;
  streamloft::ConnectOptions options;
  options.socketPath = dir + "/overlay-helper.sock";
  options.helperPath = SLF_TEST_HELPER_PATH;
  options.startTimeout = 20s;
  std::string error;
  auto client = streamloft::OverlayClient::Connect(host, options, &error);
  ASSERT_TRUE(client) << error;
  host.client_ = client.get();
  const pid_t service = client->ServiceProcessID();

  const std::string permitted = "file://" + pageDir + "/";
  const std::string url = permitted + "access_policy.html?empty=" + dir + "/empty.txt";
  ASSERT_TRUE(client->OpenBrowser(url, 64, 64, 30, {permitted}, &error)) << error;
  const auto id = host.WaitForStart();
  ASSERT_GT(id.value_or(0), 0) << "no browser started";

  const std::string log = options.socketPath + ".log";
  std::string report;
  const auto deadline = std::chrono::steady_clock::now() + 60s;
  while (report.empty() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(100ms);
    report = FindLogLine(ReadFile(log), "Blocked URL file:///slf-access-report/");
  }
  const std::string text = ReadFile(log);
  // settings / text request status-body length / permitted image / refused image
  EXPECT_NE(report.find("file:///slf-access-report/" + kSettings + "/200-0/loaded/error "), std::string::npos)
      << report << "\n" << text;
  // A refusal names the URL and the whole permitted list.
  EXPECT_NE(FindLogLine(text, "Blocked URL file://" + dir + "/secret/blocked.svg [("), "") << text;
  EXPECT_NE(text.find("\"" + permitted + "\""), std::string::npos);
  EXPECT_EQ(FindLogLine(text, "allowed.svg"), "");
  EXPECT_EQ(host.RequestedFor(), std::vector<int>{*id});

  client->CloseBrowser(*id);
  host.client_ = nullptr;
  client.reset();
  if (service > 0) {
    kill(service, SIGTERM);
    for (int i = 0; i < 200 && kill(service, 0) == 0; ++i) std::this_thread::sleep_for(50ms);
    kill(service, SIGKILL);  // no-op once it has ended
  }
  std::filesystem::remove_all(dir);
}

}  // namespace
