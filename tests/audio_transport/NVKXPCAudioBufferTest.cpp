// NVKXPCAudioBuffer on its own: appends, slot identity, its record and the
// two roles (writable slot, received read-only view with a return block).
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "audio_transport/NVKXPCAudioBuffer.h"
#include "tests/audio_transport/TestRecords.h"

namespace {

std::vector<uint8_t> Pattern(size_t size, uint8_t seed)
{
    std::vector<uint8_t> bytes(size);
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<uint8_t>(seed + i * 3);
    return bytes;
}

} // namespace

TEST(NVKXPCAudioBuffer, AppendsCopyIntoItsSlotAndTruncateAtCapacity)
{
    std::vector<uint8_t> segment(3 * 4096, 0xEE);
    auto buffer = NVKXPCAudioBuffer::initWithBuffer(segment.data(), 4096, 4096);
    EXPECT_EQ(buffer->capacity(), 4096u);
    EXPECT_EQ(buffer->length(), 0u);
    EXPECT_EQ(buffer->bytes(), segment.data() + 4096);
    EXPECT_EQ(buffer->mutableBytes(), segment.data() + 4096);

    auto first = Pattern(4000, 1);
    buffer->appendBytes(first.data(), first.size());
    EXPECT_EQ(buffer->length(), 4000u);

    // 200 more bytes: only 96 fit.
    auto second = Pattern(200, 77);
    buffer->appendData(second);
    EXPECT_EQ(buffer->length(), 4096u);
    EXPECT_EQ(memcmp(segment.data() + 4096, first.data(), 4000), 0);
    EXPECT_EQ(memcmp(segment.data() + 8096, second.data(), 96), 0);
    // Neighbouring slots are untouched.
    EXPECT_EQ(segment[4095], 0xEE);
    EXPECT_EQ(segment[8192], 0xEE);

    // A full slot takes nothing more; an empty append changes nothing.
    buffer->appendBytes(second.data(), second.size());
    buffer->appendBytes(nullptr, 0);
    EXPECT_EQ(buffer->length(), 4096u);
    // A huge count cannot wrap the arithmetic: only the free space is copied.
    auto full = Pattern(4096, 9);
    buffer->setLength(10);
    buffer->appendBytes(full.data(), UINT64_MAX - 5);
    EXPECT_EQ(buffer->length(), 4096u);
    // The length never exceeds the slot.
    buffer->setLength(5000);
    EXPECT_EQ(buffer->length(), 4096u);
}

TEST(NVKXPCAudioBuffer, IsIdentifiedByItsSlotOffset)
{
    std::vector<uint8_t> segment(8192);
    auto a = NVKXPCAudioBuffer::initWithBuffer(segment.data(), 4096, 4096);
    auto b = NVKXPCAudioBuffer::initWithBuffer(segment.data(), 4096, 4096);
    auto c = NVKXPCAudioBuffer::initWithBuffer(segment.data(), 0, 4096);
    a->setLength(10);
    b->setLength(4000);
    b->setSampleRate(44100);
    EXPECT_TRUE(a->isEqual(*b));
    EXPECT_TRUE(*a == *b);
    EXPECT_EQ(a->hash(), b->hash());
    EXPECT_EQ(a->hash(), 4096u);
    EXPECT_FALSE(a->isEqual(*c));
    EXPECT_NE(a->hash(), c->hash());
}

TEST(NVKXPCAudioBuffer, RecordRoundTripsAndDecodingIsStrict)
{
    std::vector<uint8_t> segment(4096);
    auto buffer = NVKXPCAudioBuffer::initWithBuffer(segment.data(), 2048, 1024);
    buffer->setLength(700);
    buffer->setSampleRate(48000);
    buffer->setChannelCount(2);
    buffer->setBitsPerSample(16);

    GVariant* record = g_variant_ref_sink(buffer->encodeRecord());
    ASSERT_TRUE(g_variant_is_of_type(record, G_VARIANT_TYPE_VARDICT));
    guint64 slot = 0;
    gint64 rate = 0;
    EXPECT_TRUE(g_variant_lookup(record, "NVKShmemSize", "t", &slot));
    EXPECT_TRUE(g_variant_lookup(record, "NVKSampleRate", "x", &rate));
    EXPECT_EQ(slot, 1024u);
    EXPECT_EQ(rate, 48000);
    EXPECT_EQ(g_variant_n_children(record), 6u);

    auto decoded = NVKXPCAudioBuffer::initWithRecord(record);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->offset(), 2048u);
    EXPECT_EQ(decoded->capacity(), 1024u);
    EXPECT_EQ(decoded->length(), 700u);
    EXPECT_EQ(decoded->sampleRate(), 48000);
    EXPECT_EQ(decoded->channelCount(), 2);
    EXPECT_EQ(decoded->bitsPerSample(), 16);
    // Not mapped yet: bytes is just the offset, and nothing is writable there.
    EXPECT_EQ(decoded->mappedMemory(), nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(decoded->bytes()), 2048u);
    EXPECT_FALSE(decoded->owningPool());

    // A length past the slot is clamped.
    auto clamped = NVKXPCAudioBuffer::initWithRecord(
        WithEntry(WithEntry(g_variant_ref(record), "NVKShmemSize", g_variant_new_uint64(4096)), "NVKLength",
                  g_variant_new_uint64(10000)));
    ASSERT_TRUE(clamped);
    EXPECT_EQ(clamped->length(), 4096u);

    // Missing keys, wrong types, bad slot sizes and non-dictionaries decode to nothing.
    const char* keys[] = {"NVKShmemSize", "NVKLength", "NVKOffset", "NVKSampleRate", "NVKChannelCount",
                          "NVKBitsPerSample"};
    for (const char* key : keys) {
        EXPECT_FALSE(NVKXPCAudioBuffer::initWithRecord(WithoutEntry(g_variant_ref(record), key))) << key;
        EXPECT_FALSE(NVKXPCAudioBuffer::initWithRecord(WithEntry(g_variant_ref(record), key, g_variant_new_int32(1))))
            << key;
    }
    EXPECT_FALSE(NVKXPCAudioBuffer::initWithRecord(
        WithEntry(g_variant_ref(record), "NVKSampleRate", g_variant_new_uint64(48000))));
    EXPECT_FALSE(
        NVKXPCAudioBuffer::initWithRecord(WithEntry(g_variant_ref(record), "NVKShmemSize", g_variant_new_uint64(0))));
    EXPECT_FALSE(NVKXPCAudioBuffer::initWithRecord(
        WithEntry(g_variant_ref(record), "NVKShmemSize", g_variant_new_uint64(16 * 1024 * 1024 + 1))));
    EXPECT_TRUE(NVKXPCAudioBuffer::initWithRecord(
        WithEntry(g_variant_ref(record), "NVKShmemSize", g_variant_new_uint64(16 * 1024 * 1024))));
    EXPECT_FALSE(NVKXPCAudioBuffer::initWithRecord(g_variant_new_parsed("@a{sv} {}")));
    EXPECT_FALSE(NVKXPCAudioBuffer::initWithRecord(g_variant_new_parsed("{'NVKLength': <@t 5>}")));
    EXPECT_FALSE(NVKXPCAudioBuffer::initWithRecord(g_variant_new_string("NVKShmemSize")));
    EXPECT_FALSE(NVKXPCAudioBuffer::initWithRecord(nullptr));
    g_variant_unref(record);
}

TEST(NVKXPCAudioBuffer, RecordIsTheSameAsOneBuiltEntryByEntry)
{
    std::vector<uint8_t> segment(16);
    const struct {
        uint64_t offset, capacity, length;
        int64_t rate, channels, bits;
    } cases[] = {{0, 16, 0, 0, 0, 0},
                 {3840 * 199, 3840, 3000, 48000, 2, 16},
                 {UINT64_MAX, UINT64_MAX, UINT64_MAX, INT64_MIN, -1, INT64_MAX}};
    for (const auto& c : cases) {
        auto buffer = NVKXPCAudioBuffer::initWithBuffer(segment.data(), c.offset, c.capacity);
        buffer->setLength(c.length);
        buffer->setSampleRate(c.rate);
        buffer->setChannelCount(c.channels);
        buffer->setBitsPerSample(c.bits);
        GVariant* encoded = g_variant_ref_sink(buffer->encodeRecord());

        GVariantBuilder builder;
        g_variant_builder_init(&builder, G_VARIANT_TYPE_VARDICT);
        g_variant_builder_add(&builder, "{sv}", "NVKShmemSize", g_variant_new_uint64(c.capacity));
        g_variant_builder_add(&builder, "{sv}", "NVKLength", g_variant_new_uint64(c.length));
        g_variant_builder_add(&builder, "{sv}", "NVKOffset", g_variant_new_uint64(c.offset));
        g_variant_builder_add(&builder, "{sv}", "NVKSampleRate", g_variant_new_int64(c.rate));
        g_variant_builder_add(&builder, "{sv}", "NVKChannelCount", g_variant_new_int64(c.channels));
        g_variant_builder_add(&builder, "{sv}", "NVKBitsPerSample", g_variant_new_int64(c.bits));
        GVariant* expected = g_variant_ref_sink(g_variant_builder_end(&builder));

        EXPECT_TRUE(g_variant_is_normal_form(encoded));
        ASSERT_EQ(g_variant_get_size(encoded), g_variant_get_size(expected));
        EXPECT_EQ(memcmp(g_variant_get_data(encoded), g_variant_get_data(expected), g_variant_get_size(expected)), 0);
        EXPECT_TRUE(g_variant_equal(encoded, expected));
        g_variant_unref(expected);
        g_variant_unref(encoded);
    }
}

TEST(NVKXPCAudioBuffer, ReturnBlockRunsOnceWhenTheLastReferenceGoes)
{
    int runs = 0;
    {
        auto buffer = NVKXPCAudioBuffer::initWithBuffer(nullptr, 0, 64);
        buffer->setReturnBlock([&runs] { ++runs; });
        EXPECT_TRUE(buffer->hasReturnBlock());
        // A received buffer is never writable.
        EXPECT_EQ(buffer->mutableBytes(), nullptr);
        auto copy = buffer;
        buffer.reset();
        EXPECT_EQ(runs, 0);
        // Reading the block hands out a copy; the stored one still runs once.
        NVKXPCAudioBuffer::ReturnBlock block = copy->returnBlock();
        ASSERT_TRUE(block);
    }
    EXPECT_EQ(runs, 1);

    // A sending-side buffer runs nothing when it goes.
    std::vector<uint8_t> segment(64);
    auto plain = NVKXPCAudioBuffer::initWithBuffer(segment.data(), 0, 64);
    EXPECT_FALSE(plain->hasReturnBlock());
    plain.reset();
    EXPECT_EQ(runs, 1);

    // Returning a buffer that has no pool is a no-op.
    auto orphan = NVKXPCAudioBuffer::initWithBuffer(segment.data(), 0, 64);
    orphan->returnToPool();
}

using NVKXPCAudioBufferDeathTest = ::testing::Test;

TEST_F(NVKXPCAudioBufferDeathTest, ReceivedBufferCannotBeFilledOrReturnedToAPool)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    std::vector<uint8_t> segment(64);
    auto buffer = NVKXPCAudioBuffer::initWithBuffer(segment.data(), 0, 64);
    buffer->setReturnBlock([] {});
    const uint8_t byte = 1;
    EXPECT_DEATH(buffer->appendBytes(&byte, 1), "NVKXPCAudioBuffer:131: _returnBlock == nil");
    EXPECT_DEATH(buffer->appendData(std::span<const uint8_t>(&byte, 1)), "NVKXPCAudioBuffer:141: _returnBlock == nil");
    EXPECT_DEATH(buffer->returnToPool(), "NVKXPCAudioBuffer:164: _returnBlock == nil");
}
