// slf-overlay-soak: the service's process figures, read from /proc
// (resident memory, descriptors, threads, shared-memory segments, frame
// surfaces, web processes), and the comparison of the figures at the end
// with those after the warm-up.
//
// Threads: the main thread. Owns: nothing.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace slfsoak {

struct Usage {
    long rssKiB = 0;
    int descriptors = 0;
    int threads = 0;
    int segments = 0; // distinct /dev/shm files mapped
    int surfaces = 0; // distinct frame surfaces (memfds) mapped
    int webProcesses = 0;
};

// The service's web processes, oldest first.
std::vector<pid_t> WebProcesses(pid_t service);
Usage ReadUsage(pid_t service);
std::string Describe(const Usage& u);
// The counts that must not grow are back to (or below) those after the warm-up.
bool CountsSettled(const Usage& baseline, const Usage& final);
// Prints the reading after the warm-up and, unless the service died (null),
// the one at the end and the memory growth; adds what grew too much to
// `failures`.
void CompareUsage(const Usage& baseline, const Usage* final, std::vector<std::string>* failures);

} // namespace slfsoak
