// Writing overlay frames as PNG files: the frames are premultiplied BGRA,
// PNG wants straight (not premultiplied) alpha, so every pixel is divided by
// its alpha on the way.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace slf_capture {

// Converts one row of `width` premultiplied BGRA pixels to straight-alpha
// RGBA. A pixel with alpha 0 becomes all zero; colour values above alpha
// (which premultiplied data cannot hold) come out as 255.
void UnpremultiplyBGRAToRGBA(const uint8_t* bgra, uint32_t width, uint8_t* rgba);

// A frame converted to tightly packed straight-alpha RGBA.
struct RgbaImage {
    uint32_t width = 0;
    uint32_t height = 0;
    std::vector<uint8_t> pixels; // width * 4 bytes a row
};

// Converts a premultiplied BGRA image with rows `stride` bytes apart.
RgbaImage ConvertFrame(const uint8_t* bgra, uint32_t width, uint32_t height, uint32_t stride);

// Writes an 8-bit RGBA PNG; false and a message on failure.
bool WritePng(const std::string& path, const RgbaImage& image, std::string* error);

} // namespace slf_capture
