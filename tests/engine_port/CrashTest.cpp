// A web process killed as a crash would end it, under the engine port
// alone (PortUnderTest.h): the client hears of it on the pump thread, the
// browser goes on under its ID in a new web process, and the fourth crash
// within a minute gives it up.
#include "engine/CBrowserApp.h"
#include "tests/engine_port/PortUnderTest.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

using namespace SLF_ChromiumEmbeddedFramework;

namespace {

const std::string kColoursPage = std::string("file://") + SLF_TEST_PAGES_DIR + "/wpe_port_colors.html";

// Called on the test thread, which pumps.
class CrashClient : public EngineClient,
                    public EngineRenderHandler,
                    public EngineLifeSpanHandler,
                    public EngineRequestHandler {
public:
    EngineRenderHandler* GetRenderHandler() override { return this; }
    EngineLifeSpanHandler* GetLifeSpanHandler() override { return this; }
    EngineRequestHandler* GetRequestHandler() override { return this; }

    bool GetViewRect(EngineBrowserRef, EngineRect& rect) override { return rect = {0, 0, 120, 40}, true; }
    void OnPaint(EngineBrowserRef, const void*, int w, int h) override { ++paints, width = w, height = h; }
    void OnCursorChange(EngineBrowserRef, EngineCursorType) override {}
    void OnAfterCreated(EngineBrowserRef made) override { ++created, browser = made; }
    void OnBeforeClose(EngineBrowserRef) override { ++closed; }
    bool OnBeforePopup(EngineBrowserRef, const std::string&) override { return true; }
    EngineResourceHandler* GetResourceHandler(EngineBrowserRef, EngineFrameRef, EngineRequestRef) override
    {
        return nullptr;
    }
    void OnRenderProcessTerminated(EngineBrowserRef ended, EngineTerminationStatus status) override
    {
        statuses.push_back(status);
        onPumpThread = onPumpThread && std::this_thread::get_id() == pumpThread;
        sameBrowser = sameBrowser && ended && ended->GetIdentifier() == browser->GetIdentifier();
    }
    bool OnProcessMessageReceived(EngineBrowserRef, EngineProcessMessageRef message) override
    {
        if (message->GetName() != kResponseGetRenderProcessId || !message->HasArgumentList() ||
            message->GetArgumentList().empty())
            return false;
        if (const int* reported = std::get_if<int>(&message->GetArgumentList()[0]))
            pid = *reported;
        return true;
    }

    std::thread::id pumpThread = std::this_thread::get_id();
    EngineBrowserRef browser;
    int created = 0, closed = 0, paints = 0, width = 0, height = 0, pid = 0;
    std::vector<EngineTerminationStatus> statuses;
    bool onPumpThread = true, sameBrowser = true;
};

TEST(EngineCrash, AKilledWebProcessIsReportedAndReplacedUntilTheFourthCrashInAMinute)
{
    PortUnderTest::Port* port = PortUnderTest::Create(); // never deleted (the engine keeps its context)
    CBrowserApp app;
    EngineSettings settings;
    settings.windowless_rendering_enabled = true;
    ASSERT_TRUE(port->Initialize(settings, &app));
    auto pumpUntil = [&](const std::function<bool()>& done, int timeoutMs) {
        for (auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs); !done();
             port->DoMessageLoopWork(), usleep(1000))
            if (std::chrono::steady_clock::now() > deadline)
                return false;
        return true;
    };
    // The web process now showing the browser, as the browser reports it.
    CrashClient client;
    auto webProcess = [&](int previous) {
        client.pid = 0;
        client.browser->SendProcessMessage(EngineProcessMessage::Create(kRequestGetRenderProcessId));
        pumpUntil([&] { return client.pid > 0 && client.pid != previous; }, 30000);
        return client.pid == previous ? 0 : client.pid;
    };

    EngineWindowInfo windowInfo;
    windowInfo.SetAsWindowless(nullptr);
    ASSERT_TRUE(port->CreateBrowser(windowInfo, &client, kColoursPage, EngineBrowserSettings()));
    ASSERT_TRUE(pumpUntil([&] { return client.paints > 0; }, 30000)) << "no frame";
    const int id = client.browser->GetIdentifier();
    int victim = webProcess(0);
    ASSERT_GT(victim, 0);

    for (size_t crash = 1; crash <= 3; ++crash) {
        std::vector<int> web = PortUnderTest::RunningWebProcesses();
        ASSERT_NE(std::find(web.begin(), web.end(), victim), web.end()) << victim << " is no web process of ours";
        ASSERT_EQ(kill(victim, SIGKILL), 0);
        ASSERT_TRUE(pumpUntil([&] { return client.statuses.size() == crash; }, 30000)) << "crash " << crash;
        EXPECT_EQ(client.statuses.back(), TS_PROCESS_CRASHED);
        const int paints = client.paints;
        // (A still page paints only a frame or two.)
        EXPECT_TRUE(pumpUntil([&] { return client.paints > paints; }, 30000)) << "no frame after crash " << crash;
        EXPECT_EQ(client.width, 120);
        EXPECT_EQ(client.height, 40);
        victim = webProcess(victim);
        ASSERT_GT(victim, 0) << "no new web process after crash " << crash;
    }
    EXPECT_EQ(client.browser->GetIdentifier(), id);
    EXPECT_EQ(client.browser->GetMainFrame()->GetURL(), kColoursPage);

    // The fourth: given up, the browser paints nothing more but still closes.
    ASSERT_EQ(kill(victim, SIGKILL), 0);
    ASSERT_TRUE(pumpUntil([&] { return client.statuses.size() == 4; }, 30000));
    pumpUntil([] { return false; }, 500); // frames on their way
    const int paints = client.paints;
    pumpUntil([] { return false; }, 2000);
    EXPECT_EQ(client.paints, paints) << "a given-up browser still paints";
    const std::vector<int> web = PortUnderTest::RunningWebProcesses();
    EXPECT_EQ(std::find(web.begin(), web.end(), victim), web.end()) << "the killed process " << victim << " runs";
    EXPECT_TRUE(client.onPumpThread);
    EXPECT_TRUE(client.sameBrowser);
    EXPECT_EQ(client.created, 1);

    client.browser->GetHost()->CloseBrowser(false);
    EXPECT_TRUE(pumpUntil([&] { return client.closed == 1; }, 10000)) << "a given-up browser did not close";
    client.browser.reset();
    port->Shutdown();
    EXPECT_TRUE(PortUnderTest::RunningEngineProcesses().empty());
}

} // namespace
