// Audio delivery of the window representation to in-process hosts over real
// peer-to-peer D-Bus connections: the message sequence per stream, how
// blocks are cut into slots, and how slots come back.
#include "windows/SLFCefWindowRepresentation.h"

#include "audio_transport/NVKXPCAudioBufferPool.h"
#include "tests/windows/InProcessAudioHost.h"

#include <gtest/gtest.h>

#include <numeric>

using namespace std::chrono_literals;
using Kind = InProcessAudioHost::Kind;

namespace {

constexpr int kBrowser = 7;
constexpr int kStream = 3;

std::vector<uint8_t> Block(size_t size, uint8_t seed)
{
    std::vector<uint8_t> block(size);
    for (size_t i = 0; i < size; ++i)
        block[i] = static_cast<uint8_t>(seed + i * 7 + i / 256);
    return block;
}

class AudioDelivery : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_representation->setBrowserID(kBrowser);
        m_representation->addReceiverProxiesObject(m_proxy, [](int) {});
    }
    void TearDown() override
    {
        // Let every delivery finish before the connections go.
        m_host.CloseHostConnection();
        m_host.PumpUntil([this] { return g_dbus_connection_is_closed(m_host.ServiceConnection()); });
        m_host.PumpFor(50ms);
    }

    bool Deliver(const std::vector<uint8_t>& block, unsigned rate = 48000, unsigned channels = 2, unsigned bits = 16)
    {
        return SLFCefAudioCallback(kStream, const_cast<uint8_t*>(block.data()), static_cast<unsigned>(block.size()),
                                   rate, channels, bits, m_representation.get());
    }
    bool End() { return SLFCefAudioCallback(kStream, nullptr, 0, 0, 0, 0, m_representation.get()); }
    std::shared_ptr<NVKXPCAudioBufferPool> Pool() const
    {
        const auto& pools = m_representation->audioBufferPools();
        const auto entry = pools.find(kStream);
        return entry == pools.end() ? nullptr : entry->second;
    }
    std::vector<InProcessAudioHost::Event>& Events() { return m_host.Events(); }

    InProcessAudioHost m_host;
    SLFCefCallbackProxyRef m_proxy = SLFCefCallbackProxy::Create(m_host.ServiceConnection());
    SLFCefWindowRepresentationRef m_representation = std::make_shared<SLFCefWindowRepresentation>();
};

TEST_F(AudioDelivery, FirstBlockAnnouncesThePoolThenAnEmptyBufferThenTheBlock)
{
    EXPECT_TRUE(m_representation->audioBufferPools().empty());
    const auto block = Block(3840, 1);
    ASSERT_TRUE(Deliver(block));
    ASSERT_TRUE(m_host.WaitForEvents(3));
    m_host.PumpFor(30ms);
    ASSERT_EQ(Events().size(), 3u);

    const auto& start = Events()[0];
    EXPECT_EQ(start.kind, Kind::Start);
    EXPECT_EQ(start.browserID, kBrowser);
    EXPECT_EQ(start.streamID, kStream);
    ASSERT_TRUE(start.pool) << "the host could not open the announced pool";
    EXPECT_EQ(start.pool->bufferSize(), 3840u);
    EXPECT_EQ(start.pool->maxNumBuffers(), 200u);
    EXPECT_EQ(start.pool->sampleRate(), 48000);
    EXPECT_EQ(start.pool->channelCount(), 2);
    EXPECT_EQ(start.pool->bitsPerSample(), 16);

    const auto& empty = Events()[1];
    EXPECT_EQ(empty.kind, Kind::Buffer);
    ASSERT_TRUE(empty.buffer);
    EXPECT_EQ(empty.buffer->length(), 0u);
    EXPECT_EQ(empty.buffer->capacity(), 3840u);

    const auto& data = Events()[2];
    EXPECT_EQ(data.kind, Kind::Buffer);
    EXPECT_EQ(data.browserID, kBrowser);
    EXPECT_EQ(data.streamID, kStream);
    ASSERT_TRUE(data.buffer);
    EXPECT_EQ(data.buffer->length(), 3840u);
    EXPECT_NE(data.buffer->offset(), empty.buffer->offset());
    EXPECT_EQ(data.buffer->sampleRate(), 48000);
    EXPECT_EQ(data.buffer->channelCount(), 2);
    EXPECT_EQ(data.buffer->bitsPerSample(), 16);
    EXPECT_EQ(data.bytes, block);

    ASSERT_TRUE(Pool());
    EXPECT_EQ(Pool()->freeBufferCount(), 198);
    EXPECT_EQ(m_host.HeldReplies(), 2u);
}

TEST_F(AudioDelivery, BlocksAreCutAtTheFirstBlocksSizeAndCarryThePoolsFormat)
{
    ASSERT_TRUE(Deliver(Block(3840, 1)));
    ASSERT_TRUE(m_host.WaitForEvents(3));

    // Bigger than a slot, and in another format: cut into full slots and a
    // partly filled last one, all in the pool's format.
    const auto big = Block(10000, 2);
    ASSERT_TRUE(Deliver(big, 44100, 1, 8));
    ASSERT_TRUE(m_host.WaitForEvents(6));
    std::vector<uint8_t> joined;
    const uint64_t lengths[] = {3840, 3840, 2320};
    for (size_t i = 0; i < 3; ++i) {
        const auto& event = Events()[3 + i];
        ASSERT_EQ(event.kind, Kind::Buffer);
        ASSERT_TRUE(event.buffer);
        EXPECT_EQ(event.buffer->length(), lengths[i]) << i;
        EXPECT_EQ(event.buffer->sampleRate(), 48000) << i;
        EXPECT_EQ(event.buffer->channelCount(), 2) << i;
        EXPECT_EQ(event.buffer->bitsPerSample(), 16) << i;
        joined.insert(joined.end(), event.bytes.begin(), event.bytes.end());
    }
    EXPECT_EQ(joined, big);

    // A small block is not held back to be topped up.
    const auto small = Block(100, 3);
    ASSERT_TRUE(Deliver(small));
    ASSERT_TRUE(m_host.WaitForEvents(7));
    m_host.PumpFor(30ms);
    ASSERT_EQ(Events().size(), 7u);
    ASSERT_TRUE(Events()[6].buffer);
    EXPECT_EQ(Events()[6].buffer->length(), 100u);
    EXPECT_EQ(Events()[6].bytes, small);
    EXPECT_EQ(Pool()->freeBufferCount(), 200 - 6);
}

TEST_F(AudioDelivery, StreamEndDropsThePoolAndSendsNoBufferThenStop)
{
    ASSERT_TRUE(Deliver(Block(3840, 1)));
    ASSERT_TRUE(m_host.WaitForEvents(3));
    ASSERT_TRUE(End());
    EXPECT_TRUE(m_representation->audioBufferPools().empty());
    ASSERT_TRUE(m_host.WaitForEvents(5));
    EXPECT_EQ(Events()[3].kind, Kind::Buffer);
    EXPECT_FALSE(Events()[3].buffer) << "the delivery before the stop carries no buffer";
    EXPECT_EQ(Events()[3].streamID, kStream);
    EXPECT_EQ(Events()[4].kind, Kind::Stop);
    EXPECT_EQ(Events()[4].browserID, kBrowser);
    EXPECT_EQ(Events()[4].streamID, kStream);
    // Slots given back after the pool went change nothing.
    m_host.ReleaseAll();
    m_host.PumpFor(30ms);

    // The same stream ID later starts a new stream with a pool of its own.
    ASSERT_TRUE(Deliver(Block(512, 4)));
    ASSERT_TRUE(m_host.WaitForEvents(8));
    EXPECT_EQ(Events()[5].kind, Kind::Start);
    ASSERT_TRUE(Events()[5].pool);
    EXPECT_EQ(Events()[5].pool->bufferSize(), 512u);
    ASSERT_TRUE(Events()[7].buffer);
    EXPECT_EQ(Events()[7].buffer->length(), 512u);
}

TEST_F(AudioDelivery, FormatOnlyBlocksAndCallsWithoutReceiversSendNothing)
{
    EXPECT_FALSE(SLFCefAudioCallback(kStream, nullptr, 0, 0, 0, 0, nullptr));
    const auto block = Block(3840, 1);
    EXPECT_FALSE(SLFCefAudioCallback(kStream, const_cast<uint8_t*>(block.data()), 3840, 48000, 2, 16, nullptr));

    // The engine's stream start: no bytes, a format.
    ASSERT_TRUE(SLFCefAudioCallback(kStream, nullptr, 0, 48000, 2, 16, m_representation.get()));
    EXPECT_TRUE(m_representation->audioBufferPools().empty());

    // Without receivers blocks make no pool.
    m_representation->removeReceiverProxiesObject(m_proxy);
    ASSERT_TRUE(Deliver(block));
    EXPECT_TRUE(m_representation->audioBufferPools().empty());
    m_host.PumpFor(50ms);
    EXPECT_TRUE(Events().empty());

    // A stream end without receivers is dropped too: the pool stays.
    m_representation->addReceiverProxiesObject(m_proxy, [](int) {});
    ASSERT_TRUE(Deliver(block));
    ASSERT_TRUE(m_host.WaitForEvents(3));
    m_representation->removeReceiverProxiesObject(m_proxy);
    ASSERT_TRUE(End());
    EXPECT_TRUE(Pool());
    m_host.PumpFor(50ms);
    EXPECT_EQ(Events().size(), 3u);
}

TEST_F(AudioDelivery, APoolThatCannotBeMadeDropsTheBlockAndTheNextBlockTriesAgain)
{
    // Larger than any slot a pool may have.
    const std::vector<uint8_t> huge(kNVKXPCAudioBufferMaxSlotSize + 1, 0x11);
    ASSERT_TRUE(Deliver(huge));
    EXPECT_TRUE(m_representation->audioBufferPools().empty());
    m_host.PumpFor(30ms);
    EXPECT_TRUE(Events().empty());

    ASSERT_TRUE(Deliver(Block(256, 5)));
    ASSERT_TRUE(m_host.WaitForEvents(3));
    ASSERT_TRUE(Events()[0].pool);
    EXPECT_EQ(Events()[0].pool->bufferSize(), 256u);
    EXPECT_EQ(Events()[2].buffer->length(), 256u);
}

TEST_F(AudioDelivery, WithEverySlotOutBlocksAreDroppedUntilSlotsComeBack)
{
    // The empty buffer and 199 blocks hold all 200 slots.
    for (int i = 0; i < 200; ++i)
        ASSERT_TRUE(Deliver(Block(100, static_cast<uint8_t>(i))));
    ASSERT_TRUE(m_host.WaitForEvents(201));
    EXPECT_EQ(m_host.HeldReplies(), 200u);
    EXPECT_EQ(Pool()->freeBufferCount(), 0);

    ASSERT_TRUE(Deliver(Block(100, 9)));
    m_host.PumpFor(50ms);
    EXPECT_EQ(Events().size(), 201u);

    // One slot back: a block of three slots' worth sends its first slot only.
    m_host.ReleaseOldest();
    ASSERT_TRUE(m_host.PumpUntil([this] { return Pool()->freeBufferCount() == 1; }));
    const auto block = Block(300, 10);
    ASSERT_TRUE(Deliver(block));
    ASSERT_TRUE(m_host.WaitForEvents(202));
    m_host.PumpFor(50ms);
    ASSERT_EQ(Events().size(), 202u);
    EXPECT_EQ(Events().back().bytes, std::vector<uint8_t>(block.begin(), block.begin() + 100));

    m_host.ReleaseAll();
    ASSERT_TRUE(m_host.PumpUntil([this] { return Pool()->freeBufferCount() == 200; }));
    ASSERT_TRUE(Deliver(Block(100, 11)));
    ASSERT_TRUE(m_host.WaitForEvents(203));
}

TEST_F(AudioDelivery, TwoReceiversShareEachSlotAndEachGivesItBack)
{
    InProcessAudioHost second;
    SLFCefCallbackProxyRef secondProxy = SLFCefCallbackProxy::Create(second.ServiceConnection());
    m_representation->addReceiverProxiesObject(secondProxy, [](int) {});

    const auto block = Block(100, 1);
    ASSERT_TRUE(Deliver(block));
    ASSERT_TRUE(m_host.WaitForEvents(3));
    ASSERT_TRUE(second.WaitForEvents(3));
    for (auto* host : {&m_host, &second}) {
        ASSERT_EQ(host->Events()[0].kind, Kind::Start);
        ASSERT_TRUE(host->Events()[1].buffer);
        EXPECT_EQ(host->Events()[1].buffer->length(), 0u);
        ASSERT_TRUE(host->Events()[2].buffer);
        EXPECT_EQ(host->Events()[2].bytes, block);
    }
    // An empty buffer of its own each; the block's slot is the same for both.
    EXPECT_NE(m_host.Events()[1].buffer->offset(), second.Events()[1].buffer->offset());
    EXPECT_EQ(m_host.Events()[2].buffer->offset(), second.Events()[2].buffer->offset());
    EXPECT_EQ(Pool()->freeBufferCount(), 197);

    // Both receivers give the shared slot back (their empty buffers stay
    // held): one slot, two returns, two more entries in the free list.
    m_host.ReleaseNewest();
    second.ReleaseNewest();
    ASSERT_TRUE(m_host.PumpUntil([this] { return Pool()->freeBufferCount() == 199; }));
    m_host.PumpFor(30ms);
    EXPECT_EQ(Pool()->freeBufferCount(), 199);
    EXPECT_EQ(Pool()->buffersInUse().size(), 2u);

    m_representation->removeReceiverProxiesObject(secondProxy);
    second.CloseHostConnection();
    second.PumpUntil([&] { return g_dbus_connection_is_closed(second.ServiceConnection()); });
}

TEST_F(AudioDelivery, AReceiverThatGoesAwayGivesItsSlotsBack)
{
    ASSERT_TRUE(Deliver(Block(100, 1)));
    ASSERT_TRUE(Deliver(Block(100, 2)));
    ASSERT_TRUE(m_host.WaitForEvents(4));
    EXPECT_EQ(Pool()->freeBufferCount(), 197);
    m_host.CloseHostConnection();
    ASSERT_TRUE(m_host.PumpUntil([this] { return Pool()->freeBufferCount() == 200; }));
}

} // namespace
