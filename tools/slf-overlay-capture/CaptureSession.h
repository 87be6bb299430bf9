// One run of slf-overlay-capture: connects to the overlay service, opens one
// browser, keeps every Nth frame as PNG and every audio stream as WAV for the
// given time, closes the browser and reports what arrived and how it was
// paced.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "streamloft/OverlayClient.h"
#include "tools/slf-overlay-capture/FramePacing.h"
#include "tools/slf-overlay-capture/PngFrameWriter.h"
#include "tools/slf-overlay-capture/WavStreamWriter.h"

namespace slf_capture {

struct CaptureOptions {
    std::string url;
    uint32_t width = 1280;
    uint32_t height = 720;
    double fps = 30;
    double seconds = 5;
    std::string outDir; // empty: write nothing, only report
    uint32_t every = 1;
    std::string socketPath;
    bool startOnDemand = true;
    std::vector<std::string> permitted;
    std::vector<uint8_t> settingsData;
    bool progress = false;
};

class CaptureSession : public streamloft::BrowserEvents {
public:
    explicit CaptureSession(CaptureOptions options);
    ~CaptureSession() override;

    // Runs the whole capture and prints its report; returns the exit status:
    // 0 when frames arrived, 1 on any failure (also no browser, browser ID -1,
    // or no frame during a capture of more than 0 s).
    int Run();

    void BrowserDidStart(streamloft::Browser& browser, int browserID) override;
    void BrowserReceivedVideoFrame(streamloft::Browser& browser,
                                   std::shared_ptr<const streamloft::VideoFrame> frame) override;
    void BrowserWillStartAudioStream(streamloft::Browser& browser, int streamID,
                                     const streamloft::AudioStreamFormat& format) override;
    void BrowserDidReceiveAudioStream(streamloft::Browser& browser, int streamID,
                                      std::shared_ptr<const streamloft::AudioBuffer> buffer) override;
    void BrowserWillStopAudioStream(streamloft::Browser& browser, int streamID) override;
    void RequestSettingsDataForBrowser(streamloft::Browser& browser) override;
    void BrowserDidClose(streamloft::Browser& browser) override;
    void BrowserDidFail(streamloft::Browser& browser, const streamloft::Error& error) override;

private:
    struct PendingImage {
        uint64_t index;
        RgbaImage image;
    };
    struct AudioStream {
        WavStreamWriter writer;
        uint64_t buffers = 0;
        uint64_t bytes = 0;
    };

    template <class Predicate>
    bool WaitFor(std::chrono::milliseconds timeout, Predicate done);
    void WriteImages();
    void Fail(const std::string& message);
    void PrintReport(double elapsedSeconds, uint64_t framesInCapture);
    void ConnectionDidClose();
    void ReportProblem(const std::string& message);

    CaptureOptions options_;
    std::unique_ptr<streamloft::OverlayClient> client_;
    std::shared_ptr<streamloft::Browser> browser_;

    // Lock order: a leaf; never held while calling the client or writing files.
    std::mutex lock_;
    std::condition_variable changed_;
    bool started_ = false;
    int browserID_ = -1;
    bool openAnswered_ = false; // the browser has closed: the open request's reply
    int openAnswerID_ = -1;
    bool closeAnswered_ = false;
    std::string openError_;
    bool connectionClosed_ = false;
    uint64_t framesReceived_ = 0;
    uint64_t framesRefused_ = 0;
    uint64_t framesSkippedWriterBusy_ = 0;
    uint64_t settingsRequests_ = 0;
    // Set before the open request is sent, read after its answer.
    std::chrono::steady_clock::time_point openRequested_;
    std::chrono::steady_clock::time_point startedAt_, firstFrame_, lastFrame_;
    FramePacing pacing_;
    FrameAccounting accounting_;
    DeliveryDelay videoDelay_;
    // Written on the client's callback thread, read after it has ended.
    DeliveryDelay audioDelay_;
    std::set<uint64_t> surfaceIDs_;
    std::set<std::pair<uint32_t, uint32_t>> frameSizes_;
    std::vector<std::string> errors_;
    std::deque<PendingImage> images_;
    bool writerDone_ = false;
    uint64_t imagesWritten_ = 0;

    // Touched on the client's callback thread only (read after it has ended).
    std::map<std::pair<int, int>, std::unique_ptr<AudioStream>> audio_;
    std::vector<std::string> audioSummaries_;

    std::thread writer_;
};

} // namespace slf_capture
