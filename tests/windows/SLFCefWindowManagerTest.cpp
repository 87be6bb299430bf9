// The registry, the main-thread hand-over and the receiver list, without the engine.
#include "windows/SLFCefWindowManager.h"

#include "tests/windows/TestMainLoop.h"
#include "windows/SLFCefMainThread.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>

namespace {

SLFCefWindowRepresentationRef Representation(int browserID)
{
    auto representation = std::make_shared<SLFCefWindowRepresentation>();
    representation->setBrowserID(browserID);
    return representation;
}

TEST(SLFCefWindowManagerRegistry, RegistersOnlyNonNegativeIDsReplacesByIDAndStopUnregisters)
{
    TestMainLoop main;
    auto manager = std::make_shared<SLFCefWindowManager>();
    for (auto ignored : {Representation(-1), Representation(-7), SLFCefWindowRepresentationRef()})
        manager->registerWindowRepresentation(ignored);
    EXPECT_EQ(manager->numberOfOpenBrowserWindows(), 0);
    auto first = Representation(3), second = Representation(3);
    manager->registerWindowRepresentation(first);
    manager->registerWindowRepresentation(Representation(0));
    manager->registerWindowRepresentation(second);
    EXPECT_EQ(manager->numberOfOpenBrowserWindows(), 2);
    EXPECT_EQ(manager->windowRepresentationWithID(3), second);
    EXPECT_EQ(manager->stopBrowserWithID(3), second);
    EXPECT_EQ(manager->stopBrowserWithID(3), nullptr);
    EXPECT_EQ(manager->numberOfOpenBrowserWindows(), 1);

    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&manager, t] {
            for (int i = 1; i <= 100; ++i) {
                const int id = t * 1000 + i;
                manager->registerWindowRepresentation(Representation(id));
                EXPECT_NE(manager->windowRepresentationWithID(id), nullptr);
                if (i % 2)
                    manager->stopBrowserWithID(id);
            }
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(manager->numberOfOpenBrowserWindows(), 201);
}

// Work sent to the main thread from the main thread runs at once (no self-deadlock).
TEST(SLFCefMainThread, RunOnMainAndWaitRunsOnTheLoopThreadOrInline)
{
    TestMainLoop main;
    std::thread::id loopThread;
    SLFCefRunOnMainAndWait([&] { loopThread = std::this_thread::get_id(); });
    EXPECT_NE(loopThread, std::this_thread::get_id());
    bool nestedRan = false;
    SLFCefRunOnMainAndWait(
        [&] { SLFCefRunOnMainAndWait([&] { nestedRan = std::this_thread::get_id() == loopThread; }); });
    EXPECT_TRUE(nestedRan);
}

TEST(SLFCefWindowRepresentation, ReceiverListIsCopiedOnWriteAndRepliesFollowTheirReceiver)
{
    SLFCefWindowRepresentation representation;
    representation.addReceiverProxiesObject(nullptr, [](int) {});
    EXPECT_EQ(representation.receiverProxies(), nullptr);
    SLFCefCallbackProxyRef proxy = SLFCefCallbackProxy::Create(nullptr), other = SLFCefCallbackProxy::Create(nullptr);
    auto token = std::make_shared<int>(1);
    std::weak_ptr<int> watch = token;
    int replied = 0;
    representation.addReceiverProxiesObject(proxy, [&](int id) { replied = 100 + id; });
    representation.addReceiverProxiesObject(other, [&](int id) { replied = 200 + id; });
    SLFCefReceiverListRef snapshot = representation.receiverProxies();
    representation.addReceiverProxiesObject(proxy, [&replied, token](int id) { replied = 300 + id; });
    token.reset();
    // Added twice: listed twice, later reply; the reader's snapshot is unchanged.
    EXPECT_EQ(*representation.receiverProxies(), (SLFCefReceiverList {proxy, other, proxy}));
    EXPECT_EQ(*snapshot, (SLFCefReceiverList {proxy, other}));
    representation.replyForReceiverProxy(proxy)(5);
    EXPECT_EQ(replied, 305);
    // Unknown and null proxies change nothing; one removal takes all and the reply.
    representation.removeReceiverProxiesObject(SLFCefCallbackProxy::Create(nullptr));
    representation.removeReceiverProxiesObject(nullptr);
    representation.removeReceiverProxiesObject(proxy);
    EXPECT_EQ(*representation.receiverProxies(), (SLFCefReceiverList {other}));
    EXPECT_FALSE(representation.replyForReceiverProxy(proxy));
    EXPECT_TRUE(watch.expired());
    EXPECT_TRUE(representation.replyForReceiverProxy(other));
}

// Concurrent writers lose none of each other's changes. (That a reader's
// snapshot never changes is the copy on write above.)
TEST(SLFCefWindowRepresentation, ConcurrentReceiverChangesAreNotLost)
{
    SLFCefWindowRepresentation representation;
    std::atomic<int> lostChanges {0};
    std::vector<std::thread> writers;
    for (int w = 0; w < 4; ++w)
        writers.emplace_back([&] {
            SLFCefCallbackProxyRef proxy = SLFCefCallbackProxy::Create(nullptr);
            auto count = [&] {
                SLFCefReceiverListRef list = representation.receiverProxies();
                return list ? std::count(list->begin(), list->end(), proxy) : 0;
            };
            for (int i = 0; i < 200; ++i) {
                // Only this writer adds or removes its proxy.
                representation.addReceiverProxiesObject(proxy, [](int) {});
                lostChanges += count() != 1;
                representation.removeReceiverProxiesObject(proxy);
                lostChanges += count() != 0;
            }
        });
    for (auto& writer : writers)
        writer.join();
    EXPECT_EQ(lostChanges, 0);
    EXPECT_TRUE(representation.receiverProxies()->empty());
}

} // namespace
