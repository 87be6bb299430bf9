// Page audio from a real page to a real host: the service started on demand,
// the WebKit engine playing a WebAudio tone, and the host library giving
// each buffer back as soon as it has looked at it.
#include "streamloft/OverlayClient.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <set>

#include <signal.h>
#include <stdlib.h>

#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <optional>
#include <thread>

using namespace std::chrono_literals;

namespace {

class AudioHost : public streamloft::BrowserEvents {
public:
    void BrowserDidStart(streamloft::Browser&, int browserID) override
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_browserID = browserID;
        m_changed.notify_all();
    }
    void BrowserWillStartAudioStream(streamloft::Browser& browser, int streamID,
                                     const streamloft::AudioStreamFormat& format) override
    {
        std::lock_guard<std::mutex> guard(m_lock);
        if (!m_format)
            m_format = format, m_streamBrowserID = browser.ID(), m_streamID = streamID;
        m_changed.notify_all();
    }
    // Dropping the buffer gives its slot back to the service.
    void BrowserDidReceiveAudioStream(streamloft::Browser&, int streamID,
                                      std::shared_ptr<const streamloft::AudioBuffer> buffer) override
    {
        std::lock_guard<std::mutex> guard(m_lock);
        if (!buffer || !m_streamID || streamID != *m_streamID)
            return;
        ++m_buffers;
        m_bytes += buffer->length();
        m_otherFormat += buffer->bitsPerSample() != 16;
        for (uint64_t i = 0; i + 1 < buffer->length(); i += 2) {
            int16_t sample;
            std::memcpy(&sample, buffer->bytes() + i, 2);
            m_peak = std::max(m_peak, std::abs(static_cast<int>(sample)));
        }
        m_changed.notify_all();
    }
    void ReportProblem(const std::string& message)
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_problems.push_back(message);
    }
    template <typename Pred>
    bool WaitFor(Pred pred, std::chrono::milliseconds timeout)
    {
        std::unique_lock<std::mutex> guard(m_lock);
        return m_changed.wait_for(guard, timeout, [&] { return pred(); });
    }

    std::mutex m_lock;
    std::condition_variable m_changed;
    std::optional<int> m_browserID;
    std::optional<streamloft::AudioStreamFormat> m_format;
    int m_streamBrowserID = -1;
    std::optional<int> m_streamID;
    uint64_t m_buffers = 0, m_bytes = 0, m_otherFormat = 0;
    int m_peak = 0;
    std::vector<std::string> m_problems;
};

TEST(AudioEndToEnd, AWebAudioToneArrivesAsPcmInPooledSlotsThatComeBack)
{
    char pattern[] = "/tmp/slf-audio-XXXXXX";
    const std::string dir = mkdtemp(pattern);
    const std::string pages = SLF_TEST_PAGES_DIR;
    AudioHost host;
    streamloft::ConnectOptions options;
    options.socketPath = dir + "/overlay-helper.sock";
    options.helperPath = SLF_TEST_HELPER_PATH;
    options.startTimeout = 20s;
    options.diagnostics = [&host](const std::string& message) { host.ReportProblem(message); };
    streamloft::Error error;
    auto client = streamloft::OverlayClient::Connect(options, &error);
    ASSERT_TRUE(client) << error.message;
    const pid_t servicePid = client->StartedService() ? client->ServiceProcessID() : -1;

    auto browser = client->OpenBrowser({"file://" + pages + "/audio_tone.html", 64, 64, 30, {"file://" + pages + "/"}},
                                       std::shared_ptr<streamloft::BrowserEvents>(std::shared_ptr<void>(), &host));
    ASSERT_TRUE(host.WaitFor([&] { return host.m_browserID.has_value(); }, 60s));
    const int browserID = *host.m_browserID;
    ASSERT_GE(browserID, 0);
    ASSERT_TRUE(host.WaitFor([&] { return host.m_format.has_value(); }, 60s)) << "no audio stream started";
    std::unique_lock<std::mutex> guard(host.m_lock);
    const streamloft::AudioStreamFormat format = *host.m_format;
    EXPECT_EQ(host.m_streamBrowserID, browserID);
    const uint64_t bytesAtBegin = host.m_bytes;
    guard.unlock();
    ASSERT_GT(format.sampleRate, 0);
    EXPECT_EQ(format.bitsPerSample, 16);
    EXPECT_GE(format.channelCount, 1);
    EXPECT_EQ(format.bufferCount, 200u);
    EXPECT_GT(format.bufferCapacity, 0u);

    // Two seconds of audio arrive. Played in real time that takes two
    // seconds; the bound is loose so that a loaded machine, whose web process
    // renders late, does not fail it. The rate is recorded, not judged.
    const double bytesPerSecond = double(format.sampleRate) * format.channelCount * 2;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_TRUE(host.WaitFor([&] { return double(host.m_bytes - bytesAtBegin) >= 2 * bytesPerSecond; }, 30s))
        << "less than two seconds of audio in 30 s";
    guard.lock();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    const double audioSeconds = double(host.m_bytes - bytesAtBegin) / bytesPerSecond;
    ::testing::Test::RecordProperty("audio_seconds_per_second", std::to_string(audioSeconds / seconds));
    EXPECT_EQ(host.m_otherFormat, 0u);
    EXPECT_GT(host.m_peak, 4000) << "silence"; // a 440 Hz sine at half volume peaks near 16384
    EXPECT_TRUE(host.m_problems.empty()) << host.m_problems.front();
    guard.unlock();
    // More buffers than the pool has slots: only returned slots carry these.
    EXPECT_TRUE(host.WaitFor([&] { return host.m_buffers > 300; }, 30s)) << "the pool ran dry";

    // The service's segments (from its mappings) are its user's alone, and
    // when it is told to end with the stream still playing, they go with it.
    std::set<std::string> segments;
    if (servicePid > 0) {
        std::ifstream maps("/proc/" + std::to_string(servicePid) + "/maps");
        for (std::string line; std::getline(maps, line);) {
            const size_t at = line.find("/dev/shm/NVKXPCABN_");
            if (at != std::string::npos)
                segments.insert(line.substr(at, line.find(' ', at) - at));
        }
        EXPECT_FALSE(segments.empty()) << "no audio segment mapped in the service";
        for (const std::string& segment : segments) {
            struct stat status = {};
            EXPECT_EQ(stat(segment.c_str(), &status), 0) << segment;
            EXPECT_EQ(status.st_mode & 0777, 0600u) << segment;
        }
        kill(servicePid, SIGTERM);
        for (int i = 0; i < 100 && kill(servicePid, 0) == 0; ++i)
            std::this_thread::sleep_for(50ms);
        EXPECT_NE(kill(servicePid, 0), 0) << "the service did not end on SIGTERM";
        kill(servicePid, SIGKILL); // no-op once it has ended
        for (const std::string& segment : segments)
            EXPECT_NE(access(segment.c_str(), F_OK), 0) << segment << " outlived the service";
    }
    client.reset();
    std::filesystem::remove_all(dir);
}

} // namespace
