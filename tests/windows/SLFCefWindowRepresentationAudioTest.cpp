// Audio delivery of the window representation to in-process hosts.
#include "windows/SLFCefWindowRepresentation.h"

#include "audio_transport/NVKXPCAudioBufferPool.h"
#include "tests/windows/InProcessRecordingHost.h"

#include <gtest/gtest.h>

using namespace std::chrono_literals;
using Kind = InProcessRecordingHost::Kind;

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
    std::vector<InProcessRecordingHost::Event>& Events() { return m_host.Events(); }
    // Waits for n events, then a little longer to see that no more come.
    void ExpectEvents(size_t n)
    {
        EXPECT_TRUE(m_host.WaitForEvents(n));
        m_host.PumpFor(30ms);
        EXPECT_EQ(Events().size(), n);
    }
    static bool HasFormat(const std::shared_ptr<NVKXPCAudioBuffer>& b, int64_t rate, int64_t channels, int64_t bits)
    {
        return b && b->sampleRate() == rate && b->channelCount() == channels && b->bitsPerSample() == bits;
    }

    InProcessRecordingHost m_host;
    SLFCefCallbackProxyRef m_proxy = SLFCefCallbackProxy::Create(m_host.ServiceConnection());
    SLFCefWindowRepresentationRef m_representation = std::make_shared<SLFCefWindowRepresentation>();
};

// First block: pool (its size and format), empty buffer, block. Later blocks
// are cut into slots in the pool's format; the end sends "no buffer", then stop.
TEST_F(AudioDelivery, AStreamFromItsFirstBlockToItsStop)
{
    const auto first = Block(3840, 1);
    ASSERT_TRUE(Deliver(first));
    ExpectEvents(3);
    ASSERT_GE(Events().size(), 3u);
    const auto& start = Events()[0];
    EXPECT_TRUE(start.kind == Kind::Start && start.browserID == kBrowser && start.streamID == kStream);
    ASSERT_TRUE(start.pool) << "the host could not open the announced pool";
    EXPECT_TRUE(start.pool->bufferSize() == 3840u && start.pool->maxNumBuffers() == 200u &&
                start.pool->sampleRate() == 48000 && start.pool->channelCount() == 2 &&
                start.pool->bitsPerSample() == 16);
    const auto& empty = Events()[1];
    ASSERT_TRUE(empty.kind == Kind::Buffer && empty.buffer);
    EXPECT_EQ(empty.buffer->length(), 0u);
    const auto& data = Events()[2];
    ASSERT_TRUE(data.kind == Kind::Buffer && data.buffer);
    EXPECT_TRUE(data.browserID == kBrowser && data.streamID == kStream);
    EXPECT_NE(data.buffer->offset(), empty.buffer->offset());
    EXPECT_TRUE(HasFormat(data.buffer, 48000, 2, 16));
    EXPECT_EQ(data.bytes, first);
    EXPECT_EQ(m_host.HeldBuffers(), 2u);

    const auto big = Block(10000, 2);
    ASSERT_TRUE(Deliver(big, 44100, 1, 8));
    ASSERT_TRUE(m_host.WaitForEvents(6));
    std::vector<uint8_t> joined;
    const uint64_t lengths[] = {3840, 3840, 2320};
    for (size_t i = 0; i < 3; ++i) {
        const auto& event = Events()[3 + i];
        ASSERT_TRUE(event.kind == Kind::Buffer && HasFormat(event.buffer, 48000, 2, 16)) << i;
        EXPECT_EQ(event.buffer->length(), lengths[i]) << i;
        joined.insert(joined.end(), event.bytes.begin(), event.bytes.end());
    }
    EXPECT_EQ(joined, big);
    // A slot plays as long after the block's first sample as the bytes
    // before it last, in the block's format (44100 bytes a second here).
    const uint64_t blockTime = Events()[3].buffer->presentationTime();
    EXPECT_GE(blockTime, Events()[2].buffer->presentationTime());
    EXPECT_NEAR(double(Events()[4].buffer->presentationTime() - blockTime), 3840e6 / 44100, 1);
    EXPECT_NEAR(double(Events()[5].buffer->presentationTime() - blockTime), 7680e6 / 44100, 1);
    const auto small = Block(100, 3);
    ASSERT_TRUE(Deliver(small));
    ExpectEvents(7);
    EXPECT_EQ(Events()[6].bytes, small);
    EXPECT_EQ(Pool()->freeBufferCount(), 200 - 6);

    ASSERT_TRUE(End());
    EXPECT_TRUE(m_representation->audioBufferPools().empty());
    ASSERT_TRUE(m_host.WaitForEvents(9));
    EXPECT_TRUE(Events()[7].kind == Kind::Buffer && !Events()[7].buffer && Events()[7].streamID == kStream);
    EXPECT_TRUE(Events()[8].kind == Kind::Stop && Events()[8].browserID == kBrowser && Events()[8].streamID == kStream);
    m_host.ReleaseAll(); // slots given back after the pool went change nothing
    m_host.PumpFor(30ms);
    ASSERT_TRUE(Deliver(Block(512, 4)));
    ASSERT_TRUE(m_host.WaitForEvents(12));
    ASSERT_TRUE(Events()[9].kind == Kind::Start && Events()[9].pool);
    EXPECT_EQ(Events()[9].pool->bufferSize(), 512u);
    EXPECT_EQ(Events()[11].bytes.size(), 512u);
}

// Format-only starts, calls without context or receivers, and oversized blocks send nothing.
TEST_F(AudioDelivery, FormatOnlyBlocksAndBlocksWithoutReceiversOrPoolSendNothing)
{
    const auto block = Block(256, 1);
    EXPECT_FALSE(SLFCefAudioCallback(kStream, nullptr, 0, 0, 0, 0, nullptr));
    EXPECT_FALSE(SLFCefAudioCallback(kStream, const_cast<uint8_t*>(block.data()), 256, 48000, 2, 16, nullptr));
    ASSERT_TRUE(SLFCefAudioCallback(kStream, nullptr, 0, 48000, 2, 16, m_representation.get()));
    ASSERT_TRUE(Deliver(std::vector<uint8_t>(kNVKXPCAudioBufferMaxSlotSize + 1, 0x11)));
    m_representation->removeReceiverProxiesObject(m_proxy);
    ASSERT_TRUE(Deliver(block));
    EXPECT_TRUE(m_representation->audioBufferPools().empty());
    m_host.PumpFor(50ms);
    EXPECT_TRUE(Events().empty());

    // A stream end without receivers is dropped too: the pool stays.
    m_representation->addReceiverProxiesObject(m_proxy, [](int) {});
    ASSERT_TRUE(Deliver(block));
    ASSERT_TRUE(m_host.WaitForEvents(3));
    EXPECT_EQ(Events()[2].bytes, block);
    m_representation->removeReceiverProxiesObject(m_proxy);
    ASSERT_TRUE(End());
    EXPECT_TRUE(Pool());
    ExpectEvents(3);
}

// With all 200 slots out blocks are dropped; a returned slot carries the next block's first slot.
TEST_F(AudioDelivery, WithEverySlotOutBlocksAreDroppedUntilSlotsComeBack)
{
    for (int i = 0; i < 200; ++i) // the empty buffer and 199 blocks
        ASSERT_TRUE(Deliver(Block(100, static_cast<uint8_t>(i))));
    ASSERT_TRUE(m_host.WaitForEvents(201));
    EXPECT_EQ(m_host.HeldBuffers(), 200u);
    EXPECT_EQ(Pool()->freeBufferCount(), 0);
    ASSERT_TRUE(Deliver(Block(100, 9)));
    ExpectEvents(201);

    m_host.ReleaseBuffer();
    ASSERT_TRUE(m_host.PumpUntil([this] { return Pool()->freeBufferCount() == 1; }));
    const auto block = Block(300, 10);
    ASSERT_TRUE(Deliver(block));
    ExpectEvents(202);
    EXPECT_EQ(Events().back().bytes, std::vector<uint8_t>(block.begin(), block.begin() + 100));

    m_host.CloseHostConnection();
    ASSERT_TRUE(m_host.PumpUntil([this] { return Pool()->freeBufferCount() == 200; }));
}

// Each receiver gets its own empty buffer, then the shared block slot, which both give back.
TEST_F(AudioDelivery, TwoReceiversShareEachSlotAndEachGivesItBack)
{
    InProcessRecordingHost second;
    SLFCefCallbackProxyRef secondProxy = SLFCefCallbackProxy::Create(second.ServiceConnection());
    m_representation->addReceiverProxiesObject(secondProxy, [](int) {});
    const auto block = Block(100, 1);
    ASSERT_TRUE(Deliver(block));
    ASSERT_TRUE(m_host.WaitForEvents(3));
    ASSERT_TRUE(second.WaitForEvents(3));
    for (auto* host : {&m_host, &second}) {
        ASSERT_TRUE(host->Events()[0].kind == Kind::Start && host->Events()[1].buffer && host->Events()[2].buffer);
        EXPECT_EQ(host->Events()[1].buffer->length(), 0u);
        EXPECT_EQ(host->Events()[2].bytes, block);
    }
    EXPECT_NE(m_host.Events()[1].buffer->offset(), second.Events()[1].buffer->offset());
    EXPECT_EQ(m_host.Events()[2].buffer->offset(), second.Events()[2].buffer->offset());
    EXPECT_EQ(Pool()->freeBufferCount(), 197);

    m_host.ReleaseBuffer(true);
    second.ReleaseBuffer(true);
    ASSERT_TRUE(m_host.PumpUntil([this] { return Pool()->freeBufferCount() == 199; }));
    m_host.PumpFor(30ms);
    EXPECT_EQ(Pool()->freeBufferCount(), 199);
    EXPECT_EQ(Pool()->buffersInUse().size(), 2u);

    m_representation->removeReceiverProxiesObject(secondProxy);
    second.CloseHostConnection();
    second.PumpUntil([&] { return g_dbus_connection_is_closed(second.ServiceConnection()); });
}

} // namespace
