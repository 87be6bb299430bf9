// The capture tool's writers, read back through libpng and libsndfile, and
// its frame pacing arithmetic.
#include <gtest/gtest.h>
#include <png.h>
#include <sndfile.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "tools/slf-overlay-capture/FramePacing.h"
#include "tools/slf-overlay-capture/PngFrameWriter.h"
#include "tools/slf-overlay-capture/WavStreamWriter.h"

using namespace slf_capture;

namespace {

std::vector<uint8_t> Unpremultiply(std::vector<uint8_t> bgra)
{
    std::vector<uint8_t> rgba(bgra.size());
    UnpremultiplyBGRAToRGBA(bgra.data(), static_cast<uint32_t>(bgra.size() / 4), rgba.data());
    return rgba;
}

// Channel order, transparency and padding: see the PNG test.
TEST(UnpremultiplyTest, RoundsToNearestSaturatesAndRoundTrips)
{
    EXPECT_EQ(Unpremultiply({1, 0, 0, 3}), (std::vector<uint8_t> {0, 0, 85, 3}));
    // Colour above alpha cannot come from premultiplied data: it saturates.
    EXPECT_EQ(Unpremultiply({200, 0, 0, 100}), (std::vector<uint8_t> {0, 0, 255, 100}));
    // Premultiplying again gives the input back.
    for (int a = 1; a < 256; a += 7)
        for (int c = 0; c <= a; c += 3)
            EXPECT_EQ((Unpremultiply({uint8_t(c), 0, 0, uint8_t(a)})[2] * a + 127) / 255, c) << "alpha " << a;
}

class CaptureFilesTest : public ::testing::Test {
protected:
    void TearDown() override { std::filesystem::remove_all(dir_); }
    std::string dir_ = [] {
        char pattern[] = "/tmp/slf-capture-test-XXXXXX";
        return std::string(mkdtemp(pattern));
    }();
};

TEST_F(CaptureFilesTest, PngHoldsStraightAlphaPixelsWithoutRowPaddingAndReportsErrors)
{
    // 2x2, rows of 12 bytes (4 bytes of padding filled with junk).
    const uint8_t bgra[] = {0, 0, 255, 255, 0, 255, 0, 255, 0xEE, 0xEE, 0xEE, 0xEE,
                            0, 0, 64,  128, 9, 9,   9, 0,   0xEE, 0xEE, 0xEE, 0xEE};
    std::string path = dir_ + "/f.png", error;
    ASSERT_TRUE(WritePng(path, ConvertFrame(bgra, 2, 2, 12), &error)) << error;
    png_image png {};
    png.version = PNG_IMAGE_VERSION;
    ASSERT_TRUE(png_image_begin_read_from_file(&png, path.c_str())) << png.message;
    png.format = PNG_FORMAT_RGBA;
    EXPECT_EQ(std::tie(png.width, png.height), std::make_tuple(2u, 2u));
    std::vector<uint8_t> pixels(PNG_IMAGE_SIZE(png));
    ASSERT_TRUE(png_image_finish_read(&png, nullptr, pixels.data(), 0, nullptr)) << png.message;
    EXPECT_EQ(pixels, (std::vector<uint8_t> {255, 0, 0, 255, 0, 255, 0, 255, 128, 0, 0, 128, 0, 0, 0, 0}));

    EXPECT_FALSE(WritePng(dir_ + "/missing-folder/f.png", ConvertFrame(bgra, 2, 2, 12), &error));
    EXPECT_NE(error.find("missing-folder/f.png"), std::string::npos) << error;
    EXPECT_FALSE(WritePng(dir_ + "/empty.png", RgbaImage {}, &error));
}

TEST_F(CaptureFilesTest, WavKeepsTheSamplesAndFormatAndRefusesWhatItCannotWrite)
{
    WavStreamWriter writer;
    std::string error;
    EXPECT_FALSE(writer.Write(reinterpret_cast<const uint8_t*>("xxxx"), 4, &error)); // not open
    EXPECT_FALSE(writer.Open(dir_ + "/a.wav", 48000, 2, 12, &error));
    EXPECT_NE(error.find("12 bits"), std::string::npos) << error;
    EXPECT_FALSE(writer.Open(dir_ + "/a.wav", 0, 2, 16, &error));
    EXPECT_FALSE(writer.Open(dir_ + "/a.wav", 48000, 0, 16, &error));

    ASSERT_TRUE(writer.Open(dir_ + "/a.wav", 48000, 2, 16, &error)) << error;
    const int16_t samples[] = {1, -1, 1000, -1000, 32767, -32768};
    ASSERT_TRUE(writer.Write(reinterpret_cast<const uint8_t*>(samples), sizeof samples, &error)) << error;
    // A trailing partial frame (one sample of two channels) is dropped.
    ASSERT_TRUE(writer.Write(reinterpret_cast<const uint8_t*>(samples), 2, &error));
    EXPECT_EQ(writer.framesWritten(), 3u);
    writer.Close();
    SF_INFO info {};
    SNDFILE* f = sf_open((dir_ + "/a.wav").c_str(), SFM_READ, &info);
    ASSERT_TRUE(f);
    EXPECT_EQ(std::tie(info.samplerate, info.channels, info.frames), std::make_tuple(48000, 2, sf_count_t(3)));
    EXPECT_EQ(info.format & SF_FORMAT_SUBMASK, SF_FORMAT_PCM_16);
    int16_t back[6] = {};
    EXPECT_EQ(sf_read_short(f, back, 6), 6);
    EXPECT_EQ(memcmp(back, samples, sizeof back), 0);
    sf_close(f);
}

TEST(FramePacingTest, CountsFramesMissedInLongGapsAndTheJitterOfTheInterval)
{
    FramePacing even(30);
    for (int i = 0; i < 10; ++i)
        even.AddInterval(1.0 / 30);
    EXPECT_EQ(even.framesMissed(), 0u);
    EXPECT_EQ(even.longGaps(), 0u);
    EXPECT_NEAR(even.meanInterval(), 1.0 / 30, 1e-12);
    EXPECT_NEAR(even.jitter(), 0, 1e-9);

    // 10 fps: 1.5 periods is jitter, 3 periods miss 2 frames, 1.6 periods one.
    FramePacing uneven(10);
    for (double interval : {0.05, 0.15, 0.05, 0.15})
        uneven.AddInterval(interval);
    EXPECT_EQ(uneven.framesMissed(), 0u);
    EXPECT_NEAR(uneven.jitter(), 0.05, 1e-9);
    EXPECT_NEAR(uneven.meanInterval(), 0.1, 1e-12);
    uneven.AddInterval(0.3);
    uneven.AddInterval(0.16);
    EXPECT_EQ(uneven.framesMissed(), 3u);
    EXPECT_EQ(uneven.longGaps(), 2u);
    EXPECT_DOUBLE_EQ(uneven.longestInterval(), 0.3);

    EXPECT_EQ(FramesMissedInInterval(0.15, 0.1), 0u);
    EXPECT_EQ(FramesMissedInInterval(1.04, 0.1), 9u);
    EXPECT_EQ(FramesMissedInInterval(1.0, 0), 0u);
    EXPECT_EQ(FramesShortOfRate(30, 5, 138), 12u);
    EXPECT_EQ(FramesShortOfRate(30, 5, 151), 0u);
    EXPECT_EQ(FramesShortOfRate(30, 0, 0), 0u);
}

// Missing frames split by cause: sequence jumps are the service's drops,
// the rest of the missed slots the page's; frames without numbers count
// every missed slot as unpainted and do not break the numbering.
TEST(FramePacingTest, FrameAccountingSplitsServiceDropsFromUnpaintedSlots)
{
    FrameAccounting a;
    a.AddFrame(1, 0);
    a.AddFrame(2, 0);
    a.AddFrame(5, 2); // two numbers skipped over two missed slots
    a.AddFrame(6, 3); // three slots missed, no number skipped
    a.AddFrame(9, 1); // two numbers skipped, but only one slot late
    a.AddFrame(0, 1); // no number
    a.AddFrame(10, 0);
    EXPECT_EQ(a.droppedByService(), 4u);
    EXPECT_EQ(a.notPainted(), 4u);

    DeliveryDelay d;
    for (double s : {0.010, 0.020, 0.030})
        d.Add(s);
    EXPECT_EQ(d.count(), 3u);
    EXPECT_NEAR(d.mean(), 0.020, 1e-12);
}

} // namespace
