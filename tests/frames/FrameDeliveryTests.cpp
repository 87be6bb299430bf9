// Frame delivery of the window representation to in-process hosts.
#include "tests/windows/InProcessRecordingHost.h"
#include "windows/SLFCefWindowRepresentation.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;

std::vector<unsigned char> SolidImage(uint32_t width, uint32_t height, uint32_t argb)
{
    std::vector<unsigned char> image(size_t(width) * height * 4);
    for (size_t i = 0; i < image.size(); i += 4)
        for (int c = 0; c < 4; ++c)
            image[i + c] = (argb >> (8 * c)) & 0xFF;
    return image;
}

class FrameDelivery : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_rep->setBrowserID(7);
        m_rep->setSize({10, 3});
    }
    void TearDown() override // the members then go in reverse order: representation, proxy, host
    {
        m_host->ReleaseAll();
        m_host->Pump();
    }

    void AddReceiver(const SLFCefCallbackProxyRef& proxy)
    {
        m_rep->addReceiverProxiesObject(proxy, [](int) {});
    }
    bool Deliver(const std::vector<unsigned char>& image)
    {
        return SLFCefVideoFrameCallback(const_cast<unsigned char*>(image.data()),
                                        static_cast<unsigned int>(image.size()), m_rep.get());
    }
    bool WaitForFrames(size_t count)
    {
        return m_host->PumpUntil([&] { return m_host->FramesReceived() >= count; });
    }
    size_t Outstanding()
    {
        return m_rep->pixelBufferPool() ? m_rep->pixelBufferPool()->GetOutstandingBufferCount() : 0;
    }
    bool WaitForAllBack()
    {
        return m_host->PumpUntil([&] { return Outstanding() == 0; });
    }

    std::unique_ptr<InProcessRecordingHost> m_host = std::make_unique<InProcessRecordingHost>();
    SLFCefCallbackProxyRef m_proxy = SLFCefCallbackProxy::Create(m_host->ServiceConnection());
    SLFCefWindowRepresentationRef m_rep = std::make_shared<SLFCefWindowRepresentation>();
};

TEST_F(FrameDelivery, RowsArePlacedAtTheStrideAndPaddingIsLeftAlone)
{
    // Without receivers nothing is made or counted.
    EXPECT_TRUE(Deliver(SolidImage(10, 3, 0xFF112233)));
    EXPECT_FALSE(m_rep->pixelBufferPool());
    EXPECT_EQ(m_rep->numPixelBuffersArrivedSoFar(), 0);

    AddReceiver(m_proxy);
    // A poisoned buffer given back is reused next: its padding must stay poisoned.
    auto pool = m_rep->pixelBufferPoolWithSize({10, 3});
    ASSERT_TRUE(pool);
    ASSERT_EQ(pool->GetBytesPerRow(), 64u);
    {
        CNplPixelBuffer* raw = nullptr;
        ASSERT_EQ(pool->CreatePixelBuffer(nullptr, &raw), kNplPixelBufferSuccess);
        NplPixelBufferPtr buffer(raw);
        std::memset(buffer->GetBaseAddress(), 0xEE, buffer->GetDataSize());
    }
    std::vector<unsigned char> image(10 * 3 * 4);
    for (size_t i = 0; i < image.size(); ++i)
        image[i] = static_cast<unsigned char>(i);
    ASSERT_TRUE(Deliver(image));
    ASSERT_TRUE(WaitForFrames(1));
    const auto& frame = m_host->Frames().front();
    EXPECT_EQ(frame.browserID, 7);
    EXPECT_TRUE(frame.properties.width == 10u && frame.properties.height == 3u && frame.properties.bytesPerRow == 64u);
    for (int row = 0; row < 3; ++row) {
        EXPECT_EQ(std::memcmp(frame.pixels + row * 64, image.data() + row * 40, 40), 0) << row;
        for (int pad = 40; pad < 64; ++pad)
            ASSERT_EQ(frame.pixels[row * 64 + pad], 0xEE) << row << "/" << pad;
    }

    // A fractional size paints whole pixels: rows of 10 pixels are read at
    // 40 bytes each, not 42.
    m_rep->setSize({10.5, 3.7});
    ASSERT_TRUE(Deliver(image));
    ASSERT_TRUE(WaitForFrames(2));
    const auto& fractional = m_host->Frames().back();
    EXPECT_TRUE(fractional.properties.width == 10u && fractional.properties.height == 3u);
    for (int row = 0; row < 3; ++row)
        EXPECT_EQ(std::memcmp(fractional.pixels + row * 64, image.data() + row * 40, 40), 0) << row;
}

TEST_F(FrameDelivery, EveryReceiverGetsTheSurfaceAndItIsReusedOnlyWhenAllHaveLetGo)
{
    auto second = std::make_unique<InProcessRecordingHost>();
    auto secondProxy = SLFCefCallbackProxy::Create(second->ServiceConnection());
    AddReceiver(m_proxy);
    AddReceiver(secondProxy);
    ASSERT_TRUE(Deliver(SolidImage(10, 3, 0x80FF0000)));
    ASSERT_TRUE(WaitForFrames(1));
    ASSERT_TRUE(second->PumpUntil([&] { return second->FramesReceived() == 1; }));
    const uint64_t id = m_host->Frames().front().properties.surfaceID;
    EXPECT_EQ(second->Frames().front().properties.surfaceID, id);
    EXPECT_EQ(second->Frames().front().Pixel(9, 2), 0x80FF0000u);

    m_host->ReleaseAll();
    m_host->PumpFor(50ms);
    EXPECT_EQ(Outstanding(), 1u); // the second host still holds it
    ASSERT_TRUE(Deliver(SolidImage(10, 3, 0xFF00FF00)));
    ASSERT_TRUE(WaitForFrames(2));
    EXPECT_NE(m_host->Frames().back().properties.surfaceID, id);
    ASSERT_TRUE(second->PumpUntil([&] { return second->FramesReceived() == 2; }));
    m_host->ReleaseAll();
    second->ReleaseAll();
    ASSERT_TRUE(WaitForAllBack());
    EXPECT_EQ(m_rep->pixelBufferPool()->GetCreatedBufferCount(), 2u);
    m_rep->removeReceiverProxiesObject(secondProxy);
    secondProxy.reset();
    second.reset();
}

// The painting thread's context may never run again; a host's letting go must still be seen.
TEST_F(FrameDelivery, AHostsLettingGoIsSeenEvenWhenTheSendingThreadsContextNeverRunsAgain)
{
    AddReceiver(m_proxy);
    std::thread painter([&] {
        GMainContext* idle = g_main_context_new();
        g_main_context_push_thread_default(idle);
        Deliver(SolidImage(10, 3, 0xFF0000FF));
        g_main_context_pop_thread_default(idle);
        g_main_context_unref(idle);
    });
    painter.join();
    ASSERT_TRUE(WaitForFrames(1));
    EXPECT_EQ(Outstanding(), 1u);
    m_host->ReleaseAll();
    EXPECT_TRUE(WaitForAllBack());
}

// 30 held frames drop the next silently; one let go resumes; a closed host lets go of all.
TEST_F(FrameDelivery, ThirtyHeldFramesDropTheNextSilentlyAndLettingGoResumes)
{
    AddReceiver(m_proxy);
    auto image = SolidImage(10, 3, 0xFF0000FF);
    for (int i = 0; i < 30; ++i)
        ASSERT_TRUE(Deliver(image));
    ASSERT_TRUE(WaitForFrames(30));
    testing::internal::CaptureStderr();
    ASSERT_TRUE(Deliver(image));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(m_rep->numPixelBuffersArrivedSoFar(), 31);
    m_host->PumpFor(50ms);
    EXPECT_EQ(m_host->FramesReceived(), 30u);

    m_host->ReleaseOldestFrame();
    ASSERT_TRUE(m_host->PumpUntil([&] { return Outstanding() == 29; }));
    ASSERT_TRUE(Deliver(image));
    ASSERT_TRUE(WaitForFrames(31));
    // Frame numbers count the dropped frame too: the host sees 1 to 30, then 32.
    for (size_t i = 0; i < 29; ++i)
        ASSERT_EQ(m_host->Frames()[i].properties.frameSequence, i + 2) << i;
    EXPECT_EQ(m_host->Frames().back().properties.frameSequence, 32u);
    EXPECT_EQ(m_rep->pixelBufferPool()->GetCreatedBufferCount(), 30u);
    m_host->CloseHostConnection();
    ASSERT_TRUE(WaitForAllBack());
    EXPECT_EQ(m_rep->pixelBufferPool()->GetFreeBufferCount(), 30u);
}

TEST_F(FrameDelivery, TheTenthFramesFlushBuffersUnusedForMoreThanASecond)
{
    AddReceiver(m_proxy);
    auto image = SolidImage(10, 3, 0xFFFFFFFF);
    auto deliverAndLetGo = [&](size_t n) {
        ASSERT_TRUE(Deliver(image));
        ASSERT_TRUE(WaitForFrames(n));
        m_host->ReleaseAll();
        ASSERT_TRUE(WaitForAllBack());
    };
    ASSERT_TRUE(Deliver(image));
    deliverAndLetGo(2);
    auto pool = m_rep->pixelBufferPool();
    ASSERT_EQ(pool->GetFreeBufferCount(), 2u);
    std::this_thread::sleep_for(1100ms);
    // Frames 3 to 9 reuse one buffer; only the tenth flushes the idle one.
    for (size_t n = 3; n <= 9; ++n)
        deliverAndLetGo(n);
    EXPECT_EQ(pool->GetFreeBufferCount(), 2u);
    deliverAndLetGo(10);
    EXPECT_EQ(pool->GetFreeBufferCount(), 1u);
    EXPECT_EQ(m_rep->numPixelBuffersArrivedSoFar(), 10);
}

TEST_F(FrameDelivery, AfterAResizeTheNextFrameHasTheNewSizeAndOldBuffersStayValid)
{
    AddReceiver(m_proxy);
    ASSERT_TRUE(Deliver(SolidImage(10, 3, 0xFF123456)));
    ASSERT_TRUE(WaitForFrames(1));
    std::weak_ptr<CNplPixelBufferPool> oldPool = m_rep->pixelBufferPool();
    m_rep->setSize({33, 5});
    EXPECT_FALSE(m_rep->pixelBufferPool());
    EXPECT_TRUE(oldPool.expired()); // dropped; its held buffer lives on
    ASSERT_TRUE(Deliver(SolidImage(33, 5, 0xFF654321)));
    ASSERT_TRUE(WaitForFrames(2));
    const auto& before = m_host->Frames().front();
    const auto& after = m_host->Frames().back();
    EXPECT_TRUE(before.properties.width == 10u && before.Pixel(9, 2) == 0xFF123456u);
    EXPECT_TRUE(after.properties.width == 33u && after.properties.height == 5u && after.properties.bytesPerRow == 192u);
    EXPECT_EQ(after.Pixel(32, 4), 0xFF654321u);
    m_host->ReleaseAll(); // the old pool's last buffer comes back and is freed
    ASSERT_TRUE(WaitForAllBack());
    EXPECT_EQ(m_rep->pixelBufferPool()->GetFreeBufferCount(), 1u);
}

} // namespace
