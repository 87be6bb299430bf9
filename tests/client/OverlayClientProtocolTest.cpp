// The host library against a stand-in service on a real socket: how requests
// go out, how the deferred open reply comes back, and when frames and audio
// buffers are given back to the service.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <mutex>

#include "audio_transport/NVKXPCAudioBuffer.h"
#include "audio_transport/NVKXPCAudioBufferPool.h"
#include "streamloft/OverlayClient.h"
#include "tests/client/FakeOverlayService.h"

using namespace std::chrono_literals;
using streamloft::AudioBuffer;
using streamloft::AudioStreamFormat;
using streamloft::OverlayClient;
using streamloft::VideoFrame;

namespace {

class RecordingCallbacks : public streamloft::OverlayCallbacks {
 public:
  // Set under `lock`: the client for answering settings requests, and the
  // answer.
  OverlayClient* client = nullptr;
  std::vector<uint8_t> settingsAnswer;
  bool keepFrames = true;
  bool keepAudio = true;

  void BrowserDidStart(int id) override { Add("start " + std::to_string(id)); }
  void BrowserReceivedVideoFrame(int id, std::shared_ptr<const VideoFrame> frame) override {
    std::lock_guard<std::mutex> guard(lock);
    if (keepFrames) frames.push_back(frame);
    events.push_back("frame " + std::to_string(id));
    changed.notify_all();
  }
  void BrowserWillStartAudioStream(int id, int stream, const AudioStreamFormat& f) override {
    std::lock_guard<std::mutex> guard(lock);
    format = f;
    events.push_back("audio-start " + std::to_string(id) + " " + std::to_string(stream));
    changed.notify_all();
  }
  void BrowserDidReceiveAudioStream(int id, int stream, std::shared_ptr<const AudioBuffer> buffer) override {
    std::lock_guard<std::mutex> guard(lock);
    events.push_back(std::string(buffer ? "audio-buffer " : "audio-null ") + std::to_string(id) + " " +
                     std::to_string(stream));
    if (buffer && keepAudio) buffers.push_back(buffer);
    changed.notify_all();
  }
  void BrowserWillStopAudioStream(int id, int stream) override {
    Add("audio-stop " + std::to_string(id) + " " + std::to_string(stream));
  }
  void RequestSettingsDataForBrowser(int id) override {
    OverlayClient* c;
    std::vector<uint8_t> answer;
    {
      std::lock_guard<std::mutex> guard(lock);
      c = client;
      answer = settingsAnswer;
    }
    std::string error;
    bool ok = c->UpdateBrowserSettingsData(id, answer, &error);
    Add("settings " + std::to_string(id) + (ok ? " answered" : " failed: " + error));
  }
  void OpenBrowserDidReply(int id) override { Add("open-reply " + std::to_string(id)); }
  void OpenBrowserDidFail(const std::string& error) override { Add("open-failed " + error); }
  void ConnectionDidClose() override { Add("closed"); }
  void ClientDidReportProblem(const std::string& message) override { Add("problem " + message); }

  void Add(const std::string& event) {
    std::lock_guard<std::mutex> guard(lock);
    events.push_back(event);
    changed.notify_all();
  }
  // Waits for an event that starts with `prefix`; returns it, or "" on timeout.
  std::string WaitFor(const std::string& prefix, std::chrono::milliseconds timeout = 5s) {
    std::unique_lock<std::mutex> guard(lock);
    std::string found;
    changed.wait_for(guard, timeout, [&] {
      for (const auto& e : events)
        if (e.rfind(prefix, 0) == 0) {
          found = e;
          return true;
        }
      return false;
    });
    return found;
  }

  std::mutex lock;
  std::condition_variable changed;
  std::vector<std::string> events;
  std::vector<std::shared_ptr<const VideoFrame>> frames;
  std::vector<std::shared_ptr<const AudioBuffer>> buffers;
  AudioStreamFormat format;
};

// A sealed memfd holding a width x height BGRA image with rows `stride`
// bytes apart; pixel (x, y) = {x, y, 0x80, 0xFF}.
int MakeSurface(uint32_t width, uint32_t height, uint32_t stride, bool seal = true) {
  int fd = memfd_create("test-surface", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  const size_t size = static_cast<size_t>(stride) * height;
  EXPECT_EQ(ftruncate(fd, static_cast<off_t>(size)), 0);
  auto* p = static_cast<uint8_t*>(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
  for (uint32_t y = 0; y < height; ++y)
    for (uint32_t x = 0; x < width; ++x) {
      uint8_t* px = p + static_cast<size_t>(y) * stride + x * 4;
      px[0] = static_cast<uint8_t>(x);
      px[1] = static_cast<uint8_t>(y);
      px[2] = 0x80;
      px[3] = 0xFF;
    }
  munmap(p, size);
  if (seal) fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL);
  return fd;
}

GVariant* SurfaceProperties(uint64_t width, uint64_t height, uint64_t stride, uint64_t id, uint64_t allocSize) {
  GVariantBuilder b;
  g_variant_builder_init(&b, G_VARIANT_TYPE_VARDICT);
  g_variant_builder_add(&b, "{sv}", "IOSurfaceWidth", g_variant_new_uint64(width));
  g_variant_builder_add(&b, "{sv}", "IOSurfaceHeight", g_variant_new_uint64(height));
  g_variant_builder_add(&b, "{sv}", "IOSurfaceBytesPerRow", g_variant_new_uint64(stride));
  g_variant_builder_add(&b, "{sv}", "IOSurfaceBytesPerElement", g_variant_new_uint64(4));
  g_variant_builder_add(&b, "{sv}", "IOSurfacePixelFormat", g_variant_new_uint32(0x42475241));
  g_variant_builder_add(&b, "{sv}", "IOSurfaceID", g_variant_new_uint64(id));
  g_variant_builder_add(&b, "{sv}", "IOSurfaceAllocSize", g_variant_new_uint64(allocSize));
  return g_variant_builder_end(&b);
}

class OverlayClientProtocolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/slf-client-test-XXXXXX";
    dir_ = mkdtemp(pattern);
    service_ = std::make_unique<FakeOverlayService>(dir_ + "/overlay.sock");
  }
  void TearDown() override {
    client_.reset();
    service_.reset();
    std::filesystem::remove_all(dir_);
  }
  void Connect() {
    streamloft::ConnectOptions options;
    options.socketPath = service_->socketPath();
    options.startOnDemand = false;
    std::string error;
    client_ = OverlayClient::Connect(callbacks_, options, &error);
    ASSERT_TRUE(client_) << error;
    {
      std::lock_guard<std::mutex> guard(callbacks_.lock);
      callbacks_.client = client_.get();
    }
    ASSERT_TRUE(service_->waitForHost());
  }
  // Opens a browser and waits for its announcement.
  void Open() {
    ASSERT_TRUE(client_->OpenBrowser("https://example.org/", 640, 360, 30, {}));
    ASSERT_EQ(callbacks_.WaitFor("start "), "start 7");
  }

  std::string dir_;
  std::unique_ptr<FakeOverlayService> service_;
  RecordingCallbacks callbacks_;
  std::unique_ptr<OverlayClient> client_;
};

TEST_F(OverlayClientProtocolTest, RequestsGoOutInOrderAndCloseBringsTheDeferredOpenReply) {
  Connect();
  ASSERT_TRUE(client_->OpenBrowser("file:///srv/overlay/index.html", 1920, 1080, 59.94,
                                   {"file:///srv/overlay/", "file:///srv/shared/"}));
  // Issued right behind OpenBrowser from the same thread: must not overtake it.
  ASSERT_TRUE(client_->UpdateBrowserSize(7, 800, 600));
  EXPECT_EQ(callbacks_.WaitFor("start "), "start 7");
  ASSERT_TRUE(client_->UpdateBrowserSettingsData(7, {1, 2, 3}));
  ASSERT_TRUE(client_->UpdateBrowserPermittedFileURLStrings(7, {"file:///x/"}));
  EXPECT_EQ(callbacks_.WaitFor("open-reply", 200ms), "") << "the open reply must wait for the close";
  ASSERT_TRUE(client_->CloseBrowser(7));
  EXPECT_EQ(callbacks_.WaitFor("open-reply"), "open-reply 7");

  auto requests = service_->waitForRequests(5);
  EXPECT_EQ(requests, (std::vector<std::string>{"OpenBrowser", "UpdateBrowserSize", "UpdateBrowserSettingsData",
                                                "UpdateBrowserPermittedFileURLStrings", "CloseBrowser"}));
  GVariant* open = service_->requestParameters(0);
  const gchar* url;
  double w, h, fps;
  GVariant* permitted;
  g_variant_get(open, "(&sddd@as)", &url, &w, &h, &fps, &permitted);
  EXPECT_STREQ(url, "file:///srv/overlay/index.html");
  EXPECT_EQ(w, 1920);
  EXPECT_EQ(h, 1080);
  EXPECT_DOUBLE_EQ(fps, 59.94);
  gsize n = 0;
  const gchar** strings = g_variant_get_strv(permitted, &n);
  ASSERT_EQ(n, 2u);
  EXPECT_STREQ(strings[1], "file:///srv/shared/");
  g_free(strings);
  g_variant_unref(permitted);
  g_variant_unref(open);

  GVariant* settings = service_->requestParameters(2);
  GVariant* bytes = g_variant_get_child_value(settings, 1);
  gsize length = 0;
  auto* data = static_cast<const uint8_t*>(g_variant_get_fixed_array(bytes, &length, 1));
  EXPECT_EQ(std::vector<uint8_t>(data, data + length), (std::vector<uint8_t>{1, 2, 3}));
  g_variant_unref(bytes);
  g_variant_unref(settings);
}

TEST_F(OverlayClientProtocolTest, RefusedOpenAndUnansweredCloseAreReported) {
  Connect();
  service_->refuseURL("no url at all");
  ASSERT_TRUE(client_->OpenBrowser("no url at all", 100, 100, 30, {}));
  std::string failure = callbacks_.WaitFor("open-failed");
  EXPECT_NE(failure.find("com.streamloft.Error.InvalidURL"), std::string::npos) << failure;
  EXPECT_EQ(callbacks_.WaitFor("start", 100ms), "");
  // Closing an ID that was never opened is answered, but brings no open reply.
  EXPECT_TRUE(client_->CloseBrowser(12345));
  EXPECT_EQ(callbacks_.WaitFor("open-reply", 200ms), "");
}

TEST_F(OverlayClientProtocolTest, FrameStaysWithTheHostUntilDroppedAndShowsItsPixels) {
  Connect();
  Open();
  const uint32_t width = 20, height = 10, stride = 128;  // padded rows
  int fd = MakeSurface(width, height, stride);
  int token = service_->callHost(
      "BrowserReceivedVideoFrame",
      g_variant_new("(ih@a{sv})", 7, 0, SurfaceProperties(width, height, stride, 42, stride * height)), fd);
  close(fd);
  ASSERT_EQ(callbacks_.WaitFor("frame"), "frame 7");
  std::shared_ptr<const VideoFrame> frame;
  {
    std::lock_guard<std::mutex> guard(callbacks_.lock);
    ASSERT_EQ(callbacks_.frames.size(), 1u);
    frame = callbacks_.frames[0];
    callbacks_.frames.clear();
  }
  EXPECT_EQ(frame->width(), width);
  EXPECT_EQ(frame->height(), height);
  EXPECT_EQ(frame->stride(), stride);
  EXPECT_EQ(frame->properties().surfaceID, 42u);
  EXPECT_EQ(frame->pixelFormat(), streamloft::kPixelFormatBGRA);
  EXPECT_EQ(frame->row(9)[19 * 4 + 0], 19);
  EXPECT_EQ(frame->row(9)[19 * 4 + 1], 9);
  EXPECT_FALSE(service_->waitForReply(token, 200ms)) << "released while the host still holds the frame";
  frame.reset();
  EXPECT_TRUE(service_->waitForReply(token));
}

TEST_F(OverlayClientProtocolTest, FramesAndBuffersOutliveTheirClient) {
  Connect();
  Open();
  int fd = MakeSurface(8, 8, 32);
  service_->callHost("BrowserReceivedVideoFrame",
                     g_variant_new("(ih@a{sv})", 7, 0, SurfaceProperties(8, 8, 32, 5, 256)), fd);
  close(fd);
  auto pool = NVKXPCAudioBufferPool::initWithBufferSize(32, 4);
  pool->setSampleRate(44100);
  pool->setChannelCount(1);
  pool->setBitsPerSample(16);
  service_->callHost("BrowserWillStartAudioStream", g_variant_new("(ii@a{sv})", 7, 1, pool->encodeRecord()));
  auto slot = pool->bufferFromPool();
  slot->appendBytes("pcm!", 4);
  service_->callHost("BrowserDidReceiveAudioStream", g_variant_new("(ii@a{sv})", 7, 1, slot->encodeRecord()));
  ASSERT_NE(callbacks_.WaitFor("frame"), "");
  ASSERT_NE(callbacks_.WaitFor("audio-buffer"), "");
  std::shared_ptr<const VideoFrame> frame;
  std::shared_ptr<const AudioBuffer> buffer;
  {
    std::lock_guard<std::mutex> guard(callbacks_.lock);
    frame = callbacks_.frames.at(0);
    buffer = callbacks_.buffers.at(0);
    callbacks_.frames.clear();
    callbacks_.buffers.clear();
  }
  client_.reset();
  // Still mapped after the connection and its thread are gone; giving them
  // back now has nobody to tell and must be harmless.
  EXPECT_EQ(frame->row(7)[7 * 4], 7);
  EXPECT_EQ(memcmp(buffer->bytes(), "pcm!", 4), 0);
  frame.reset();
  buffer.reset();
}

TEST_F(OverlayClientProtocolTest, BadFramesAreRefusedAndReleasedAtOnce) {
  Connect();
  Open();
  struct Case {
    const char* what;
    bool seal;
    uint64_t height;  // as claimed; the surface has 10 rows of 128 bytes
    uint64_t allocSize;
  } cases[] = {
      {"taller than its memory", true, 11, 1408},
      {"allocation beyond the memory", true, 10, 4096},
      {"memory that can still shrink", false, 10, 1280},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    {
      std::lock_guard<std::mutex> guard(callbacks_.lock);
      callbacks_.events.clear();
    }
    int fd = MakeSurface(20, 10, 128, c.seal);
    int token = service_->callHost("BrowserReceivedVideoFrame",
                                   g_variant_new("(ih@a{sv})", 7, 0, SurfaceProperties(20, c.height, 128, 1, c.allocSize)),
                                   fd);
    close(fd);
    EXPECT_NE(callbacks_.WaitFor("problem frame of browser 7 refused"), "");
    EXPECT_TRUE(service_->waitForReply(token));
    EXPECT_EQ(callbacks_.WaitFor("frame", 50ms), "");
  }
  // A frame without its descriptor.
  int token = service_->callHost("BrowserReceivedVideoFrame",
                                 g_variant_new("(ih@a{sv})", 7, 0, SurfaceProperties(20, 10, 128, 1, 1280)));
  EXPECT_TRUE(service_->waitForReply(token));
  EXPECT_NE(callbacks_.WaitFor("problem frame of browser 7 refused: surface descriptor is missing"), "");
}

TEST_F(OverlayClientProtocolTest, AudioBuffersAreReadFromSharedMemoryAndReturnedWhenDropped) {
  Connect();
  Open();
  auto pool = NVKXPCAudioBufferPool::initWithBufferSize(64, 200);
  ASSERT_TRUE(pool);
  pool->setSampleRate(48000);
  pool->setChannelCount(2);
  pool->setBitsPerSample(16);
  int start = service_->callHost("BrowserWillStartAudioStream", g_variant_new("(ii@a{sv})", 7, 3, pool->encodeRecord()));
  EXPECT_TRUE(service_->waitForReply(start));
  ASSERT_EQ(callbacks_.WaitFor("audio-start"), "audio-start 7 3");
  {
    std::lock_guard<std::mutex> guard(callbacks_.lock);
    EXPECT_EQ(callbacks_.format.sampleRate, 48000);
    EXPECT_EQ(callbacks_.format.channelCount, 2);
    EXPECT_EQ(callbacks_.format.bitsPerSample, 16);
    EXPECT_EQ(callbacks_.format.bufferCapacity, 64u);
    EXPECT_EQ(callbacks_.format.bufferCount, 200u);
  }

  auto slot = pool->bufferFromPool();
  slot = pool->bufferFromPool();  // the second slot, at offset 64
  const char samples[] = "sixteen bytes!!";
  slot->appendBytes(samples, 16);
  int data = service_->callHost("BrowserDidReceiveAudioStream", g_variant_new("(ii@a{sv})", 7, 3, slot->encodeRecord()));
  ASSERT_EQ(callbacks_.WaitFor("audio-buffer"), "audio-buffer 7 3");
  std::shared_ptr<const AudioBuffer> buffer;
  {
    std::lock_guard<std::mutex> guard(callbacks_.lock);
    buffer = callbacks_.buffers.at(0);
    callbacks_.buffers.clear();
  }
  EXPECT_EQ(buffer->length(), 16u);
  EXPECT_EQ(buffer->capacity(), 64u);
  EXPECT_EQ(buffer->sampleRate(), 48000);
  EXPECT_EQ(memcmp(buffer->bytes(), samples, 16), 0);
  EXPECT_FALSE(service_->waitForReply(data, 200ms)) << "returned while the host still holds the buffer";

  // The stop sequence: a null buffer, answered at once, then the stop.
  int empty = service_->callHost("BrowserDidReceiveAudioStream",
                                 g_variant_new("(ii@a{sv})", 7, 3, g_variant_new_array(G_VARIANT_TYPE("{sv}"), nullptr, 0)));
  EXPECT_TRUE(service_->waitForReply(empty));
  service_->callHost("BrowserWillStopAudioStream", g_variant_new("(ii)", 7, 3));
  EXPECT_EQ(callbacks_.WaitFor("audio-null"), "audio-null 7 3");
  EXPECT_EQ(callbacks_.WaitFor("audio-stop"), "audio-stop 7 3");
  // The held buffer outlives its stream and still reads the same bytes.
  EXPECT_EQ(memcmp(buffer->bytes(), samples, 16), 0);
  buffer.reset();
  EXPECT_TRUE(service_->waitForReply(data));
}

TEST_F(OverlayClientProtocolTest, AudioForAnUnknownStreamOrABadRecordIsAnsweredAtOnce) {
  Connect();
  Open();
  auto pool = NVKXPCAudioBufferPool::initWithBufferSize(64, 4);
  auto slot = pool->bufferFromPool();
  slot->appendBytes("abcd", 4);
  int unknown = service_->callHost("BrowserDidReceiveAudioStream", g_variant_new("(ii@a{sv})", 7, 9, slot->encodeRecord()));
  EXPECT_TRUE(service_->waitForReply(unknown));

  GVariantBuilder b;
  g_variant_builder_init(&b, G_VARIANT_TYPE_VARDICT);
  g_variant_builder_add(&b, "{sv}", "NVKShmemName", g_variant_new_string("not-a-segment"));
  int badPool = service_->callHost("BrowserWillStartAudioStream", g_variant_new("(ii@a{sv})", 7, 4, g_variant_builder_end(&b)));
  EXPECT_TRUE(service_->waitForReply(badPool));
  EXPECT_NE(callbacks_.WaitFor("problem the pool of audio stream 4"), "");
  int afterBadPool = service_->callHost("BrowserDidReceiveAudioStream", g_variant_new("(ii@a{sv})", 7, 4, slot->encodeRecord()));
  EXPECT_TRUE(service_->waitForReply(afterBadPool));
  EXPECT_EQ(callbacks_.WaitFor("audio-buffer", 100ms), "");
  // No receiving pool opened the segment, so nothing else removes its name.
  shm_unlink(pool->shmemName().c_str());
}

TEST_F(OverlayClientProtocolTest, SettingsRequestIsAnsweredFromTheCallback) {
  Connect();
  Open();
  {
    std::lock_guard<std::mutex> guard(callbacks_.lock);
    callbacks_.settingsAnswer = {'{', '}'};
  }
  service_->callHost("RequestSettingsDataForBrowser", g_variant_new("(i)", 7));
  EXPECT_EQ(callbacks_.WaitFor("settings"), "settings 7 answered");
  auto requests = service_->waitForRequests(2);
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[1], "UpdateBrowserSettingsData");
}

TEST_F(OverlayClientProtocolTest, ServiceGoingAwayIsReportedAndLaterRequestsFail) {
  Connect();
  Open();
  service_->closeConnections();
  EXPECT_EQ(callbacks_.WaitFor("closed"), "closed");
  EXPECT_FALSE(client_->IsConnected());
  std::string error;
  EXPECT_FALSE(client_->UpdateBrowserSize(7, 10, 10, &error));
  EXPECT_FALSE(error.empty());
  EXPECT_FALSE(client_->OpenBrowser("https://example.org/", 1, 1, 1, {}, &error));
}

TEST(OverlayClientConnectTest, UnreachableServiceGivesAClearError) {
  RecordingCallbacks callbacks;
  streamloft::ConnectOptions options;
  options.socketPath = "/nonexistent-folder/overlay.sock";
  options.startOnDemand = false;
  std::string error;
  EXPECT_FALSE(OverlayClient::Connect(callbacks, options, &error));
  EXPECT_NE(error.find("cannot reach the overlay service at /nonexistent-folder/overlay.sock"), std::string::npos)
      << error;

  options.startOnDemand = true;
  options.helperPath = "/nonexistent-folder/StreamloftCEFOverlayHelper";
  EXPECT_FALSE(OverlayClient::Connect(callbacks, options, &error));
  EXPECT_NE(error.find("cannot start the overlay service '/nonexistent-folder/StreamloftCEFOverlayHelper'"),
            std::string::npos)
      << error;

  // A service that ends at once with a failure is reported without waiting
  // out the whole start time.
  options.helperPath = "/bin/false";
  options.startTimeout = 60s;
  auto before = std::chrono::steady_clock::now();
  EXPECT_FALSE(OverlayClient::Connect(callbacks, options, &error));
  EXPECT_LT(std::chrono::steady_clock::now() - before, 30s);
  EXPECT_NE(error.find("exited with status 1"), std::string::npos) << error;
}

}  // namespace
