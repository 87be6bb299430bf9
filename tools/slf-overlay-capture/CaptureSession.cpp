#include "tools/slf-overlay-capture/CaptureSession.h"

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <system_error>

namespace slf_capture {

namespace {

constexpr auto kStartTimeout = std::chrono::seconds(20);
// A cold engine takes a while to paint a page for the first time.
constexpr auto kFirstFrameTimeout = std::chrono::seconds(20);
constexpr auto kCloseTimeout = std::chrono::seconds(5);
// Converted images waiting for the PNG writer; frames beyond this are
// counted but not written, so a slow disk cannot make the tool grow.
constexpr size_t kMaxPendingImages = 32;

double Seconds(std::chrono::steady_clock::duration d)
{
    return std::chrono::duration<double>(d).count();
}

// Seconds from a presentation time (microseconds of CLOCK_MONOTONIC, the
// steady clock's own on Linux) to `at`.
double SecondsSince(uint64_t presentationTime, std::chrono::steady_clock::time_point at)
{
    const double atMicroseconds =
        static_cast<double>(std::chrono::duration_cast<std::chrono::microseconds>(at.time_since_epoch()).count());
    return (atMicroseconds - static_cast<double>(presentationTime)) / 1e6;
}

} // namespace

CaptureSession::CaptureSession(CaptureOptions options) : options_(std::move(options)), pacing_(options_.fps)
{
}

CaptureSession::~CaptureSession()
{
    browser_.reset();
    client_.reset();
    {
        std::lock_guard<std::mutex> guard(lock_);
        writerDone_ = true;
    }
    changed_.notify_all();
    if (writer_.joinable())
        writer_.join();
}

template <class Predicate>
bool CaptureSession::WaitFor(std::chrono::milliseconds timeout, Predicate done)
{
    std::unique_lock<std::mutex> guard(lock_);
    return changed_.wait_for(guard, timeout, [&] { return done(); });
}

void CaptureSession::Fail(const std::string& message)
{
    std::lock_guard<std::mutex> guard(lock_);
    errors_.push_back(message);
}

int CaptureSession::Run()
{
    if (!options_.outDir.empty()) {
        std::error_code ec;
        std::filesystem::create_directories(options_.outDir, ec);
        if (ec) {
            fprintf(stderr, "slf-overlay-capture: cannot create %s: %s\n", options_.outDir.c_str(),
                    ec.message().c_str());
            return 1;
        }
        writer_ = std::thread([this] { WriteImages(); });
    }

    streamloft::ConnectOptions connectOptions;
    connectOptions.socketPath = options_.socketPath;
    connectOptions.startOnDemand = options_.startOnDemand;
    connectOptions.diagnostics = [this](const std::string& message) { ReportProblem(message); };
    connectOptions.connectionClosed = [this] { ConnectionDidClose(); };
    streamloft::Error connectError;
    client_ = streamloft::OverlayClient::Connect(connectOptions, &connectError);
    if (!client_) {
        fprintf(stderr, "slf-overlay-capture: %s\n", connectError.message.c_str());
        return 1;
    }
    printf("service: %s at %s (process %d)\n", client_->StartedService() ? "started on demand" : "already running",
           client_->SocketPath().c_str(), static_cast<int>(client_->ServiceProcessID()));
    fflush(stdout);

    {
        std::lock_guard<std::mutex> guard(lock_);
        openRequested_ = std::chrono::steady_clock::now();
    }
    // This object outlives the client, which delivers no event after it is gone.
    browser_ = client_->OpenBrowser(
        {options_.url, double(options_.width), double(options_.height), options_.fps, options_.permitted},
        std::shared_ptr<streamloft::BrowserEvents>(std::shared_ptr<void>(), this));
    bool answered = WaitFor(std::chrono::duration_cast<std::chrono::milliseconds>(kStartTimeout),
                            [this] { return started_ || openAnswered_ || !openError_.empty() || connectionClosed_; });
    int browserID;
    {
        std::lock_guard<std::mutex> guard(lock_);
        if (!openError_.empty()) {
            fprintf(stderr, "slf-overlay-capture: the service refused to open %s: %s\n", options_.url.c_str(),
                    openError_.c_str());
            return 1;
        }
        if (!started_ && openAnswered_) {
            fprintf(stderr,
                    "slf-overlay-capture: the service answered the open request with browser ID %d before any "
                    "browser started\n",
                    openAnswerID_);
            return 1;
        }
        if (!started_) {
            fprintf(stderr, "slf-overlay-capture: %s\n",
                    connectionClosed_ ? "the connection to the overlay service closed before the browser started"
                    : answered        ? "no browser started"
                                      : "the overlay service did not start the browser within 20 s");
            return 1;
        }
        browserID = browserID_;
    }
    printf("browser ID: %d\n", browserID);
    fflush(stdout);

    // The capture runs for --seconds from the first frame, so that the time a
    // cold engine needs to paint does not eat into it.
    if (browserID != -1 && options_.seconds > 0 &&
        !WaitFor(std::chrono::duration_cast<std::chrono::milliseconds>(kFirstFrameTimeout),
                 [this] { return framesReceived_ > 0 || connectionClosed_; }))
        fprintf(stderr, "slf-overlay-capture: no frame within %lld s of the browser's start; capturing anyway\n",
                static_cast<long long>(kFirstFrameTimeout.count()));
    const auto captureStart = std::chrono::steady_clock::now();
    if (browserID == -1) {
        printf("no browser: the service has no web engine yet (browser ID -1); nothing to capture\n");
    } else {
        const auto end = captureStart + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                            std::chrono::duration<double>(options_.seconds));
        const bool progress = options_.progress;
        for (;;) {
            auto now = std::chrono::steady_clock::now();
            if (now >= end)
                break;
            auto step = std::min<std::chrono::steady_clock::duration>(end - now, std::chrono::milliseconds(250));
            if (WaitFor(std::chrono::duration_cast<std::chrono::milliseconds>(step),
                        [this] { return connectionClosed_; }))
                break;
            if (progress) {
                std::lock_guard<std::mutex> guard(lock_);
                fprintf(stderr, "\rcapturing: %5.1f / %.1f s, %llu frames",
                        Seconds(std::chrono::steady_clock::now() - captureStart), options_.seconds,
                        static_cast<unsigned long long>(framesReceived_));
                fflush(stderr);
            }
        }
        if (progress)
            fprintf(stderr, "\n");
    }
    const double elapsed = Seconds(std::chrono::steady_clock::now() - captureStart);

    bool lost;
    uint64_t framesInCapture;
    {
        std::lock_guard<std::mutex> guard(lock_);
        lost = connectionClosed_;
        framesInCapture = framesReceived_;
    }
    if (!lost) {
        browser_->Close([this](const std::optional<streamloft::Error>& error) {
            if (error)
                Fail("closing the browser: " + error->Describe());
            {
                std::lock_guard<std::mutex> guard(lock_);
                closeAnswered_ = true;
            }
            changed_.notify_all();
        });
        if (WaitFor(std::chrono::duration_cast<std::chrono::milliseconds>(kCloseTimeout),
                    [this] { return openAnswered_ || connectionClosed_; })) {
            std::lock_guard<std::mutex> guard(lock_);
            if (openAnswered_)
                printf("closed: the open request was answered with browser ID %d\n", openAnswerID_);
        } else {
            printf("closed: the open request was not answered within 5 s\n");
        }
    }
    // Ends the connection and the callback thread; the audio files and the
    // counters are complete after this.
    browser_.reset();
    client_.reset();
    for (auto& [key, stream] : audio_) {
        if (stream->writer.isOpen()) {
            audioSummaries_.push_back(stream->writer.path() + " (" + std::to_string(stream->writer.framesWritten()) +
                                      " sample frames, still open at the end)");
            stream->writer.Close();
        }
    }
    {
        std::lock_guard<std::mutex> guard(lock_);
        writerDone_ = true;
    }
    changed_.notify_all();
    if (writer_.joinable())
        writer_.join();

    PrintReport(elapsed, framesInCapture);
    std::lock_guard<std::mutex> guard(lock_);
    bool failed = lost || !errors_.empty();
    if (lost)
        fprintf(stderr, "slf-overlay-capture: the connection to the overlay service closed during the capture\n");
    for (const auto& e : errors_)
        fprintf(stderr, "slf-overlay-capture: %s\n", e.c_str());
    if (browserID == -1) {
        fprintf(stderr, "slf-overlay-capture: the service answered the open request with browser ID -1: it opened no "
                        "browser (it has no web engine, or the engine could not start one; see the service's log)\n");
        failed = true;
    } else if (framesReceived_ == 0 && options_.seconds > 0) {
        fprintf(stderr, "slf-overlay-capture: no frame arrived from browser %d in %.2f s\n", browserID, elapsed);
        failed = true;
    }
    return failed ? 1 : 0;
}

void CaptureSession::PrintReport(double elapsedSeconds, uint64_t framesInCapture)
{
    std::lock_guard<std::mutex> guard(lock_);
    auto ull = [](uint64_t n) { return static_cast<unsigned long long>(n); };
    printf("frames received: %llu in %.2f s\n", ull(framesReceived_), elapsedSeconds);
    if (framesReceived_ >= 2) {
        double span = Seconds(lastFrame_ - firstFrame_);
        printf("effective fps: %.2f (requested %.2f)\n", span > 0 ? (framesReceived_ - 1) / span : 0.0, options_.fps);
        printf("frame interval: mean %.1f ms, longest %.1f ms\n", pacing_.meanInterval() * 1000.0,
               pacing_.longestInterval() * 1000.0);
    } else {
        printf("effective fps: n/a (fewer than 2 frames)\n");
    }
    for (const auto& [w, h] : frameSizes_)
        printf("frame size: %ux%u\n", w, h);
    printf("distinct surfaces: %zu\n", surfaceIDs_.size());
    // Gaps in the stream say which frames went missing once frames flow; the
    // rate over the capture window (from the first frame) counts every shortfall.
    printf("drops: %llu frames missed by pacing (intervals over 1.5 frame periods: %llu); estimated from the rate: "
           "%llu (%.0f expected at %.2f fps in %.2f s, %llu received); frames refused by the library: %llu\n",
           ull(pacing_.framesMissed()), ull(pacing_.longGaps()),
           ull(FramesShortOfRate(options_.fps, elapsedSeconds, framesInCapture)),
           std::floor(options_.fps * elapsedSeconds), options_.fps, elapsedSeconds, ull(framesInCapture),
           ull(framesRefused_));
    printf("drops by cause: %llu frames dropped by the service (gaps in its frame numbers), %llu slots the page "
           "did not paint\n",
           ull(accounting_.droppedByService()), ull(accounting_.notPainted()));
    if (videoDelay_.count()) {
        printf("paint to receipt: video %.1f ms mean", videoDelay_.mean() * 1000.0);
        if (audioDelay_.count())
            printf(", audio %.1f ms mean; audio-to-video offset %+.1f ms (audio later when positive)",
                   audioDelay_.mean() * 1000.0, (audioDelay_.mean() - videoDelay_.mean()) * 1000.0);
        printf("\n");
    }
    if (framesReceived_ >= 1) {
        printf("latency: first frame %.1f ms after the open request (browser started after %.1f ms)",
               Seconds(firstFrame_ - openRequested_) * 1000.0, Seconds(startedAt_ - openRequested_) * 1000.0);
        if (framesReceived_ >= 2)
            printf("; receive jitter %.1f ms (standard deviation of the frame interval)", pacing_.jitter() * 1000.0);
        printf("\n");
    } else {
        printf("latency: n/a (no frame)\n");
    }
    if (!options_.outDir.empty()) {
        printf("PNG files written: %llu to %s", static_cast<unsigned long long>(imagesWritten_),
               options_.outDir.c_str());
        if (framesSkippedWriterBusy_)
            printf(" (%llu kept frames skipped: writer busy)",
                   static_cast<unsigned long long>(framesSkippedWriterBusy_));
        printf("\n");
    }
    if (settingsRequests_)
        printf("settings requests answered: %llu\n", static_cast<unsigned long long>(settingsRequests_));
    for (const auto& s : audioSummaries_)
        printf("audio: %s\n", s.c_str());
    if (audioSummaries_.empty())
        printf("audio: no stream\n");
    fflush(stdout);
}

void CaptureSession::WriteImages()
{
    for (;;) {
        PendingImage pending;
        {
            std::unique_lock<std::mutex> guard(lock_);
            changed_.wait(guard, [this] { return !images_.empty() || writerDone_; });
            if (images_.empty())
                return;
            pending = std::move(images_.front());
            images_.pop_front();
        }
        char name[64];
        snprintf(name, sizeof name, "frame_%06llu.png", static_cast<unsigned long long>(pending.index));
        std::string error;
        bool ok = WritePng((std::filesystem::path(options_.outDir) / name).string(), pending.image, &error);
        std::lock_guard<std::mutex> guard(lock_);
        if (ok)
            ++imagesWritten_;
        else
            errors_.push_back(error);
    }
}

void CaptureSession::BrowserDidStart(streamloft::Browser&, int browserID)
{
    {
        std::lock_guard<std::mutex> guard(lock_);
        if (started_)
            return;
        started_ = true;
        startedAt_ = std::chrono::steady_clock::now();
        browserID_ = browserID;
    }
    changed_.notify_all();
}

void CaptureSession::BrowserReceivedVideoFrame(streamloft::Browser&,
                                               std::shared_ptr<const streamloft::VideoFrame> frame)
{
    uint64_t index;
    bool keep;
    {
        std::lock_guard<std::mutex> guard(lock_);
        index = ++framesReceived_;
        uint64_t missedSlots = 0;
        if (index == 1) {
            firstFrame_ = frame->receivedAt();
            changed_.notify_all(); // the capture window starts now
        } else {
            const double interval = Seconds(frame->receivedAt() - lastFrame_);
            pacing_.AddInterval(interval);
            missedSlots = FramesMissedInInterval(interval, options_.fps > 0 ? 1.0 / options_.fps : 0);
        }
        accounting_.AddFrame(frame->sequence(), missedSlots);
        if (frame->presentationTime())
            videoDelay_.Add(SecondsSince(frame->presentationTime(), frame->receivedAt()));
        lastFrame_ = frame->receivedAt();
        surfaceIDs_.insert(frame->properties().surfaceID);
        frameSizes_.insert({frame->width(), frame->height()});
        keep = !options_.outDir.empty() && (index - 1) % options_.every == 0;
        if (keep && images_.size() >= kMaxPendingImages) {
            keep = false;
            ++framesSkippedWriterBusy_;
        }
    }
    if (!keep)
        return;
    RgbaImage image = ConvertFrame(frame->data(), frame->width(), frame->height(), frame->stride());
    frame.reset(); // the surface goes back to the service before the slow PNG encoding
    {
        std::lock_guard<std::mutex> guard(lock_);
        images_.push_back({index, std::move(image)});
    }
    changed_.notify_all();
}

void CaptureSession::BrowserWillStartAudioStream(streamloft::Browser& browser, int streamID,
                                                 const streamloft::AudioStreamFormat& format)
{
    const int browserID = browser.ID();
    auto& slot = audio_[{browserID, streamID}];
    if (slot && slot->writer.isOpen()) {
        audioSummaries_.push_back(slot->writer.path() + " (" + std::to_string(slot->writer.framesWritten()) +
                                  " sample frames, restarted)");
        slot->writer.Close();
    }
    slot = std::make_unique<AudioStream>();
    if (options_.outDir.empty())
        return;
    // A stream ID that comes back later gets a file of its own.
    std::string base = "audio_browser" + std::to_string(browserID) + "_stream" + std::to_string(streamID);
    std::filesystem::path path = std::filesystem::path(options_.outDir) / (base + ".wav");
    for (int n = 2; std::filesystem::exists(path); ++n)
        path = std::filesystem::path(options_.outDir) / (base + "_" + std::to_string(n) + ".wav");
    std::string error;
    if (!slot->writer.Open(path.string(), format.sampleRate, format.channelCount, format.bitsPerSample, &error))
        Fail(error);
}

void CaptureSession::BrowserDidReceiveAudioStream(streamloft::Browser& browser, int streamID,
                                                  std::shared_ptr<const streamloft::AudioBuffer> buffer)
{
    if (!buffer)
        return;
    auto it = audio_.find({browser.ID(), streamID});
    if (it == audio_.end())
        return;
    AudioStream& stream = *it->second;
    if (buffer->presentationTime())
        audioDelay_.Add(SecondsSince(buffer->presentationTime(), std::chrono::steady_clock::now()));
    ++stream.buffers;
    stream.bytes += buffer->length();
    std::string error;
    if (stream.writer.isOpen() && !stream.writer.Write(buffer->bytes(), buffer->length(), &error)) {
        Fail(error);
        stream.writer.Close();
    }
}

void CaptureSession::BrowserWillStopAudioStream(streamloft::Browser& browser, int streamID)
{
    auto it = audio_.find({browser.ID(), streamID});
    if (it == audio_.end())
        return;
    AudioStream& stream = *it->second;
    std::string summary = "stream " + std::to_string(streamID) + ": " + std::to_string(stream.buffers) + " buffers, " +
                          std::to_string(stream.bytes) + " bytes";
    if (stream.writer.isOpen())
        summary += " -> " + stream.writer.path();
    audioSummaries_.push_back(summary);
    stream.writer.Close();
    audio_.erase(it);
}

void CaptureSession::RequestSettingsDataForBrowser(streamloft::Browser& browser)
{
    {
        std::lock_guard<std::mutex> guard(lock_);
        ++settingsRequests_;
    }
    browser.UpdateSettingsData(options_.settingsData, [this](const std::optional<streamloft::Error>& error) {
        if (error)
            Fail("answering the settings request: " + error->Describe());
    });
}

void CaptureSession::BrowserDidClose(streamloft::Browser& browser)
{
    {
        std::lock_guard<std::mutex> guard(lock_);
        openAnswered_ = true;
        openAnswerID_ = browser.ID();
    }
    changed_.notify_all();
}

void CaptureSession::BrowserDidFail(streamloft::Browser&, const streamloft::Error& error)
{
    {
        std::lock_guard<std::mutex> guard(lock_);
        if (error.kind == streamloft::ErrorKind::ConnectionClosed)
            connectionClosed_ = true;
        else
            openError_ = error.Describe();
    }
    changed_.notify_all();
}

void CaptureSession::ConnectionDidClose()
{
    {
        std::lock_guard<std::mutex> guard(lock_);
        connectionClosed_ = true;
    }
    changed_.notify_all();
}

void CaptureSession::ReportProblem(const std::string& message)
{
    {
        std::lock_guard<std::mutex> guard(lock_);
        if (message.rfind("frame ", 0) == 0)
            ++framesRefused_;
    }
    fprintf(stderr, "slf-overlay-capture: %s\n", message.c_str());
}

} // namespace slf_capture
