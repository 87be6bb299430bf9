#include "windows/SLFCefWindowManager.h"

#include "tests/windows/TestMainLoop.h"
#include "windows/SLFCefMainThread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace {

class SLFCefWindowManagerRegistry : public ::testing::Test {
protected:
    TestMainLoop m_main;
    std::shared_ptr<SLFCefWindowManager> m_manager = std::make_shared<SLFCefWindowManager>();

    SLFCefWindowRepresentationRef Representation(int browserID)
    {
        auto representation = std::make_shared<SLFCefWindowRepresentation>();
        representation->setBrowserID(browserID);
        return representation;
    }
};

} // namespace

TEST_F(SLFCefWindowManagerRegistry, RegistersOnlyNonNegativeIDsAndReplacesByID)
{
    auto first = Representation(3);
    auto second = Representation(3);
    m_manager->registerWindowRepresentation(Representation(-1));
    m_manager->registerWindowRepresentation(Representation(-7));
    m_manager->registerWindowRepresentation(nullptr);
    EXPECT_EQ(m_manager->numberOfOpenBrowserWindows(), 0);

    m_manager->registerWindowRepresentation(first);
    m_manager->registerWindowRepresentation(Representation(0));
    EXPECT_EQ(m_manager->numberOfOpenBrowserWindows(), 2);
    EXPECT_EQ(m_manager->windowRepresentationWithID(3), first);
    m_manager->registerWindowRepresentation(second);
    EXPECT_EQ(m_manager->numberOfOpenBrowserWindows(), 2);
    EXPECT_EQ(m_manager->windowRepresentationWithID(3), second);
    EXPECT_EQ(m_manager->windowRepresentationWithID(4), nullptr);

    m_manager->unregisterWindowRepresentation(second);
    EXPECT_EQ(m_manager->windowRepresentationWithID(3), nullptr);
    EXPECT_EQ(m_manager->numberOfOpenBrowserWindows(), 1);
}

TEST_F(SLFCefWindowManagerRegistry, StopOfRegisteredBrowserReturnsItAndUnregisters)
{
    auto representation = Representation(9);
    m_manager->registerWindowRepresentation(representation);
    EXPECT_EQ(m_manager->stopBrowserWithID(9), representation);
    EXPECT_EQ(m_manager->numberOfOpenBrowserWindows(), 0);
    EXPECT_EQ(m_manager->stopBrowserWithID(9), nullptr);
}

TEST_F(SLFCefWindowManagerRegistry, ConcurrentRegistrationFromManyThreads)
{
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([this, t] {
            for (int i = 0; i < 100; ++i) {
                int id = t * 1000 + i;
                m_manager->registerWindowRepresentation(Representation(id));
                EXPECT_NE(m_manager->windowRepresentationWithID(id), nullptr);
                if (i % 2)
                    m_manager->stopBrowserWithID(id);
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(m_manager->numberOfOpenBrowserWindows(), 200);
}

TEST_F(SLFCefWindowManagerRegistry, SharedManagerIsOneInstance)
{
    std::shared_ptr<SLFCefWindowManager> a, b;
    std::thread other([&] { a = SLFCefWindowManager::sharedManager(); });
    b = SLFCefWindowManager::sharedManager();
    other.join();
    EXPECT_EQ(a, b);
    EXPECT_NE(a, nullptr);
}

TEST(SLFCefMainThread, RunOnMainAndWaitRunsOnTheLoopThreadOrInline)
{
    TestMainLoop main;
    std::thread::id loopThread;
    SLFCefRunOnMainAndWait([&] { loopThread = std::this_thread::get_id(); });
    EXPECT_NE(loopThread, std::this_thread::get_id());
    // From the main thread itself the work runs at once instead of waiting
    // for itself.
    bool nestedRan = false;
    SLFCefRunOnMainAndWait([&] {
        SLFCefRunOnMainAndWait([&] { nestedRan = std::this_thread::get_id() == loopThread; });
    });
    EXPECT_TRUE(nestedRan);
}

TEST(SLFCefMainThread, PeriodicSourceRepeats)
{
    TestMainLoop main;
    GSource* source = SLFCefPeriodicSourceNew(SLFCefWindowManager::kPumpPeriodNanoseconds);
    ASSERT_NE(source, nullptr);
    std::atomic<int> fired{0};
    g_source_set_callback(
        source,
        [](gpointer data) -> gboolean {
            ++*static_cast<std::atomic<int>*>(data);
            return G_SOURCE_CONTINUE;
        },
        &fired, nullptr);
    main.run([&] { g_source_attach(source, g_main_context_default()); });
    // 1/600 s: some hundred wake-ups in a quarter second; only "it repeats"
    // is checked, the machine may be busy.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (fired < 20 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_GE(fired.load(), 20);
    main.run([&] { g_source_destroy(source); });
    g_source_unref(source);
}
