// Fake web processes against the real engine's private sockets: each one
// misbehaves in its own way and must lose its connection, while a real page
// next to it keeps painting and playing, new pages still load through the
// resource thread, and the engine still stops within its bound.
#include "engine/CBrowserApp.h"
#include "engine/wpe/WpeAudioWire.h"
#include "engine/wpe/WpeResourceChannel.h"
#include "tests/engine_port/PortUnderTest.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

using namespace SLF_ChromiumEmbeddedFramework;

namespace {

const std::string kAudioPage = std::string("file://") + SLF_TEST_PAGES_DIR + "/wpe_port_audio.html";
const std::string kColoursPage = std::string("file://") + SLF_TEST_PAGES_DIR + "/wpe_port_colors.html";

class PageClient : public EngineClient,
                   public EngineRenderHandler,
                   public EngineLifeSpanHandler,
                   public EngineAudioHandler {
public:
    EngineRenderHandler* GetRenderHandler() override { return this; }
    EngineLifeSpanHandler* GetLifeSpanHandler() override { return this; }
    EngineAudioHandler* GetAudioHandler() override { return this; }

    bool GetViewRect(EngineBrowserRef, EngineRect& rect) override { return rect = {0, 0, 100, 50}, true; }
    void OnPaint(EngineBrowserRef, const void*, int, int) override { ++paints; }
    void OnCursorChange(EngineBrowserRef, EngineCursorType) override {}
    void OnAfterCreated(EngineBrowserRef created) override { browser = created; }
    bool OnBeforePopup(EngineBrowserRef, const std::string&) override { return true; }
    void OnBeforeClose(EngineBrowserRef) override {}
    void OnAudioStreamStarted(EngineBrowserRef, int, int, int, int, int64_t) override {}
    void OnAudioStreamPacket(EngineBrowserRef, int, const void*, int length) override { audioBytes += length; }
    void OnAudioSteamStopped(EngineBrowserRef, int) override {}

    EngineBrowserRef browser;
    std::atomic<long> paints {0}, audioBytes {0};
};

// One message of the engine's sockets, as raw bytes on the wire.
std::vector<uint8_t> Message(const void* body, size_t size, uint32_t length)
{
    std::vector<uint8_t> bytes(sizeof(length) + size);
    std::memcpy(bytes.data(), &length, sizeof(length));
    if (size)
        std::memcpy(bytes.data() + sizeof(length), body, size);
    return bytes;
}

std::vector<uint8_t> AudioMessage(AudioFrameKind kind, int rate, int channels, int bits, size_t payload = 0)
{
    std::vector<uint8_t> body(sizeof(AudioFrameHeader) + payload, 0);
    const AudioFrameHeader header = {kind, rate, channels, bits};
    std::memcpy(body.data(), &header, sizeof(header));
    return Message(body.data(), body.size(), static_cast<uint32_t>(body.size()));
}

std::vector<uint8_t> PageClaim(uint64_t token)
{
    std::vector<uint8_t> body(sizeof(AudioFrameHeader) + sizeof(token), 0);
    const AudioFrameHeader header = {AUDIO_FRAME_PAGE, 0, 0, 0};
    std::memcpy(body.data(), &header, sizeof(header));
    std::memcpy(body.data() + sizeof(header), &token, sizeof(token));
    return Message(body.data(), body.size(), static_cast<uint32_t>(body.size()));
}

bool SendBytes(int fd, const std::vector<uint8_t>& bytes)
{
    return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

// True once the service closed its end: end of file, or a reset when it
// closed with bytes of ours still unread.
bool ClosedByTheService(int fd)
{
    pollfd entry = {fd, POLLIN, 0};
    if (poll(&entry, 1, 0) <= 0)
        return false;
    char byte;
    const ssize_t got = recv(fd, &byte, 1, MSG_DONTWAIT);
    return got == 0 || (got < 0 && errno == ECONNRESET);
}

class UntrustedPeerTest : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        s_pPort = PortUnderTest::Create();
        EngineSettings settings;
        settings.windowless_rendering_enabled = true;
        s_bInitialized = s_pPort->Initialize(settings, &s_App);
    }
    void SetUp() override { ASSERT_TRUE(s_bInitialized) << "the engine did not start"; }

    bool PumpUntil(const std::function<bool()>& done, int timeoutMs = 20000)
    {
        for (auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs); !done();
             s_pPort->DoMessageLoopWork(), usleep(1000))
            if (std::chrono::steady_clock::now() > deadline)
                return false;
        return true;
    }

    static inline PortUnderTest::Port* s_pPort = nullptr;
    static inline bool s_bInitialized = false;
    static inline CBrowserApp s_App;
};

TEST_F(UntrustedPeerTest, MisbehavingPeersAreCutOffWhileRealPagesGoOnAndTheEngineStopsInTime)
{
    SKIP_ON_GTK() << "page audio and resources are not offered by the WebKitGTK port yet";
    PageClient playing;
    EngineWindowInfo windowInfo;
    windowInfo.SetAsWindowless(nullptr);
    ASSERT_TRUE(s_pPort->CreateBrowser(windowInfo, &playing, kAudioPage, EngineBrowserSettings()));
    ASSERT_TRUE(PumpUntil([&] { return playing.audioBytes.load() > 0; })) << "the real page never played";

    const char* audioSocket = std::getenv(kAudioSocketVariable);
    ASSERT_TRUE(audioSocket && *audioSocket);
    const std::string resourceSocket = PortUnderTest::ResourceSocketPath(s_pPort);
    ASSERT_FALSE(resourceSocket.empty());

    const uint32_t kHuge = 0xFFFFFFF0u;
    const uint8_t garbage[8] = {0xAB, 0xAB, 0xAB, 0xAB, 0xAB, 0xAB, 0xAB, 0xAB};
    std::vector<uint8_t> tooLong = AudioMessage(AUDIO_FRAME_START, 48000, 2, 16);
    const std::vector<uint8_t> overASecond = AudioMessage(AUDIO_FRAME_PACKET, 48000, 2, 16, 48000 * 2 * 2 + 4);
    tooLong.insert(tooLong.end(), overASecond.begin(), overASecond.end());
    std::vector<uint8_t> halfFrame = Message(garbage, sizeof(garbage), 64);
    struct Case {
        const char* what;
        bool audio; // else the resource socket
        std::vector<uint8_t> bytes;
    };
    const std::vector<Case> cases = {
        {"half a message, then silence", true, halfFrame},
        {"half a question, then silence", false, halfFrame},
        {"a length far over the limit", true, Message(nullptr, 0, kHuge)},
        {"a question length far over the limit", false, Message(nullptr, 0, kHuge)},
        {"garbage shorter than a header", true, Message(garbage, sizeof(garbage), sizeof(garbage))},
        {"garbage of an unknown kind", true, AudioMessage(static_cast<AudioFrameKind>(0xABABABAB), 1, 1, 1)},
        {"a question that is no question", false, Message(garbage, sizeof(garbage), sizeof(garbage))},
        {"a message shorter than its header", true, Message(garbage, 3, 3)},
        {"rate 1 Hz, no channel, 8 bits", true, AudioMessage(AUDIO_FRAME_START, 1, 0, 8)},
        {"24-bit samples", true, AudioMessage(AUDIO_FRAME_START, 48000, 2, 24)},
        {"33 channels", true, AudioMessage(AUDIO_FRAME_START, 48000, 33, 16)},
        {"768 kHz", true, AudioMessage(AUDIO_FRAME_START, 768000, 2, 16)},
        {"a packet longer than one second", true, tooLong},
        {"a packet outside a stream", true, AudioMessage(AUDIO_FRAME_PACKET, 48000, 2, 16, 4)},
    };
    // A process that claims a page token another process holds: the other
    // process (a child) claims first, over its own connection. The child is
    // made before the other peers connect: it would otherwise hold copies of
    // the service's ends of their connections (this process is the service).
    const uint64_t token = 0x5eed5eed5eed5eedull;
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t holder = fork();
    ASSERT_GE(holder, 0);
    if (holder == 0) {
        const int fd = ConnectToUnixSocket(audioSocket);
        const bool sent = fd >= 0 && SendBytes(fd, PageClaim(token));
        const char result = sent ? 'k' : 'x';
        if (write(ready[1], &result, 1) != 1)
            _exit(1);
        pause();
        _exit(0);
    }
    char result = 0;
    ASSERT_EQ(read(ready[0], &result, 1), 1);
    ASSERT_EQ(result, 'k');
    std::vector<int> peers;
    for (const Case& attack : cases) {
        const int fd = ConnectToUnixSocket(attack.audio ? audioSocket : resourceSocket);
        ASSERT_GE(fd, 0) << attack.what;
        ASSERT_TRUE(SendBytes(fd, attack.bytes)) << attack.what;
        peers.push_back(fd);
    }
    const int liar = ConnectToUnixSocket(audioSocket);
    ASSERT_GE(liar, 0);
    ASSERT_TRUE(SendBytes(liar, PageClaim(token)));

    // Every one is cut off; the half-sent ones after the half-message limit.
    const long paintsBefore = playing.paints.load(), audioBefore = playing.audioBytes.load();
    for (size_t i = 0; i < cases.size(); ++i)
        EXPECT_TRUE(PumpUntil([&] { return ClosedByTheService(peers[i]); }, 15000)) << cases[i].what;
    EXPECT_TRUE(PumpUntil([&] { return ClosedByTheService(liar); }, 15000)) << "a false page claim";
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);
    for (int fd : peers)
        close(fd);
    close(liar);
    close(ready[0]);
    close(ready[1]);

    // The real page played and painted on, and a new page still loads (its
    // requests pass the resource thread).
    EXPECT_TRUE(PumpUntil([&] { return playing.audioBytes.load() > audioBefore + 48000; })) << "the audio stalled";
    EXPECT_TRUE(PumpUntil([&] { return playing.paints.load() > paintsBefore; })) << "the page stopped painting";
    PageClient loading;
    ASSERT_TRUE(s_pPort->CreateBrowser(windowInfo, &loading, kColoursPage, EngineBrowserSettings()));
    EXPECT_TRUE(PumpUntil([&] { return loading.paints.load() > 0; })) << "a new page did not load";

    // Peers that hold half a message on both sockets do not hold up the stop.
    const int lingeringAudio = ConnectToUnixSocket(audioSocket);
    const int lingeringQuestion = ConnectToUnixSocket(resourceSocket);
    ASSERT_TRUE(SendBytes(lingeringAudio, halfFrame) && SendBytes(lingeringQuestion, halfFrame));
    PumpUntil([] { return false; }, 200);
    const auto stopStart = std::chrono::steady_clock::now();
    s_pPort->Shutdown();
    EXPECT_LT(std::chrono::steady_clock::now() - stopStart, std::chrono::milliseconds(2000))
        << "the engine's stop has to end within the wrapper's 2000 ms wait";
    EXPECT_TRUE(ClosedByTheService(lingeringAudio) && ClosedByTheService(lingeringQuestion));
    close(lingeringAudio);
    close(lingeringQuestion);
}

} // namespace
