// NVKXPCAudioBufferPool: one POSIX shared-memory segment cut into equal slots,
// and the NVKXPCAudioBuffer objects that describe them. One pool per audio
// stream.
//
// Sending side (the service; isXPCService() true):
//     auto pool = NVKXPCAudioBufferPool::initWithBufferSize(3840, 200);
//     pool->setSampleRate(48000); pool->setChannelCount(2); pool->setBitsPerSample(16);
//     GVariant* poolRecord = pool->encodeRecord();        // send once per stream
//     auto buffer = pool->bufferFromPool();               // null when all slots are out
//     buffer->appendBytes(pcm, n);
//     GVariant* bufferRecord = buffer->encodeRecord();    // send; on each reply:
//     buffer->returnToPool();
//
// Receiving side (the host library; isXPCService() false):
//     // on BrowserWillStartAudioStream (pool record a{sv}):
//     auto pool = NVKXPCAudioBufferPool::initWithRecord(poolRecord);  // null on failure
//     // on BrowserDidReceiveAudioStream (buffer record a{sv}, reply pending):
//     auto buffer = NVKXPCAudioBuffer::initWithRecord(bufferRecord);  // null: no buffer
//     if (buffer && pool->receivedBuffer(buffer, [invocation] { reply(invocation); })) {
//         buffer.reset();
//         auto next = pool->bufferFromPool();   // received buffers come out in order
//         read(next->bytes(), next->length());  // read-only view of the slot
//     }                                         // last reference gone: the reply is sent
//
// The receiving pool's mapping is what received buffers' bytes() point into:
// keep the pool alive for as long as any of its buffers is read. When
// receivedBuffer refuses a buffer (slot outside the segment, buffer already
// adopted, or too many waiting) the return block was not attached, or the
// buffer was not queued: the caller still owns the reply it was going to send
// (on a full queue the block is attached and runs when the caller drops the
// buffer). Destroying the receiving pool unmaps the segment and releases the
// buffers that were never taken (running their blocks).
//
// Segments are made with mode 0600 and their whole size reserved at once
// (a full /dev/shm fails the pool instead of a later write). The creating
// side owns the name: destroying its pool unlinks it, and
// unlinkAllSegments() (also run at exit) unlinks every name still live.
//
// Pool record (GVariant a{sv}):
//   "NVKBufferBitsPerSample" x, "NVKBufferChannelCount" x,
//   "NVKBufferSampleRate" x, "NVKBufferCapacity" t (slot size),
//   "NVKMaxNumBuffers" t (slot count), "NVKShmemName" s (segment name).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <glib.h>

#include "audio_transport/NVKXPCAudioBuffer.h"
#include "platform/NplRefQueue.h"

class NVKXPCAudioBufferPool : public std::enable_shared_from_this<NVKXPCAudioBufferPool> {
public:
    using ReturnBlock = NVKXPCAudioBuffer::ReturnBlock;

    // Sending side: creates the segment "NVKXPCABN_%p" of bufferSize × count
    // bytes and one buffer per slot, in ascending offset order. Null when the
    // segment cannot be made (or the sizes are 0 or too large).
    static std::shared_ptr<NVKXPCAudioBufferPool> initWithBufferSize(uint64_t bufferSize, uint64_t count);

    // Receiving side: decodes a pool record and maps its segment read-only.
    // Null for a missing or mistyped key, a slot count of 0 or above
    // 1,000,000, a slot size of 0 or above 16 MiB, a name that is not a
    // segment name of this transport, or a segment that cannot be opened or
    // mapped or is smaller than slot size × count. A floating `record` is
    // consumed; any other reference is only borrowed.
    static std::shared_ptr<NVKXPCAudioBufferPool> initWithRecord(GVariant* record);

    // The record above, as a new floating GVariant of type a{sv}.
    GVariant* encodeRecord() const;

    ~NVKXPCAudioBufferPool();
    NVKXPCAudioBufferPool(const NVKXPCAudioBufferPool&) = delete;
    NVKXPCAudioBufferPool& operator=(const NVKXPCAudioBufferPool&) = delete;

    // A pool's address names its segment, and a host may still hold (and
    // will later unlink) the name of a pool that is gone here. So a freed
    // pool's memory is held back from reuse until 1024 more pools have been
    // freed, and no new pool of this process gets the name of a recent one.
    static void* operator new(std::size_t size);
    static void operator delete(void* memory) noexcept;

    // The next free buffer (sending side: length reset to 0, the pool's format
    // stamped on it, recorded as in use) or the next received buffer
    // (receiving side, untouched). Null at once when there is none.
    std::shared_ptr<NVKXPCAudioBuffer> bufferFromPool();

    // Sending side: takes a buffer back. Nothing checks for a buffer that is
    // already free: a slot returned twice (one shared buffer, two receivers)
    // is queued twice. That is how the delivery path is meant to work.
    // Receiving side: only logs.
    void returnBuffer(const std::shared_ptr<NVKXPCAudioBuffer>& buffer);

    // Receiving side: adopts a decoded buffer (owning pool, return block,
    // this pool's mapping) and queues it for bufferFromPool. False when the
    // buffer's slot lies outside the segment, the buffer was adopted before,
    // or the queue is full (see the header comment). On the sending side this
    // ends the process with an assertion report.
    bool receivedBuffer(const std::shared_ptr<NVKXPCAudioBuffer>& buffer, ReturnBlock returnBlock);

    // Counts the in-use set, taking the set's lock a second time where it
    // should give it up; this is how the counter has always been written and
    // nothing calls it. The lock is recursive, so the calling thread goes on,
    // but the lock stays held and every other thread that needs it then blocks
    // for ever. Use buffersInUse().size() instead.
    uint64_t usedBufferCount();
    int64_t freeBufferCount() const { return static_cast<int64_t>(m_freeBuffers.GetCount()); }

    // A copy of the in-use set (sending side), in slot order.
    std::vector<std::shared_ptr<NVKXPCAudioBuffer>> buffersInUse() const;

    uint64_t maxNumBuffers() const { return m_maxNumBuffers; }
    uint64_t bufferSize() const { return m_bufferSize; }
    int64_t sampleRate() const { return m_sampleRate; }
    void setSampleRate(int64_t value) { m_sampleRate = value; }
    int64_t channelCount() const { return m_channelCount; }
    void setChannelCount(int64_t value) { m_channelCount = value; }
    int64_t bitsPerSample() const { return m_bitsPerSample; }
    void setBitsPerSample(int64_t value) { m_bitsPerSample = value; }

    bool isXPCService() const { return m_isXPCService; }
    const std::string& shmemName() const { return m_shmemName; }
    uint64_t shmemSize() const { return m_shmemSize; }
    const void* mappedMemory() const { return m_mappedMemory; }

    // Sending side: unlinks the segments of every pool of this process that
    // is still alive (the process is about to end). Runs at exit() too.
    static void unlinkAllSegments();

    // Whether `name` has the form of this transport's segment names.
    static bool isValidSegmentName(const std::string& name);

private:
    NVKXPCAudioBufferPool(uint64_t bufferSize, uint64_t count);

    bool nvk_createShMemAndReturnSuccess();
    bool nvk_openShMemAndReturnSuccess();
    bool ownsBuffer(const NVKXPCAudioBuffer& buffer) const;

    void* m_mappedMemory = nullptr;
    int m_shmemFD = -1;
    uint64_t m_shmemSize = 0;
    std::string m_shmemName;
    bool m_isXPCService = false;
    CNplRefQueue<NVKXPCAudioBuffer> m_freeBuffers;
    // Lock order: a leaf; guards m_buffersInUse and m_buffersInUseCount. The
    // free list's lock is never taken while it is held and no buffer is
    // released under it. Recursive, so that usedBufferCount's second lock
    // is defined behaviour (see there).
    mutable std::recursive_mutex m_buffersInUseLock;
    uint64_t m_maxNumBuffers = 0;
    int64_t m_sampleRate = 0;
    int64_t m_channelCount = 0;
    int64_t m_bitsPerSample = 0;
    // The in-use set, keyed by slot: entry i holds the buffer of slot i while
    // it is out. Made once, so taking and returning never allocate.
    std::vector<std::shared_ptr<NVKXPCAudioBuffer>> m_buffersInUse;
    uint64_t m_buffersInUseCount = 0;
    uint64_t m_bufferSize = 0;
};
