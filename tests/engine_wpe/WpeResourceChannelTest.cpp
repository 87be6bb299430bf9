#include "engine/wpe/WpeAudioWire.h"
#include "engine/wpe/WpeResourceChannel.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <set>
#include <string>

using namespace SLF_ChromiumEmbeddedFramework;

namespace {

TEST(ResourceChannel, FramesCrossTheWireAndBrokenPeersAreRefused)
{
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    ASSERT_TRUE(WriteResourceFrame(fds[0], g_variant_new(kQuestionType, guint64(7), "http://streamloft/settings")));
    GVariant* question = ReadResourceFrame(fds[1], kQuestionType);
    ASSERT_NE(question, nullptr);
    guint64 page = 0;
    const gchar* url = nullptr;
    g_variant_get(question, "(t&s)", &page, &url);
    EXPECT_EQ(page, 7u);
    EXPECT_STREQ(url, "http://streamloft/settings");
    g_variant_unref(question);

    const uint32_t huge = kMaxFrameBytes + 1;
    ASSERT_EQ(write(fds[0], &huge, sizeof(huge)), ssize_t(sizeof(huge)));
    EXPECT_EQ(ReadResourceFrame(fds[1], kAnswerType), nullptr);
    // A string without its terminating zero.
    const char junk[] = "\x01\x02\x03\x04\x05\x06\x07\x08zz";
    const uint32_t length = sizeof(junk) - 1;
    ASSERT_EQ(write(fds[0], &length, sizeof(length)), ssize_t(sizeof(length)));
    ASSERT_EQ(write(fds[0], junk, length), ssize_t(length));
    EXPECT_EQ(ReadResourceFrame(fds[1], kQuestionType), nullptr);
    // A peer gone mid-frame.
    const uint32_t promised = 64;
    ASSERT_EQ(write(fds[0], &promised, sizeof(promised)), ssize_t(sizeof(promised)));
    close(fds[0]);
    EXPECT_EQ(ReadResourceFrame(fds[1], kAnswerType), nullptr);
    EXPECT_FALSE(WriteResourceFrame(fds[1], g_variant_new(kAnswerType, guint8(kLoadNormally), "")));
    close(fds[1]);
}

// Tokens are what keeps one view from loading another's response: fresh
// each time, 128 bits, and read back only in the exact form they were made.
TEST(ResourceChannel, TokensAreFreshAndOnlyTheirExactFormIsRead)
{
    std::set<std::string> tokens;
    for (int i = 0; i < 1000; ++i) {
        const std::string token = NewResourceToken();
        ASSERT_EQ(token.size(), 32u);
        EXPECT_EQ(ResourceTokenFromUrl(ResourceUrlForToken(token).c_str()), token);
        tokens.insert(token);
    }
    EXPECT_EQ(tokens.size(), 1000u);

    const std::string token = *tokens.begin();
    for (const std::string& url :
         {std::string("slfcef-resource:17"), std::string("slfcef-resource:"), "slfcef-resource:" + token + "0",
          "slfcef-resource:" + token.substr(1), "slfcef-resource:" + token.substr(0, 31) + "G",
          "slfcef-resourcex:" + token, std::string("http://streamloft/settings")})
        EXPECT_EQ(ResourceTokenFromUrl(url.c_str()), "") << url;
    EXPECT_EQ(ResourceTokenFromUrl(nullptr), "");
    // Every spelling of the scheme counts as ours, well formed or not.
    for (const char* url : {"slfcef-resource:1", "SLFCEF-Resource:x", "slfcef-resource:"})
        EXPECT_TRUE(IsResourceUrl(url)) << url;
    for (const char* url : {"slfcef-resourcex:1", "http://slfcef-resource:1/", "slfcef-resource", ""})
        EXPECT_FALSE(IsResourceUrl(url)) << url;
}

TEST(AudioWire, ShortHeadersAndFormatsOutsideTheSaneRangesAreRefused)
{
    AudioFrameHeader sent = {AUDIO_FRAME_START, 48000, 2, 16};
    AudioFrameHeader header = {};
    ASSERT_TRUE(DecodeAudioFrameHeader(&sent, sizeof(sent), header));
    EXPECT_TRUE(AudioFrameAnnouncesFormat(header));
    EXPECT_FALSE(DecodeAudioFrameHeader(&sent, sizeof(sent) - 1, header));
    EXPECT_FALSE(DecodeAudioFrameHeader(nullptr, sizeof(sent), header));
    // 16 bits, 8 to 384 kHz, 1 to 32 channels, and only in a start message.
    const AudioFrameHeader usable[] = {{AUDIO_FRAME_START, 8000, 1, 16}, {AUDIO_FRAME_START, 384000, 32, 16}};
    for (const AudioFrameHeader& h : usable)
        EXPECT_TRUE(AudioFrameAnnouncesFormat(h)) << h.rate << " " << h.channels;
    const AudioFrameHeader unusable[] = {{AUDIO_FRAME_START, 7999, 2, 16},   {AUDIO_FRAME_START, 384001, 2, 16},
                                         {AUDIO_FRAME_START, 48000, 0, 16},  {AUDIO_FRAME_START, 48000, 33, 16},
                                         {AUDIO_FRAME_START, 48000, -2, 16}, {AUDIO_FRAME_START, 48000, 2, 8},
                                         {AUDIO_FRAME_START, 48000, 2, 24},  {AUDIO_FRAME_PACKET, 48000, 2, 16}};
    for (const AudioFrameHeader& h : unusable)
        EXPECT_FALSE(AudioFrameAnnouncesFormat(h))
            << h.kind << " " << h.rate << " " << h.channels << " " << h.bitsPerSample;
}

TEST(ResourceChannel, AbstractAddressesConnectAndLeaveNoFile)
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
    close(client);
    close(server);
    close(listener);
    EXPECT_LT(ConnectToUnixSocket(name), 0);
    EXPECT_LT(ListenOnUnixSocket(std::string(200, 'x')), 0); // longer than an address holds
}

} // namespace
