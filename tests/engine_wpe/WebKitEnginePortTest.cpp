// The WebKit engine port against the real engine, on a shipped page with
// known colours. The engine starts once per process, so one port serves
// every case of this binary.
#include "engine/wpe/WebKitEnginePort.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <cstdint>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

using namespace SLF_ChromiumEmbeddedFramework;

namespace {

const std::string kColoursPage = std::string("file://") + SLF_TEST_PAGES_DIR + "/wpe_port_colors.html";
const std::string kResourcesPage = std::string("file://") + SLF_TEST_PAGES_DIR + "/wpe_port_resources.html";
const std::string kAudioPage = std::string("file://") + SLF_TEST_PAGES_DIR + "/wpe_port_audio.html";
const std::string kEventsPage = std::string("file://") + SLF_TEST_PAGES_DIR + "/wpe_port_events.html";

struct Bgra {
    uint8_t b, g, r, a;
    bool operator==(const Bgra&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Bgra& p)
{
    return out << "BGRA(" << int(p.b) << "," << int(p.g) << "," << int(p.r) << "," << int(p.a) << ")";
}

constexpr Bgra kRed{0, 0, 255, 255};
constexpr Bgra kBlue{255, 0, 0, 255};
constexpr Bgra kGreen{0, 128, 0, 255};
constexpr Bgra kMagenta{255, 0, 255, 255};
constexpr Bgra kGrey{128, 128, 128, 255};
constexpr Bgra kCyan{255, 255, 0, 255};
constexpr Bgra kLime{0, 255, 0, 255};
constexpr Bgra kYellow{0, 255, 255, 255};
constexpr Bgra kOrange{0, 128, 255, 255};

// Forces a device scale factor of 1, in the service and in web processes.
class TestApp : public EngineApp, public EngineBrowserProcessHandler, public EngineRenderProcessHandler {
public:
    void OnBeforeCommandLineProcessing(const std::string&, EngineCommandLine& commandLine) override
    {
        commandLine.AppendSwitchWithValue("force-device-scale-factor", "1");
    }
    void OnBeforeChildProcessLaunch(EngineCommandLine& commandLine) override
    {
        commandLine.AppendSwitchWithValue("force-device-scale-factor", "1");
    }
    EngineBrowserProcessHandler* GetBrowserProcessHandler() override { return this; }
    EngineRenderProcessHandler* GetRenderProcessHandler() override { return this; }
    bool OnProcessMessageReceived(EngineBrowserRef, EngineProcessMessageRef) override { return false; }
};

// One client per browser; everything runs on the test thread, which pumps.
class TestClient : public EngineClient,
                   public EngineRenderHandler,
                   public EngineLifeSpanHandler,
                   public EngineLoadHandler,
                   public EngineJSDialogHandler {
public:
    TestClient(int width, int height) : width(width), height(height) {}

    EngineRenderHandler* GetRenderHandler() override { return this; }
    EngineLifeSpanHandler* GetLifeSpanHandler() override { return this; }
    EngineLoadHandler* GetLoadHandler() override { return this; }
    EngineJSDialogHandler* GetJSDialogHandler() override { return this; }

    bool GetViewRect(EngineBrowserRef, EngineRect& rect) override
    {
        rect = {0, 0, width, height};
        return true;
    }
    void OnPaint(EngineBrowserRef, const void* buffer, int w, int h) override
    {
        ++paints;
        paintWidth = w;
        paintHeight = h;
        const auto* bytes = static_cast<const uint8_t*>(buffer);
        image.assign(bytes, bytes + static_cast<size_t>(w) * h * 4);
    }
    void OnCursorChange(EngineBrowserRef, EngineCursorType type) override { cursor = type; }

    void OnAfterCreated(EngineBrowserRef created) override
    {
        ++createdCount;
        browser = created;
    }
    void OnBeforeClose(EngineBrowserRef) override { ++closedCount; }
    bool OnBeforePopup(EngineBrowserRef, const std::string& targetUrl) override
    {
        popups.push_back(targetUrl);
        return true;
    }

    void OnLoadStart(EngineBrowserRef, EngineFrameRef) override { ++loadStarts; }
    void OnLoadEnd(EngineBrowserRef, EngineFrameRef, int status) override { loadEndStatus = status; }

    bool OnJSDialog(EngineBrowserRef, const std::string&, EngineJSDialogType type, const std::string& text,
                    const std::string& defaultPrompt, bool& suppress) override
    {
        dialogs.push_back(std::to_string(type) + ":" + text + ":" + defaultPrompt);
        suppress = true;
        return false;
    }

    bool OnProcessMessageReceived(EngineBrowserRef, EngineProcessMessageRef message) override
    {
        if (message->GetName() != "SlfCef_Response_GetRenderProcessId")
            return false;
        if (message->HasArgumentList() && !message->Arguments()->empty()) {
            if (const int* pid = std::get_if<int>(&message->Arguments()->at(0)))
                renderProcessId = *pid;
        }
        return true;
    }

    Bgra Pixel(int x, int y) const
    {
        const size_t at = (static_cast<size_t>(y) * paintWidth + x) * 4;
        if (at + 3 >= image.size())
            return {0, 0, 0, 0};
        return {image[at], image[at + 1], image[at + 2], image[at + 3]};
    }

    int width;
    int height;
    EngineBrowserRef browser;
    int createdCount = 0;
    int closedCount = 0;
    int paints = 0;
    int paintWidth = 0;
    int paintHeight = 0;
    int loadEndStatus = -1;
    int renderProcessId = 0;
    int loadStarts = 0;
    int cursor = -1;
    std::vector<std::string> dialogs;
    std::vector<uint8_t> image;
    std::vector<std::string> popups;
};

bool ProcessRuns(int pid)
{
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(stat, line))
        return false;
    const size_t close = line.rfind(')');
    return close != std::string::npos && close + 2 < line.size() && line[close + 2] != 'Z';
}

// Answers http://streamloft/settings with a colour name and keeps
// http://streamloft/pending open (length -1, no data), the way the engine's
// client answers refused requests. Runs on the port's resource thread.
class ResourceClient : public TestClient, public EngineRequestHandler, public EngineResourceHandler {
public:
    ResourceClient() : TestClient(150, 50) {}
    EngineRequestHandler* GetRequestHandler() override { return this; }

    EngineResourceHandler* GetResourceHandler(EngineBrowserRef browser, EngineFrameRef,
                                              EngineRequestRef request) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        seenUrls.push_back(request->GetURL());
        askedOnPumpThread = askedOnPumpThread || std::this_thread::get_id() == pumpThread;
        askedForBrowser = browser ? browser->GetIdentifier() : -1;
        return request->GetURL().rfind("http://streamloft/", 0) == 0 ? this : nullptr;
    }
    bool ProcessRequest(EngineRequestRef request, EngineCallbackRef callback) override
    {
        lastUrl = request->GetURL();
        callback->Continue();
        return true;
    }
    void GetResponseHeaders(EngineResponseRef response, int64_t& length, std::string&) override
    {
        if (lastUrl == "http://streamloft/settings") {
            body = "rgb(0, 0, 255)";
            length = static_cast<int64_t>(body.size());
            response->SetMimeType("text/plain");
        } else {
            length = -1;
            response->SetStatus(403);
        }
    }
    bool ReadResponse(void* out, int bytesToRead, int& bytesRead, EngineCallbackRef) override
    {
        if (!body.empty()) {
            bytesRead = std::min<int>(bytesToRead, static_cast<int>(body.size()));
            std::memcpy(out, body.data(), static_cast<size_t>(bytesRead));
            body.erase(0, static_cast<size_t>(bytesRead));
            return true;
        }
        return true;
    }
    void Cancel() override { ++cancels; }

    bool Saw(const std::string& url)
    {
        std::lock_guard<std::mutex> lock(mutex);
        return std::find(seenUrls.begin(), seenUrls.end(), url) != seenUrls.end();
    }

    std::thread::id pumpThread = std::this_thread::get_id();
    std::mutex mutex;
    std::vector<std::string> seenUrls;
    bool askedOnPumpThread = false;
    int askedForBrowser = 0;
    std::atomic<int> cancels{0};
    std::string lastUrl;
    std::string body;
};

// Records the page's audio streams; called on the port's audio thread.
class AudioClient : public TestClient, public EngineAudioHandler {
public:
    AudioClient() : TestClient(100, 50) {}
    EngineAudioHandler* GetAudioHandler() override { return this; }

    void OnAudioStreamStarted(EngineBrowserRef browser, int streamId, int sampleRate, int channelCount, int bits,
                              int64_t) override
    {
        onPumpThread = onPumpThread || std::this_thread::get_id() == pumpThread;
        browserId = browser ? browser->GetIdentifier() : -1;
        stream = streamId;
        rate = sampleRate;
        channels = channelCount;
        bitsPerSample = bits;
        ++started;
    }
    void OnAudioStreamPacket(EngineBrowserRef, int streamId, const void* data, int length) override
    {
        if (streamId != stream.load())
            wrongStream = true;
        bytes += length;
        const auto* samples = static_cast<const int16_t*>(data);
        for (int i = 0; i < length / 2; ++i) {
            if (samples[i] > 1000 || samples[i] < -1000)
                loud = true;
        }
    }
    void OnAudioSteamStopped(EngineBrowserRef, int streamId) override
    {
        if (streamId == stream.load())
            ++stopped;
    }

    std::thread::id pumpThread = std::this_thread::get_id();
    std::atomic<bool> onPumpThread{false};
    std::atomic<int> browserId{0};
    std::atomic<int> stream{0};
    std::atomic<int> rate{0};
    std::atomic<int> channels{0};
    std::atomic<int> bitsPerSample{0};
    std::atomic<int> started{0};
    std::atomic<int> stopped{0};
    std::atomic<long> bytes{0};
    std::atomic<bool> loud{false};
    std::atomic<bool> wrongStream{false};
};

class WebKitEnginePortTest : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        s_pPort = new WebKitEnginePort();
        EngineSettings settings;
        settings.no_sandbox = true;
        settings.windowless_rendering_enabled = true;
        s_bInitialized = s_pPort->Initialize(settings, &s_App);
    }
    static void TearDownTestSuite()
    {
        if (s_bInitialized) {
            s_pPort->Shutdown();
            EXPECT_FALSE(s_pPort->Initialize(EngineSettings(), &s_App)) << "initialised again after shutdown";
            EXPECT_TRUE(WebKitEnginePort::RunningEngineProcesses().empty());
        }
        // The engine keeps references to the port's context; the port stays.
    }
    void SetUp() override { ASSERT_TRUE(s_bInitialized) << "the engine did not start"; }

    bool PumpUntil(const std::function<bool()>& done, int timeoutMs = 20000)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        while (!done()) {
            if (std::chrono::steady_clock::now() > deadline)
                return false;
            s_pPort->DoMessageLoopWork();
            usleep(1000);
        }
        return true;
    }

    void Pump(int milliseconds)
    {
        PumpUntil([] { return false; }, milliseconds);
    }

    // Creates a browser on the colours page and waits for its first painted
    // frame with the page's content.
    void Open(TestClient& client, int frameRate = 30, const std::string& url = kColoursPage,
              Bgra ready = kRed)
    {
        EngineWindowInfo windowInfo;
        windowInfo.SetAsWindowless(nullptr);
        EngineBrowserSettings settings;
        settings.windowless_frame_rate = frameRate;
        ASSERT_TRUE(s_pPort->CreateBrowser(windowInfo, &client, url, settings));
        ASSERT_TRUE(PumpUntil([&] { return client.browser != nullptr; })) << "no OnAfterCreated";
        ASSERT_TRUE(PumpUntil([&] { return client.Pixel(25, 25) == ready; }))
            << "page never painted; last pixel " << client.Pixel(25, 25);
    }

    static inline WebKitEnginePort* s_pPort = nullptr;
    static inline bool s_bInitialized = false;
    static inline TestApp s_App;
};

TEST_F(WebKitEnginePortTest, PaintsPageColoursKeepsTransparencyAndRefusesPopups)
{
    TestClient client(200, 100);
    Open(client);

    EXPECT_GT(client.browser->GetIdentifier(), 0);
    EXPECT_EQ(client.paintWidth, 200);
    EXPECT_EQ(client.paintHeight, 100);
    EXPECT_EQ(client.image.size(), 200u * 100u * 4u);
    EXPECT_EQ(client.Pixel(25, 25), kRed);
    EXPECT_EQ(client.Pixel(75, 25), kBlue) << "devicePixelRatio is not 1";
    EXPECT_EQ(client.Pixel(125, 25), kGreen);
    EXPECT_EQ(client.Pixel(175, 25), kGrey);
    EXPECT_EQ(client.Pixel(100, 75).a, 0) << "the transparent background got painted";
    EXPECT_EQ(client.Pixel(199, 99).a, 0);

    ASSERT_TRUE(PumpUntil([&] { return client.loadEndStatus >= 0; }));
    EXPECT_EQ(client.loadEndStatus, 200);
    EXPECT_EQ(client.browser->GetMainFrame()->GetURL(), kColoursPage);

    // The page's window.open reached the popup handler and made no browser.
    ASSERT_TRUE(PumpUntil([&] { return !client.popups.empty(); }));
    EXPECT_EQ(client.popups.front(), "about:blank");
    Pump(300);
    EXPECT_EQ(client.createdCount, 1);

    // A repaint request delivers the last image again.
    const int paints = client.paints;
    client.browser->GetHost()->Invalidate();
    ASSERT_TRUE(PumpUntil([&] { return client.paints > paints; }));
    EXPECT_EQ(client.Pixel(25, 25), kRed);
}

TEST_F(WebKitEnginePortTest, TwoBrowsersResizeAndTakeInputFromOtherThreads)
{
    TestClient first(200, 100);
    TestClient second(200, 60);
    Open(first);
    Open(second, 60);
    EXPECT_NE(first.browser->GetIdentifier(), second.browser->GetIdentifier());
    EXPECT_EQ(second.paintHeight, 60);

    // Resize: the next frames have the new size and the same content.
    first.width = 300;
    first.height = 150;
    first.browser->GetHost()->WasResized();
    ASSERT_TRUE(PumpUntil([&] { return first.paintWidth == 300 && first.paintHeight == 150; }));
    EXPECT_EQ(first.image.size(), 300u * 150u * 4u);
    EXPECT_EQ(first.Pixel(25, 25), kRed);
    EXPECT_EQ(first.Pixel(250, 120).a, 0);

    // Input arrives from a thread other than the pump thread, as the
    // service's connection threads send it.
    EngineBrowserHostRef host = second.browser->GetHost();
    std::thread sender([host] {
        EngineMouseEvent event;
        event.x = 10;
        event.y = 55;
        host->SendMouseMoveEvent(event, false);
        event.modifiers = EVENTFLAG_LEFT_MOUSE_BUTTON;
        host->SendMouseClickEvent(event, MBT_LEFT, false, 1);
        event.modifiers = 0;
        host->SendMouseClickEvent(event, MBT_LEFT, true, 1);

        EngineKeyEvent key;
        key.type = KEYEVENT_RAWKEYDOWN;
        key.windows_key_code = 'A';
        host->SendKeyEvent(key);
        key.type = KEYEVENT_KEYUP;
        host->SendKeyEvent(key);
    });
    sender.join();
    EXPECT_TRUE(PumpUntil([&] { return second.Pixel(125, 25) == kMagenta; }))
        << "click not seen; pixel " << second.Pixel(125, 25);
    EXPECT_TRUE(PumpUntil([&] { return second.Pixel(175, 25) == kCyan; }))
        << "key not seen; pixel " << second.Pixel(175, 25);
    // The other browser saw none of it.
    EXPECT_EQ(first.Pixel(125, 25), kGreen);
    EXPECT_EQ(first.Pixel(175, 25), kGrey);
}

TEST_F(WebKitEnginePortTest, RenderProcessAnswersItsIdAndEndsWhenTheBrowserCloses)
{
    TestClient client(120, 60);
    Open(client);

    client.browser->SendProcessMessage(EngineProcessMessage::Create("SlfCef_Request_GetRenderProcessId"));
    ASSERT_TRUE(PumpUntil([&] { return client.renderProcessId != 0; })) << "no answer from the web process";
    const int pid = client.renderProcessId;
    EXPECT_NE(pid, getpid());
    EXPECT_TRUE(ProcessRuns(pid)) << "pid " << pid << " is not a live process";

    EngineBrowserRef browser = client.browser;
    browser->GetHost()->CloseBrowser(true);
    ASSERT_TRUE(PumpUntil([&] { return client.closedCount == 1; })) << "no OnBeforeClose";
    EXPECT_TRUE(PumpUntil([&] { return !ProcessRuns(pid); })) << "web process " << pid << " still runs";

    // A closed browser ignores further calls.
    const int paints = client.paints;
    browser->GetHost()->Invalidate();
    browser->GetHost()->CloseBrowser(true);
    browser->GetMainFrame()->ExecuteJavaScript("1", "", 0);
    Pump(200);
    EXPECT_EQ(client.paints, paints);
    EXPECT_EQ(client.closedCount, 1);
}

TEST_F(WebKitEnginePortTest, DialogsCursorWheelDoubleClickScriptsAndVisibility)
{
    // The page asks alert, confirm and prompt while loading: the handler
    // sees each, none blocks, confirm answers false and prompt null.
    TestClient client(250, 100);
    Open(client, 60, kEventsPage, kLime);
    ASSERT_EQ(client.dialogs.size(), 3u);
    EXPECT_EQ(client.dialogs[0], "0:hello:");
    EXPECT_EQ(client.dialogs[1], "1:continue?:");
    EXPECT_EQ(client.dialogs[2], "2:name?:default");

    EngineBrowserHostRef host = client.browser->GetHost();
    EngineMouseEvent event;
    auto moveTo = [&](int x, int y) {
        event.x = x;
        event.y = y;
        host->SendMouseMoveEvent(event, false);
    };
    moveTo(150, 75);
    EXPECT_TRUE(PumpUntil([&] { return client.cursor == CT_HAND; })) << "cursor " << client.cursor;
    moveTo(50, 75);
    EXPECT_TRUE(PumpUntil([&] { return client.cursor == CT_IBEAM; })) << "cursor " << client.cursor;
    moveTo(25, 25);
    EXPECT_TRUE(PumpUntil([&] { return client.cursor == CT_POINTER; })) << "cursor " << client.cursor;

    // A positive vertical delta is one step upwards.
    moveTo(75, 25);
    host->SendMouseWheelEvent(event, 0, 1);
    EXPECT_TRUE(PumpUntil([&] { return client.Pixel(75, 25) == kBlue; })) << client.Pixel(75, 25);
    host->SendMouseWheelEvent(event, 0, -1);
    EXPECT_TRUE(PumpUntil([&] { return client.Pixel(75, 25) == kYellow; })) << client.Pixel(75, 25);

    // A double click on its own (no click before it) reaches the page as two
    // clicks.
    moveTo(125, 25);
    event.modifiers = EVENTFLAG_LEFT_MOUSE_BUTTON;
    host->SendMouseClickEvent(event, MBT_LEFT, false, 2);
    event.modifiers = 0;
    host->SendMouseClickEvent(event, MBT_LEFT, true, 1);
    EXPECT_TRUE(PumpUntil([&] { return client.Pixel(125, 25) == kMagenta; })) << client.Pixel(125, 25);

    client.browser->GetMainFrame()->ExecuteJavaScript("paint('script', 'rgb(0, 255, 255)')", "", 0);
    EXPECT_TRUE(PumpUntil([&] { return client.Pixel(175, 25) == kCyan; })) << client.Pixel(175, 25);

    host->WasHidden(true);
    Pump(100);
    host->WasHidden(false);
    EXPECT_TRUE(PumpUntil([&] { return client.Pixel(225, 25) == kOrange; })) << client.Pixel(225, 25);

    // Reload starts a new load and runs the page again from the start.
    const int starts = client.loadStarts;
    client.browser->Reload();
    EXPECT_TRUE(PumpUntil([&] { return client.loadStarts > starts && client.dialogs.size() == 6; }));
    EXPECT_TRUE(PumpUntil([&] { return client.Pixel(175, 25) == kGrey; }));

    host->CloseBrowser(false);
    EXPECT_TRUE(PumpUntil([&] { return client.closedCount == 1; })) << "a polite close did not close";
}

TEST_F(WebKitEnginePortTest, ServiceAnswersTakenOverRequestsAndKeepsOpenOnesOpen)
{
    ResourceClient client;
    Open(client, 30, kResourcesPage);

    // Every request is offered, the document too; others load normally.
    EXPECT_TRUE(client.Saw(kResourcesPage));
    EXPECT_TRUE(PumpUntil([&] { return client.Pixel(75, 25) == kBlue; }))
        << "settings body not applied; pixel " << client.Pixel(75, 25);
    {
        std::lock_guard<std::mutex> lock(client.mutex);
        EXPECT_FALSE(client.askedOnPumpThread) << "requests must be decided on the resource thread";
        EXPECT_EQ(client.askedForBrowser, client.browser->GetIdentifier());
    }
    EXPECT_TRUE(client.Saw("http://streamloft/pending"));

    // The request without an end stays open while the browser lives...
    Pump(300);
    EXPECT_EQ(client.Pixel(125, 25), kGrey);
    EXPECT_EQ(client.cancels.load(), 0);
    // ...and is cancelled when it closes.
    client.browser->GetHost()->CloseBrowser(true);
    ASSERT_TRUE(PumpUntil([&] { return client.closedCount == 1; }));
    EXPECT_TRUE(PumpUntil([&] { return client.cancels.load() == 1; }));
}

TEST_F(WebKitEnginePortTest, PageAudioReachesTheAudioHandlerUntilTheBrowserCloses)
{
    AudioClient client;
    Open(client, 30, kAudioPage);
    EXPECT_TRUE(PumpUntil([&] { return client.Pixel(75, 25) == kLime; })) << "the audio context does not run";

    ASSERT_TRUE(PumpUntil([&] { return client.started.load() == 1 && client.bytes.load() > 48000; }))
        << "started " << client.started.load() << ", bytes " << client.bytes.load();
    EXPECT_FALSE(client.onPumpThread.load()) << "audio handlers run on the audio thread";
    EXPECT_EQ(client.browserId.load(), client.browser->GetIdentifier());
    EXPECT_GT(client.stream.load(), 0);
    EXPECT_GE(client.rate.load(), 8000);
    EXPECT_GE(client.channels.load(), 1);
    EXPECT_EQ(client.bitsPerSample.load(), 16);
    EXPECT_TRUE(client.loud.load()) << "the tone arrived as silence";
    EXPECT_FALSE(client.wrongStream.load());

    client.browser->GetHost()->CloseBrowser(true);
    ASSERT_TRUE(PumpUntil([&] { return client.closedCount == 1; }));
    EXPECT_TRUE(PumpUntil([&] { return client.stopped.load() == 1; })) << "no stop after the browser closed";
}

TEST_F(WebKitEnginePortTest, EngineStartsOncePerProcess)
{
    EXPECT_FALSE(s_pPort->Initialize(EngineSettings(), &s_App));
    bool fromOtherThread = true;
    std::thread other([&] {
        WebKitEnginePort another;
        fromOtherThread = another.Initialize(EngineSettings(), nullptr);
    });
    other.join();
    EXPECT_FALSE(fromOtherThread);

    // The pump ignores calls from threads other than its own.
    std::thread pumper([] { s_pPort->DoMessageLoopWork(); });
    pumper.join();

    TestClient client(10, 10);
    EXPECT_FALSE(s_pPort->CreateBrowser(EngineWindowInfo(), nullptr, kColoursPage, EngineBrowserSettings()));
}

} // namespace
