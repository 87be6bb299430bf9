#include "tests/dbg/DbgFixture.h"

#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

std::string ReadFile(const std::string& path)
{
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

class DbgSinksTest : public DbgFixture {
protected:
    void SetUp() override
    {
        DbgFixture::SetUp();
        dbgcommand("nofunctionname");
        m_fd = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in address = {AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t length = sizeof address;
        bind(m_fd, reinterpret_cast<sockaddr*>(&address), length);
        getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &length);
        m_port = ntohs(address.sin_port);
        const timeval timeout = {5, 0};
        setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    }
    void TearDown() override
    {
        close(m_fd);
        DbgFixture::TearDown();
    }
    // Points the syslog sink at the receiver and takes the command's own message.
    void UseReceiver(const char* type)
    {
        DbgGetSyslog().port = m_port;
        dbgcommand((std::string("syslog 127.0.0.1 ") + type).c_str());
        ASSERT_NE(Receive().find("using syslog via UDP to 127.0.0.1:" + std::to_string(m_port)), std::string::npos);
    }
    // The next datagram, or "<none>" after 5 s.
    std::string Receive(int flags = 0)
    {
        char buffer[8192];
        const ssize_t n = recv(m_fd, buffer, sizeof buffer, flags);
        return n < 0 ? std::string("<none>") : std::string(buffer, static_cast<size_t>(n));
    }

    int m_fd = -1;
    int m_port = 0;
};

TEST_F(DbgSinksTest, UdpHeaderTypes)
{
    const std::string pid = std::to_string(getpid());
    dbgopen("slf-dbg-test");
    const struct {
        const char* type;
        int level;
        const char* message;
        std::string expected;
    } cases[] = {
        {"none", 2, "plain line", "udp  inf plain line"}, // the final line feed is not sent
        {"PRI", 1, "warned\n", "<12> udp  wrn warned"},
        {"RFC3164", 2, "info",
         "<14>[A-Z][a-z]{2} [ 0-9][0-9] [0-9:]{8} [0-9.]* slf-dbg-test\\[" + pid + "\\]: udp  inf info"},
        {"RFC5424", 0, "failed", "<11>1 - [0-9.]* slf-dbg-test " + pid + " npl - udp  ERR failed"},
        {"RFC5424", 7, "other", "<15>1 - .* udp      other"},
    };
    for (const auto& c : cases) {
        UseReceiver(c.type);
        dbgprintf(c.level, "npl", "udp", nullptr, "%s", c.message);
        const std::string datagram = Receive();
        EXPECT_TRUE(Matches(datagram, c.expected)) << datagram;
    }
    // A long line is cut to one 4096-byte datagram.
    dbgprintf(3, "npl", "udp", nullptr, "%s", std::string(5000, 'z').c_str());
    EXPECT_EQ(Receive().size(), 4095u);
    // A failed send closes the socket; the next line opens it again.
    DbgSetSendFunction([](int, const void*, size_t, int, const sockaddr*, socklen_t) -> ssize_t {
        errno = ENOBUFS;
        return -1;
    });
    dbgprintf(2, "npl", "udp", nullptr, "lost");
    EXPECT_EQ(DbgGetSyslog().socket.load(), -1);
    DbgSetSendFunction(nullptr);
    dbgprintf(2, "npl", "udp", nullptr, "delivered");
    EXPECT_TRUE(Matches(Receive(), "<14>1 - .* udp  inf delivered"));
    dbgcommand("null");
    dbgprintf(3, "npl", "udp", nullptr, "nowhere");
    EXPECT_EQ(Receive(MSG_DONTWAIT), "<none>");
    EXPECT_TRUE(Lines().empty() || Lines().back().text.find("nowhere") == std::string::npos);
}

TEST_F(DbgSinksTest, LogFileUnderTheHomeFolder)
{
    dbgcommand("logfile");
    EXPECT_EQ(dbgquery("logfile"), 1);
    dbgprintf(2, "npl", "file", nullptr, "first");
    dbgprintf(0, "npl", "file", nullptr, "second\n");
    const std::string path = m_home + "/.local/state/norvik.log";
    EXPECT_EQ(ReadFile(path), "    using log file 'norvik.log'\nfile inf first\nfile ERR second\n");
    struct stat info;
    ASSERT_EQ(stat((m_home + "/.local/state").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0700u);

    // A new path ("~/", spaces kept) takes effect at the next line.
    dbgcommand("logfile ~/a b.log ");
    dbgprintf(1, "npl", "file", nullptr, "third");
    EXPECT_EQ(ReadFile(m_home + "/.local/state/a b.log"), "    using log file 'a b.log'\nfile wrn third\n");
    EXPECT_EQ(ReadFile(path).find("third"), std::string::npos);

    // A file that cannot be opened drops the line for that sink only.
    std::ofstream(m_home + "/blocked") << "a file, not a folder";
    dbgcommand(("logfile " + m_home + "/blocked/x.log").c_str());
    dbgprintf(1, "npl", "file", nullptr, "dropped");
    EXPECT_EQ(DbgGetLogFile().fd.load(), -1);
    EXPECT_EQ(Last(), "file wrn dropped\n");
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
    // Once the user's folder exists, the file is made in it.
    ASSERT_EQ(mkdir((home + "/.local").c_str(), 0777), 0);
    ASSERT_EQ(mkdir((home + "/.local/state").c_str(), 0777), 0);
    dbgprintf(1, "npl", "file", nullptr, "written");
    EXPECT_EQ(ReadFile(home + "/.local/state/norvik.log"), "file wrn written\n");
}

TEST_F(DbgSinksTest, ConcurrentLinesStayWholeInEverySink)
{
    UseReceiver("RFC5424");
    for (const char* command : {"logfile", "deltatime", "threadid", "functionname", "functionpurename"})
        dbgcommand(command);
    Clear();
    constexpr int kThreads = 4, kLines = 50;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < kLines; ++i)
                dbgprintf(2, "npl", "many", "void Worker::Run()", "thread %d line %d", t, i);
        });
    for (auto& thread : threads)
        thread.join();
    const auto lines = Lines();
    EXPECT_EQ(lines.size(), size_t(kThreads * kLines));
    for (const auto& line : lines) // deltas of concurrent lines may be negative
        EXPECT_TRUE(Matches(line.text, "( [0-9]\\.[- 0-9]{3}\\.[- 0-9]{3} )?[ 0-9]{4,}[0-9] many inf "
                                       "Worker::Run\\(\\): thread [0-9] line [0-9]+\n"))
            << line.text;
    EXPECT_NE(Receive(), "<none>"); // loopback UDP may drop under load, but not everything
    std::istringstream file(ReadFile(m_home + "/.local/state/norvik.log"));
    int fileLines = 0;
    for (std::string line; std::getline(file, line);)
        fileLines += line.find(" many inf ") != std::string::npos;
    EXPECT_EQ(fileLines, kThreads * kLines);
}

} // namespace
