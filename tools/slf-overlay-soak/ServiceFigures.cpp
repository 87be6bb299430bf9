// slf-overlay-soak: the service's process figures and their comparison (see
// ServiceFigures.h).
#include "tools/slf-overlay-soak/ServiceFigures.h"

#include <dirent.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>
#include <utility>

#include "bench/support/ProcessTree.h"

namespace slfsoak {

namespace {

constexpr const char* kWebProcessName = "WPEWebProcess";

int CountDescriptors(pid_t pid)
{
    DIR* dir = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
    if (!dir)
        return -1;
    int count = 0;
    while (dirent* entry = readdir(dir))
        if (entry->d_name[0] != '.')
            ++count;
    closedir(dir);
    return count - 1; // the directory's own descriptor
}

} // namespace

std::vector<pid_t> WebProcesses(pid_t service)
{
    std::vector<std::pair<unsigned long long, pid_t>> byStart;
    for (const auto& [pid, ticks] : slfbench::ReadTreeTicks(service)) {
        if (pid == service || ticks.name != kWebProcessName)
            continue;
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
                if (i == 22)
                    start = std::strtoull(field.c_str(), nullptr, 10);
        }
        byStart.emplace_back(start, pid);
    }
    std::sort(byStart.begin(), byStart.end());
    std::vector<pid_t> pids;
    for (const auto& entry : byStart)
        pids.push_back(entry.second);
    return pids;
}

Usage ReadUsage(pid_t service)
{
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

std::string Describe(const Usage& u)
{
    char text[256];
    snprintf(text, sizeof text, "rss %ld KiB, descriptors %d, threads %d, segments %d, surfaces %d, web processes %d",
             u.rssKiB, u.descriptors, u.threads, u.segments, u.surfaces, u.webProcesses);
    return text;
}

bool CountsSettled(const Usage& baseline, const Usage& final)
{
    return final.descriptors <= baseline.descriptors && final.threads <= baseline.threads &&
           final.segments <= baseline.segments;
}

void CompareUsage(const Usage& baseline, const Usage* final, std::vector<std::string>* failures)
{
    printf("start:  %s\n", Describe(baseline).c_str());
    if (!final)
        return;
    printf("end:    %s\n", Describe(*final).c_str());
    const double growth = baseline.rssKiB > 0 ? 100.0 * (final->rssKiB - baseline.rssKiB) / baseline.rssKiB : 0;
    printf("rss growth: %+.1f %%\n", growth);
    if (growth > 5.0)
        failures->push_back("resident memory grew by more than 5 %");
    if (final->descriptors > baseline.descriptors)
        failures->push_back("descriptors grew by " + std::to_string(final->descriptors - baseline.descriptors));
    if (final->threads > baseline.threads)
        failures->push_back("threads grew by " + std::to_string(final->threads - baseline.threads));
    if (final->segments > baseline.segments)
        failures->push_back("segments grew by " + std::to_string(final->segments - baseline.segments));
}

} // namespace slfsoak
