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
// delivered frames at the end; 1 otherwise; 2 for a wrong command line.//
// Files: main.cpp the command line, the run and the report; Soak.* what the
// others share (settings, log lines, a host's events); Anchors.* the hosts
// that stay; Churn.* the hosts that come and go; ServiceFigures.* the
// service's figures from /proc and their comparison.
//
// Threads: the main thread runs the load and takes the readings; the churn
// thread runs the passing hosts; every client has its library thread.
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench/support/ProcessTree.h"
#include "tools/slf-overlay-soak/Anchors.h"
#include "tools/slf-overlay-soak/Churn.h"
#include "tools/slf-overlay-soak/ServiceFigures.h"
#include "tools/slf-overlay-soak/Soak.h"

using namespace slfsoak;

namespace {

bool ParseArguments(int argc, char** argv, Config* config)
{
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

std::string MakeRunFolder()
{
    const char* tmp = getenv("TMPDIR");
    std::string folder = std::string(tmp && tmp[0] ? tmp : "/tmp") + "/slf-soak-XXXXXX";
    if (!mkdtemp(folder.data()))
        return std::string();
    return folder;
}

} // namespace

int main(int argc, char** argv)
{
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
    Say("soak for %.1f min: service %s (pid %d), log %s.log, page %s", config.minutes, config.service.c_str(), service,
        socket.c_str(), config.page.c_str());

    int serviceStatus = 0;
    bool serviceDied = false;
    auto serviceAlive = [&] {
        if (serviceDied)
            return false;
        if (waitpid(service, &serviceStatus, WNOHANG) == service)
            serviceDied = true;
        return !serviceDied;
    };

    // The anchors.
    std::vector<std::unique_ptr<Anchor>> anchors = OpenAnchors(config, socket, serviceAlive);
    bool setUp = static_cast<int>(anchors.size()) == kAnchors && serviceAlive();
    if (setUp)
        Say("anchor browsers %d, %d, %d open", anchors[0]->id, anchors[1]->id, anchors[2]->id);

    Churn churn(config, socket);
    if (setUp)
        churn.Start();

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

        if (!ServeAnchors(anchors, &settingsTick, haveBaseline))
            setUp = false;

        if (now >= nextResize) {
            ResizeAnchor(*anchors[resizeRound++ % kAnchors]);
            nextResize += config.resizeSeconds;
        }

        if (!haveBaseline && now >= config.warmupSeconds) {
            churn.Pause();
            WaitFor(
                [&] {
                    ServeAnchors(anchors, &settingsTick, haveBaseline);
                    return churn.idle();
                },
                60s);
            const auto settled = Clock::now() + 3s;
            WaitFor(
                [&] {
                    ServeAnchors(anchors, &settingsTick, haveBaseline);
                    return Clock::now() > settled;
                },
                4s);
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
    WaitFor(
        [&] {
            ServeAnchors(anchors, &settingsTick, haveBaseline);
            return churn.idle();
        },
        60s);
    churn.Stop();
    Usage final;
    bool alive = serviceAlive();
    if (alive && haveBaseline) {
        WaitFor(
            [&] {
                ServeAnchors(anchors, &settingsTick, haveBaseline);
                final = ReadUsage(service);
                return !serviceAlive() || CountsSettled(baseline, final);
            },
            20s);
        alive = serviceAlive();
    }

    std::vector<std::string> failures;
    printf("\n== soak summary (%.1f min)\n", Elapsed() / 60);
    if (!setUp && !serviceDied)
        failures.push_back("the anchors could not be set up or lost their connection");
    if (!alive) {
        char reason[96];
        if (WIFSIGNALED(serviceStatus))
            snprintf(reason, sizeof reason, "the service died (signal %d)", WTERMSIG(serviceStatus));
        else
            snprintf(reason, sizeof reason, "the service died (exit status %d)", WEXITSTATUS(serviceStatus));
        failures.push_back(reason);
    }
    if (haveBaseline) {
        CompareUsage(baseline, alive ? &final : nullptr, &failures);
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
    printf("web processes killed: %d, browsers back after going silent: %d, silent at the end: %d\n", kills, recoveries,
           silentAtEnd);
    if (silentAtEnd)
        failures.push_back(std::to_string(silentAtEnd) + " browser(s) silent at the end");

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
    for (const std::string& failure : failures)
        printf("  - %s\n", failure.c_str());
    return 1;
}