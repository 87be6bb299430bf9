#include "windows/SLFCefWindowRepresentation.h"

#include <gtest/gtest.h>

#include <cmath>
#include <thread>

namespace {

// Proxies only need an identity here; a closed-over connection is never used.
SLFCefCallbackProxyRef MakeProxy()
{
    return SLFCefCallbackProxy::Create(nullptr);
}

} // namespace

TEST(SLFCefWindowRepresentation, StartsWithoutBrowserReceiversOrPermissions)
{
    SLFCefWindowRepresentation representation;
    EXPECT_EQ(representation.browserID(), -1);
    EXPECT_EQ(representation.receiverProxies(), nullptr);
    EXPECT_TRUE(representation.permittedFileURLStrings().empty());
    EXPECT_EQ(representation.settingsData(), nullptr);
    EXPECT_FALSE(representation.updating());
    EXPECT_EQ(representation.numPixelBuffersArrivedSoFar(), 0);
}

TEST(SLFCefWindowRepresentation, LookupKeyFormat)
{
    EXPECT_EQ(SLFCefWindowRepresentation::lookupKeyForURL("file:///a.html", {100, 50}, 30),
              "file:///a.html_{100, 50}@30.00");
    EXPECT_EQ(SLFCefWindowRepresentation::lookupKeyForURL("file:///Users/me/overlay.html", {1920, 1080}, 60),
              "file:///Users/me/overlay.html_{1920, 1080}@60.00");
    EXPECT_EQ(SLFCefWindowRepresentation::lookupKeyForURL("https://x.test/", {1279.5, 720.25}, 29.97),
              "https://x.test/_{1279.5, 720.25}@29.97");

    auto representation = std::make_shared<SLFCefWindowRepresentation>();
    representation->setUrl("http://a.test/p");
    representation->setSize({640, 360});
    representation->setFramerate(59.999);
    EXPECT_EQ(representation->uniqueLookupKey(), "http://a.test/p_{640, 360}@60.00");
}

TEST(SLFCefWindowRepresentation, DebugDescriptionShowsSignedBrowserID)
{
    SLFCefWindowRepresentation representation;
    std::string text = representation.debugDescription();
    EXPECT_EQ(text.rfind("<SLFCefWindowRepresentation: 0x", 0), 0u) << text;
    EXPECT_NE(text.find("> BrowserID:-1 URL:(null) Size:{0, 0} Framerate:0.00"), std::string::npos) << text;

    representation.setBrowserID(7);
    representation.setUrl("https://x.test/");
    representation.setSize({1920, 1080});
    representation.setFramerate(30);
    text = representation.debugDescription();
    EXPECT_NE(text.find("> BrowserID:7 URL:https://x.test/ Size:{1920, 1080} Framerate:30.00"), std::string::npos)
        << text;
}

TEST(SLFCefWindowRepresentation, ReceiverAddedTwiceIsListedTwiceAndKeepsLaterReply)
{
    SLFCefWindowRepresentation representation;
    SLFCefCallbackProxyRef proxy = MakeProxy();
    SLFCefCallbackProxyRef other = MakeProxy();
    int replied = 0;
    representation.addReceiverProxiesObject(proxy, [&](int id) { replied = 100 + id; });
    representation.addReceiverProxiesObject(other, [&](int id) { replied = 200 + id; });
    SLFCefReceiverListRef snapshot = representation.receiverProxies();
    representation.addReceiverProxiesObject(proxy, [&](int id) { replied = 300 + id; });

    ASSERT_NE(representation.receiverProxies(), nullptr);
    EXPECT_EQ(*representation.receiverProxies(), (SLFCefReceiverList{proxy, other, proxy}));
    // A reader's snapshot is never changed under it.
    EXPECT_EQ(*snapshot, (SLFCefReceiverList{proxy, other}));

    SLFCefReplyBlock reply = representation.replyForReceiverProxy(proxy);
    ASSERT_TRUE(reply);
    reply(5);
    EXPECT_EQ(replied, 305);

    // One removal takes both occurrences and the reply.
    representation.removeReceiverProxiesObject(proxy);
    EXPECT_EQ(*representation.receiverProxies(), (SLFCefReceiverList{other}));
    EXPECT_FALSE(representation.replyForReceiverProxy(proxy));
    EXPECT_TRUE(representation.replyForReceiverProxy(other));
}

TEST(SLFCefWindowRepresentation, NullAndUnknownProxiesChangeNothing)
{
    SLFCefWindowRepresentation representation;
    representation.addReceiverProxiesObject(nullptr, [](int) {});
    EXPECT_EQ(representation.receiverProxies(), nullptr);

    SLFCefCallbackProxyRef proxy = MakeProxy();
    representation.addReceiverProxiesObject(proxy, nullptr);
    representation.removeReceiverProxiesObject(MakeProxy());
    representation.removeReceiverProxiesObject(nullptr);
    EXPECT_EQ(*representation.receiverProxies(), (SLFCefReceiverList{proxy}));
    EXPECT_FALSE(representation.replyForReceiverProxy(MakeProxy()));
}

TEST(SLFCefWindowRepresentation, ReleasingAReceiverReleasesItsReply)
{
    SLFCefWindowRepresentation representation;
    auto token = std::make_shared<int>(1);
    std::weak_ptr<int> watch = token;
    SLFCefCallbackProxyRef proxy = MakeProxy();
    representation.addReceiverProxiesObject(proxy, [token](int) {});
    token.reset();
    EXPECT_FALSE(watch.expired());
    representation.removeReceiverProxiesObject(proxy);
    EXPECT_TRUE(watch.expired());
}

TEST(SLFCefWindowRepresentation, ConcurrentReceiverChangesAndReadersStayConsistent)
{
    SLFCefWindowRepresentation representation;
    std::vector<SLFCefCallbackProxyRef> proxies;
    for (int i = 0; i < 4; ++i)
        proxies.push_back(MakeProxy());
    std::atomic<bool> stop{false};
    std::thread reader([&] {
        while (!stop) {
            SLFCefReceiverListRef list = representation.receiverProxies();
            if (list) {
                for (const auto& receiver : *list)
                    ASSERT_NE(receiver, nullptr);
            }
        }
    });
    std::vector<std::thread> writers;
    for (int w = 0; w < 4; ++w) {
        writers.emplace_back([&, w] {
            for (int i = 0; i < 200; ++i) {
                representation.addReceiverProxiesObject(proxies[w], [](int) {});
                representation.removeReceiverProxiesObject(proxies[w]);
            }
        });
    }
    for (auto& writer : writers)
        writer.join();
    stop = true;
    reader.join();
    EXPECT_TRUE(representation.receiverProxies()->empty());
}

TEST(SLFCefWindowRepresentation, CallbacksWithNullContextDoNothing)
{
    unsigned char pixels[4] = {};
    EXPECT_FALSE(SLFCefVideoFrameCallback(pixels, sizeof pixels, nullptr));
    EXPECT_FALSE(SLFCefAudioCallback(1, pixels, sizeof pixels, 48000, 2, 16, nullptr));
    EXPECT_FALSE(SLFCefHandleRequestURL("file:///etc/passwd", nullptr));
    std::vector<char> body;
    int64_t length = 99;
    int status = 0;
    EXPECT_FALSE(SLFCefGetResponseHeadersForURL("http://streamloft/settings", "", &body, &length, &status, nullptr));
    EXPECT_EQ(length, 99);
}

TEST(SLFCefWindowRepresentation, SizeIsStoredWhole)
{
    SLFCefWindowRepresentation representation;
    representation.setSize({1279.9, 719.5});
    EXPECT_EQ(representation.size(), (NSSize{1279.9, 719.5}));
    EXPECT_EQ(NSStringFromSize({1279.9, 719.5}), "{1279.9, 719.5}");
}
