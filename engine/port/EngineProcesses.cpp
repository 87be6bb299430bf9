// Finds the engine's helper processes among this process's children.
#include "engine/port/EngineProcesses.h"

#include <dirent.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

namespace SLF_ChromiumEmbeddedFramework {

std::vector<std::pair<int, bool>> RunningChildProcessesNamed(const std::string& prefix,
                                                             const std::string& networkPrefix)
{
    std::vector<std::pair<int, bool>> result;
    // The children of a process, over all its threads.
    auto childrenOf = [](const std::string& process) {
        std::vector<int> children;
        DIR* tasks = opendir(("/proc/" + process + "/task").c_str());
        if (!tasks)
            return children;
        while (struct dirent* entry = readdir(tasks)) {
            if (entry->d_name[0] == '.')
                continue;
            std::ifstream list("/proc/" + process + "/task/" + entry->d_name + "/children");
            int pid = 0;
            while (list >> pid)
                children.push_back(pid);
        }
        closedir(tasks);
        return children;
    };
    // Sandboxed helpers run below one or two bubblewrap processes, which
    // are searched too.
    std::vector<std::pair<int, int>> pending; // pid, depth
    for (int pid : childrenOf("self"))
        pending.emplace_back(pid, 0);
    while (!pending.empty()) {
        const auto [pid, depth] = pending.back();
        pending.pop_back();
        std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
        std::string line;
        std::getline(stat, line);
        // "pid (comm) state ..."
        const size_t open = line.find('(');
        const size_t close = line.rfind(')');
        if (open == std::string::npos || close == std::string::npos || close + 2 >= line.size())
            continue;
        const std::string comm = line.substr(open + 1, close - open - 1);
        const char state = line[close + 2];
        if (state == 'Z' || state == 'X')
            continue;
        if (comm.rfind(prefix, 0) == 0) {
            result.emplace_back(pid, comm.rfind(networkPrefix, 0) == 0);
        } else if (comm == "bwrap" && depth < 3) {
            for (int child : childrenOf(std::to_string(pid)))
                pending.emplace_back(child, depth + 1);
        }
    }
    return result;
}

std::string PidNamespaceOf(int pid)
{
    const std::string path = pid ? "/proc/" + std::to_string(pid) + "/ns/pid" : std::string("/proc/self/ns/pid");
    char target[64] = {};
    const ssize_t length = readlink(path.c_str(), target, sizeof(target) - 1);
    return length > 0 ? std::string(target, static_cast<size_t>(length)) : std::string();
}

int FindProcessByInnerPid(const std::vector<int>& candidates, int innerPid, const std::string& pidNamespace)
{
    if (innerPid <= 0 || pidNamespace.empty())
        return 0;
    for (int pid : candidates) {
        if (PidNamespaceOf(pid) != pidNamespace)
            continue;
        // "NSpid:\t4711\t2": the pid in each namespace, outermost first.
        std::ifstream status("/proc/" + std::to_string(pid) + "/status");
        for (std::string line; std::getline(status, line);) {
            if (line.rfind("NSpid:", 0) != 0)
                continue;
            std::istringstream numbers(line.substr(6));
            int inner = 0;
            for (int number = 0; numbers >> number;)
                inner = number;
            if (inner == innerPid)
                return pid;
            break;
        }
    }
    return 0;
}

} // namespace SLF_ChromiumEmbeddedFramework
