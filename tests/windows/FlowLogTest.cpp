// The hop lines of the "frames" and "audio" log modules: a frame and an audio
// stream through a window representation write a line at each hop when the
// modules' debug flag is set, and none when it is not (the default).
#include "dbg/FlowLog.h"
#include "tests/support/LogCapture.h"
#include "windows/SLFCefWindowRepresentation.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

// One frame and one short audio stream to a receiver without a connection
// (whose calls finish at once, as if the host had let go), and one of each
// with no receiver at all.
void RunAFrameAndAnAudioStream()
{
    auto representation = std::make_shared<SLFCefWindowRepresentation>();
    representation->setBrowserID(5);
    representation->setSize({4, 2});
    std::vector<unsigned char> image(4 * 2 * 4, 0x7f), block(1920, 1);
    SLFCefVideoFrameCallback(image.data(), static_cast<unsigned>(image.size()), representation.get());
    SLFCefAudioCallback(2, block.data(), static_cast<unsigned>(block.size()), 48000, 2, 16, representation.get());

    representation->addReceiverProxiesObject(SLFCefCallbackProxy::Create(nullptr), [](int) {});
    SLFCefVideoFrameCallback(image.data(), static_cast<unsigned>(image.size()), representation.get());
    SLFCefAudioCallback(2, block.data(), static_cast<unsigned>(block.size()), 48000, 2, 16, representation.get());
    SLFCefAudioCallback(2, nullptr, 0, 0, 0, 0, representation.get());
}

TEST(FlowLog, EveryHopWritesALineWithTheFlagAndNoneWithout)
{
    FramesLog_GetModuleIndex();
    AudioLog_GetModuleIndex();
    LogCapture capture;
    dbgcommand("addtag");
    RunAFrameAndAnAudioStream();
    EXPECT_EQ(capture.Take(), "");

    dbgcommand("frames DBG:1");
    dbgcommand("audio DBG:1");
    RunAFrameAndAnAudioStream();
    const std::string lines = capture.Take();
    const char* const hops[] = {
        "browser 5: frame dropped: no receiver",
        "new surface",
        "browser 5: frame 1 copied into surface",
        "browser 5: frame 1 on surface",
        "sent to <SLFCefCallbackProxy",
        "let go by a receiver",
        "back in its pool",
        "browser 5: stream 2: 1920 bytes dropped: no receiver",
        "browser 5: stream 2: pool ",
        "slot at 0 taken",
        "slot at 0 (0 bytes) sent to",
        "(1920 bytes) sent to",
        "slot at 0 returned",
        "browser 5: stream 2: end sent to 1 receivers",
    };
    for (const char* hop : hops)
        EXPECT_NE(lines.find(hop), std::string::npos) << "no line with \"" << hop << "\" in:\n" << lines;
    dbgcommand("frames DBG:0");
    dbgcommand("audio DBG:0");
}

} // namespace
