// The capture tool's writers: premultiplied BGRA to straight RGBA, PNG
// files read back through libpng, WAV files read back through libsndfile;
// and its reading of frame pacing from receive times.
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

std::vector<uint8_t> Unpremultiply(std::vector<uint8_t> bgra) {
  std::vector<uint8_t> rgba(bgra.size());
  UnpremultiplyBGRAToRGBA(bgra.data(), static_cast<uint32_t>(bgra.size() / 4), rgba.data());
  return rgba;
}

TEST(UnpremultiplyTest, SwapsChannelsAndDividesByAlpha) {
  // Opaque: only the channel order changes.
  EXPECT_EQ(Unpremultiply({10, 20, 30, 255}), (std::vector<uint8_t>{30, 20, 10, 255}));
  // Fully transparent: colour carries nothing.
  EXPECT_EQ(Unpremultiply({10, 20, 30, 0}), (std::vector<uint8_t>{0, 0, 0, 0}));
  // Half-transparent white and red, rounded to nearest.
  EXPECT_EQ(Unpremultiply({128, 128, 128, 128}), (std::vector<uint8_t>{255, 255, 255, 128}));
  EXPECT_EQ(Unpremultiply({0, 0, 64, 128}), (std::vector<uint8_t>{128, 0, 0, 128}));
  EXPECT_EQ(Unpremultiply({1, 0, 0, 3}), (std::vector<uint8_t>{0, 0, 85, 3}));
  // Colour above alpha cannot come from premultiplied data; it saturates.
  EXPECT_EQ(Unpremultiply({200, 0, 0, 100}), (std::vector<uint8_t>{0, 0, 255, 100}));
  // Several pixels in one row.
  EXPECT_EQ(Unpremultiply({0, 0, 255, 255, 0, 0, 0, 0}), (std::vector<uint8_t>{255, 0, 0, 255, 0, 0, 0, 0}));
}

TEST(UnpremultiplyTest, PremultiplyingAgainGivesTheInputBack) {
  for (int a = 1; a < 256; a += 7)
    for (int c = 0; c <= a; c += 3) {
      auto rgba = Unpremultiply({static_cast<uint8_t>(c), 0, 0, static_cast<uint8_t>(a)});
      int back = (rgba[2] * a + 127) / 255;
      EXPECT_EQ(back, c) << "alpha " << a;
    }
}

class CaptureFilesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/slf-capture-test-XXXXXX";
    dir_ = mkdtemp(pattern);
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }
  std::string dir_;
};

TEST_F(CaptureFilesTest, PngHoldsStraightAlphaPixelsAndIgnoresRowPadding) {
  // 2x2, rows of 12 bytes (4 bytes padding filled with junk).
  const uint8_t bgra[] = {0, 0, 255, 255, 0, 255, 0, 255, 0xEE, 0xEE, 0xEE, 0xEE,
                          0, 0, 64, 128, 9, 9, 9, 0, 0xEE, 0xEE, 0xEE, 0xEE};
  RgbaImage image = ConvertFrame(bgra, 2, 2, 12);
  std::string path = dir_ + "/f.png";
  std::string error;
  ASSERT_TRUE(WritePng(path, image, &error)) << error;

  png_image png;
  memset(&png, 0, sizeof png);
  png.version = PNG_IMAGE_VERSION;
  ASSERT_TRUE(png_image_begin_read_from_file(&png, path.c_str())) << png.message;
  png.format = PNG_FORMAT_RGBA;
  EXPECT_EQ(png.width, 2u);
  EXPECT_EQ(png.height, 2u);
  std::vector<uint8_t> pixels(PNG_IMAGE_SIZE(png));
  ASSERT_TRUE(png_image_finish_read(&png, nullptr, pixels.data(), 0, nullptr)) << png.message;
  EXPECT_EQ(pixels, (std::vector<uint8_t>{255, 0, 0, 255, 0, 255, 0, 255, 128, 0, 0, 128, 0, 0, 0, 0}));
}

TEST_F(CaptureFilesTest, PngErrorsAreReported) {
  RgbaImage image = ConvertFrame(std::vector<uint8_t>(16).data(), 2, 2, 8);
  std::string error;
  EXPECT_FALSE(WritePng(dir_ + "/missing-folder/f.png", image, &error));
  EXPECT_NE(error.find("missing-folder/f.png"), std::string::npos) << error;
  EXPECT_FALSE(WritePng(dir_ + "/empty.png", RgbaImage{}, &error));
}

TEST_F(CaptureFilesTest, WavKeepsTheSamplesAndFormat) {
  WavStreamWriter writer;
  std::string error;
  const std::string path = dir_ + "/a.wav";
  ASSERT_TRUE(writer.Open(path, 48000, 2, 16, &error)) << error;
  const int16_t samples[] = {1, -1, 1000, -1000, 32767, -32768};
  ASSERT_TRUE(writer.Write(reinterpret_cast<const uint8_t*>(samples), sizeof samples, &error)) << error;
  // A trailing partial frame (one sample of two channels) is dropped.
  ASSERT_TRUE(writer.Write(reinterpret_cast<const uint8_t*>(samples), 2, &error));
  EXPECT_EQ(writer.framesWritten(), 3u);
  writer.Close();

  SF_INFO info{};
  SNDFILE* f = sf_open(path.c_str(), SFM_READ, &info);
  ASSERT_TRUE(f);
  EXPECT_EQ(info.samplerate, 48000);
  EXPECT_EQ(info.channels, 2);
  EXPECT_EQ(info.frames, 3);
  EXPECT_EQ(info.format & SF_FORMAT_SUBMASK, SF_FORMAT_PCM_16);
  int16_t back[6] = {};
  EXPECT_EQ(sf_read_short(f, back, 6), 6);
  EXPECT_EQ(memcmp(back, samples, sizeof back), 0);
  sf_close(f);
}

TEST_F(CaptureFilesTest, WavRefusesFormatsItCannotWrite) {
  WavStreamWriter writer;
  std::string error;
  EXPECT_FALSE(writer.Open(dir_ + "/b.wav", 48000, 2, 12, &error));
  EXPECT_NE(error.find("12 bits"), std::string::npos) << error;
  EXPECT_FALSE(writer.Open(dir_ + "/b.wav", 0, 2, 16, &error));
  EXPECT_FALSE(writer.Open(dir_ + "/b.wav", 48000, 0, 16, &error));
  EXPECT_FALSE(writer.Write(reinterpret_cast<const uint8_t*>("xxxx"), 4, &error));
}

TEST(FramePacingTest, CountsFramesMissedInLongGapsAndTheJitterOfTheInterval) {
  // 30 fps: an even stream misses nothing and has no jitter.
  FramePacing even(30);
  for (int i = 0; i < 10; ++i) even.AddInterval(1.0 / 30);
  EXPECT_EQ(even.framesMissed(), 0u);
  EXPECT_EQ(even.longGaps(), 0u);
  EXPECT_NEAR(even.meanInterval(), 1.0 / 30, 1e-12);
  EXPECT_NEAR(even.jitter(), 0, 1e-9);

  // 10 fps: 1.5 periods is still jitter; one gap of 3 periods is 2 frames
  // missed, 1.6 periods one; alternating 50/150 ms has 50 ms deviation.
  FramePacing uneven(10);
  for (double interval : {0.05, 0.15, 0.05, 0.15}) uneven.AddInterval(interval);
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
  // Against the rate: 30 fps over 5 s promise 150 frames.
  EXPECT_EQ(FramesShortOfRate(30, 5, 138), 12u);
  EXPECT_EQ(FramesShortOfRate(30, 5, 151), 0u);
  EXPECT_EQ(FramesShortOfRate(30, 0, 0), 0u);
}

}  // namespace
