// The surface dictionary as it travels: what the service builds a host reads
// back, and what a host must refuse before it maps a surface.
#include "platform/NplPixelBufferPool.h"
#include "protocol/SurfaceDictionary.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <initializer_list>
#include <string>
#include <tuple>
#include <vector>

using namespace streamloft;

namespace {

SurfaceProperties Props(uint32_t width, uint32_t height, uint32_t bytesPerRow, uint64_t allocSize)
{
    return {.width = width,
            .height = height,
            .bytesPerRow = bytesPerRow,
            .bytesPerElement = 4,
            .pixelFormat = kPixelFormatBGRA,
            .surfaceID = 9,
            .allocSize = allocSize};
}

auto Fields(const SurfaceProperties& p)
{
    return std::tie(p.width, p.height, p.bytesPerRow, p.bytesPerElement, p.pixelFormat, p.surfaceID, p.allocSize,
                    p.frameSequence, p.framePresentationTime);
}

// A 16 x 2 surface's dictionary as text. Each change replaces the entry of
// its key, adds one, or (only a key) leaves the key out.
std::string DictionaryText(std::initializer_list<std::string> changes = {})
{
    std::vector<std::string> entries = {
        "'IOSurfaceWidth': <uint64 16>",
        "'IOSurfaceHeight': <uint64 2>",
        "'IOSurfaceBytesPerRow': <uint64 64>",
        "'IOSurfaceBytesPerElement': <uint64 4>",
        "'IOSurfacePixelFormat': <uint32 0x42475241>",
        "'IOSurfaceID': <uint64 9>",
        "'IOSurfaceAllocSize': <uint64 128>",
    };
    for (const std::string& change : changes) {
        const std::string key = change.substr(0, change.find(':'));
        std::erase_if(entries, [&](const std::string& entry) { return entry.compare(0, key.size(), key) == 0; });
        if (change.size() != key.size())
            entries.push_back(change);
    }
    std::string text = "@a{sv} {";
    for (size_t i = 0; i < entries.size(); ++i)
        text += (i ? ", " : "") + entries[i];
    return text + "}";
}

bool Parse(const std::string& text, SurfaceProperties* p, std::string* error)
{
    GVariant* dictionary = g_variant_ref_sink(g_variant_new_parsed(text.c_str()));
    const bool parsed = protocol::ParseSurfaceProperties(dictionary, p, error);
    g_variant_unref(dictionary);
    return parsed;
}

// The service's frames: a pool buffer's surface with the frame's timing,
// built by the one builder. A fractional browser size paints whole pixels,
// and its rows are padded to 64 bytes.
TEST(SurfaceDictionary, WhatTheServiceSendsForAFractionalSizeIsReadBackWhole)
{
    NplPixelBufferAttributes attributes;
    attributes.width = attributes.ioSurfaceProperties.width = 1279.9;
    attributes.height = attributes.ioSurfaceProperties.height = 720.5;
    attributes.pixelFormatType = kNplPixelFormatType_32BGRA;
    attributes.hasIOSurfaceProperties = true;
    std::shared_ptr<CNplPixelBufferPool> pool;
    ASSERT_EQ(CNplPixelBufferPool::Create(nullptr, attributes, &pool), kNplPixelBufferSuccess);
    CNplPixelBuffer* raw = nullptr;
    ASSERT_EQ(pool->CreatePixelBuffer(nullptr, &raw), kNplPixelBufferSuccess);
    NplPixelBufferPtr buffer(raw);

    SurfaceProperties sent = buffer->GetIOSurface()->GetProperties();
    sent.frameSequence = 41;
    sent.framePresentationTime = 123456789012;
    GVariant* dictionary = g_variant_ref_sink(protocol::BuildSurfaceProperties(sent));
    SurfaceProperties read;
    std::string error;
    ASSERT_TRUE(protocol::ParseSurfaceProperties(dictionary, &read, &error)) << error;
    g_variant_unref(dictionary);
    EXPECT_EQ(Fields(read), Fields(sent));
    EXPECT_EQ(std::tie(read.width, read.height, read.bytesPerRow), std::make_tuple(1279u, 720u, 5120u));
    struct stat st {};
    ASSERT_EQ(fstat(buffer->GetIOSurface()->GetFd(), &st), 0);
    EXPECT_TRUE(protocol::ValidateSurfaceProperties(read, static_cast<uint64_t>(st.st_size), &error)) << error;
}

// Older senders have no timing keys; a timing key of another type is not
// taken for a value. Unknown keys are ignored.
TEST(SurfaceDictionary, TimingKeysAreOptional)
{
    SurfaceProperties p;
    std::string error;
    ASSERT_TRUE(Parse(DictionaryText(), &p, &error)) << error;
    EXPECT_EQ(std::tie(p.frameSequence, p.framePresentationTime), std::make_tuple(uint64_t {0}, uint64_t {0}));
    ASSERT_TRUE(Parse(
        DictionaryText({"'SLFFrameSequence': <uint64 7>", "'SLFFramePresentationTime': <int32 5>", "'Other': <1>"}), &p,
        &error))
        << error;
    EXPECT_EQ(std::tie(p.frameSequence, p.framePresentationTime), std::make_tuple(uint64_t {7}, uint64_t {0}));
}

// Every surface key must be there with exactly its protocol type: a sender
// that used other integer types would not be understood by older hosts.
TEST(SurfaceDictionary, MissingOrMistypedKeysAreRefusedByName)
{
    const struct {
        std::string entry;
        const char* error;
    } cases[] = {
        {"'IOSurfaceWidth'", "IOSurfaceWidth is missing"},
        {"'IOSurfaceAllocSize'", "IOSurfaceAllocSize is missing"},
        {"'IOSurfacePixelFormat'", "IOSurfacePixelFormat is missing"},
        {"'IOSurfaceWidth': <uint32 16>", "IOSurfaceWidth has type u, not t"},
        {"'IOSurfaceHeight': <2.0>", "IOSurfaceHeight has type d, not t"},
        {"'IOSurfaceBytesPerRow': <<uint64 64>>", "IOSurfaceBytesPerRow has type v, not t"},
        {"'IOSurfaceID': <'9'>", "IOSurfaceID has type s, not t"},
        {"'IOSurfacePixelFormat': <uint64 0x42475241>", "IOSurfacePixelFormat has type t, not u"},
        {"'IOSurfaceWidth': <uint64 4294967296>", "IOSurfaceWidth is out of range"},
    };
    for (const auto& c : cases) {
        SurfaceProperties p = Props(1, 1, 4, 4);
        const SurfaceProperties before = p;
        std::string error;
        EXPECT_FALSE(Parse(DictionaryText({c.entry}), &p, &error)) << c.entry;
        EXPECT_NE(error.find(c.error), std::string::npos) << c.entry << ": " << error;
        EXPECT_EQ(Fields(p), Fields(before)) << "a refused dictionary leaves the output alone";
    }
    GVariant* notADictionary = g_variant_ref_sink(g_variant_new_parsed("@a{ss} {'IOSurfaceWidth': '16'}"));
    SurfaceProperties p;
    std::string error;
    EXPECT_FALSE(protocol::ParseSurfaceProperties(notADictionary, &p, &error));
    EXPECT_NE(error.find("not a dictionary"), std::string::npos) << error;
    EXPECT_FALSE(protocol::ParseSurfaceProperties(nullptr, &p, nullptr));
    g_variant_unref(notADictionary);
}

// A stride times a height that wraps 64 bits to a small number must not pass
// for an image that fits a small allocation.
TEST(SurfaceDictionary, AStrideThatWouldOverflowTheImageSizeIsRefused)
{
    SurfaceProperties p;
    std::string error;
    // 2^62 × 4 rows is 2^64: 0 after wrapping.
    EXPECT_FALSE(Parse(DictionaryText({"'IOSurfaceBytesPerRow': <uint64 4611686018427387904>",
                                       "'IOSurfaceHeight': <uint64 4>", "'IOSurfaceAllocSize': <uint64 64>"}),
                       &p, &error));
    EXPECT_NE(error.find("IOSurfaceBytesPerRow is out of range"), std::string::npos) << error;
}

// The checks that keep a host's reads inside the surface's memory.
TEST(SurfaceDictionary, ValidationKeepsEveryReadInsideTheMemory)
{
    std::string error;
    EXPECT_TRUE(protocol::ValidateSurfaceProperties(Props(16, 2, 64, 128), 128, &error)) << error;
    EXPECT_TRUE(protocol::ValidateSurfaceProperties(Props(16, 2, 128, 256), 4096, &error)) << error; // padded rows
    EXPECT_TRUE(protocol::ValidateSurfaceProperties(Props(16384, 1, 65536, 65536), std::nullopt, &error)) << error;
    SurfaceProperties wrongFormat = Props(16, 2, 64, 128), wrongElement = wrongFormat;
    wrongFormat.pixelFormat = 0x41524742;
    wrongElement.bytesPerElement = 3;
    const struct {
        SurfaceProperties p;
        uint64_t memorySize;
        const char* error;
    } cases[] = {
        {Props(16, 2, 63, 128), 128, "stride 63 is shorter than a row of 64 bytes"},
        {Props(16, 3, 64, 128), 128, "smaller than its image of 192 bytes"},
        {Props(16, 2, 64, 256), 128, "exceeds its memory of 128 bytes"},
        {Props(0, 2, 64, 128), 128, "surface is empty"},
        {Props(16, 0, 64, 128), 128, "surface is empty"},
        {Props(16385, 1, 65540, 65540), 65540, "over 16384 pixels"},
        // Row bytes that would wrap in 32 bits.
        {Props(0x40000000, 1, 0x10000000, 0x10000000), 0x10000000, "over 16384 pixels"},
        {wrongFormat, 128, "not BGRA"},
        {wrongElement, 128, "3 bytes per element"},
    };
    for (const auto& c : cases) {
        error.clear();
        EXPECT_FALSE(protocol::ValidateSurfaceProperties(c.p, c.memorySize, &error)) << c.error;
        EXPECT_NE(error.find(c.error), std::string::npos) << error;
    }
    // The same checks apply to what is parsed, without a memory size.
    SurfaceProperties p;
    EXPECT_FALSE(Parse(DictionaryText({"'IOSurfaceBytesPerRow': <uint64 60>"}), &p, &error));
    EXPECT_NE(error.find("shorter than a row"), std::string::npos) << error;
}

} // namespace
