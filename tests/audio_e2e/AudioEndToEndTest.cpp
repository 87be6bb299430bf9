// Page audio from a real page to a real host: the service started on demand,
// the WebKit engine playing a WebAudio tone, and the host library giving
// each buffer back as soon as it has looked at it.
#include <sys/stat.h>

#include <cstring>

#include "tests/support/RecordingCallbacks.h"
#include "tests/support/ServiceProcess.h"

using namespace slftest;

namespace {

// Looks at each buffer (bytes, sample size, loudest sample) and lets it go at
// once, which gives its slot back to the service.
struct AudioHost : RecordingCallbacks {
    void BrowserDidReceiveAudioStream(Browser& b, int stream,
                                      std::shared_ptr<const streamloft::AudioBuffer> buf) override
    {
        if (!buf)
            return RecordingCallbacks::BrowserDidReceiveAudioStream(b, stream, buf);
        Add("audio-buffer " + Ids(b.ID(), stream), [&] {
            bytes += buf->length();
            otherFormat += buf->bitsPerSample() != 16;
            for (uint64_t i = 0; i + 1 < buf->length(); i += 2) {
                int16_t sample;
                std::memcpy(&sample, buf->bytes() + i, 2);
                peak = std::max(peak, std::abs(static_cast<int>(sample)));
            }
        });
    }
    uint64_t Bytes()
    {
        std::lock_guard<std::mutex> guard(lock);
        return bytes;
    }
    uint64_t bytes = 0, otherFormat = 0;
    int peak = 0;
};

using AudioEndToEnd = ServiceTest;

TEST_F(AudioEndToEnd, AWebAudioToneArrivesAsPcmInPooledSlotsThatComeBack)
{
    AudioHost host;
    auto client = Connect(host.Options(Options()));
    ASSERT_TRUE(client);
    auto browser = client->OpenBrowser(Page("audio_tone.html", 64, 64), host.events());
    const int browserID = Id(host.WaitFor("start ", 60s));
    ASSERT_GT(browserID, 0);
    const std::string start = host.WaitFor("audio-start ", 60s);
    ASSERT_NE(start, "") << "no audio stream started";
    EXPECT_EQ(start.rfind("audio-start " + std::to_string(browserID) + " ", 0), 0u) << start;
    const uint64_t bytesAtBegin = host.Bytes();
    host.lock.lock();
    const streamloft::AudioStreamFormat format = host.format;
    host.lock.unlock();
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
    EXPECT_TRUE(WaitUntil([&] { return double(host.Bytes() - bytesAtBegin) >= 2 * bytesPerSecond; }, 30s))
        << "less than two seconds of audio in 30 s";
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    RecordProperty("audio_seconds_per_second",
                   std::to_string(double(host.Bytes() - bytesAtBegin) / bytesPerSecond / seconds));
    // More buffers than the pool has slots: only returned slots carry these.
    EXPECT_NE(host.WaitFor("audio-buffer ", 30s, 301), "") << "the pool ran dry";
    {
        std::lock_guard<std::mutex> guard(host.lock);
        EXPECT_EQ(host.otherFormat, 0u);
        EXPECT_GT(host.peak, 4000) << "silence"; // a 440 Hz sine at half volume peaks near 16384
    }
    EXPECT_EQ(host.WaitFor("problem", 0ms), "");

    // The service's segments (from its mappings) are its user's alone, and
    // when it is told to end with the stream still playing, they go with it.
    ASSERT_TRUE(client->StartedService());
    const pid_t service = client->ServiceProcessID();
    const std::set<std::string> segments = AudioSegmentsMappedBy(service);
    EXPECT_FALSE(segments.empty()) << "no audio segment mapped in the service";
    for (const std::string& segment : segments) {
        struct stat status = {};
        EXPECT_EQ(stat(segment.c_str(), &status), 0) << segment;
        EXPECT_EQ(status.st_mode & 0777, 0600u) << segment;
    }
    StopProcess(service);
    EXPECT_TRUE(ProcessIsGone(service)) << "the service did not end on SIGTERM";
    for (const std::string& segment : segments)
        EXPECT_NE(access(segment.c_str(), F_OK), 0) << segment << " outlived the service";
}

} // namespace
