#include "tools/slf-overlay-capture/PngFrameWriter.h"

#include <png.h>

#include <cstring>

namespace slf_capture {

void UnpremultiplyBGRAToRGBA(const uint8_t* bgra, uint32_t width, uint8_t* rgba)
{
    for (uint32_t x = 0; x < width; ++x, bgra += 4, rgba += 4) {
        const uint32_t a = bgra[3];
        if (a == 255) {
            rgba[0] = bgra[2];
            rgba[1] = bgra[1];
            rgba[2] = bgra[0];
        } else if (a == 0) {
            rgba[0] = rgba[1] = rgba[2] = 0;
        } else {
            auto straight = [a](uint32_t c) -> uint8_t {
                uint32_t v = (c * 255 + a / 2) / a;
                return static_cast<uint8_t>(v > 255 ? 255 : v);
            };
            rgba[0] = straight(bgra[2]);
            rgba[1] = straight(bgra[1]);
            rgba[2] = straight(bgra[0]);
        }
        rgba[3] = static_cast<uint8_t>(a);
    }
}

RgbaImage ConvertFrame(const uint8_t* bgra, uint32_t width, uint32_t height, uint32_t stride)
{
    RgbaImage image;
    image.width = width;
    image.height = height;
    image.pixels.resize(static_cast<size_t>(width) * height * 4);
    for (uint32_t y = 0; y < height; ++y)
        UnpremultiplyBGRAToRGBA(bgra + static_cast<size_t>(y) * stride, width,
                                image.pixels.data() + static_cast<size_t>(y) * width * 4);
    return image;
}

bool WritePng(const std::string& path, const RgbaImage& image, std::string* error)
{
    if (image.pixels.size() != static_cast<size_t>(image.width) * image.height * 4 || image.width == 0 ||
        image.height == 0) {
        *error = "cannot write " + path + ": the image is empty or inconsistent";
        return false;
    }
    png_image png;
    memset(&png, 0, sizeof png);
    png.version = PNG_IMAGE_VERSION;
    png.width = image.width;
    png.height = image.height;
    png.format = PNG_FORMAT_RGBA; // 8-bit sRGB: alpha is not premultiplied
    if (!png_image_write_to_file(&png, path.c_str(), 0, image.pixels.data(), static_cast<png_int_32>(image.width * 4),
                                 nullptr)) {
        *error = "cannot write " + path + ": " + png.message;
        png_image_free(&png);
        return false;
    }
    return true;
}

} // namespace slf_capture
