#include "tests/dbg/DbgFixture.h"
#include "tests/dbg/Matches.h"

#include <atomic>
#include <fcntl.h>
#include <fstream>
#include <pwd.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

// A UDP socket on 127.0.0.1 that the log's syslog sink is pointed at.
class LoopbackReceiver {
public:
    LoopbackReceiver()
    {
        m_fd = socket(AF_INET, SOCK_DGRAM, 0);
        struct sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(m_fd, reinterpret_cast<struct sockaddr*>(&address), sizeof address);
        socklen_t length = sizeof address;
        getsockname(m_fd, reinterpret_cast<struct sockaddr*>(&address), &length);
        m_port = ntohs(address.sin_port);
        struct timeval timeout = {5, 0};
        setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    }
    ~LoopbackReceiver() { close(m_fd); }
    int Port() const { return m_port; }
    // The next datagram, or "<none>" after 5 s.
    std::string Receive()
    {
        char buffer[8192];
        const ssize_t n = recv(m_fd, buffer, sizeof buffer, 0);
        return n < 0 ? std::string("<none>") : std::string(buffer, static_cast<size_t>(n));
    }
    // True when no datagram is waiting.
    bool Empty()
    {
        char byte;
        return recv(m_fd, &byte, 1, MSG_DONTWAIT | MSG_PEEK) < 0;
    }

private:
    int m_fd = -1;
    int m_port = 0;
};

class DbgSinksTest : public DbgFixture {
protected:
    void SetUp() override
    {
        DbgFixture::SetUp();
        dbgcommand("notime");
        dbgcommand("nofunctionname");
    }
    // Points the syslog sink at the receiver with the given header type word
    // and takes the command's own message off the socket.
    void UseReceiver(LoopbackReceiver& receiver, const char* type)
    {
        DbgGetSyslog().port = receiver.Port();
        dbgcommand((std::string("syslog 127.0.0.1 ") + type).c_str());
        ASSERT_EQ(DbgGetSyslog().host, std::string("127.0.0.1"));
        ASSERT_NE(receiver.Receive().find("using syslog via UDP to 127.0.0.1:" + std::to_string(receiver.Port())),
                  std::string::npos);
    }
};

TEST_F(DbgSinksTest, CallbackReceivesLevelLineAndLength)
{
    dbgprintf(1, "npl", "cb", nullptr, "value %d", 42);
    const auto lines = Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, 1);
    EXPECT_EQ(lines[0].text, "cb   wrn value 42\n");
    EXPECT_EQ(lines[0].length, 18);
}

TEST_F(DbgSinksTest, UdpHeaderTypes)
{
    LoopbackReceiver receiver;
    UseReceiver(receiver, "none");
    dbgprintf(2, "npl", "udp", nullptr, "plain line");
    EXPECT_EQ(receiver.Receive(), "udp  inf plain line"); // the final line feed is not sent

    UseReceiver(receiver, "PRI");
    dbgprintf(1, "npl", "udp", nullptr, "warned\n");
    EXPECT_EQ(receiver.Receive(), "<12> udp  wrn warned");

    dbgopen("slf-dbg-test");
    UseReceiver(receiver, "RFC3164");
    dbgprintf(2, "npl", "udp", nullptr, "info");
    const std::string rfc3164 = receiver.Receive();
    const std::string pid = std::to_string(getpid());
    EXPECT_TRUE(Matches(rfc3164, (R"(<14>[A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d [\d.]* slf-dbg-test\[)" +
                                                     pid + R"(\]: udp  inf info)")))
        << rfc3164;

    UseReceiver(receiver, "RFC5424");
    dbgprintf(0, "npl", "udp", nullptr, "failed");
    const std::string rfc5424 = receiver.Receive();
    EXPECT_TRUE(Matches(rfc5424, (R"(<11>1 - [\d.]* slf-dbg-test )" + pid + R"( npl - udp  ERR failed)")))
        << rfc5424;
    dbgprintf(7, "npl", "udp", nullptr, "other level");
    EXPECT_EQ(receiver.Receive().rfind("<15>1 - ", 0), 0u);

    // A long line is cut to one 4096-byte datagram.
    const std::string longText(5000, 'z');
    dbgprintf(3, "npl", "udp", nullptr, "%s", longText.c_str());
    EXPECT_EQ(receiver.Receive().size(), 4095u);
    dbgcommand("null");
    EXPECT_TRUE(receiver.Empty());
}

ssize_t FailOnce(int, const void*, size_t, int, const struct sockaddr*, socklen_t)
{
    errno = ENOBUFS;
    return -1;
}

TEST_F(DbgSinksTest, SendFailureClosesTheSocketAndTheNextLineOpensItAgain)
{
    LoopbackReceiver receiver;
    UseReceiver(receiver, "none");
    const int before = DbgGetSyslog().socket;
    EXPECT_GT(before, 0);
    DbgSetSendFunction(&FailOnce);
    dbgprintf(2, "npl", "udp", nullptr, "lost");
    EXPECT_EQ(DbgGetSyslog().socket.load(), -1);
    DbgSetSendFunction(nullptr);
    dbgprintf(2, "npl", "udp", nullptr, "delivered");
    EXPECT_GT(DbgGetSyslog().socket.load(), 0);
    EXPECT_EQ(receiver.Receive(), "udp  inf delivered");
}

TEST_F(DbgSinksTest, MulticastDestinations)
{
    EXPECT_TRUE(DbgIsMulticastAddress("239.255.255.250"));
    EXPECT_TRUE(DbgIsMulticastAddress("224.0.0.0"));
    EXPECT_TRUE(DbgIsMulticastAddress("239.255.255.255"));
    EXPECT_FALSE(DbgIsMulticastAddress("240.0.0.1"));
    EXPECT_FALSE(DbgIsMulticastAddress("223.255.255.255"));
    EXPECT_FALSE(DbgIsMulticastAddress("127.0.0.1"));
    EXPECT_FALSE(DbgIsMulticastAddress("not an address"));

    // Set up for a multicast group: the socket is prepared for multicast
    // (loop-back on); the fixture drops the datagram itself.
    dbgcommand("syslog 239.255.255.250 RFC5424");
    const int fd = DbgGetSyslog().socket;
    ASSERT_GT(fd, 0);
    unsigned char loop = 0;
    socklen_t length = sizeof loop;
    ASSERT_EQ(getsockopt(fd, IPPROTO_IP, IP_MULTICAST_LOOP, &loop, &length), 0);
    EXPECT_EQ(loop, 1);
    std::lock_guard<std::mutex> guard(DroppedMutex());
    ASSERT_EQ(Dropped().size(), 1u);
    EXPECT_EQ(Dropped()[0].destination, "239.255.255.250:514");
}

TEST_F(DbgSinksTest, LocalAddressIsDottedTextOrEmpty)
{
    // Finding the local address connects a UDP socket without sending.
    DbgSyslogSetUpUdp();
    const std::string local = DbgGetSyslog().localAddress;
    EXPECT_TRUE(local.empty() || Matches(local, (R"(\d+\.\d+\.\d+\.\d+)"))) << local;
    DbgSyslogCloseUdp();
}

std::string ReadFile(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

TEST_F(DbgSinksTest, LogFileUnderTheHomeFolder)
{
    dbgcommand("logfile");
    dbgprintf(2, "npl", "file", nullptr, "first");
    dbgprintf(0, "npl", "file", nullptr, "second\n");
    const std::string path = m_home + "/.local/state/norvik.log";
    EXPECT_EQ(DbgGetLogFile().fullPath, path);
    struct stat info;
    ASSERT_EQ(stat((m_home + "/.local/state").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0700u);
    EXPECT_EQ(ReadFile(path), "    using log file 'norvik.log'\nfile inf first\nfile ERR second\n");

    // A new path takes effect at the next line; earlier text stays.
    const std::string other = m_home + "/other.log";
    dbgcommand(("logfile " + other).c_str());
    dbgprintf(1, "npl", "file", nullptr, "third");
    EXPECT_EQ(ReadFile(other), "    using log file '" + other + "'\nfile wrn third\n");
    EXPECT_EQ(ReadFile(path).find("third"), std::string::npos);

    // A file that cannot be opened drops the line, and is retried.
    const std::string blocked = m_home + "/blocked/x.log";
    std::ofstream(m_home + "/blocked") << "a file, not a folder";
    dbgcommand(("logfile " + blocked).c_str());
    dbgprintf(1, "npl", "file", nullptr, "dropped");
    EXPECT_EQ(DbgGetLogFile().fd.load(), -1);
    EXPECT_FALSE(Lines().empty()); // the other sinks still got it
}

TEST_F(DbgSinksTest, NoFoldersAreMadeInAnotherUsersHome)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to hand the folder to another user";
    const std::string home = m_home + "/someone";
    ASSERT_EQ(mkdir(home.c_str(), 0777), 0);
    ASSERT_EQ(chown(home.c_str(), 65534, 65534), 0);
    DbgSetHomeFolderOverride(home.c_str());
    dbgcommand("logfile");
    dbgprintf(1, "npl", "file", nullptr, "dropped");
    EXPECT_FALSE(NplFile_FileExists(home + "/.local"));
    EXPECT_EQ(DbgGetLogFile().fd.load(), -1);

    // Once the user's folder exists, the file is made in it.
    ASSERT_EQ(mkdir((home + "/.local").c_str(), 0777), 0);
    ASSERT_EQ(mkdir((home + "/.local/state").c_str(), 0777), 0);
    dbgprintf(1, "npl", "file", nullptr, "written");
    EXPECT_EQ(ReadFile(home + "/.local/state/norvik.log"), "file wrn written\n");
}

TEST_F(DbgSinksTest, RelativePathsOfRootGoToTheFirstUsersHome)
{
    DbgSetHomeFolderOverride(nullptr);
    char path[4096];
    DbgBuildLogFilePath("norvik.log", path, sizeof path);
    std::string home;
    if (getuid() == 0) {
        const struct passwd* user = getpwuid(1000);
        if (!user)
            user = getpwuid(0);
        ASSERT_NE(user, nullptr);
        home = user->pw_dir;
    } else {
        home = getenv("HOME") ? getenv("HOME") : getpwuid(getuid())->pw_dir;
    }
    if (home.back() != '/')
        home += '/';
    EXPECT_EQ(std::string(path), home + ".local/state/norvik.log");
    DbgBuildLogFilePath("/var/tmp/x.log", path, sizeof path);
    EXPECT_STREQ(path, "/var/tmp/x.log");
    DbgBuildLogFilePath("", path, sizeof path);
    EXPECT_STREQ(path, "");
}

TEST_F(DbgSinksTest, PrintfSinkWritesStandardOutput)
{
    dbgcommand("printf");
    testing::internal::CaptureStdout();
    dbgprintf(2, "npl", "out", nullptr, "to stdout");
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out, "out  inf to stdout\n");
    dbgcommand("noprintf");
}

TEST_F(DbgSinksTest, JournalAndNullSinks)
{
    // The journal may be absent here: the sink must just not fail.
    dbgcommand("oslog");
    dbgprintf(3, "npl", "journal", nullptr, "slf dbg test line");
    EXPECT_EQ(Lines().size(), 1u);
    dbgcommand("null");
    Clear();
    dbgprintf(0, "npl", "journal", nullptr, "nowhere");
    EXPECT_TRUE(Lines().empty());
    dbgDumpBufferToFile("abc", 3, 0);
}

TEST_F(DbgSinksTest, ConcurrentLinesToEverySink)
{
    LoopbackReceiver receiver;
    UseReceiver(receiver, "RFC5424");
    dbgcommand("logfile");
    dbgcommand("deltatime");
    dbgcommand("threadid");
    Clear();
    constexpr int kThreads = 4;
    constexpr int kLines = 50;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < kLines; ++i)
                dbgprintf(2, "npl", "many", "void Worker::Run()", "thread %d line %d", t, i);
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(Lines().size(), static_cast<size_t>(kThreads * kLines));
    int received = 0;
    while (!receiver.Empty() && receiver.Receive() != "<none>")
        ++received;
    EXPECT_GT(received, 0); // loopback UDP may drop under load, but not everything
    std::istringstream file(ReadFile(m_home + "/.local/state/norvik.log"));
    int fileLines = 0;
    for (std::string line; std::getline(file, line);)
        fileLines += line.find(" many inf thread ") != std::string::npos;
    EXPECT_EQ(fileLines, kThreads * kLines);
}

} // namespace
