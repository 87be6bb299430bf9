// Web processes killed under a running service: the service started on
// demand with the WebKit engine, the host library on its socket, and the
// test killing the service's web processes with SIGKILL as a crash would end
// them.
#include "streamloft/OverlayClient.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;

namespace {

const std::string kHelper = SLF_TEST_HELPER_PATH;
const std::string kPages = SLF_TEST_PAGES_DIR;

std::string Ids(int browser, int stream)
{
    return std::to_string(browser) + " " + std::to_string(stream);
}

// Frames are counted per browser and let go at once; everything else is an
// event line ("start 3", "audio-stop 3 7", ...).
class Host : public streamloft::BrowserEvents {
public:
    using Browser = streamloft::Browser;
    void BrowserDidStart(Browser&, int id) override { Add("start " + std::to_string(id)); }
    void BrowserReceivedVideoFrame(Browser& b, std::shared_ptr<const streamloft::VideoFrame>) override
    {
        std::lock_guard<std::mutex> guard(m_lock);
        ++m_frames[b.ID()];
        m_changed.notify_all();
    }
    void BrowserWillStartAudioStream(Browser& b, int stream, const streamloft::AudioStreamFormat&) override
    {
        Add("audio-start " + Ids(b.ID(), stream));
    }
    void BrowserDidReceiveAudioStream(Browser& b, int stream,
                                      std::shared_ptr<const streamloft::AudioBuffer> buf) override
    {
        if (!buf)
            Add("audio-null " + Ids(b.ID(), stream));
    }
    void BrowserWillStopAudioStream(Browser& b, int stream) override { Add("audio-stop " + Ids(b.ID(), stream)); }
    // Answered at once.
    void RequestSettingsDataForBrowser(Browser& b) override
    {
        Add("settings " + std::to_string(b.ID()));
        b.UpdateSettingsData({'o', 'k'});
    }
    void BrowserDidClose(Browser& b) override { Add("closed " + std::to_string(b.ID())); }
    void BrowserDidFail(Browser&, const streamloft::Error& error) override { Add("failed " + error.Describe()); }
    void ReportProblem(const std::string& message) { Add("problem " + message); }
    std::shared_ptr<streamloft::BrowserEvents> events() { return {std::shared_ptr<void>(), this}; }

    long Frames(int id)
    {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_frames[id];
    }
    // The events that start with prefix, in order.
    std::vector<std::string> Events(const std::string& prefix)
    {
        std::lock_guard<std::mutex> guard(m_lock);
        std::vector<std::string> found;
        for (const auto& event : m_events)
            if (event.rfind(prefix, 0) == 0)
                found.push_back(event);
        return found;
    }
    // Position of an event in the whole list, -1 when it never came.
    long IndexOf(const std::string& event)
    {
        std::lock_guard<std::mutex> guard(m_lock);
        for (size_t i = 0; i < m_events.size(); ++i)
            if (m_events[i] == event)
                return static_cast<long>(i);
        return -1;
    }
    bool WaitFor(const std::function<bool()>& done, std::chrono::milliseconds timeout)
    {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        std::unique_lock<std::mutex> guard(m_lock);
        for (;;) {
            guard.unlock();
            const bool ok = done();
            guard.lock();
            if (ok)
                return true;
            if (std::chrono::steady_clock::now() >= deadline)
                return false;
            m_changed.wait_until(guard, std::min(deadline, std::chrono::steady_clock::now() + 100ms));
        }
    }

private:
    void Add(const std::string& event)
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_events.push_back(event);
        m_changed.notify_all();
    }

    std::mutex m_lock;
    std::condition_variable m_changed;
    std::vector<std::string> m_events;
    std::map<int, long> m_frames;
};

// The ID at the end of an event line ("start 7"), or the n-th number in it.
int Number(const std::string& event, int n)
{
    std::vector<int> numbers;
    for (size_t at = event.find(' '); at != std::string::npos; at = event.find(' ', at + 1))
        numbers.push_back(std::atoi(event.c_str() + at + 1));
    return n < static_cast<int>(numbers.size()) ? numbers[n] : -1;
}

bool Running(int pid)
{
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(stat, line);
    const size_t close = line.rfind(')');
    return close != std::string::npos && close + 2 < line.size() && line[close + 2] != 'Z' && line[close + 2] != 'X';
}

// The service's web processes that still run (sandboxed ones run below
// bubblewrap processes).
std::set<int> WebProcesses(pid_t service, int depth = 0)
{
    std::set<int> result;
    std::error_code error;
    for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(service) + "/task", error)) {
        std::ifstream children(task.path() / "children");
        int pid = 0;
        while (children >> pid) {
            std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
            std::string name;
            std::getline(comm, name);
            // WPE WebKit's and WebKitGTK's web processes.
            if ((name.rfind("WPEWebProcess", 0) == 0 || name.rfind("WebKitWebProces", 0) == 0) && Running(pid))
                result.insert(pid);
            else if (name == "bwrap" && depth < 3)
                result.merge(WebProcesses(pid, depth + 1));
        }
    }
    return result;
}

bool WaitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout)
{
    for (const auto deadline = std::chrono::steady_clock::now() + timeout; !done();) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(20ms);
    }
    return true;
}

// Every process below a process (web, network, sandbox and display ones).
std::vector<int> Descendants(pid_t process)
{
    std::vector<int> result;
    std::error_code error;
    for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/task", error)) {
        std::ifstream children(task.path() / "children");
        for (int pid = 0; children >> pid;) {
            result.push_back(pid);
            const std::vector<int> below = Descendants(pid);
            result.insert(result.end(), below.begin(), below.end());
        }
    }
    return result;
}

// The private folders of the service's display servers (WebKitGTK port):
// each runs with its folder as its runtime folder.
std::vector<std::string> DisplayFolders(const std::vector<int>& processes)
{
    std::vector<std::string> folders;
    for (int pid : processes) {
        std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
        std::string name;
        std::getline(comm, name);
        if (name != "weston" && name != "Xvfb")
            continue;
        std::ifstream environ("/proc/" + std::to_string(pid) + "/environ");
        for (std::string entry; std::getline(environ, entry, '\0');)
            if (entry.rfind("XDG_RUNTIME_DIR=/tmp/slf-gtk-display-", 0) == 0)
                folders.push_back(entry.substr(entry.find('=') + 1));
    }
    return folders;
}

class CrashRecoveryTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        char pattern[] = "/tmp/slf-recovery-XXXXXX";
        m_dir = mkdtemp(pattern);
        m_socket = m_dir + "/overlay-helper.sock";
    }
    void TearDown() override
    {
        m_browsers.clear();
        m_client.reset();
        if (m_service > 0) {
            kill(m_service, SIGTERM);
            WaitUntil([&] { return !Running(m_service); }, 10s);
            kill(m_service, SIGKILL); // no-op once it has ended
        }
        std::ifstream log(m_socket + ".log");
        if (HasFailure() && log)
            std::cout << "---- service log ----\n" << log.rdbuf() << "\n";
        std::filesystem::remove_all(m_dir);
    }

    void Connect(Host& host)
    {
        streamloft::ConnectOptions options;
        options.socketPath = m_socket;
        options.helperPath = kHelper;
        options.startTimeout = 20s;
        options.diagnostics = [&host](const std::string& message) { host.ReportProblem(message); };
        streamloft::Error error;
        m_client = streamloft::OverlayClient::Connect(options, &error);
        ASSERT_TRUE(m_client) << error.message;
        ASSERT_TRUE(m_client->StartedService());
        m_service = m_client->ServiceProcessID();
        ASSERT_GT(m_service, 0);
    }

    // Opens a browser and waits for its ID.
    int Open(Host& host, const std::string& page, double width, double height)
    {
        const size_t started = host.Events("start ").size();
        auto browser = m_client->OpenBrowser(
            {"file://" + kPages + "/" + page, width, height, 30, {"file://" + kPages + "/"}}, host.events());
        if (!host.WaitFor([&] { return host.Events("start ").size() > started; }, 60s))
            return -1;
        const int id = Number(host.Events("start ")[started], 0);
        m_browsers[id] = browser;
        return id;
    }

    // The log lines of the service that name a browser's web process.
    std::vector<std::string> ProcessLog(int browser)
    {
        std::vector<std::string> lines;
        std::ifstream log(m_socket + ".log");
        const std::string tag = "browser " + std::to_string(browser) + ": web process ";
        for (std::string line; std::getline(log, line);)
            if (line.find(tag) != std::string::npos)
                lines.push_back(line);
        return lines;
    }

    // The web process a browser last reported as its own (the answer to
    // the render-process-ID question, which the service logs), 0 before
    // the first. Other web processes may run beside it (one started ahead
    // for the next browser).
    int ReportedProcess(int browser)
    {
        int pid = 0;
        std::ifstream log(m_socket + ".log");
        const std::string tag = "browser " + std::to_string(browser) + " is shown by process ";
        for (std::string line; std::getline(log, line);) {
            const size_t at = line.find(tag);
            if (at != std::string::npos)
                pid = std::atoi(line.c_str() + at + tag.size());
        }
        return pid;
    }
    // Waits until the browser reports a web process other than previous.
    int WaitReportedProcess(int browser, int previous = 0)
    {
        int pid = 0;
        WaitUntil([&] { return (pid = ReportedProcess(browser)) > 0 && pid != previous && Running(pid); }, 60s);
        return pid == previous ? 0 : pid;
    }

    std::string m_dir, m_socket;
    Host m_host; // outlives the client and the browsers
    std::unique_ptr<streamloft::OverlayClient> m_client;
    std::map<int, std::shared_ptr<streamloft::Browser>> m_browsers; // by ID
    pid_t m_service = -1;
};

TEST_F(CrashRecoveryTest, AKilledWebProcessComesBackUnderItsIdUntilTheFourthCrashInAMinute)
{
    Host& host = m_host;
    ASSERT_NO_FATAL_FAILURE(Connect(host));
    const int crashing = Open(host, "client_overlay.html", 160, 120);
    ASSERT_GT(crashing, 0);
    ASSERT_TRUE(host.WaitFor([&] { return host.Frames(crashing) > 3; }, 60s)) << "no frames at all";
    int victim = WaitReportedProcess(crashing);
    ASSERT_GT(victim, 0) << "the browser reported no web process";
    ASSERT_TRUE(WebProcesses(m_service).count(victim)) << victim << " is no web process of the service";

    const int steady = Open(host, "client_overlay.html", 160, 120);
    ASSERT_GT(steady, 0);
    ASSERT_TRUE(host.WaitFor([&] { return host.Frames(steady) > 3; }, 60s));
    const int steadyProcess = WaitReportedProcess(steady);
    ASSERT_GT(steadyProcess, 0);
    ASSERT_NE(steadyProcess, victim) << "two browsers share a web process";

    const auto firstCrash = std::chrono::steady_clock::now();
    for (int crash = 1; crash <= 3; ++crash) {
        const long steadyFrames = host.Frames(steady);
        ASSERT_EQ(kill(victim, SIGKILL), 0);
        const int replacement = WaitReportedProcess(crashing, victim);
        ASSERT_GT(replacement, 0) << "crash " << crash << ": no new web process";
        ASSERT_NE(replacement, steadyProcess)
            << "crash " << crash << ": the browser moved into its neighbour's process";
        const long framesThen = host.Frames(crashing);
        ASSERT_TRUE(host.WaitFor([&] { return host.Frames(crashing) > framesThen + 3; }, 60s))
            << "crash " << crash << ": no frames from the new web process";
        EXPECT_GT(host.Frames(steady), steadyFrames) << "the other browser stopped painting in crash " << crash;
        victim = replacement;
    }
    EXPECT_EQ(host.Events("start ").size(), 2u) << "a recovered browser was announced as a new one";
    ASSERT_LT(std::chrono::steady_clock::now() - firstCrash, 50s)
        << "three recoveries took so long that a fourth crash would not fall within their minute";

    ASSERT_EQ(kill(victim, SIGKILL), 0);
    EXPECT_TRUE(WaitUntil([&] { return !WebProcesses(m_service).count(victim); }, 30s));
    std::this_thread::sleep_for(2s); // frames on their way when the process died
    const long silentFrom = host.Frames(crashing);
    const long steadyFrom = host.Frames(steady);
    std::this_thread::sleep_for(5s);
    EXPECT_EQ(host.Frames(crashing), silentFrom) << "a browser given up still paints";
    EXPECT_GT(host.Frames(steady), steadyFrom + 5) << "the other browser stopped painting";
    EXPECT_EQ(ReportedProcess(crashing), victim) << "a web process started for a given-up browser";
    EXPECT_TRUE(WebProcesses(m_service).count(steadyProcess));
    EXPECT_TRUE(Running(m_service));

    // One line per event, with the browser and what happened.
    const std::vector<std::string> lines = ProcessLog(crashing);
    ASSERT_EQ(lines.size(), 4u);
    for (int i = 0; i < 3; ++i)
        EXPECT_NE(lines[i].find("crashed; loading the page again"), std::string::npos) << lines[i];
    EXPECT_NE(lines[3].find("crashed; given up"), std::string::npos) << lines[3];
    EXPECT_TRUE(ProcessLog(steady).empty());

    // The given-up browser is still registered: it closes as any other
    // does, and its opener gets its reply.
    m_browsers[crashing]->Close();
    EXPECT_TRUE(host.WaitFor([&] { return host.IndexOf("closed " + std::to_string(crashing)) >= 0; }, 20s));
    EXPECT_TRUE(host.Events("problem").empty()) << host.Events("problem").front();

    // Told to end, the service leaves no engine process and no private
    // folder behind.
    const std::vector<int> below = Descendants(m_service);
    EXPECT_FALSE(below.empty());
    const std::vector<std::string> folders = DisplayFolders(below);
    m_browsers.clear();
    m_client.reset();
    ASSERT_EQ(kill(m_service, SIGTERM), 0);
    EXPECT_TRUE(WaitUntil([&] { return !Running(m_service); }, 10s));
    for (int pid : below)
        EXPECT_TRUE(WaitUntil([&] { return !Running(pid); }, 5s)) << "process " << pid << " outlived the service";
    for (const auto& folder : folders)
        EXPECT_FALSE(std::filesystem::exists(folder)) << folder << " outlived the service";
}

TEST_F(CrashRecoveryTest, AudioOfAKilledWebProcessStopsAndTheNewProcessIsKnownAsTheSameBrowser)
{
    Host& host = m_host;
    ASSERT_NO_FATAL_FAILURE(Connect(host));
    const int browser = Open(host, "recovery_overlay.html", 64, 64);
    ASSERT_GT(browser, 0);
    const std::string settings = "settings " + std::to_string(browser);
    EXPECT_TRUE(host.WaitFor([&] { return host.Events(settings).size() == 1; }, 60s));
    const std::string prefix = "audio-start " + std::to_string(browser) + " ";
    ASSERT_TRUE(host.WaitFor([&] { return !host.Events(prefix).empty(); }, 60s)) << "no audio stream started";
    const int stream = Number(host.Events(prefix).front(), 1);
    const int process = WaitReportedProcess(browser);
    ASSERT_GT(process, 0) << "the browser reported no web process";

    ASSERT_EQ(kill(process, SIGKILL), 0);
    // The stop sequence of a stream that ends: one empty buffer, then the stop.
    const std::string stop = "audio-stop " + Ids(browser, stream);
    ASSERT_TRUE(host.WaitFor([&] { return host.IndexOf(stop) >= 0; }, 30s)) << "the stream was not stopped";
    const long empty = host.IndexOf("audio-null " + Ids(browser, stream));
    EXPECT_GE(empty, 0);
    EXPECT_LT(empty, host.IndexOf(stop));

    // The page plays and asks again from its new web process, under the
    // same browser.
    EXPECT_TRUE(host.WaitFor([&] { return host.Events(prefix).size() >= 2; }, 60s)) << "no stream after recovery";
    EXPECT_TRUE(host.WaitFor([&] { return host.Events(settings).size() == 2; }, 60s)) << "no settings request";
    if (host.Events(prefix).size() >= 2) {
        EXPECT_NE(Number(host.Events(prefix)[1], 1), stream);
    }
    EXPECT_EQ(host.Events("start ").size(), 1u);
    EXPECT_EQ(host.Events("settings ").size(), 2u);
    EXPECT_TRUE(Running(m_service));
}

} // namespace
