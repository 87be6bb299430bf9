// NVKXPCAudioBufferPool in one process: the sending side's slots, free list
// and in-use set, its record, and a receiving pool opened on the same segment.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <set>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "audio_transport/NVKXPCAudioBuffer.h"
#include "audio_transport/NVKXPCAudioBufferPool.h"
#include "tests/audio_transport/TestRecords.h"

namespace {

std::shared_ptr<NVKXPCAudioBufferPool> MakeStreamPool(uint64_t size = 3840, uint64_t count = 200)
{
    auto pool = NVKXPCAudioBufferPool::initWithBufferSize(size, count);
    if (pool) {
        pool->setSampleRate(48000);
        pool->setChannelCount(2);
        pool->setBitsPerSample(16);
    }
    return pool;
}

// The sending side never unlinks its segment (the receiver does); tests that
// have no receiver remove the name themselves.
struct SegmentName {
    std::string name;
    ~SegmentName()
    {
        if (!name.empty())
            shm_unlink(name.c_str());
    }
};

bool SegmentExists(const std::string& name)
{
    int fd = shm_open(name.c_str(), O_RDONLY, 0600);
    if (fd < 0)
        return false;
    close(fd);
    return true;
}

} // namespace

TEST(NVKXPCAudioBufferPool, SlotsAreCarvedInAscendingOrderAndRunOut)
{
    auto pool = MakeStreamPool();
    ASSERT_TRUE(pool);
    SegmentName cleanup{pool->shmemName()};
    EXPECT_TRUE(pool->isXPCService());
    EXPECT_EQ(pool->shmemSize(), 768000u);
    EXPECT_EQ(pool->maxNumBuffers(), 200u);
    EXPECT_EQ(pool->bufferSize(), 3840u);
    EXPECT_EQ(pool->freeBufferCount(), 200);
    char expectedName[64];
    snprintf(expectedName, sizeof expectedName, "NVKXPCABN_%p", static_cast<void*>(pool.get()));
    EXPECT_EQ(pool->shmemName(), expectedName);
    EXPECT_TRUE(SegmentExists(pool->shmemName()));

    std::vector<std::shared_ptr<NVKXPCAudioBuffer>> taken;
    for (int i = 0; i < 200; ++i) {
        auto buffer = pool->bufferFromPool();
        ASSERT_TRUE(buffer) << i;
        EXPECT_EQ(buffer->offset(), static_cast<uint64_t>(i) * 3840);
        EXPECT_EQ(buffer->capacity(), 3840u);
        EXPECT_EQ(buffer->owningPool(), pool);
        EXPECT_EQ(buffer->sampleRate(), 48000);
        taken.push_back(buffer);
    }
    EXPECT_EQ(taken[5]->bytes(), static_cast<const uint8_t*>(pool->mappedMemory()) + 19200);
    EXPECT_EQ(pool->bufferFromPool(), nullptr);
    EXPECT_EQ(pool->freeBufferCount(), 0);
    EXPECT_EQ(pool->buffersInUse().size(), 200u);

    // A returned slot comes out again emptied and with the pool's current format.
    taken[7]->appendBytes("abcdef", 6);
    taken[7]->setSampleRate(8000);
    pool->setSampleRate(44100);
    pool->setChannelCount(1);
    pool->setBitsPerSample(32);
    taken[7]->returnToPool();
    EXPECT_EQ(pool->buffersInUse().size(), 199u);
    EXPECT_EQ(pool->freeBufferCount(), 1);
    auto again = pool->bufferFromPool();
    ASSERT_EQ(again, taken[7]);
    EXPECT_EQ(again->length(), 0u);
    EXPECT_EQ(again->sampleRate(), 44100);
    EXPECT_EQ(again->channelCount(), 1);
    EXPECT_EQ(again->bitsPerSample(), 32);
    EXPECT_EQ(pool->buffersInUse().size(), 200u);
}

TEST(NVKXPCAudioBufferPool, ASlotSharedByTwoReceiversIsQueuedTwice)
{
    auto pool = MakeStreamPool(256, 4);
    ASSERT_TRUE(pool);
    SegmentName cleanup{pool->shmemName()};
    auto buffer = pool->bufferFromPool();
    auto other = pool->bufferFromPool();
    ASSERT_TRUE(buffer && other);
    EXPECT_EQ(pool->freeBufferCount(), 2);
    // Each of two receivers gives the same slot back.
    buffer->returnToPool();
    buffer->returnToPool();
    EXPECT_EQ(pool->freeBufferCount(), 4);
    EXPECT_EQ(pool->buffersInUse().size(), 1u);
    // The slot is handed out twice from then on.
    int handedOut = 0;
    while (auto next = pool->bufferFromPool())
        handedOut += next == buffer;
    EXPECT_EQ(handedOut, 2);
}

TEST(NVKXPCAudioBufferPool, PoolAndBuffersDoNotKeepEachOtherAlive)
{
    std::weak_ptr<NVKXPCAudioBufferPool> weakPool;
    std::string name;
    std::shared_ptr<NVKXPCAudioBuffer> outstanding;
    {
        auto pool = MakeStreamPool(64, 8);
        ASSERT_TRUE(pool);
        weakPool = pool;
        name = pool->shmemName();
        outstanding = pool->bufferFromPool();
    }
    SegmentName cleanup{name};
    EXPECT_TRUE(weakPool.expired());
    // A reply that arrives after the stream went away does nothing.
    outstanding->returnToPool();
}

TEST(NVKXPCAudioBufferPool, RefusesSizesItCannotServe)
{
    EXPECT_FALSE(NVKXPCAudioBufferPool::initWithBufferSize(0, 200));
    EXPECT_FALSE(NVKXPCAudioBufferPool::initWithBufferSize(3840, 0));
    EXPECT_FALSE(NVKXPCAudioBufferPool::initWithBufferSize(16 * 1024 * 1024 + 1, 1));
    EXPECT_FALSE(NVKXPCAudioBufferPool::initWithBufferSize(1, 1000001));
}

TEST(NVKXPCAudioBufferPool, ReturnsFromManyThreadsAtOnce)
{
    auto pool = MakeStreamPool(128, 200);
    ASSERT_TRUE(pool);
    SegmentName cleanup{pool->shmemName()};
    constexpr int kThreads = 4;
    constexpr int kRounds = 200;
    std::atomic<int> served{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&pool, &served, t] {
            const uint8_t byte = static_cast<uint8_t>(t);
            for (int i = 0; i < kRounds; ++i) {
                auto buffer = pool->bufferFromPool();
                if (!buffer)
                    continue;
                buffer->appendBytes(&byte, 1);
                buffer->returnToPool();
                served.fetch_add(1, std::memory_order_relaxed);
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_GT(served.load(), 0);
    EXPECT_EQ(pool->freeBufferCount(), 200);
    EXPECT_TRUE(pool->buffersInUse().empty());
    std::set<uint64_t> offsets;
    while (auto buffer = pool->bufferFromPool())
        offsets.insert(buffer->offset());
    EXPECT_EQ(offsets.size(), 200u);
}

TEST(NVKXPCAudioBufferPool, ReceivingPoolMapsTheSameBytesReadOnly)
{
    auto sender = MakeStreamPool(4096, 4);
    ASSERT_TRUE(sender);
    const std::string name = sender->shmemName();

    GVariant* record = g_variant_ref_sink(sender->encodeRecord());
    gint64 rate = 0;
    guint64 capacity = 0;
    const char* shmName = nullptr;
    EXPECT_TRUE(g_variant_lookup(record, "NVKBufferSampleRate", "x", &rate));
    EXPECT_TRUE(g_variant_lookup(record, "NVKBufferCapacity", "t", &capacity));
    EXPECT_TRUE(g_variant_lookup(record, "NVKShmemName", "&s", &shmName));
    EXPECT_EQ(rate, 48000);
    EXPECT_EQ(capacity, 4096u);
    EXPECT_EQ(name, shmName);

    auto receiver = NVKXPCAudioBufferPool::initWithRecord(record);
    g_variant_unref(record);
    ASSERT_TRUE(receiver);
    EXPECT_FALSE(receiver->isXPCService());
    EXPECT_EQ(receiver->maxNumBuffers(), 4u);
    EXPECT_EQ(receiver->bufferSize(), 4096u);
    EXPECT_EQ(receiver->sampleRate(), 48000);
    EXPECT_EQ(receiver->channelCount(), 2);
    EXPECT_EQ(receiver->bitsPerSample(), 16);
    EXPECT_EQ(receiver->freeBufferCount(), 0);
    EXPECT_NE(receiver->mappedMemory(), sender->mappedMemory());

    // Sender fills slot 0 and 1, and sends their records.
    auto first = sender->bufferFromPool();
    auto second = sender->bufferFromPool();
    first->appendBytes("first slot", 10);
    second->appendBytes("second", 6);
    int returns = 0;
    for (auto& sent : {first, second}) {
        auto received = NVKXPCAudioBuffer::initWithRecord(sent->encodeRecord());
        ASSERT_TRUE(received);
        ASSERT_TRUE(receiver->receivedBuffer(received, [&returns] { ++returns; }));
        EXPECT_EQ(received->owningPool(), receiver);
    }
    EXPECT_EQ(receiver->freeBufferCount(), 2);

    auto got = receiver->bufferFromPool();
    ASSERT_TRUE(got);
    EXPECT_EQ(got->length(), 10u);
    EXPECT_EQ(got->mutableBytes(), nullptr);
    ASSERT_NE(got->bytes(), nullptr);
    EXPECT_EQ(memcmp(got->bytes(), "first slot", 10), 0);
    // Received buffers keep the format of their own record.
    EXPECT_EQ(got->sampleRate(), 48000);
    got.reset();
    EXPECT_EQ(returns, 1);

    // A receiving pool only logs when asked to take a buffer back.
    auto stray = NVKXPCAudioBuffer::initWithRecord(second->encodeRecord());
    testing::internal::CaptureStderr();
    receiver->returnBuffer(stray);
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("Asked to return a buffer to a client's pool. Did you forget to set the returnBlock?"),
              std::string::npos);

    // Going away unmaps, unlinks the name and releases what was never taken.
    receiver.reset();
    EXPECT_EQ(returns, 2);
    EXPECT_FALSE(SegmentExists(name));
}

TEST(NVKXPCAudioBufferPool, ReceivingPoolRefusesBadRecordsAndHostileBuffers)
{
    auto sender = MakeStreamPool(4096, 4);
    ASSERT_TRUE(sender);
    SegmentName cleanup{sender->shmemName()};
    GVariant* record = g_variant_ref_sink(sender->encodeRecord());

    // An unknown segment name: the open fails with the system's reason.
    testing::internal::CaptureStderr();
    EXPECT_FALSE(NVKXPCAudioBufferPool::initWithRecord(
        WithEntry(g_variant_ref(record), "NVKShmemName", g_variant_new_string("NVKXPCABN_0xdeadbeef"))));
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("Couldn't shm_open: 2"), std::string::npos) << log;

    // Names that are not this transport's segment names are never opened.
    for (const char* name : {"", "/NVKXPCABN_0x1", "NVKXPCABN_", "NVKXPCABN_0x", "NVKXPCABN_0x12/../x",
                             "other_segment", "NVKXPCABN_0x12345678901234567"}) {
        EXPECT_FALSE(NVKXPCAudioBufferPool::isValidSegmentName(name)) << name;
        EXPECT_FALSE(NVKXPCAudioBufferPool::initWithRecord(
            WithEntry(g_variant_ref(record), "NVKShmemName", g_variant_new_string(name))))
            << name;
    }
    EXPECT_TRUE(NVKXPCAudioBufferPool::isValidSegmentName(sender->shmemName()));

    // Missing keys, wrong types, slot counts and sizes out of range.
    for (const char* key : {"NVKBufferBitsPerSample", "NVKBufferChannelCount", "NVKBufferSampleRate",
                            "NVKBufferCapacity", "NVKMaxNumBuffers", "NVKShmemName"}) {
        EXPECT_FALSE(NVKXPCAudioBufferPool::initWithRecord(WithoutEntry(g_variant_ref(record), key))) << key;
        EXPECT_FALSE(
            NVKXPCAudioBufferPool::initWithRecord(WithEntry(g_variant_ref(record), key, g_variant_new_boolean(TRUE))))
            << key;
    }
    EXPECT_FALSE(NVKXPCAudioBufferPool::initWithRecord(
        WithEntry(g_variant_ref(record), "NVKMaxNumBuffers", g_variant_new_uint64(0))));
    EXPECT_FALSE(NVKXPCAudioBufferPool::initWithRecord(
        WithEntry(g_variant_ref(record), "NVKMaxNumBuffers", g_variant_new_uint64(1000001))));
    EXPECT_FALSE(NVKXPCAudioBufferPool::initWithRecord(
        WithEntry(g_variant_ref(record), "NVKBufferCapacity", g_variant_new_uint64(0))));
    EXPECT_FALSE(NVKXPCAudioBufferPool::initWithRecord(
        WithEntry(g_variant_ref(record), "NVKBufferCapacity", g_variant_new_uint64(16 * 1024 * 1024 + 1))));
    EXPECT_FALSE(NVKXPCAudioBufferPool::initWithRecord(g_variant_new_parsed("@a{sv} {}")));
    EXPECT_FALSE(NVKXPCAudioBufferPool::initWithRecord(nullptr));
    // A record that claims more slots than the segment holds.
    EXPECT_FALSE(NVKXPCAudioBufferPool::initWithRecord(
        WithEntry(g_variant_ref(record), "NVKMaxNumBuffers", g_variant_new_uint64(5))));
    EXPECT_TRUE(SegmentExists(sender->shmemName())) << "refusing must not have been the only check";

    // Whatever a refused record held, the real one still opens.
    auto receiver = NVKXPCAudioBufferPool::initWithRecord(g_variant_ref(record));
    ASSERT_TRUE(receiver);
    auto sent = sender->bufferFromPool();
    int returns = 0;
    auto adopt = [&](GVariant* bufferRecord) {
        auto buffer = NVKXPCAudioBuffer::initWithRecord(bufferRecord);
        return buffer && receiver->receivedBuffer(buffer, [&returns] { ++returns; });
    };
    // Slots past the end of the segment, or reaching past it, are refused.
    EXPECT_FALSE(adopt(WithEntry(sent->encodeRecord(), "NVKOffset", g_variant_new_uint64(4 * 4096))));
    EXPECT_FALSE(adopt(WithEntry(sent->encodeRecord(), "NVKOffset", g_variant_new_uint64(3 * 4096 + 1))));
    EXPECT_FALSE(adopt(WithEntry(sent->encodeRecord(), "NVKOffset", g_variant_new_uint64(UINT64_MAX - 100))));
    EXPECT_FALSE(adopt(WithEntry(WithEntry(sent->encodeRecord(), "NVKOffset", g_variant_new_uint64(4096)),
                                 "NVKShmemSize", g_variant_new_uint64(4 * 4096))));
    EXPECT_EQ(receiver->freeBufferCount(), 0);
    // The last slot, and a slot as large as the whole segment, are fine.
    EXPECT_TRUE(adopt(WithEntry(sent->encodeRecord(), "NVKOffset", g_variant_new_uint64(3 * 4096))));
    EXPECT_TRUE(adopt(WithEntry(sent->encodeRecord(), "NVKShmemSize", g_variant_new_uint64(4 * 4096))));
    // A buffer is adopted once only.
    auto twice = NVKXPCAudioBuffer::initWithRecord(sent->encodeRecord());
    ASSERT_TRUE(receiver->receivedBuffer(twice, [&returns] { ++returns; }));
    EXPECT_FALSE(receiver->receivedBuffer(twice, [] {}));
    twice.reset();
    EXPECT_EQ(returns, 0);
    receiver.reset();
    EXPECT_EQ(returns, 3);
    g_variant_unref(record);
}

TEST(NVKXPCAudioBufferPool, ReceivingPoolRefusesASegmentShorterThanItsRecord)
{
    const std::string name = "NVKXPCABN_0x5eed";
    shm_unlink(name.c_str());
    int fd = shm_open(name.c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, 1000), 0);
    close(fd);
    GVariant* record = g_variant_new_parsed(
        "{'NVKBufferBitsPerSample': <@x 16>, 'NVKBufferChannelCount': <@x 2>, 'NVKBufferSampleRate': <@x 48000>,"
        " 'NVKBufferCapacity': <@t 3840>, 'NVKMaxNumBuffers': <@t 200>, 'NVKShmemName': <'NVKXPCABN_0x5eed'>}");
    EXPECT_FALSE(NVKXPCAudioBufferPool::initWithRecord(record));
    shm_unlink(name.c_str());
}

using NVKXPCAudioBufferPoolDeathTest = ::testing::Test;

TEST_F(NVKXPCAudioBufferPoolDeathTest, SendingPoolCannotAdoptReceivedBuffers)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto pool = MakeStreamPool(64, 2);
    ASSERT_TRUE(pool);
    SegmentName cleanup{pool->shmemName()};
    auto buffer = NVKXPCAudioBuffer::initWithRecord(pool->bufferFromPool()->encodeRecord());
    ASSERT_TRUE(buffer);
    // The dying process made a segment of its own: remove its name first.
    EXPECT_DEATH(
        {
            shm_unlink(pool->shmemName().c_str());
            pool->receivedBuffer(buffer, [] {});
        },
        "NVKXPCAudioBuffer:357: !isXPCService");
}
