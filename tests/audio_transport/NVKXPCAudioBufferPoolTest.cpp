#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <fcntl.h>
#include <set>
#include <string>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "audio_transport/NVKXPCAudioBuffer.h"
#include "audio_transport/NVKXPCAudioBufferPool.h"
#include "tests/audio_transport/TestRecords.h"

namespace {

// A sending pool in the stream format (its segment goes with it).
struct SendingPool {
    std::shared_ptr<NVKXPCAudioBufferPool> pool;
    SendingPool(uint64_t size, uint64_t count) : pool(NVKXPCAudioBufferPool::initWithBufferSize(size, count))
    {
        pool->setSampleRate(48000);
        pool->setChannelCount(2);
        pool->setBitsPerSample(16);
    }
    NVKXPCAudioBufferPool* operator->() { return pool.get(); }
};

bool SegmentExists(const std::string& name)
{
    const int fd = shm_open(name.c_str(), O_RDONLY, 0600);
    return fd >= 0 && close(fd) == 0;
}

} // namespace

TEST(NVKXPCAudioBufferPool, SlotsAreCarvedInAscendingOrderAndRunOut)
{
    SendingPool pool(3840, 200);
    EXPECT_EQ(pool->shmemSize(), 768000u);
    std::vector<std::shared_ptr<NVKXPCAudioBuffer>> taken;
    for (uint64_t i = 0; i < 200; ++i) {
        taken.push_back(pool->bufferFromPool());
        ASSERT_TRUE(taken.back());
        EXPECT_EQ(taken.back()->offset(), i * 3840);
        EXPECT_EQ(taken.back()->bytes(), static_cast<const uint8_t*>(pool->mappedMemory()) + i * 3840);
    }
    EXPECT_EQ(pool->bufferFromPool(), nullptr);
    EXPECT_EQ(pool->buffersInUse().size(), 200u);

    // A returned slot comes out again emptied, in the pool's current format.
    taken[7]->appendBytes("abcdef", 6);
    pool->setSampleRate(44100);
    pool->setChannelCount(1);
    pool->setBitsPerSample(32);
    taken[7]->returnToPool();
    EXPECT_EQ(pool->buffersInUse().size(), 199u);
    auto again = pool->bufferFromPool();
    ASSERT_EQ(again, taken[7]);
    EXPECT_TRUE(again->length() == 0u && again->sampleRate() == 44100 && again->channelCount() == 1 &&
                again->bitsPerSample() == 32);

    for (const auto& [size, count] :
         {std::pair<uint64_t, uint64_t> {0, 200}, {3840, 0}, {16 * 1024 * 1024 + 1, 1}, {1, 1000001}})
        EXPECT_FALSE(NVKXPCAudioBufferPool::initWithBufferSize(size, count)) << size << " " << count;

    // Pool and buffers do not keep each other alive; a late reply does nothing.
    std::weak_ptr<NVKXPCAudioBufferPool> weak;
    std::shared_ptr<NVKXPCAudioBuffer> outstanding;
    {
        SendingPool other(64, 8);
        weak = other.pool;
        outstanding = other->bufferFromPool();
    }
    EXPECT_TRUE(weak.expired());
    outstanding->returnToPool();
}

TEST(NVKXPCAudioBufferPool, ReturnsFromManyThreadsAtOnce)
{
    SendingPool pool(128, 200);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&pool, t] {
            const uint8_t byte = static_cast<uint8_t>(t);
            for (int i = 0; i < 200; ++i)
                if (auto buffer = pool->bufferFromPool()) {
                    buffer->appendBytes(&byte, 1);
                    buffer->returnToPool();
                }
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_TRUE(pool->buffersInUse().empty());
    std::set<uint64_t> offsets;
    while (auto buffer = pool->bufferFromPool())
        offsets.insert(buffer->offset());
    EXPECT_EQ(offsets.size(), 200u);
}

// A host may hold a stopped stream's segment, and unlink its name, after the
// next stream has started here: later pools never take an earlier pool's name.
TEST(NVKXPCAudioBufferPool, LaterPoolsNeverReuseASegmentName)
{
    std::set<std::string> names;
    for (int i = 0; i < 50; ++i)
        names.insert(SendingPool(64, 2)->shmemName());
    EXPECT_EQ(names.size(), 50u);

    auto stopped = NVKXPCAudioBufferPool::initWithBufferSize(64, 2);
    auto host = NVKXPCAudioBufferPool::initWithRecord(stopped->encodeRecord());
    ASSERT_TRUE(host);
    stopped.reset();
    SendingPool next(64, 2);
    host.reset();
    EXPECT_TRUE(NVKXPCAudioBufferPool::initWithRecord(next->encodeRecord()));
}

TEST(NVKXPCAudioBufferPool, ReceivingPoolRefusesBadRecordsAndHostileBuffers)
{
    SendingPool sender(4096, 4);
    GVariant* record = g_variant_ref_sink(sender->encodeRecord());
    auto opens = [&](const char* key, GVariant* value) {
        return NVKXPCAudioBufferPool::initWithRecord(Edited(g_variant_ref(record), key, value)) != nullptr;
    };
    // An unknown segment, and names that are not this transport's segment
    // names (those are never opened).
    for (const char* name : {"NVKXPCABN_0xdeadbeef", "", "/NVKXPCABN_0x1", "NVKXPCABN_", "NVKXPCABN_0x",
                             "NVKXPCABN_0x12/../x", "other", "NVKXPCABN_0x12345678901234567"})
        EXPECT_FALSE(opens("NVKShmemName", g_variant_new_string(name))) << name;
    for (const char* key : {"NVKBufferBitsPerSample", "NVKBufferChannelCount", "NVKBufferSampleRate",
                            "NVKBufferCapacity", "NVKMaxNumBuffers", "NVKShmemName"}) {
        EXPECT_FALSE(opens(key, nullptr)) << key;
        EXPECT_FALSE(opens(key, g_variant_new_boolean(TRUE))) << key;
    }
    // Slot counts and sizes out of range, more slots than the segment holds.
    for (uint64_t count : {0, 1000001, 5})
        EXPECT_FALSE(opens("NVKMaxNumBuffers", g_variant_new_uint64(count))) << count;
    for (uint64_t capacity : {0, 16 * 1024 * 1024 + 1})
        EXPECT_FALSE(opens("NVKBufferCapacity", g_variant_new_uint64(capacity))) << capacity;
    EXPECT_FALSE(NVKXPCAudioBufferPool::initWithRecord(nullptr));

    // Slots past or reaching past the segment's end are refused.
    auto receiver = NVKXPCAudioBufferPool::initWithRecord(record);
    ASSERT_TRUE(receiver);
    auto sent = sender->bufferFromPool();
    int returns = 0;
    auto adopts = [&](uint64_t offset, uint64_t size) {
        auto buffer = NVKXPCAudioBuffer::initWithRecord(
            Edited(Edited(sent->encodeRecord(), "NVKOffset", g_variant_new_uint64(offset)), "NVKShmemSize",
                   g_variant_new_uint64(size)));
        return buffer && receiver->receivedBuffer(buffer, [&returns] { ++returns; });
    };
    for (const auto& [offset, size] : {std::pair<uint64_t, uint64_t> {4 * 4096, 4096},
                                       {3 * 4096 + 1, 4096},
                                       {UINT64_MAX - 100, 4096},
                                       {4096, 4 * 4096}})
        EXPECT_FALSE(adopts(offset, size)) << offset;
    EXPECT_EQ(receiver->freeBufferCount(), 0);
    EXPECT_TRUE(adopts(3 * 4096, 4096) && adopts(0, 4 * 4096)); // the last slot, a whole-segment slot
    auto held = NVKXPCAudioBuffer::initWithRecord(sent->encodeRecord());
    EXPECT_TRUE(receiver->receivedBuffer(held, [] {}));
    EXPECT_FALSE(receiver->receivedBuffer(held, [] {})); // adopted once only
    EXPECT_EQ(held->mutableBytes(), nullptr);
    receiver.reset();
    EXPECT_EQ(returns, 2);
    // The receiver leaves the name to its creator (another host may not have
    // opened it yet).
    EXPECT_TRUE(SegmentExists(sender->shmemName()));

    // A segment shorter than its record claims.
    const int fd = shm_open("NVKXPCABN_0x5eed", O_RDWR | O_CREAT, 0600);
    ASSERT_EQ(ftruncate(fd, 1000), 0);
    close(fd);
    EXPECT_FALSE(opens("NVKShmemName", g_variant_new_string("NVKXPCABN_0x5eed")));
    shm_unlink("NVKXPCABN_0x5eed");
    g_variant_unref(record);
}

TEST(NVKXPCAudioBufferPoolDeathTest, SendingPoolCannotAdoptReceivedBuffers)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    SendingPool pool(64, 2);
    auto buffer = NVKXPCAudioBuffer::initWithRecord(pool->bufferFromPool()->encodeRecord());
    // The dying process made a segment of its own: remove its name first.
    EXPECT_DEATH(
        {
            NVKXPCAudioBufferPool::unlinkAllSegments();
            pool->receivedBuffer(buffer, [] {});
        },
        "NVKXPCAudioBuffer:357: !isXPCService");
}

// Segments are private to the user, reserved whole at creation, and their
// names go with the creating pool or when the process ends; receivers map
// them but never unlink.
TEST(NVKXPCAudioBufferPool, SegmentsArePrivateReservedAndUnlinkedByTheirCreator)
{
    auto first = NVKXPCAudioBufferPool::initWithBufferSize(3840, 200);
    auto second = NVKXPCAudioBufferPool::initWithBufferSize(64, 4);
    ASSERT_TRUE(first && second);
    struct stat status = {};
    ASSERT_EQ(stat(("/dev/shm/" + first->shmemName()).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
    EXPECT_GE(static_cast<uint64_t>(status.st_blocks) * 512, first->shmemSize()) << "the space was not reserved";

    auto host = NVKXPCAudioBufferPool::initWithRecord(first->encodeRecord());
    auto otherHost = NVKXPCAudioBufferPool::initWithRecord(first->encodeRecord());
    ASSERT_TRUE(host && otherHost);
    host.reset();
    EXPECT_TRUE(SegmentExists(first->shmemName()));
    const std::string firstName = first->shmemName();
    first.reset();
    EXPECT_FALSE(SegmentExists(firstName));
    // A host that still maps the segment reads on.
    ASSERT_NE(otherHost->mappedMemory(), nullptr);
    EXPECT_EQ(static_cast<const uint8_t*>(otherHost->mappedMemory())[767999], 0);

    // At exit every live segment goes; the pools themselves still work.
    NVKXPCAudioBufferPool::unlinkAllSegments();
    EXPECT_FALSE(SegmentExists(second->shmemName()));
    auto buffer = second->bufferFromPool();
    ASSERT_TRUE(buffer);
    buffer->appendBytes("pcm", 3);
    EXPECT_EQ(buffer->length(), 3u);
}

// A /dev/shm too full for a pool gives no pool and a log line, never a
// fault in a later copy; smaller pools still fit. Runs in a child with a
// private mount namespace holding a 64 KiB /dev/shm.
TEST(NVKXPCAudioBufferPool, FullSharedMemoryGivesNoPool)
{
    constexpr int kCannotMount = 77;
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("tmpfs", "/dev/shm", "tmpfs", MS_NOSUID | MS_NODEV, "size=64k,mode=1777") != 0)
            _exit(kCannotMount);
        auto big = NVKXPCAudioBufferPool::initWithBufferSize(3840, 200); // 768000 bytes
        auto small = NVKXPCAudioBufferPool::initWithBufferSize(3840, 4);
        bool ok = !big && small;
        // Filling most of the rest leaves room for no other pool of that size.
        auto filler = NVKXPCAudioBufferPool::initWithBufferSize(4096, 10);
        auto another = NVKXPCAudioBufferPool::initWithBufferSize(3840, 4);
        ok = ok && filler && !another;
        if (small) {
            auto slot = small->bufferFromPool();
            std::vector<uint8_t> pcm(3840, 7);
            slot->appendBytes(pcm.data(), pcm.size());
            ok = ok && slot->length() == 3840;
        }
        _exit(ok ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    if (WIFEXITED(status) && WEXITSTATUS(status) == kCannotMount)
        GTEST_SKIP() << "no private mount namespace here (needs CAP_SYS_ADMIN)";
    ASSERT_TRUE(WIFEXITED(status)) << "the child died of signal " << WTERMSIG(status);
    EXPECT_EQ(WEXITSTATUS(status), 0);
}
