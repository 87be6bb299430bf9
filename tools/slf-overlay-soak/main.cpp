// slf-overlay-soak: starts the service and keeps it busy for minutes the way
// hosts and pages do over hours, then says whether it held its resources.
//
// Load: three hosts ("anchors"), each with one browser on an animated page
// that plays a tone and asks for its settings every two seconds; the anchors
// answer the settings requests and resize their browsers in turn. Meanwhile
// a host connects every few seconds and goes again: in turn it closes the
// browser it opened, leaves without closing it while it holds frames, or
// never opens one. Every minute the oldest web process of the service is
// killed (SIGKILL), which is an anchor's as long as anchors keep theirs.
//
// Readings: the service's resident memory, open descriptors, threads,
// shared-memory segments (/dev/shm files it maps) and surfaces (memfds it
// maps), once after the warm-up and once at the end, both times with only
// the anchors connected; frames, audio buffers and settings answers per
// anchor browser; web processes killed, browsers that went silent (fewer
// than 10 frames in 5 s) and that came back.
//
// Exit status: 0 when the service lived, its memory grew by at most 5 %,
// descriptors, threads and segments did not grow and every anchor browser
// delivered frames at the end; 1 otherwise; 2 for a wrong command line.
#include <dirent.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bench/support/ProcessTree.h"
#include "streamloft/OverlayClient.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr int kAnchors = 3;
// A browser counts as silent while fewer than kLiveFrames frames arrived
// over the last kSilenceLimit.
constexpr auto kSilenceLimit = 5s;
constexpr uint64_t kLiveFrames = 10;
constexpr const char* kWebProcessName = "WPEWebProcess";

struct Config {
  double minutes = 10;
  double warmupSeconds = 30;
  double killSeconds = 60;
  double churnSeconds = 3;
  double resizeSeconds = 5;
  double fps = 30;
  std::string service;
  std::string page;
};

const Clock::time_point g_start = Clock::now();

double Elapsed() { return std::chrono::duration<double>(Clock::now() - g_start).count(); }

void Say(const char* format, ...) __attribute__((format(printf, 1, 2)));
void Say(const char* format, ...) {
  static std::mutex lock;
  std::lock_guard<std::mutex> guard(lock);  // lock order: a leaf, only around printing
  printf("[%5.0f s] ", Elapsed());
  va_list args;
  va_start(args, format);
  vprintf(format, args);
  va_end(args);
  printf("\n");
  fflush(stdout);
}

// ---- readings of the service from /proc ------------------------------------

struct Usage {
  long rssKiB = 0;
  int descriptors = 0;
  int threads = 0;
  int segments = 0;  // distinct /dev/shm files mapped
  int surfaces = 0;  // distinct frame surfaces (memfds) mapped
  int webProcesses = 0;
};

int CountDescriptors(pid_t pid) {
  DIR* dir = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
  if (!dir) return -1;
  int count = 0;
  while (dirent* entry = readdir(dir))
    if (entry->d_name[0] != '.') ++count;
  closedir(dir);
  return count - 1;  // the directory's own descriptor
}

std::vector<pid_t> WebProcesses(pid_t service) {
  std::vector<std::pair<unsigned long long, pid_t>> byStart;
  for (const auto& [pid, ticks] : slfbench::ReadTreeTicks(service)) {
    if (pid == service || ticks.name != kWebProcessName) continue;
    // Field 22 of /proc/<pid>/stat: the start time, to order by age.
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    std::getline(in, text);
    const size_t close = text.rfind(')');
    unsigned long long start = ULLONG_MAX;
    if (close != std::string::npos) {
      std::istringstream fields(text.substr(close + 2));
      std::string field;
      for (int i = 3; i <= 22 && fields >> field; ++i)
        if (i == 22) start = std::strtoull(field.c_str(), nullptr, 10);
    }
    byStart.emplace_back(start, pid);
  }
  std::sort(byStart.begin(), byStart.end());
  std::vector<pid_t> pids;
  for (const auto& entry : byStart) pids.push_back(entry.second);
  return pids;
}

Usage ReadUsage(pid_t service) {
  Usage usage;
  usage.rssKiB = slfbench::ResidentKilobytes(service);
  usage.descriptors = CountDescriptors(service);
  usage.threads = static_cast<int>(slfbench::ReadKilobytes(service, "status", "Threads"));
  std::ifstream maps("/proc/" + std::to_string(service) + "/maps");
  std::set<std::string> segments;
  std::set<std::string> surfaces;
  std::string line;
  while (std::getline(maps, line)) {
    // address perms offset dev inode path
    std::istringstream fields(line);
    std::string address, perms, offset, device, inode, path;
    fields >> address >> perms >> offset >> device >> inode;
    std::getline(fields, path);
    path.erase(0, path.find_first_not_of(' '));
    if (path.rfind("/dev/shm/", 0) == 0)
      segments.insert(path);
    else if (path.rfind("/memfd:slf-surface", 0) == 0)
      surfaces.insert(inode);
  }
  usage.segments = static_cast<int>(segments.size());
  usage.surfaces = static_cast<int>(surfaces.size());
  usage.webProcesses = static_cast<int>(WebProcesses(service).size());
  return usage;
}

std::string Describe(const Usage& u) {
  char text[256];
  snprintf(text, sizeof text,
           "rss %ld KiB, descriptors %d, threads %d, segments %d, surfaces %d, web processes %d", u.rssKiB,
           u.descriptors, u.threads, u.segments, u.surfaces, u.webProcesses);
  return text;
}

// ---- hosts ------------------------------------------------------------------

class Host : public streamloft::BrowserEvents {
 public:
  explicit Host(size_t framesToHold = 0) : framesToHold_(framesToHold) {}

  // The client's own events for this host.
  streamloft::ConnectOptions Options(streamloft::ConnectOptions options) {
    options.connectionClosed = [this] { closed_ = true; };
    options.diagnostics = [this](const std::string& message) {
      if (problems_++ < 3) Say("host library problem: %s", message.c_str());
    };
    return options;
  }
  // A non-owning handle for OpenBrowser: the host outlives its client.
  std::shared_ptr<streamloft::BrowserEvents> events() { return {std::shared_ptr<void>(), this}; }

  void BrowserDidStart(streamloft::Browser&, int browserID) override { browserID_ = browserID; }
  void BrowserDidFail(streamloft::Browser&, const streamloft::Error& error) override {
    if (browserID_ == 0) browserID_ = -1;
    if (error.kind == streamloft::ErrorKind::ConnectionClosed) closed_ = true;
    if (problems_++ < 3) Say("browser failed: %s", error.Describe().c_str());
  }
  void BrowserReceivedVideoFrame(streamloft::Browser&, std::shared_ptr<const streamloft::VideoFrame> frame) override {
    ++frames_;
    if (framesToHold_) {
      std::lock_guard<std::mutex> guard(heldLock_);  // lock order: a leaf
      held_.push_back(std::move(frame));
      if (held_.size() > framesToHold_) held_.pop_front();
    }
  }
  void BrowserDidReceiveAudioStream(streamloft::Browser&, int, std::shared_ptr<const streamloft::AudioBuffer> buffer) override {
    if (buffer) ++audioBuffers_;
  }
  void RequestSettingsDataForBrowser(streamloft::Browser&) override { settingsAsked_ = true; }

  int browserID() const { return browserID_; }
  uint64_t frames() const { return frames_; }
  uint64_t audioBuffers() const { return audioBuffers_; }
  uint64_t problems() const { return problems_; }
  bool closed() const { return closed_; }
  bool takeSettingsRequest() { return settingsAsked_.exchange(false); }

 private:
  const size_t framesToHold_;
  std::atomic<int> browserID_{0};
  std::atomic<uint64_t> frames_{0};
  std::atomic<uint64_t> audioBuffers_{0};
  std::atomic<uint64_t> problems_{0};
  std::atomic<bool> settingsAsked_{false};
  std::atomic<bool> closed_{false};
  std::mutex heldLock_;
  std::deque<std::shared_ptr<const streamloft::VideoFrame>> held_;
};

struct Anchor {
  Host host;
  std::unique_ptr<streamloft::OverlayClient> client;
  std::shared_ptr<streamloft::Browser> browser;
  int id = 0;
  bool large = false;
  std::shared_ptr<std::atomic<uint64_t>> settingsAnswered = std::make_shared<std::atomic<uint64_t>>(0);
  bool silent = false;
  Clock::time_point silentSince;
  // Frame counts of the last kSilenceLimit, one per look, oldest first.
  std::deque<std::pair<Clock::time_point, uint64_t>> recent;
  // Frames over the last kSilenceLimit: a browser that only repaints when
  // resized sends one now and then, a live one a steady stream.
  uint64_t recentFrames() const { return recent.empty() ? 0 : recent.back().second - recent.front().second; }
  int silences = 0;
  int recoveries = 0;
};

// Answers the anchors' settings requests and, once `watch` (after the
// warm-up: pages take a while to load the first time), notes which anchor
// browsers went silent or came back. False when an anchor's connection
// closed.
bool ServeAnchors(std::vector<std::unique_ptr<Anchor>>& anchors, uint64_t* settingsTick, bool watch) {
  bool connected = true;
  const auto clockNow = Clock::now();
  for (auto& anchor : anchors) {
    if (anchor->host.takeSettingsRequest()) {
      const std::string text = "{\"soak\":" + std::to_string(++*settingsTick) + "}";
      anchor->browser->UpdateSettingsData(
          std::vector<uint8_t>(text.begin(), text.end()),
          [answered = anchor->settingsAnswered, id = anchor->id](const std::optional<streamloft::Error>& error) {
            if (!error)
              ++*answered;
            else
              Say("settings answer for browser %d refused: %s", id, error->Describe().c_str());
          });
    }
    anchor->recent.emplace_back(clockNow, anchor->host.frames());
    while (clockNow - anchor->recent.front().first > kSilenceLimit) anchor->recent.pop_front();
    const bool watchedLongEnough = clockNow - anchor->recent.front().first > kSilenceLimit - 500ms;
    const bool quiet = watch && watchedLongEnough && anchor->recentFrames() < kLiveFrames;
    if (quiet && !anchor->silent) {
      anchor->silent = true;
      anchor->silentSince = clockNow;
      ++anchor->silences;
      Say("browser %d silent: %llu frames in the last %lld s", anchor->id,
          static_cast<unsigned long long>(anchor->recentFrames()),
          static_cast<long long>(std::chrono::duration_cast<std::chrono::seconds>(kSilenceLimit).count()));
    } else if (!quiet && anchor->silent && anchor->recentFrames() >= kLiveFrames) {
      anchor->silent = false;
      ++anchor->recoveries;
      Say("browser %d sends frames again, %.0f s after it went silent", anchor->id,
          std::chrono::duration<double>(clockNow - anchor->silentSince).count());
    }
    if (anchor->host.closed() && connected) {
      Say("anchor connection of browser %d closed", anchor->id);
      connected = false;
    }
  }
  return connected;
}

bool WaitFor(const std::function<bool()>& done, std::chrono::milliseconds limit) {
  const auto end = Clock::now() + limit;
  while (!done()) {
    if (Clock::now() > end) return false;
    std::this_thread::sleep_for(50ms);
  }
  return true;
}

std::string FileURL(const std::string& path) { return "file://" + path; }

std::string FolderURL(const std::string& path) { return FileURL(path.substr(0, path.rfind('/') + 1)); }

// ---- the hosts that come and go -----------------------------------------------

struct ChurnStats {
  std::atomic<int> closedBrowser{0};
  std::atomic<int> leftBrowser{0};
  std::atomic<int> bare{0};
  std::atomic<int> failures{0};
};

class Churn {
 public:
  Churn(const Config& config, const std::string& socket) : config_(config), socket_(socket) {}
  ~Churn() { Stop(); }

  void Start() { thread_ = std::thread([this] { Run(); }); }
  void Stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
  }
  // No new churn host after the current one has gone (idle() turns true)
  // until Resume; RequestStop ends the thread the same way.
  void Pause() { paused_ = true; }
  void Resume() { paused_ = false; }
  void RequestStop() { stop_ = true; }
  bool idle() const { return idle_.load(); }
  const ChurnStats& stats() const { return stats_; }

 private:
  void Run() {
    int round = 0;
    while (!stop_) {
      if (paused_) {
        idle_ = true;
        std::this_thread::sleep_for(100ms);
        continue;
      }
      idle_ = false;
      Session(round++ % 3);
      idle_ = paused_.load();
      const auto next = Clock::now() + std::chrono::duration<double>(config_.churnSeconds);
      while (!stop_ && !paused_ && Clock::now() < next) std::this_thread::sleep_for(50ms);
    }
    idle_ = true;
  }

  // 0: opens a browser and closes it; 1: opens one, holds its frames and
  // goes away without closing it; 2: connects and goes away.
  void Session(int kind) {
    Host host(kind == 1 ? 5 : 0);
    streamloft::ConnectOptions options;
    options.socketPath = socket_;
    options.startOnDemand = false;
    streamloft::Error error;
    std::shared_ptr<streamloft::Browser> browser;  // goes after the client: kind 1 never closes it
    std::unique_ptr<streamloft::OverlayClient> client = streamloft::OverlayClient::Connect(host.Options(options), &error);
    if (!client) {
      ++stats_.failures;
      Say("churn host could not connect: %s", error.message.c_str());
      return;
    }
    if (kind == 2) {
      client.reset();
      ++stats_.bare;
      return;
    }
    browser = client->OpenBrowser({FileURL(config_.page), 480, 270, config_.fps, {FolderURL(config_.page)}},
                                  host.events());
    // Like every host, it answers its page's settings requests: the page
    // waits for them on the service's one resource thread.
    auto answerSettings = [&] {
      if (host.takeSettingsRequest() && host.browserID() > 0) {
        const std::string text = "{\"churn\":true}";
        browser->UpdateSettingsData(std::vector<uint8_t>(text.begin(), text.end()));
      }
    };
    const bool framed = WaitFor([&] {
      answerSettings();
      return host.frames() > 0 || host.closed() || stop_;
    }, 20s);
    if ((!framed || host.frames() == 0) && !stop_) {
      ++stats_.failures;
      Say("churn browser %d sent no frame within 20 s", host.browserID());
    }
    // A moment with the browser running (and its page asking for settings).
    const auto until = Clock::now() + 2s;
    WaitFor([&] {
      answerSettings();
      return Clock::now() > until || host.closed() || stop_;
    }, 3s);
    if (kind == 0) {
      if (host.browserID() > 0) browser->Close();
      ++stats_.closedBrowser;
    } else {
      ++stats_.leftBrowser;
    }
    client.reset();
  }

  const Config& config_;
  const std::string socket_;
  std::thread thread_;
  std::atomic<bool> stop_{false};
  std::atomic<bool> paused_{false};
  std::atomic<bool> idle_{true};
  ChurnStats stats_;
};

bool ParseArguments(int argc, char** argv, Config* config) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const size_t eq = arg.find('=');
    const std::string name = arg.substr(0, eq);
    const std::string value = eq == std::string::npos ? (i + 1 < argc ? argv[++i] : "") : arg.substr(eq + 1);
    char* end = nullptr;
    const double number = std::strtod(value.c_str(), &end);
    const bool isNumber = !value.empty() && end && *end == '\0' && number > 0;
    if (name == "--service")
      config->service = value;
    else if (name == "--page")
      config->page = value;
    else if (name == "--minutes" && isNumber)
      config->minutes = number;
    else if (name == "--warmup" && isNumber)
      config->warmupSeconds = number;
    else if (name == "--kill-every" && isNumber)
      config->killSeconds = number;
    else if (name == "--churn-every" && isNumber)
      config->churnSeconds = number;
    else if (name == "--resize-every" && isNumber)
      config->resizeSeconds = number;
    else if (name == "--fps" && isNumber)
      config->fps = number;
    else
      return false;
  }
  return !config->service.empty() && !config->page.empty() && config->page[0] == '/';
}

std::string MakeRunFolder() {
  const char* tmp = getenv("TMPDIR");
  std::string folder = std::string(tmp && tmp[0] ? tmp : "/tmp") + "/slf-soak-XXXXXX";
  if (!mkdtemp(folder.data())) return std::string();
  return folder;
}

}  // namespace

int main(int argc, char** argv) {
  Config config;
  if (!ParseArguments(argc, argv, &config)) {
    fprintf(stderr,
            "usage: %s --service PATH --page /ABSOLUTE/PAGE.html [--minutes 10] [--warmup 30]\n"
            "          [--kill-every 60] [--churn-every 3] [--resize-every 5] [--fps 30]\n",
            argv[0]);
    return 2;
  }
  // The service's web processes become ours when it dies, so that they are
  // reaped at the end whatever happened.
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  signal(SIGPIPE, SIG_IGN);

  const std::string folder = MakeRunFolder();
  if (folder.empty()) {
    perror("mkdtemp");
    return 1;
  }
  const std::string socket = folder + "/overlay-helper.sock";
  const pid_t service = slfbench::SpawnService(config.service.c_str(), socket);
  const double runSeconds = config.minutes * 60;
  Say("soak for %.1f min: service %s (pid %d), log %s.log, page %s", config.minutes, config.service.c_str(),
      service, socket.c_str(), config.page.c_str());

  int serviceStatus = 0;
  bool serviceDied = false;
  auto serviceAlive = [&] {
    if (serviceDied) return false;
    if (waitpid(service, &serviceStatus, WNOHANG) == service) serviceDied = true;
    return !serviceDied;
  };

  // The anchors.
  std::vector<std::unique_ptr<Anchor>> anchors;
  streamloft::ConnectOptions options;
  options.socketPath = socket;
  options.startOnDemand = false;
  for (int i = 0; i < kAnchors && serviceAlive(); ++i) {
    auto anchor = std::make_unique<Anchor>();
    streamloft::Error error;
    WaitFor([&] {
      anchor->client = streamloft::OverlayClient::Connect(anchor->host.Options(options), &error);
      return anchor->client != nullptr || !serviceAlive();
    }, 30s);
    if (!anchor->client) {
      Say("anchor %d could not connect: %s", i + 1, error.message.c_str());
      break;
    }
    anchor->browser = anchor->client->OpenBrowser(
        {FileURL(config.page), 640, 360, config.fps, {FolderURL(config.page)}}, anchor->host.events());
    if (!WaitFor([&] { return anchor->host.browserID() != 0; }, 30s) || anchor->host.browserID() < 0) {
      Say("anchor %d could not open a browser", i + 1);
      break;
    }
    anchor->id = anchor->host.browserID();
    anchors.push_back(std::move(anchor));
  }
  bool setUp = static_cast<int>(anchors.size()) == kAnchors && serviceAlive();
  if (setUp) Say("anchor browsers %d, %d, %d open", anchors[0]->id, anchors[1]->id, anchors[2]->id);

  Churn churn(config, socket);
  if (setUp) churn.Start();

  Usage baseline;
  bool haveBaseline = false;
  int kills = 0;
  int resizeRound = 0;
  const double cooldown = std::min(30.0, runSeconds / 4);
  double nextKill = config.warmupSeconds + std::min(15.0, config.killSeconds / 2);
  double nextResize = config.resizeSeconds;
  double nextStatus = 30;
  uint64_t settingsTick = 0;

  while (setUp && Elapsed() < runSeconds && serviceAlive()) {
    std::this_thread::sleep_for(200ms);
    const double now = Elapsed();

    if (!ServeAnchors(anchors, &settingsTick, haveBaseline)) setUp = false;

    if (now >= nextResize) {
      Anchor& anchor = *anchors[resizeRound++ % kAnchors];
      anchor.large = !anchor.large;
      anchor.browser->Resize(anchor.large ? 800 : 640, anchor.large ? 450 : 360,
                             [id = anchor.id](const std::optional<streamloft::Error>& error) {
                               if (error) Say("resize of browser %d refused: %s", id, error->Describe().c_str());
                             });
      nextResize += config.resizeSeconds;
    }

    if (!haveBaseline && now >= config.warmupSeconds) {
      churn.Pause();
      WaitFor([&] {
        ServeAnchors(anchors, &settingsTick, haveBaseline);
        return churn.idle();
      }, 60s);
      const auto settled = Clock::now() + 3s;
      WaitFor([&] {
        ServeAnchors(anchors, &settingsTick, haveBaseline);
        return Clock::now() > settled;
      }, 4s);
      baseline = ReadUsage(service);
      haveBaseline = true;
      churn.Resume();
      Say("baseline after warm-up: %s", Describe(baseline).c_str());
    }

    if (haveBaseline && now >= nextKill && now < runSeconds - cooldown) {
      const std::vector<pid_t> webProcesses = WebProcesses(service);
      if (webProcesses.empty()) {
        Say("no web process to kill");
      } else {
        kill(webProcesses.front(), SIGKILL);
        ++kills;
        Say("killed web process %d (oldest of %zu)", webProcesses.front(), webProcesses.size());
      }
      nextKill += config.killSeconds;
    }

    if (now >= nextStatus) {
      const Usage usage = ReadUsage(service);
      std::string frames;
      for (auto& anchor : anchors)
        frames += " " + std::to_string(anchor->id) + ":" + std::to_string(anchor->host.frames());
      Say("%s; frames per browser%s", Describe(usage).c_str(), frames.c_str());
      nextStatus += 30;
    }
  }

  // The end: only the anchors connected, then the same readings as at the
  // start. Descriptors and threads of hosts that just left may take a
  // moment to go, so the counts get up to 20 s to come back down.
  churn.RequestStop();
  WaitFor([&] {
    ServeAnchors(anchors, &settingsTick, haveBaseline);
    return churn.idle();
  }, 60s);
  churn.Stop();
  Usage final;
  bool alive = serviceAlive();
  if (alive && haveBaseline) {
    WaitFor([&] {
      ServeAnchors(anchors, &settingsTick, haveBaseline);
      final = ReadUsage(service);
      return !serviceAlive() || (final.descriptors <= baseline.descriptors && final.threads <= baseline.threads &&
                                 final.segments <= baseline.segments);
    }, 20s);
    alive = serviceAlive();
  }

  std::vector<std::string> failures;
  printf("\n== soak summary (%.1f min)\n", Elapsed() / 60);
  if (!setUp && !serviceDied) failures.push_back("the anchors could not be set up or lost their connection");
  if (!alive) {
    char reason[96];
    if (WIFSIGNALED(serviceStatus))
      snprintf(reason, sizeof reason, "the service died (signal %d)", WTERMSIG(serviceStatus));
    else
      snprintf(reason, sizeof reason, "the service died (exit status %d)", WEXITSTATUS(serviceStatus));
    failures.push_back(reason);
  }
  if (haveBaseline) {
    printf("start:  %s\n", Describe(baseline).c_str());
    if (alive) {
      printf("end:    %s\n", Describe(final).c_str());
      const double growth = baseline.rssKiB > 0 ? 100.0 * (final.rssKiB - baseline.rssKiB) / baseline.rssKiB : 0;
      printf("rss growth: %+.1f %%\n", growth);
      if (growth > 5.0) failures.push_back("resident memory grew by more than 5 %");
      if (final.descriptors > baseline.descriptors)
        failures.push_back("descriptors grew by " + std::to_string(final.descriptors - baseline.descriptors));
      if (final.threads > baseline.threads)
        failures.push_back("threads grew by " + std::to_string(final.threads - baseline.threads));
      if (final.segments > baseline.segments)
        failures.push_back("segments grew by " + std::to_string(final.segments - baseline.segments));
    }
  } else if (setUp) {
    failures.push_back("the run ended before the warm-up did");
  }
  int silentAtEnd = 0;
  int recoveries = 0;
  for (auto& anchor : anchors) {
    const bool silentNow = anchor->silent;
    silentAtEnd += silentNow ? 1 : 0;
    recoveries += anchor->recoveries;
    printf("browser %d: %llu frames (%.1f/s), %llu audio buffers, %llu settings answers, silent %d times, "
           "back %d times%s\n",
           anchor->id, static_cast<unsigned long long>(anchor->host.frames()), anchor->host.frames() / Elapsed(),
           static_cast<unsigned long long>(anchor->host.audioBuffers()),
           static_cast<unsigned long long>(anchor->settingsAnswered->load()), anchor->silences, anchor->recoveries,
           silentNow ? ", SILENT AT THE END" : "");
    if (anchor->host.problems())
      printf("  (%llu problems reported by the host library)\n",
             static_cast<unsigned long long>(anchor->host.problems()));
  }
  const ChurnStats& churned = churn.stats();
  printf("churn hosts: %d closed their browser, %d left without closing, %d never opened one, %d failed\n",
         churned.closedBrowser.load(), churned.leftBrowser.load(), churned.bare.load(), churned.failures.load());
  printf("web processes killed: %d, browsers back after going silent: %d, silent at the end: %d\n", kills,
         recoveries, silentAtEnd);
  if (silentAtEnd) failures.push_back(std::to_string(silentAtEnd) + " browser(s) silent at the end");

  // Tear down: hosts first, then the service and whatever it left.
  anchors.clear();
  if (!serviceDied) {
    kill(service, SIGTERM);
    if (!WaitFor([&] { return !serviceAlive(); }, 15s)) {
      failures.push_back("the service did not end within 15 s of SIGTERM");
      kill(service, SIGKILL);
      waitpid(service, nullptr, 0);
    }
  }
  slfbench::ReapDescendants(5000ms);
  printf("service log: %s.log\n", socket.c_str());

  if (failures.empty()) {
    printf("result: PASS\n");
    return 0;
  }
  printf("result: FAIL\n");
  for (const std::string& failure : failures) printf("  - %s\n", failure.c_str());
  return 1;
}
