// slf-overlay-capture: renders a web page through the overlay service for a
// while, writes its frames as PNG and its audio as WAV, and reports what it
// received; its exit status says whether frames arrived.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <regex>

#include "protocol/OverlayProtocol.h"
#include "tools/slf-overlay-capture/CaptureSession.h"

namespace {

bool ParseSize(const std::string& text, uint32_t* width, uint32_t* height)
{
    static const std::regex pattern(R"(^\s*([0-9]{1,5})\s*[xX]\s*([0-9]{1,5})\s*$)");
    std::smatch match;
    if (!std::regex_match(text, match, pattern))
        return false;
    unsigned long w = std::stoul(match[1]), h = std::stoul(match[2]);
    constexpr unsigned long kMaximum = streamloft::protocol::kMaximumEdge;
    if (w == 0 || h == 0 || w > kMaximum || h > kMaximum)
        return false;
    *width = static_cast<uint32_t>(w);
    *height = static_cast<uint32_t>(h);
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    slf_capture::CaptureOptions options;
    std::string size = "1280x720";
    std::string settingsFile;
    bool noStart = false;

    CLI::App app {"Renders a web page through the Streamloft overlay service and captures its frames (PNG) and "
                  "audio (WAV)."};
    app.add_option("--url", options.url, "Page to render (http, https or file URL)")->required();
    app.add_option("--size", size, "Render size WxH in pixels")->capture_default_str();
    app.add_option("--fps", options.fps, "Frame rate to ask for")->capture_default_str()->check(CLI::Range(1.0, 240.0));
    app.add_option("--seconds", options.seconds, "How long to capture, counted from the first frame")
        ->capture_default_str()
        ->check(CLI::Range(0.0, 86400.0));
    app.add_option("--out", options.outDir,
                   "Folder for frame_NNNNNN.png and audio_*.wav (nothing is written without it)");
    app.add_option("--every", options.every, "Keep every Nth frame")
        ->capture_default_str()
        ->check(CLI::Range(1u, 1000000u));
    app.add_option("--socket", options.socketPath,
                   "Socket of the service (default: $XDG_RUNTIME_DIR/streamloft/overlay-helper.sock)");
    app.add_option("--permit", options.permitted,
                   "Permitted file URL prefix (repeatable; default for a file URL: the page's own folder)");
    app.add_option("--settings-file", settingsFile, "File whose bytes answer the page's settings requests")
        ->check(CLI::ExistingFile);
    app.add_flag("--no-start", noStart, "Do not start the service when nothing answers at the socket");
    app.footer("Prints what arrived: frame count, rate and interval, frame sizes, drops (frames missed by pacing,\n"
               "counted from intervals over 1.5 frame periods, and the shortfall against the requested rate),\n"
               "the missed frames by cause (dropped by the service: gaps in its frame numbers; the rest not\n"
               "painted by the page), paint-to-receipt delay of video and audio and the audio-to-video offset,\n"
               "latency (open request to first frame), receive jitter, files written and audio streams.\n"
               "\n"
               "Exit status:\n"
               "  0  the capture ran and frames arrived (with --seconds 0: the browser opened and closed)\n"
               "  1  failure: the service cannot be reached or started, refuses or does not start the browser,\n"
               "     answers with browser ID -1 (no browser), no frame arrives during the capture, the\n"
               "     connection closes during the capture, or a file cannot be written\n"
               "  2  the command line is wrong");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        // --help and --help-all come here too, with status 0.
        return app.exit(e) == 0 ? 0 : 2;
    }

    if (!ParseSize(size, &options.width, &options.height)) {
        fprintf(stderr, "slf-overlay-capture: --size must be WxH with 1 to %u pixels each, not '%s'\n",
                streamloft::protocol::kMaximumEdge, size.c_str());
        return 2;
    }
    options.startOnDemand = !noStart;
    if (!settingsFile.empty()) {
        std::ifstream in(settingsFile, std::ios::binary);
        options.settingsData.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    if (options.permitted.empty() && options.url.rfind("file://", 0) == 0) {
        auto slash = options.url.rfind('/');
        options.permitted.push_back(options.url.substr(0, slash + 1));
    }
    options.progress = isatty(STDERR_FILENO);

    slf_capture::CaptureSession session(std::move(options));
    return session.Run();
}
