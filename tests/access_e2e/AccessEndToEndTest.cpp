// Access control and the settings resource through the real service, web
// engine and host library: a page in a permitted folder loads a permitted
// image, is refused one outside the folder, reads an empty text file and gets
// its settings from the host. Two browsers side by side: one waits for a
// late settings answer while the other probes the internal scheme for it,
// loads and paints. The pages report what they saw by asking for a refused
// file URL, which the service logs as blocked.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <map>
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
class SettingsHost : public streamloft::BrowserEvents {
 public:
  void BrowserDidStart(streamloft::Browser&, int id) override {
    std::lock_guard<std::mutex> guard(lock_);
    browserID_ = id;
    changed_.notify_all();
  }
  void RequestSettingsDataForBrowser(streamloft::Browser& browser) override {
    WithLock([&] { requestedFor_.push_back(browser.ID()); });
    browser.UpdateSettingsData({kSettings.begin(), kSettings.end()}, [](const std::optional<streamloft::Error>& error) {
      if (error) ADD_FAILURE() << "UpdateSettingsData: " << error->Describe();
    });
  }
  std::shared_ptr<streamloft::BrowserEvents> events() { return {std::shared_ptr<void>(), this}; }
  std::optional<int> WaitForStart() {
    std::unique_lock<std::mutex> guard(lock_);
    changed_.wait_for(guard, 30s, [&] { return browserID_.has_value(); });
    return browserID_;
  }
  std::vector<int> RequestedFor() { return WithLock([&] { return requestedFor_; }); }

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
  streamloft::Error error;
  auto client = streamloft::OverlayClient::Connect(options, &error);
  ASSERT_TRUE(client) << error.message;
  const pid_t service = client->ServiceProcessID();

  const std::string permitted = "file://" + pageDir + "/";
  const std::string url = permitted + "access_policy.html?empty=" + dir + "/empty.txt";
  auto browser = client->OpenBrowser({url, 64, 64, 30, {permitted}}, host.events());
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

  browser.reset();
  client.reset();
  if (service > 0) {
    kill(service, SIGTERM);
    for (int i = 0; i < 200 && kill(service, 0) == 0; ++i) std::this_thread::sleep_for(50ms);
    kill(service, SIGKILL);  // no-op once it has ended
  }
  std::filesystem::remove_all(dir);
}

// Answers the victim's settings only when the test says so, everyone
// else's at once; counts each browser's frames.
class TwoBrowserHost : public streamloft::BrowserEvents {
 public:
  void BrowserDidStart(streamloft::Browser&, int id) override {
    std::lock_guard<std::mutex> guard(lock_);
    started_.push_back(id);
    changed_.notify_all();
  }
  void BrowserReceivedVideoFrame(streamloft::Browser& browser, std::shared_ptr<const streamloft::VideoFrame>) override {
    std::lock_guard<std::mutex> guard(lock_);
    ++frames_[browser.ID()];
  }
  void RequestSettingsDataForBrowser(streamloft::Browser& browser) override {
    std::unique_lock<std::mutex> guard(lock_);
    requestedFor_.push_back(browser.ID());
    changed_.notify_all();
    if (browser.ID() == heldBrowser_) return;  // answered later, by the test
    guard.unlock();
    Answer(browser, kProberSettings);
  }
  void Answer(streamloft::Browser& browser, const std::string& text) {
    browser.UpdateSettingsData({text.begin(), text.end()}, [](const std::optional<streamloft::Error>& error) {
      if (error) ADD_FAILURE() << "UpdateSettingsData: " << error->Describe();
    });
  }
  std::shared_ptr<streamloft::BrowserEvents> events() { return {std::shared_ptr<void>(), this}; }
  // The ID of the next browser that starts (up to 30 s), or -1.
  int WaitForStart(size_t count) {
    std::unique_lock<std::mutex> guard(lock_);
    changed_.wait_for(guard, 30s, [&] { return started_.size() >= count; });
    return started_.size() >= count ? started_[count - 1] : -1;
  }
  bool WaitForRequestFrom(int id) {
    std::unique_lock<std::mutex> guard(lock_);
    return changed_.wait_for(guard, 30s, [&] {
      return std::find(requestedFor_.begin(), requestedFor_.end(), id) != requestedFor_.end();
    });
  }
  void Hold(int id) {
    std::lock_guard<std::mutex> guard(lock_);
    heldBrowser_ = id;
  }
  int Frames(int id) {
    std::lock_guard<std::mutex> guard(lock_);
    return frames_[id];
  }

  static constexpr const char* kProberSettings = "prober-own";

 private:
  std::mutex lock_;
  std::condition_variable changed_;
  std::vector<int> started_;
  std::vector<int> requestedFor_;
  std::map<int, int> frames_;
  int heldBrowser_ = -1;
};

// Waits (up to `limit`) for the log line that contains needle.
std::string WaitForLogLine(const std::string& log, const std::string& needle, std::chrono::seconds limit) {
  std::string line;
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (line.empty() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(100ms);
    line = FindLogLine(ReadFile(log), needle);
  }
  return line;
}

// The victim's settings answer is held back until the prober has reported
// (or a minute has passed): with the host that slow, the prober's page must
// still load, paint, get its own settings and find nothing of the victim's.
TEST(AccessEndToEnd, ABrowserWaitingForSettingsHoldsUpNoNeighbourAndLeaksNothingToIt) {
  char pattern[] = "/tmp/slf-isolation-e2e-XXXXXX";
  ASSERT_NE(mkdtemp(pattern), nullptr);
  const std::string dir = pattern;
  const std::string pageDir = dir + "/page";
  std::filesystem::create_directories(pageDir);
  std::filesystem::create_directories(dir + "/secret");
  for (const char* page : {"isolation_victim.html", "isolation_prober.html"})
    std::filesystem::copy_file(kPages + "/" + page, pageDir + "/" + page);
  std::ofstream(pageDir + "/allowed.svg") << kSvg;
  std::ofstream(dir + "/secret/blocked.svg") << kSvg;

  TwoBrowserHost host;
  streamloft::ConnectOptions options;
  options.socketPath = dir + "/overlay-helper.sock";
  options.helperPath = SLF_TEST_HELPER_PATH;
  options.startTimeout = 20s;
  streamloft::Error error;
  auto client = streamloft::OverlayClient::Connect(options, &error);
  ASSERT_TRUE(client) << error.message;
  const pid_t service = client->ServiceProcessID();
  const std::string log = options.socketPath + ".log";
  const std::string permitted = "file://" + pageDir + "/";
  const std::string secret = "token-of-the-victim-0123456789";

  // The victim's permitted list also holds an empty entry, which permits
  // nothing: its refused image stays refused.
  auto victimBrowser = client->OpenBrowser({permitted + "isolation_victim.html", 64, 64, 30, {"", permitted}},
                                           host.events());
  const int victim = host.WaitForStart(1);
  ASSERT_GT(victim, 0);
  host.Hold(victim);
  ASSERT_TRUE(host.WaitForRequestFrom(victim)) << ReadFile(log);

  auto proberBrowser = client->OpenBrowser({permitted + "isolation_prober.html", 64, 64, 30, {permitted}}, host.events());
  const int prober = host.WaitForStart(2);
  ASSERT_GT(prober, 0);
  const std::string proberReport = WaitForLogLine(log, "Blocked URL file:///slf-prober-report/", 60s);
  const int proberFramesWhileVictimWaited = host.Frames(prober);
  host.Answer(*victimBrowser, secret);
  const std::string victimReport = WaitForLogLine(log, "Blocked URL file:///slf-victim-report/", 30s);
  const std::string text = ReadFile(log);

  // leaks / own settings / permitted images loaded / tries
  EXPECT_NE(proberReport.find("file:///slf-prober-report/0/" + std::string(TwoBrowserHost::kProberSettings) + "/5/"),
            std::string::npos)
      << "the prober did not report in time, or saw something: " << proberReport << "\n" << text;
  EXPECT_GT(proberFramesWhileVictimWaited, 0);
  // The pages' own loads of the scheme stop in their web process.
  EXPECT_NE(text.find("loads the internal URL slfcef-resource:"), std::string::npos) << text;
  // settings / permitted image / refused image
  EXPECT_NE(victimReport.find("file:///slf-victim-report/" + secret + "/loaded/error "), std::string::npos)
      << victimReport << "\n" << text;

  proberBrowser.reset();
  victimBrowser.reset();
  client.reset();
  if (service > 0) {
    kill(service, SIGTERM);
    for (int i = 0; i < 200 && kill(service, 0) == 0; ++i) std::this_thread::sleep_for(50ms);
    kill(service, SIGKILL);  // no-op once it has ended
  }
  std::filesystem::remove_all(dir);
}

}  // namespace
