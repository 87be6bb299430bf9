// Tests against the real service executable: a private folder for the
// service's socket (and its log beside it), the services a test started
// (ended with SIGTERM, then SIGKILL, when the test ends; the log printed when
// it failed), and the waits and process readers these tests share. Needs
// SLF_TEST_HELPER_PATH and SLF_TEST_PAGES_DIR (slf_add_test ... SERVICE).
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "streamloft/OverlayClient.h"
#include "tests/support/Wait.h"

namespace slftest {

using namespace std::chrono_literals;

inline const std::string kHelper = SLF_TEST_HELPER_PATH;
inline const std::string kPages = SLF_TEST_PAGES_DIR;

// A test page's URL, and options that open it with the pages' folder permitted.
inline std::string PageURL(const std::string& page)
{
    return "file://" + kPages + "/" + page;
}
inline streamloft::BrowserOptions Page(const std::string& page, double width, double height, double fps = 30)
{
    return {PageURL(page), width, height, fps, {PageURL("")}};
}

// The ID at the end of an event line ("start 7"), or 0 when none came.
inline int Id(const std::string& event)
{
    return event.empty() ? 0 : std::atoi(event.c_str() + event.rfind(' ') + 1);
}

inline std::string ReadFile(const std::string& path)
{
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// Whether a process has ended (a zombie that nobody has reaped counts).
inline bool ProcessIsGone(pid_t pid)
{
    if (kill(pid, 0) != 0)
        return errno == ESRCH;
    const std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
    const auto close = stat.rfind(')');
    return close != std::string::npos && close + 2 < stat.size() && stat[close + 2] == 'Z';
}

// SIGTERM, then SIGKILL if it has not ended within 10 s; reaped if ours.
inline void StopProcess(pid_t pid)
{
    kill(pid, SIGTERM);
    if (!WaitUntil([&] { return ProcessIsGone(pid); }, 10s))
        kill(pid, SIGKILL);
    waitpid(pid, nullptr, WNOHANG);
}

// The audio pool segments ("/dev/shm/NVKXPCABN_...") a process has mapped:
// other tests make and remove segments of their own, so only these tell.
inline std::set<std::string> AudioSegmentsMappedBy(pid_t pid)
{
    std::set<std::string> paths;
    std::ifstream maps("/proc/" + std::to_string(pid) + "/maps");
    for (std::string line; std::getline(maps, line);) {
        const auto at = line.find("/dev/shm/NVKXPCABN_");
        if (at != std::string::npos)
            paths.insert(line.substr(at, line.find(' ', at) - at));
    }
    return paths;
}

class ServiceTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        char pattern[] = "/tmp/slf-test-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
        socket_ = dir_ + "/overlay-helper.sock";
    }
    void TearDown() override
    {
        for (pid_t pid : services_)
            StopProcess(pid);
        if (HasFailure())
            std::cout << "---- service log ----\n" << Log() << "\n";
        std::filesystem::remove_all(dir_);
    }

    // Options for this test's socket, starting the service when none answers.
    streamloft::ConnectOptions Options(bool startOnDemand = true) const
    {
        streamloft::ConnectOptions options;
        options.socketPath = socket_;
        options.helperPath = kHelper;
        options.startOnDemand = startOnDemand;
        options.startTimeout = 20s;
        return options;
    }
    // Connects (a failure fails the test); a service it started is stopped at the end.
    std::unique_ptr<streamloft::OverlayClient> Connect(const streamloft::ConnectOptions& options)
    {
        streamloft::Error error;
        auto client = streamloft::OverlayClient::Connect(options, &error);
        EXPECT_TRUE(client) << error.message;
        if (client && client->StartedService() && client->ServiceProcessID() > 0)
            services_.push_back(client->ServiceProcessID());
        return client;
    }
    std::string Log() const { return ReadFile(socket_ + ".log"); }

    std::string dir_, socket_;
    std::vector<pid_t> services_;
};

} // namespace slftest
