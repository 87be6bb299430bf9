#include "engine/wpe/WebKitResourceChannel.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>

using namespace SLF_ChromiumEmbeddedFramework;

namespace {

class ResourceChannel : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0); }
    void TearDown() override
    {
        for (int fd : fds) {
            if (fd >= 0)
                close(fd);
        }
    }
    int fds[2] = {-1, -1};
};

TEST_F(ResourceChannel, QuestionAndAnswerCrossTheWire)
{
    ASSERT_TRUE(WriteResourceFrame(fds[0], g_variant_new(kQuestionType, guint64(7), "http://streamloft/settings")));
    ASSERT_TRUE(WriteResourceFrame(fds[0], g_variant_new(kAnswerType, guint64(42))));

    GVariant* question = ReadResourceFrame(fds[1], kQuestionType);
    ASSERT_NE(question, nullptr);
    guint64 page = 0;
    const gchar* url = nullptr;
    g_variant_get(question, "(t&s)", &page, &url);
    EXPECT_EQ(page, 7u);
    EXPECT_STREQ(url, "http://streamloft/settings");
    g_variant_unref(question);

    GVariant* answer = ReadResourceFrame(fds[1], kAnswerType);
    ASSERT_NE(answer, nullptr);
    guint64 identifier = 0;
    g_variant_get(answer, kAnswerType, &identifier);
    EXPECT_EQ(identifier, 42u);
    g_variant_unref(answer);
}

TEST_F(ResourceChannel, BrokenPeersAreRefused)
{
    // A length beyond the limit.
    const uint32_t huge = kMaxFrameBytes + 1;
    ASSERT_EQ(write(fds[0], &huge, sizeof(huge)), ssize_t(sizeof(huge)));
    EXPECT_EQ(ReadResourceFrame(fds[1], kAnswerType), nullptr);

    // A string without its terminating zero is not a question.
    const char junk[] = "\x01\x02\x03\x04\x05\x06\x07\x08zz";
    const uint32_t length = sizeof(junk) - 1;
    ASSERT_EQ(write(fds[0], &length, sizeof(length)), ssize_t(sizeof(length)));
    ASSERT_EQ(write(fds[0], junk, length), ssize_t(length));
    EXPECT_EQ(ReadResourceFrame(fds[1], kQuestionType), nullptr);

    // A peer that went away mid-frame.
    const uint32_t promised = 64;
    ASSERT_EQ(write(fds[0], &promised, sizeof(promised)), ssize_t(sizeof(promised)));
    close(fds[0]);
    fds[0] = -1;
    EXPECT_EQ(ReadResourceFrame(fds[1], kAnswerType), nullptr);
    EXPECT_FALSE(WriteResourceFrame(fds[1], g_variant_new(kAnswerType, guint64(1))));
}

TEST(ResourceUrls, IdentifiersRoundTripAndForeignUrlsGiveZero)
{
    EXPECT_EQ(ResourceUrlForIdentifier(17), "slfcef-resource:17");
    EXPECT_EQ(ResourceIdentifierFromUrl("slfcef-resource:17"), 17u);
    EXPECT_EQ(ResourceIdentifierFromUrl("slfcef-resource:"), 0u);
    EXPECT_EQ(ResourceIdentifierFromUrl("slfcef-resource:17x"), 0u);
    EXPECT_EQ(ResourceIdentifierFromUrl("slfcef-resource:-3"), 0u);
    EXPECT_EQ(ResourceIdentifierFromUrl("slfcef-resourcex:17"), 0u);
    EXPECT_EQ(ResourceIdentifierFromUrl("http://streamloft/settings"), 0u);
    EXPECT_EQ(ResourceIdentifierFromUrl(nullptr), 0u);
}

} // namespace

namespace {

TEST(ResourceSockets, AbstractAddressesConnectAndLeaveNoFile)
{
    const std::string name = "@slf-engine-test-" + std::to_string(getpid());
    const int listener = ListenOnUnixSocket(name);
    ASSERT_GE(listener, 0) << strerror(errno);
    EXPECT_LT(ListenOnUnixSocket(name), 0) << "the address is taken while the listener lives";
    EXPECT_NE(access(name.c_str(), F_OK), 0) << "an abstract address made a file";

    const int client = ConnectToUnixSocket(name);
    ASSERT_GE(client, 0);
    const int server = accept(listener, nullptr, nullptr);
    ASSERT_GE(server, 0);
    EXPECT_TRUE(PeerIsSameUser(server));
    ASSERT_TRUE(WriteResourceFrame(client, g_variant_new(kAnswerType, guint64(5))));
    GVariant* answer = ReadResourceFrame(server, kAnswerType);
    ASSERT_NE(answer, nullptr);
    g_variant_unref(answer);
    close(client);
    close(server);
    close(listener);

    // Gone with its listener; names that do not fit are refused.
    EXPECT_LT(ConnectToUnixSocket(name), 0);
    struct sockaddr_un address;
    EXPECT_EQ(UnixSocketAddress(std::string(200, 'x'), address), 0u);
    EXPECT_EQ(UnixSocketAddress("", address), 0u);
    EXPECT_LT(ListenOnUnixSocket(std::string(200, 'x')), 0);
}

} // namespace
