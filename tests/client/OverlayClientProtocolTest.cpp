// The host library against a stand-in service: requests and their order,
// the typed errors, the deferred open reply as the browser's close, and when
// frames and audio buffers go back to the service.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include "audio_transport/NVKXPCAudioBuffer.h"
#include "audio_transport/NVKXPCAudioBufferPool.h"
#include "streamloft/OverlayClient.h"
#include "tests/client/FakeOverlayService.h"
#include "tests/support/RecordingCallbacks.h"

using namespace std::chrono_literals;
using streamloft::AudioBuffer;
using streamloft::OverlayClient;
using streamloft::VideoFrame;

namespace {

// A memfd holding a width x height BGRA image with rows `stride` bytes apart,
// pixel (x, y) = {x, y, 0x80, 0xFF}.
int MakeSurface(uint32_t width, uint32_t height, uint32_t stride, bool seal = true)
{
    int fd = memfd_create("test-surface", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    const size_t size = static_cast<size_t>(stride) * height;
    EXPECT_EQ(ftruncate(fd, static_cast<off_t>(size)), 0);
    auto* p = static_cast<uint8_t*>(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    for (uint32_t y = 0; y < height; ++y)
        for (uint32_t x = 0; x < width; ++x) {
            uint8_t pixel[] = {uint8_t(x), uint8_t(y), 0x80, 0xFF};
            memcpy(p + y * stride + x * 4, pixel, 4);
        }
    munmap(p, size);
    if (seal)
        fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL);
    return fd;
}

GVariant* FrameCall(uint64_t width, uint64_t height, uint64_t stride, uint64_t id, uint64_t allocSize)
{
    return g_variant_new_parsed(
        "(7, handle 0, {'IOSurfaceWidth': <%t>, 'IOSurfaceHeight': <%t>, 'IOSurfaceBytesPerRow': <%t>, "
        "'IOSurfaceBytesPerElement': <uint64 4>, 'IOSurfacePixelFormat': <uint32 0x42475241>, 'IOSurfaceID': <%t>, "
        "'IOSurfaceAllocSize': <%t>})",
        width, height, stride, id, allocSize);
}

GVariant* AudioCall(int stream, GVariant* record)
{
    return g_variant_new("(ii@a{sv})", 7, stream, record);
}

// A stand-in service for each host that connects (the latest in service_).
class OverlayClientLifetimeTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        char pattern[] = "/tmp/slf-client-test-XXXXXX";
        dir_ = mkdtemp(pattern);
    }
    void TearDown() override
    {
        service_.reset();
        std::filesystem::remove_all(dir_);
    }
    std::unique_ptr<OverlayClient> Connect(RecordingCallbacks& host)
    {
        service_ = std::make_unique<FakeOverlayService>(dir_ + "/overlay-" + std::to_string(++services_) + ".sock");
        streamloft::ConnectOptions options;
        options.socketPath = service_->socketPath();
        options.startOnDemand = false;
        streamloft::Error error;
        auto client = OverlayClient::Connect(host.Options(options), &error);
        EXPECT_TRUE(client) << error.message;
        EXPECT_TRUE(service_->waitForHost());
        return client;
    }

    std::string dir_;
    int services_ = 0;
    std::unique_ptr<FakeOverlayService> service_;
};

// One host connected from the start.
class OverlayClientProtocolTest : public OverlayClientLifetimeTest {
protected:
    void SetUp() override
    {
        OverlayClientLifetimeTest::SetUp();
        client_ = Connect(callbacks_);
        ASSERT_TRUE(client_);
    }
    void TearDown() override
    {
        browser_.reset();
        client_.reset();
        OverlayClientLifetimeTest::TearDown();
    }
    void Open()
    {
        browser_ = client_->OpenBrowser({"https://example.org/", 640, 360, 30, {}}, callbacks_.events());
        ASSERT_EQ(callbacks_.WaitFor("start "), "start 7");
    }

    RecordingCallbacks callbacks_;
    std::unique_ptr<OverlayClient> client_;
    std::shared_ptr<streamloft::Browser> browser_;
};

TEST_F(OverlayClientProtocolTest, RequestsGoOutInOrderAndCloseBringsTheDeferredOpenReply)
{
    auto browser = client_->OpenBrowser(
        {"file:///srv/overlay/index.html", 1920, 1080, 59.94, {"file:///srv/overlay/", "file:///srv/shared/"}},
        callbacks_.events());
    EXPECT_EQ(browser->ID(), -1);
    // Made before the start: waits for the browser's ID, never overtakes the open.
    browser->Resize(800, 600, callbacks_.Done("resize"));
    EXPECT_EQ(callbacks_.WaitFor("start "), "start 7");
    EXPECT_EQ(callbacks_.WaitFor("resize"), "resize ok");
    EXPECT_EQ(browser->ID(), 7);
    service_->callHost("RequestSettingsDataForBrowser", g_variant_new("(i)", 7));
    EXPECT_EQ(callbacks_.WaitFor("settings "), "settings 7 answered");
    browser->UpdatePermittedFileURLStrings({"file:///x/"});
    EXPECT_EQ(callbacks_.WaitFor("closed", 200ms), "") << "the open reply must wait for the close";
    browser->Close(callbacks_.Done("close"));
    EXPECT_EQ(callbacks_.WaitFor("closed"), "closed 7");
    EXPECT_EQ(callbacks_.WaitFor("close "), "close ok");

    EXPECT_EQ(
        service_->waitForRequests(5),
        (std::vector<std::string> {"OpenBrowser ('file:///srv/overlay/index.html', 1920.0, 1080.0, 59.939999999999998, "
                                   "['file:///srv/overlay/', 'file:///srv/shared/'])",
                                   "UpdateBrowserSize (7, 800.0, 600.0)", "UpdateBrowserSettingsData (7, [0x7b, 0x7d])",
                                   "UpdateBrowserPermittedFileURLStrings (7, ['file:///x/'])", "CloseBrowser (7,)"}));
    // A closed browser takes no more requests.
    browser->Resize(1, 1, callbacks_.Done("late resize"));
    EXPECT_EQ(callbacks_.WaitFor("late resize"), "late resize failed invalid-argument");
    EXPECT_EQ(callbacks_.WaitFor("problem", 0ms), "");
}

TEST_F(OverlayClientProtocolTest, ARefusedOpenFailsWithTheTypedErrorAndLeavesTheConnectionUsable)
{
    RecordingCallbacks refused;
    auto bad = client_->OpenBrowser({"no url at all", 100, 100, 30, {}}, refused.events());
    bad->Resize(10, 10, refused.Done("resize"));
    EXPECT_EQ(refused.WaitFor("failed"), "failed invalid-url URL does not parse (com.streamloft.Error.InvalidURL)");
    EXPECT_EQ(refused.WaitFor("resize"), "resize failed invalid-url");
    Open();
    EXPECT_EQ(refused.WaitFor("start", 200ms), "") << "the other browser's events went to the refused one";
}

TEST_F(OverlayClientProtocolTest, FramesStayMappedUntilDroppedAlsoAfterTheServiceAndClientAreGone)
{
    Open();
    const uint32_t width = 20, height = 10, stride = 128; // padded rows
    int fd = MakeSurface(width, height, stride);
    auto first = service_->callHost("BrowserReceivedVideoFrame", FrameCall(width, height, stride, 42, 1280), fd);
    auto second = service_->callHost("BrowserReceivedVideoFrame", FrameCall(width, height, stride, 43, 1280), fd);
    close(fd);
    ASSERT_EQ(callbacks_.WaitFor("frame", 5s, 2), "frame 7");
    auto frames = callbacks_.Take(callbacks_.frames);
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(std::make_tuple(frames[0]->width(), frames[0]->height(), frames[0]->stride()),
              std::make_tuple(width, height, stride));
    EXPECT_EQ(frames[0]->properties().surfaceID, 42u);
    EXPECT_EQ(std::make_tuple(frames[0]->row(9)[19 * 4], frames[0]->row(9)[19 * 4 + 1]), std::make_tuple(19, 9));
    EXPECT_FALSE(service_->waitForReply(first, 200ms)) << "released while the host still holds the frame";
    frames[0].reset();
    EXPECT_TRUE(service_->waitForReply(first));
    EXPECT_FALSE(service_->waitForReply(second, 0ms));
    // The service goes away: reported, the browser fails, later requests fail;
    // a frame held past the connection and the client stays readable and is
    // dropped harmlessly.
    service_->closeConnection();
    EXPECT_EQ(callbacks_.WaitFor("disconnected"), "disconnected");
    EXPECT_NE(callbacks_.WaitFor("failed connection-closed"), "");
    EXPECT_FALSE(client_->IsConnected());
    browser_->Resize(10, 10, callbacks_.Done("resize"));
    EXPECT_EQ(callbacks_.WaitFor("resize"), "resize failed connection-closed");
    RecordingCallbacks late;
    auto another = client_->OpenBrowser({"https://example.org/", 1, 1, 1, {}}, late.events());
    EXPECT_EQ(late.WaitFor("failed"), "failed connection-closed not connected to the overlay service");
    client_.reset();
    EXPECT_EQ(frames[1]->row(7)[7 * 4], 7);
    frames[1].reset();
}

TEST_F(OverlayClientProtocolTest, BadFramesAreRefusedAndReleasedAtOnce)
{
    Open();
    // Which surfaces are refused: see SurfaceMappingCacheTest. A refused frame
    // must still go back to the service, or its pool runs dry.
    int fd = MakeSurface(20, 10, 128, /*seal=*/false);
    auto unsealed = service_->callHost("BrowserReceivedVideoFrame", FrameCall(20, 10, 128, 1, 1280), fd);
    close(fd);
    auto withoutDescriptor = service_->callHost("BrowserReceivedVideoFrame", FrameCall(20, 10, 128, 1, 1280));
    EXPECT_TRUE(service_->waitForReply(unsealed) && service_->waitForReply(withoutDescriptor));
    EXPECT_NE(callbacks_.WaitFor("problem frame of browser 7 refused", 5s, 2).find("surface descriptor is missing"),
              std::string::npos);
    EXPECT_EQ(callbacks_.WaitFor("frame", 0ms), "");
}

TEST_F(OverlayClientProtocolTest, AudioBuffersAreReadFromSharedMemoryReturnedWhenDroppedAndHostileRecordsRefused)
{
    Open();
    auto pool = NVKXPCAudioBufferPool::initWithBufferSize(64, 200);
    ASSERT_TRUE(pool);
    pool->setSampleRate(48000);
    pool->setChannelCount(2);
    pool->setBitsPerSample(16);
    auto start = service_->callHost("BrowserWillStartAudioStream", AudioCall(3, pool->encodeRecord()));
    EXPECT_TRUE(service_->waitForReply(start));
    ASSERT_EQ(callbacks_.WaitFor("audio-start"), "audio-start 7 3");
    {
        std::lock_guard<std::mutex> guard(callbacks_.lock);
        const auto& f = callbacks_.format;
        EXPECT_EQ(std::tie(f.sampleRate, f.channelCount, f.bitsPerSample, f.bufferCapacity, f.bufferCount),
                  std::make_tuple(48000, 2, 16, 64u, 200u));
    }
    auto slot = pool->bufferFromPool();
    slot = pool->bufferFromPool(); // the second slot, at offset 64
    const char samples[] = "sixteen bytes!!";
    slot->appendBytes(samples, 16);
    auto data = service_->callHost("BrowserDidReceiveAudioStream", AudioCall(3, slot->encodeRecord()));
    ASSERT_EQ(callbacks_.WaitFor("audio-buffer"), "audio-buffer 7 3");
    auto buffer = callbacks_.Take(callbacks_.buffers).at(0);
    EXPECT_EQ(std::make_tuple(buffer->length(), buffer->capacity(), buffer->sampleRate()),
              std::make_tuple(uint64_t(16), uint64_t(64), int64_t(48000)));
    EXPECT_EQ(memcmp(buffer->bytes(), samples, 16), 0);
    EXPECT_FALSE(service_->waitForReply(data, 200ms)) << "returned while the host still holds the buffer";

    // The stop sequence: a null buffer, answered at once, then the stop.
    auto empty = service_->callHost("BrowserDidReceiveAudioStream", AudioCall(3, g_variant_new_parsed("@a{sv} {}")));
    EXPECT_TRUE(service_->waitForReply(empty));
    service_->callHost("BrowserWillStopAudioStream", g_variant_new("(ii)", 7, 3));
    EXPECT_EQ(callbacks_.WaitFor("audio-null"), "audio-null 7 3");
    EXPECT_EQ(callbacks_.WaitFor("audio-stop"), "audio-stop 7 3");
    // The held buffer outlives its stream, and is given back when dropped.
    EXPECT_EQ(memcmp(buffer->bytes(), samples, 16), 0);
    buffer.reset();
    EXPECT_TRUE(service_->waitForReply(data));

    // A stopped stream's buffer and a hostile pool record: answered at once,
    // and reported to the host's diagnostics (also the audio transport's own
    // line), never to standard error.
    testing::internal::CaptureStderr();
    auto stopped = service_->callHost("BrowserDidReceiveAudioStream", AudioCall(3, slot->encodeRecord()));
    auto badPool = service_->callHost("BrowserWillStartAudioStream",
                                      g_variant_new_parsed("(7, 4, {'NVKShmemName': <'not-a-segment'>})"));
    auto afterBadPool = service_->callHost("BrowserDidReceiveAudioStream", AudioCall(4, slot->encodeRecord()));
    for (auto token : {stopped, badPool, afterBadPool})
        EXPECT_TRUE(service_->waitForReply(token));
    EXPECT_NE(callbacks_.WaitFor("problem the pool of audio stream 4"), "");
    EXPECT_NE(callbacks_.WaitFor("problem NVKXPCAudioBufferPool initWithRecord - Refused a pool record"), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "the library wrote to standard error";
    EXPECT_EQ(callbacks_.WaitFor("audio-buffer", 100ms, 2), "");
}

// Whether the library thread of some client of this process still runs.
bool ClientThreadRuns()
{
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream comm(task.path() / "comm");
        std::string name;
        if (std::getline(comm, name) && name == "slf-overlay")
            return true;
    }
    return false;
}

bool ClientThreadEnds()
{
    for (auto deadline = std::chrono::steady_clock::now() + 5s; ClientThreadRuns();) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

// A host that destroys its own client inside one of its callbacks: when the
// browser starts, or when it has closed (the open request's reply).
class SelfDestroyingHost : public RecordingCallbacks {
public:
    explicit SelfDestroyingHost(std::string at) : at_(std::move(at)) {}
    void BrowserDidStart(Browser& b, int id) override
    {
        RecordingCallbacks::BrowserDidStart(b, id);
        if (at_ == "start")
            DestroyClient();
    }
    void BrowserDidClose(Browser& b) override
    {
        RecordingCallbacks::BrowserDidClose(b);
        if (at_ == "closed")
            DestroyClient();
    }
    void DestroyClient()
    {
        // The test hands the client over before it lets the callback go on.
        while (!armed)
            std::this_thread::sleep_for(1ms);
        owned.reset();
        Add("destroyed");
    }
    std::atomic<bool> armed {false};
    std::unique_ptr<OverlayClient> owned;

private:
    std::string at_;
};

TEST_F(OverlayClientLifetimeTest, DestroyedInsideItsOwnCallbackTheClientEndsWithoutCallingBack)
{
    for (const std::string at : {"start", "closed"}) {
        SCOPED_TRACE(at);
        SelfDestroyingHost host(at);
        auto client = Connect(host);
        ASSERT_TRUE(client);
        OverlayClient* raw = client.get();
        host.owned = std::move(client);
        auto browser = raw->OpenBrowser({"https://example.org/", 64, 64, 30, {}}, host.events());
        if (at == "closed") {
            ASSERT_EQ(host.WaitFor("start "), "start 7");
            browser->Close();
        }
        host.armed = true;
        ASSERT_EQ(host.WaitFor("destroyed"), "destroyed");
        // The library thread ends on its own; nothing the service sends later
        // reaches the host, not even the connection's end.
        EXPECT_TRUE(ClientThreadEnds());
        service_->callHost("BrowserDidStart", g_variant_new("(i)", 8));
        EXPECT_EQ(host.WaitFor("start 8", 200ms), "");
        EXPECT_EQ(host.WaitFor("disconnected", 0ms), "");
        service_.reset();
    }
}

// Destroyed from another thread while a callback runs: the destructor waits
// for that callback, and nothing is called back after it has returned.
TEST_F(OverlayClientLifetimeTest, DestroyedFromAnotherThreadDuringACallbackWaitsForIt)
{
    struct SlowHost : RecordingCallbacks {
        void BrowserReceivedVideoFrame(Browser& b, std::shared_ptr<const streamloft::VideoFrame>) override
        {
            Add("frame-begin " + std::to_string(b.ID()));
            std::this_thread::sleep_for(300ms);
            Add("frame-end " + std::to_string(b.ID()));
        }
    } host;
    auto client = Connect(host);
    ASSERT_TRUE(client);
    auto browser = client->OpenBrowser({"https://example.org/", 64, 64, 30, {}}, host.events());
    ASSERT_EQ(host.WaitFor("start "), "start 7");
    int fd = MakeSurface(4, 4, 64);
    for (int i = 0; i < 5; ++i)
        service_->callHost("BrowserReceivedVideoFrame", FrameCall(4, 4, 64, 1, 256), fd);
    close(fd);
    ASSERT_NE(host.WaitFor("frame-begin"), "");
    client.reset();
    size_t events;
    {
        std::lock_guard<std::mutex> guard(host.lock);
        events = host.events_.size();
        EXPECT_EQ(host.events_.back(), "frame-end 7") << "the destructor returned during a callback";
    }
    EXPECT_TRUE(ClientThreadEnds());
    std::this_thread::sleep_for(200ms);
    std::lock_guard<std::mutex> guard(host.lock);
    EXPECT_EQ(host.events_.size(), events) << host.events_.back();
}

} // namespace
