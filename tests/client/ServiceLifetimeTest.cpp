// What host connections leave behind in the real service (with the real
// engine), hosts that are killed while they hold frames and audio slots, and
// the service's idle exit and restart.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "tests/support/RecordingCallbacks.h"
#include "tests/support/ServiceProcess.h"

using streamloft::OverlayClient;
using namespace slftest;

namespace {

// Whether the service answers the client: a URL that does not parse is
// refused with its typed error (and changes nothing in the service).
bool Answers(OverlayClient& client)
{
    RecordingCallbacks probe;
    auto browser = client.OpenBrowser({"not a url", 10, 10, 1, {}}, probe.events());
    return probe.WaitFor("failed", 10s).rfind("failed invalid-url", 0) == 0;
}

// What a service process holds: descriptors (and their targets, "socket:[123]",
// "/memfd:...", paths, for failure messages), threads, and of the descriptors
// and mappings those of frames (memfd surfaces) and audio pools (segments).
struct Holdings {
    size_t descriptors = 0, threads = 0, surfaces = 0, audioSegments = 0;
    std::string targets;
    std::string Describe() const
    {
        return std::to_string(descriptors) + " descriptors, " + std::to_string(threads) + " threads, " +
               std::to_string(surfaces) + " surface descriptors, " + std::to_string(audioSegments) +
               " audio segment mappings";
    }
};

Holdings ReadHoldings(pid_t pid)
{
    const std::string proc = "/proc/" + std::to_string(pid);
    Holdings h;
    std::error_code error;
    for (auto it = std::filesystem::directory_iterator(proc + "/task", error); !error && it != decltype(it)();
         it.increment(error))
        ++h.threads;
    for (auto it = std::filesystem::directory_iterator(proc + "/fd", error); !error && it != decltype(it)();
         it.increment(error)) {
        ++h.descriptors;
        std::error_code linkError;
        const std::string target = std::filesystem::read_symlink(it->path(), linkError).string();
        if (target.rfind("/memfd:", 0) == 0 && target.find("slf-surface") != std::string::npos)
            ++h.surfaces;
        h.targets += "  " + it->path().filename().string() + " -> " + target + "\n";
    }
    h.audioSegments = AudioSegmentsMappedBy(pid).size();
    return h;
}

// Waits (bounded) until the service holds no more than `limit` of anything;
// what it holds in the end.
Holdings SettleTo(pid_t pid, const Holdings& limit, std::chrono::seconds bound = 30s)
{
    Holdings now = ReadHoldings(pid);
    for (auto deadline = std::chrono::steady_clock::now() + bound; std::chrono::steady_clock::now() < deadline;) {
        if (now.descriptors <= limit.descriptors && now.threads <= limit.threads && now.surfaces <= limit.surfaces &&
            now.audioSegments <= limit.audioSegments)
            break;
        std::this_thread::sleep_for(100ms);
        now = ReadHoldings(pid);
    }
    return now;
}

// What the service holds once that has not changed for 6 s (at most 40 s):
// the engine opens some descriptors of its own a few seconds after its
// start (its memory monitor) and lets idle threads go after a while.
Holdings Steady(pid_t pid)
{
    Holdings last = ReadHoldings(pid);
    auto since = std::chrono::steady_clock::now();
    for (auto deadline = since + 40s; std::chrono::steady_clock::now() < deadline;) {
        std::this_thread::sleep_for(250ms);
        Holdings now = ReadHoldings(pid);
        if (now.descriptors != last.descriptors || now.threads != last.threads) {
            last = now;
            since = std::chrono::steady_clock::now();
        } else if (std::chrono::steady_clock::now() - since >= 6s) {
            break;
        }
    }
    return last;
}

class ServiceLifetimeTest : public ServiceTest {
protected:
    std::unique_ptr<OverlayClient> Connect(RecordingCallbacks& host, bool startOnDemand = true)
    {
        return ServiceTest::Connect(host.Options(Options(startOnDemand)));
    }

    // Starts the service itself with extra arguments; its log goes where a
    // service started on demand writes it.
    pid_t StartService(const std::vector<std::string>& arguments)
    {
        pid_t pid = fork();
        if (pid == 0) {
            int log = open((socket_ + ".log").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
            dup2(log, STDERR_FILENO);
            std::vector<char*> argv {const_cast<char*>(kHelper.c_str())};
            for (const auto& a : arguments)
                argv.push_back(const_cast<char*>(a.c_str()));
            argv.push_back(nullptr);
            execv(kHelper.c_str(), argv.data());
            _exit(127);
        }
        services_.push_back(pid);
        return pid;
    }

    // One host connection's life: `mode` 0 opens a browser and closes it, 1
    // opens one and goes away without closing (holding a frame), 2 never
    // opens one.
    void HostSession(int mode, const std::string& page)
    {
        RecordingCallbacks host;
        // Declared before the client, so that in mode 1 the client goes first
        // and the handle's close never leaves.
        std::shared_ptr<streamloft::Browser> browser;
        auto client = Connect(host, false);
        ASSERT_TRUE(client);
        if (mode == 2)
            return;
        browser = client->OpenBrowser(Page(page, 64, 48), host.events());
        const int id = Id(host.WaitFor("start ", 30s));
        ASSERT_GT(id, 0);
        if (mode == 1) {
            EXPECT_NE(host.WaitFor("frame ", 30s), "");
            return;
        }
        browser->Close(host.Done("close"));
        EXPECT_EQ(host.WaitFor("close ", 10s), "close ok");
        EXPECT_EQ(Id(host.WaitFor("closed", 10s)), id);
    }
};

// Host connections of every kind come and go; afterwards the service holds
// as many descriptors and threads as before them (its connections' sockets,
// threads and contexts all go, whatever state their browsers were in).
TEST_F(ServiceLifetimeTest, ManyHostConnectionsLeaveNothingBehind)
{
    RecordingCallbacks anchor; // keeps the service (and its engine) up
    auto client = Connect(anchor);
    ASSERT_TRUE(client);
    const pid_t service = client->ServiceProcessID();
    const std::string url = "client_overlay.html";
    // A first round of each kind warms the engine up (its threads, the web
    // process machinery), so that the baseline is the steady state.
    for (int mode = 0; mode < 3; ++mode)
        HostSession(mode, url);
    ASSERT_FALSE(HasFailure());
    const Holdings before = Steady(service);

    constexpr int kSessions = 60;
    for (int i = 0; i < kSessions && !HasFailure(); ++i)
        HostSession(i % 3, url);
    ASSERT_FALSE(HasFailure());
    // A slack of two: the engine opens a descriptor or starts a thread of its
    // own now and then (timers, its memory monitor); what one connection
    // leaves behind would show up 20 to 60 times over.
    constexpr size_t kSlack = 2;
    const Holdings after = SettleTo(service, Holdings {before.descriptors + kSlack, before.threads + kSlack, 0, 0, {}});
    EXPECT_LE(after.descriptors, before.descriptors + kSlack)
        << "before: " << before.Describe() << "; after " << kSessions << " host sessions: " << after.Describe() << "\n"
        << after.targets;
    EXPECT_LE(after.threads, before.threads + kSlack)
        << "before: " << before.Describe() << "; after: " << after.Describe();
}

// A host process that holds every frame and audio buffer it gets is killed:
// the service gets every surface and audio slot back (the pools and their
// segments go with the browser).
TEST_F(ServiceLifetimeTest, AHostKilledWhileHoldingFramesAndAudioGivesEverythingBack)
{
    RecordingCallbacks anchor;
    auto client = Connect(anchor);
    ASSERT_TRUE(client);
    const pid_t service = client->ServiceProcessID();
    HostSession(0, "av_overlay.html"); // warms the engine and the audio path up
    ASSERT_FALSE(HasFailure());
    const Holdings before = Steady(service);
    ASSERT_EQ(before.surfaces + before.audioSegments, 0u) << before.Describe();

    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        close(ready[0]);
        setenv("SLF_TEST_CHILD_SOCKET", socket_.c_str(), 1);
        setenv("SLF_TEST_CHILD_READY_FD", std::to_string(ready[1]).c_str(), 1);
        execl("/proc/self/exe", "client_lifetime_test", "--gtest_filter=ServiceLifetimeChild.*",
              static_cast<char*>(nullptr));
        _exit(127);
    }
    close(ready[1]);
    char report = 0;
    const ssize_t got = read(ready[0], &report, 1);
    close(ready[0]);
    const Holdings holding = ReadHoldings(service);
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_EQ(got, 1) << "the child host got no frames and audio to hold (exit " << status << ")";
    // The frames and slots the child held were out of the service's hands.
    EXPECT_GE(holding.surfaces, 25u) << holding.Describe();
    EXPECT_GT(holding.audioSegments, 0u) << holding.Describe();

    // The same slack as above for what the engine opens on its own.
    constexpr size_t kSlack = 2;
    const Holdings after = SettleTo(service, Holdings {before.descriptors + kSlack, before.threads + kSlack, 0, 0, {}});
    EXPECT_EQ(after.surfaces, 0u) << after.Describe();
    EXPECT_EQ(after.audioSegments, 0u) << after.Describe();
    EXPECT_LE(after.descriptors, before.descriptors + kSlack)
        << "before: " << before.Describe() << "; after: " << after.Describe();
    EXPECT_LE(after.threads, before.threads + kSlack)
        << "before: " << before.Describe() << "; after: " << after.Describe();
    // The service serves on: the anchor and a host that comes later get browsers.
    auto browser = client->OpenBrowser(Page("client_overlay.html", 64, 48), anchor.events());
    EXPECT_GT(Id(anchor.WaitFor("start ", 30s)), 0);
    RecordingCallbacks late;
    auto another = Connect(late);
    ASSERT_TRUE(another);
    EXPECT_EQ(another->ServiceProcessID(), service);
    EXPECT_TRUE(Answers(*another));
}

// The body of the killed host above; skipped when run on its own. It holds
// every frame and buffer, and reports once it holds 25 frames (the pool lets
// 30 out at most) and some audio.
TEST(ServiceLifetimeChild, HoldFramesAndAudioUntilKilled)
{
    const char* socket = getenv("SLF_TEST_CHILD_SOCKET");
    const char* readyFd = getenv("SLF_TEST_CHILD_READY_FD");
    if (!socket || !readyFd)
        GTEST_SKIP() << "runs only as the child of AHostKilledWhileHoldingFramesAndAudio...";
    RecordingCallbacks host;
    streamloft::ConnectOptions options;
    options.socketPath = socket;
    options.startOnDemand = false;
    auto client = OverlayClient::Connect(options);
    if (!client)
        _exit(2);
    auto browser = client->OpenBrowser(Page("av_overlay.html", 64, 48, 60), host.events());
    if (host.WaitFor("frame ", 60s, 25).empty() || host.WaitFor("audio-buffer ", 60s, 10).empty())
        _exit(4);
    const char ok = 1;
    if (write(atoi(readyFd), &ok, 1) != 1)
        _exit(5);
    pause();
    _exit(0);
}

// With --idle-exit=2 and no connection the service ends by itself and takes
// its socket and lock file with it; the next Connect starts a new one.
TEST_F(ServiceLifetimeTest, AnIdleServiceExitsAndTheNextConnectStartsAnother)
{
    const pid_t idle = StartService({"--listen=" + socket_, "--idle-exit=2"});
    ASSERT_TRUE(WaitUntil([&] { return std::filesystem::exists(socket_); }, 20s));
    std::set<std::string> segments;
    {
        // A connection holds it up (here it also starts the engine, which the
        // exit stops); its end starts the wait again.
        RecordingCallbacks host;
        auto client = Connect(host, false);
        ASSERT_TRUE(client);
        EXPECT_EQ(client->ServiceProcessID(), idle);
        auto browser = client->OpenBrowser(Page("av_overlay.html", 64, 48), host.events());
        ASSERT_GT(Id(host.WaitFor("start ", 30s)), 0);
        ASSERT_NE(host.WaitFor("audio-buffer ", 30s), "");
        segments = AudioSegmentsMappedBy(idle);
        EXPECT_FALSE(segments.empty());
        std::this_thread::sleep_for(2500ms);
        EXPECT_TRUE(client->IsConnected());
        EXPECT_TRUE(Answers(*client));
    }
    int status = -1;
    ASSERT_TRUE(WaitUntil([&] { return waitpid(idle, &status, WNOHANG) == idle; }, 30s)) << "the service did not exit";
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_FALSE(std::filesystem::exists(socket_));
    EXPECT_FALSE(std::filesystem::exists(socket_ + ".lock"));
    // The audio pool's segment was unlinked.
    for (const std::string& path : segments)
        EXPECT_FALSE(std::filesystem::exists(path)) << path;
    EXPECT_NE(Log().find("No host connection for 2 s: the service ends"), std::string::npos) << Log();

    RecordingCallbacks host;
    auto client = Connect(host);
    ASSERT_TRUE(client);
    EXPECT_TRUE(client->StartedService());
    EXPECT_NE(client->ServiceProcessID(), idle);
    auto browser = client->OpenBrowser(Page("client_overlay.html", 64, 48), host.events());
    EXPECT_GT(Id(host.WaitFor("start ", 30s)), 0);
}

// Hosts that connect just as an idle service ends never get a dead
// connection: each one either reaches the ending service in time (and keeps
// it) or starts a new one. The services here idle out after 1 s, and hosts
// come about a second apart.
TEST_F(ServiceLifetimeTest, HostsConnectingWhileTheServiceEndsAlwaysGetALiveConnection)
{
    const std::string wrapper = dir_ + "/helper-idle-1s";
    std::ofstream(wrapper) << "#!/bin/sh\nexec '" << kHelper << "' --idle-exit=1 \"$@\"\n";
    std::filesystem::permissions(wrapper, std::filesystem::perms::owner_all);
    std::set<pid_t> seen;
    for (int i = 0; i < 8; ++i) {
        RecordingCallbacks host;
        streamloft::ConnectOptions options = Options();
        options.helperPath = wrapper;
        streamloft::Error error;
        auto client = OverlayClient::Connect(host.Options(options), &error);
        ASSERT_TRUE(client) << "round " << i << ": " << error.message;
        seen.insert(client->ServiceProcessID());
        EXPECT_TRUE(Answers(*client)) << "round " << i;
        client.reset();
        std::this_thread::sleep_for(std::chrono::milliseconds(900 + 50 * (i % 5)));
    }
    EXPECT_GT(seen.size(), 1u) << "no service ever went idle";
    for (pid_t pid : seen)
        services_.push_back(pid);
}

// Under socket activation the service leaves the socket to systemd when it
// goes idle; a host that connects afterwards waits in the socket's queue
// until the next activation serves it.
TEST_F(ServiceLifetimeTest, AnIdleSocketActivatedServiceLeavesTheSocketForTheNextActivation)
{
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, socket_.c_str(), sizeof address.sun_path - 1);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(fd, 8), 0);
    auto activate = [&] {
        pid_t pid = fork();
        if (pid == 0) { // handed over as systemd does
            dup2(fd, 3);
            setenv("LISTEN_FDS", "1", 1);
            setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
            execl(kHelper.c_str(), kHelper.c_str(), "--idle-exit=1", static_cast<char*>(nullptr));
            _exit(127);
        }
        services_.push_back(pid);
        return pid;
    };
    const pid_t first = activate();
    int status = -1;
    ASSERT_TRUE(WaitUntil([&] { return waitpid(first, &status, WNOHANG) == first; }, 30s));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_TRUE(std::filesystem::exists(socket_)) << "the socket belongs to systemd: it stays";

    RecordingCallbacks host;
    std::unique_ptr<OverlayClient> client;
    std::thread connecting([&] { client = Connect(host, false); });
    std::this_thread::sleep_for(300ms);
    const pid_t second = activate();
    connecting.join();
    close(fd);
    ASSERT_TRUE(client);
    // (The peer credentials name the socket's maker, so the service is told
    // by its answers and by the first one's end.)
    EXPECT_TRUE(Answers(*client));
    EXPECT_FALSE(ProcessIsGone(second));
}

} // namespace
