// A frame's surface dictionary (the a{sv} of BrowserReceivedVideoFrame; keys
// and types in OverlayProtocol.h): the one builder the service sends with,
// the one parser a host reads with, and the one validator both rely on.
// Header-only; needs GLib only.
#pragma once

#include <glib.h>

#include <cstdint>
#include <optional>
#include <string>

#include "protocol/OverlayProtocol.h"
#include "streamloft/SurfaceProperties.h"

namespace streamloft::protocol {

// Checks that the properties describe a BGRA image that a reader can walk
// without leaving the surface: pixel format 'BGRA', 4 bytes per element,
// width and height in 1...kMaximumEdge, rows of at least width × 4 bytes, an
// allocation of at least bytesPerRow × height bytes and, when the size of the
// surface's memory is given, no larger than that memory. False with the
// reason in *error (when given).
inline bool ValidateSurfaceProperties(const SurfaceProperties& p, std::optional<uint64_t> memorySize = std::nullopt,
                                      std::string* error = nullptr)
{
    auto refuse = [error](std::string reason) {
        if (error)
            *error = std::move(reason);
        return false;
    };
    if (p.pixelFormat != kPixelFormatBGRA)
        return refuse("surface pixel format " + std::to_string(p.pixelFormat) + " is not BGRA");
    if (p.bytesPerElement != kBytesPerPixelBGRA)
        return refuse("surface has " + std::to_string(p.bytesPerElement) + " bytes per element, not 4");
    const std::string size = std::to_string(p.width) + "x" + std::to_string(p.height);
    if (p.width == 0 || p.height == 0)
        return refuse("surface is empty (" + size + ")");
    if (p.width > kMaximumEdge || p.height > kMaximumEdge)
        return refuse("surface of " + size + " is over " + std::to_string(kMaximumEdge) + " pixels each way");
    // 32-bit factors: the products cannot overflow 64 bits.
    const uint64_t rowBytes = uint64_t {p.width} * kBytesPerPixelBGRA;
    if (p.bytesPerRow < rowBytes)
        return refuse("surface stride " + std::to_string(p.bytesPerRow) + " is shorter than a row of " +
                      std::to_string(rowBytes) + " bytes");
    const uint64_t imageBytes = uint64_t {p.bytesPerRow} * p.height;
    if (p.allocSize < imageBytes)
        return refuse("surface allocation of " + std::to_string(p.allocSize) + " bytes is smaller than its image of " +
                      std::to_string(imageBytes) + " bytes");
    if (memorySize && p.allocSize > *memorySize)
        return refuse("surface allocation of " + std::to_string(p.allocSize) + " bytes exceeds its memory of " +
                      std::to_string(*memorySize) + " bytes");
    return true;
}

namespace detail {

// One value of the dictionary, of exactly the type the protocol gives it
// ('t' or 'u') and at most `maximum`.
inline bool ReadSurfaceValue(GVariant* dictionary, const char* key, const GVariantType* type, uint64_t maximum,
                             uint64_t* out, std::string* error)
{
    GVariant* value = g_variant_lookup_value(dictionary, key, nullptr);
    std::string reason;
    if (!value) {
        reason = std::string("surface property ") + key + " is missing";
    } else if (!g_variant_is_of_type(value, type)) {
        reason = std::string("surface property ") + key + " has type " + g_variant_get_type_string(value) + ", not " +
                 g_variant_type_peek_string(type)[0];
    } else {
        const uint64_t number = g_variant_type_equal(type, G_VARIANT_TYPE_UINT32) ? g_variant_get_uint32(value)
                                                                                  : g_variant_get_uint64(value);
        if (number > maximum)
            reason = std::string("surface property ") + key + " is out of range (" + std::to_string(number) + ")";
        else
            *out = number;
    }
    if (value)
        g_variant_unref(value);
    if (reason.empty())
        return true;
    if (error)
        *error = std::move(reason);
    return false;
}

} // namespace detail

// Reads a surface dictionary as a host receives it: every surface key must be
// there with its protocol type (any other type is refused, not converted),
// and the values must pass ValidateSurfaceProperties (without a memory
// size: the caller checks the allocation against the surface's memory).
// The frame's timing keys are optional (0 when missing or of another type);
// other keys are ignored. On failure *out is untouched and *error (when
// given) says why.
inline bool ParseSurfaceProperties(GVariant* dictionary, SurfaceProperties* out, std::string* error = nullptr)
{
    if (!dictionary || !g_variant_is_of_type(dictionary, G_VARIANT_TYPE_VARDICT)) {
        if (error)
            *error = "surface properties are not a dictionary";
        return false;
    }
    constexpr uint64_t u32 = UINT32_MAX;
    const GVariantType* t = G_VARIANT_TYPE_UINT64;
    uint64_t width = 0, height = 0, bytesPerRow = 0, bytesPerElement = 0, pixelFormat = 0;
    SurfaceProperties p;
    if (!detail::ReadSurfaceValue(dictionary, kSurfaceWidthKey, t, u32, &width, error) ||
        !detail::ReadSurfaceValue(dictionary, kSurfaceHeightKey, t, u32, &height, error) ||
        !detail::ReadSurfaceValue(dictionary, kSurfaceBytesPerRowKey, t, u32, &bytesPerRow, error) ||
        !detail::ReadSurfaceValue(dictionary, kSurfaceBytesPerElementKey, t, u32, &bytesPerElement, error) ||
        !detail::ReadSurfaceValue(dictionary, kSurfacePixelFormatKey, G_VARIANT_TYPE_UINT32, u32, &pixelFormat,
                                  error) ||
        !detail::ReadSurfaceValue(dictionary, kSurfaceIDKey, t, UINT64_MAX, &p.surfaceID, error) ||
        !detail::ReadSurfaceValue(dictionary, kSurfaceAllocSizeKey, t, UINT64_MAX, &p.allocSize, error))
        return false;
    p.width = static_cast<uint32_t>(width);
    p.height = static_cast<uint32_t>(height);
    p.bytesPerRow = static_cast<uint32_t>(bytesPerRow);
    p.bytesPerElement = static_cast<uint32_t>(bytesPerElement);
    p.pixelFormat = static_cast<uint32_t>(pixelFormat);
    if (!g_variant_lookup(dictionary, kFrameSequenceKey, "t", &p.frameSequence))
        p.frameSequence = 0;
    if (!g_variant_lookup(dictionary, kFramePresentationTimeKey, "t", &p.framePresentationTime))
        p.framePresentationTime = 0;
    if (!ValidateSurfaceProperties(p, std::nullopt, error))
        return false;
    if (out)
        *out = p;
    return true;
}

// A new floating a{sv} of the properties: the seven surface keys, and the
// frame's two timing keys when frameSequence is not 0 (a surface that is not
// on its way with a frame has none).
inline GVariant* BuildSurfaceProperties(const SurfaceProperties& p)
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE_VARDICT);
    auto add = [&builder](const char* key, GVariant* value) {
        g_variant_builder_add_value(&builder,
                                    g_variant_new_dict_entry(g_variant_new_string(key), g_variant_new_variant(value)));
    };
    add(kSurfaceWidthKey, g_variant_new_uint64(p.width));
    add(kSurfaceHeightKey, g_variant_new_uint64(p.height));
    add(kSurfaceBytesPerRowKey, g_variant_new_uint64(p.bytesPerRow));
    add(kSurfaceBytesPerElementKey, g_variant_new_uint64(p.bytesPerElement));
    add(kSurfacePixelFormatKey, g_variant_new_uint32(p.pixelFormat));
    add(kSurfaceIDKey, g_variant_new_uint64(p.surfaceID));
    add(kSurfaceAllocSizeKey, g_variant_new_uint64(p.allocSize));
    if (p.frameSequence != 0) {
        add(kFrameSequenceKey, g_variant_new_uint64(p.frameSequence));
        add(kFramePresentationTimeKey, g_variant_new_uint64(p.framePresentationTime));
    }
    return g_variant_builder_end(&builder);
}

} // namespace streamloft::protocol
