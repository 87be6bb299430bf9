#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "audio_transport/NVKXPCAudioBuffer.h"
#include "tests/audio_transport/TestRecords.h"

TEST(NVKXPCAudioBuffer, AppendsCopyIntoItsSlotAndStopAtCapacity)
{
    std::vector<uint8_t> segment(3 * 4096, 0xEE), bytes(4096);
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<uint8_t>(i * 3 + 1);
    auto buffer = NVKXPCAudioBuffer::initWithBuffer(segment.data(), 4096, 4096);
    buffer->appendBytes(bytes.data(), 4000);
    buffer->appendData(std::span<const uint8_t>(bytes.data(), 200)); // only 96 fit
    EXPECT_EQ(buffer->length(), 4096u);
    EXPECT_EQ(memcmp(segment.data() + 4096, bytes.data(), 4000), 0);
    EXPECT_EQ(memcmp(segment.data() + 8096, bytes.data(), 96), 0);
    EXPECT_TRUE(segment[4095] == 0xEE && segment[8192] == 0xEE); // neighbouring slots untouched
    // A huge count cannot wrap the arithmetic: only the free space is copied.
    buffer->setLength(10);
    buffer->appendBytes(bytes.data(), UINT64_MAX - 5);
    EXPECT_EQ(buffer->length(), 4096u);

    auto same = NVKXPCAudioBuffer::initWithBuffer(segment.data(), 4096, 64);
    auto other = NVKXPCAudioBuffer::initWithBuffer(segment.data(), 0, 4096);
    EXPECT_TRUE(*buffer == *same && buffer->hash() == same->hash()); // the slot offset alone
    EXPECT_TRUE(!buffer->isEqual(*other) && buffer->hash() != other->hash());
    buffer->returnToPool(); // without a pool: nothing happens
}

TEST(NVKXPCAudioBuffer, RecordRoundTripsAndDecodingIsStrict)
{
    auto buffer = NVKXPCAudioBuffer::initWithBuffer(nullptr, UINT64_MAX - 1, 1024);
    buffer->setLength(700);
    buffer->setSampleRate(INT64_MIN);
    buffer->setChannelCount(-1);
    buffer->setBitsPerSample(INT64_MAX);
    buffer->setPresentationTime(UINT64_MAX - 7);
    GVariant* record = g_variant_ref_sink(buffer->encodeRecord());
    auto decode = [&](const char* key, GVariant* value = nullptr) {
        return NVKXPCAudioBuffer::initWithRecord(Edited(g_variant_ref(record), key, value));
    };
    auto decoded = NVKXPCAudioBuffer::initWithRecord(record);
    ASSERT_TRUE(decoded);
    EXPECT_TRUE(decoded->offset() == UINT64_MAX - 1 && decoded->capacity() == 1024u && decoded->length() == 700u);
    EXPECT_TRUE(decoded->sampleRate() == INT64_MIN && decoded->channelCount() == -1 &&
                decoded->bitsPerSample() == INT64_MAX);
    EXPECT_EQ(decoded->presentationTime(), UINT64_MAX - 7);
    EXPECT_EQ(decoded->mappedMemory(), nullptr);                                 // not mapped until a pool adopts it
    EXPECT_EQ(decode("NVKLength", g_variant_new_uint64(9999))->length(), 1024u); // clamped to the slot

    // Missing keys, wrong types, bad slot sizes and non-dictionaries decode to nothing.
    for (const char* key :
         {"NVKShmemSize", "NVKLength", "NVKOffset", "NVKSampleRate", "NVKChannelCount", "NVKBitsPerSample"})
        EXPECT_FALSE(decode(key) || decode(key, g_variant_new_int32(1))) << key;
    EXPECT_FALSE(decode("NVKSampleRate", g_variant_new_uint64(1)));
    // The presentation time is optional: missing or mistyped reads as 0.
    for (GVariant* value : {static_cast<GVariant*>(nullptr), g_variant_new_int32(5)}) {
        auto untimed = decode(kNVKXPCAudioBufferPresentationTimeKey, value);
        ASSERT_TRUE(untimed);
        EXPECT_EQ(untimed->presentationTime(), 0u);
    }
    for (uint64_t size : {uint64_t(0), uint64_t(16 * 1024 * 1024 + 1)})
        EXPECT_FALSE(decode("NVKShmemSize", g_variant_new_uint64(size)));
    EXPECT_TRUE(decode("NVKShmemSize", g_variant_new_uint64(16 * 1024 * 1024)));
    EXPECT_FALSE(NVKXPCAudioBuffer::initWithRecord(g_variant_new_string("NVKShmemSize")));
    EXPECT_FALSE(NVKXPCAudioBuffer::initWithRecord(nullptr));
    g_variant_unref(record);
}

TEST(NVKXPCAudioBuffer, ReturnBlockRunsOnceWhenTheLastReferenceGoes)
{
    int runs = 0;
    auto buffer = NVKXPCAudioBuffer::initWithBuffer(nullptr, 0, 64);
    buffer->setReturnBlock([&runs] { ++runs; });
    auto copy = buffer;
    buffer.reset();
    EXPECT_EQ(runs, 0);
    copy.reset();
    EXPECT_EQ(runs, 1);
}

TEST(NVKXPCAudioBufferDeathTest, ReceivedBufferCannotBeFilledOrReturnedToAPool)
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
