// Readings of a process and its descendants from /proc, for the benchmarks
// that run the service (and the web processes it starts) as child processes:
// CPU ticks per process, proportional memory, and the reaping of whatever a
// run leaves behind (the benchmark makes itself the subreaper of its tree).
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>

namespace slfbench {

struct ProcessTicks {
    std::string name;
    unsigned long long ticks = 0;
};
using TreeTicks = std::map<pid_t, ProcessTicks>;

// One line of /proc/<pid>/stat split after the command name: the name, the
// parent, and user + system ticks including reaped children.
inline bool ReadStat(pid_t pid, std::string* name, pid_t* parent, unsigned long long* ticks)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    std::getline(in, text);
    const size_t open = text.find('(');
    const size_t close = text.rfind(')');
    if (open == std::string::npos || close == std::string::npos || close < open || close + 2 > text.size())
        return false;
    std::istringstream fields(text.substr(close + 2));
    std::string state;
    long long ppid = 0;
    unsigned long long skip, utime = 0, stime = 0;
    long long cutime = 0, cstime = 0;
    fields >> state >> ppid;
    for (int i = 0; i < 9; ++i)
        fields >> skip; // pgrp ... cmajflt
    fields >> utime >> stime >> cutime >> cstime;
    *name = text.substr(open + 1, close - open - 1);
    *parent = static_cast<pid_t>(ppid);
    *ticks = utime + stime + static_cast<unsigned long long>(cutime + cstime);
    return true;
}

// Every live process whose ancestry reaches `root` (root included).
inline TreeTicks ReadTreeTicks(pid_t root)
{
    std::map<pid_t, pid_t> parents;
    TreeTicks all;
    DIR* proc = opendir("/proc");
    if (!proc)
        return {};
    while (dirent* entry = readdir(proc)) {
        const pid_t pid = static_cast<pid_t>(std::atoi(entry->d_name));
        if (pid <= 0)
            continue;
        ProcessTicks t;
        pid_t parent = 0;
        if (!ReadStat(pid, &t.name, &parent, &t.ticks))
            continue;
        parents[pid] = parent;
        all[pid] = t;
    }
    closedir(proc);
    TreeTicks tree;
    for (const auto& [pid, t] : all) {
        for (pid_t p = pid; p > 0;) {
            if (p == root) {
                tree[pid] = t;
                break;
            }
            auto it = parents.find(p);
            if (it == parents.end())
                break;
            p = it->second;
        }
    }
    return tree;
}

inline double TicksToSeconds(unsigned long long ticks)
{
    return static_cast<double>(ticks) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// CPU seconds spent between two readings, in total and by process name.
// Processes that ended in between count through their parent's reaped
// children time.
inline double CpuBetween(const TreeTicks& before, const TreeTicks& after, std::map<std::string, double>* byName)
{
    unsigned long long total = 0;
    for (const auto& [pid, t] : after) {
        auto it = before.find(pid);
        const unsigned long long start = it != before.end() && it->second.name == t.name ? it->second.ticks : 0;
        const unsigned long long spent = t.ticks >= start ? t.ticks - start : 0;
        total += spent;
        if (byName)
            (*byName)[t.name] += TicksToSeconds(spent);
    }
    return TicksToSeconds(total);
}

// A "Key:   N kB" field of /proc/<pid>/status or /proc/<pid>/smaps_rollup,
// in KiB; 0 when the process or the field is missing.
inline long ReadKilobytes(pid_t pid, const char* file, const std::string& key)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/" + file);
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind(key + ":", 0) == 0)
            return std::atol(line.c_str() + key.size() + 1);
    }
    return 0;
}

// Resident memory of one process (VmRSS) in KiB.
inline long ResidentKilobytes(pid_t pid)
{
    return ReadKilobytes(pid, "status", "VmRSS");
}

// Proportional memory (Pss: shared pages split among their users) of a
// whole tree in KiB, so that libraries shared by the service and its web
// processes count once.
inline long TreeProportionalKilobytes(pid_t root)
{
    long total = 0;
    for (const auto& [pid, t] : ReadTreeTicks(root))
        total += ReadKilobytes(pid, "smaps_rollup", "Pss");
    return total;
}

// Processor time of one process (all its threads) in seconds, to the
// nanosecond: the scheduler's own account (/proc/PID/task/*/schedstat), for
// readings far below the clock tick of /proc/PID/stat.
inline double ProcessCpuSeconds(pid_t pid)
{
    const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
    DIR* dir = opendir(tasks.c_str());
    if (!dir)
        return 0;
    unsigned long long nanoseconds = 0;
    while (struct dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.')
            continue;
        std::ifstream schedstat(tasks + "/" + entry->d_name + "/schedstat");
        unsigned long long onCpu = 0;
        if (schedstat >> onCpu)
            nanoseconds += onCpu;
    }
    closedir(dir);
    return static_cast<double>(nanoseconds) / 1e9;
}

// Ends every remaining descendant (the calling program is their subreaper)
// and reaps them; whatever outlives `grace` is killed.
inline void ReapDescendants(std::chrono::milliseconds grace)
{
    const auto end = std::chrono::steady_clock::now() + grace;
    for (;;) {
        int status;
        const pid_t pid = waitpid(-1, &status, WNOHANG);
        if (pid < 0)
            return; // no children left
        if (pid > 0)
            continue;
        if (std::chrono::steady_clock::now() > end) {
            for (const auto& [p, t] : ReadTreeTicks(getpid())) {
                std::string name;
                pid_t parent = 0;
                unsigned long long ticks = 0;
                if (p != getpid() && ReadStat(p, &name, &parent, &ticks) && parent == getpid())
                    kill(p, SIGKILL);
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

// Starts the service executable listening on `socket`, its log in
// "<socket>.log"; returns its process id.
// engine: the service's --engine value, or null for its default.
inline pid_t SpawnService(const char* helperPath, const std::string& socket, const char* engine = nullptr)
{
    const pid_t service = fork();
    if (service == 0) {
        const int log = open((socket + ".log").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        if (log >= 0)
            dup2(log, STDERR_FILENO);
        const std::string listen = "--listen=" + socket;
        const std::string choice = std::string("--engine=") + (engine ? engine : "");
        execl(helperPath, helperPath, listen.c_str(), engine ? choice.c_str() : nullptr, static_cast<char*>(nullptr));
        _exit(127);
    }
    return service;
}

} // namespace slfbench
