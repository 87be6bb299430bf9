// NVKXPCAudioBuffer: one slot of PCM audio inside a shared-memory segment that
// an NVKXPCAudioBufferPool (audio_transport/NVKXPCAudioBufferPool.h) maps.
//
// The buffer never carries its samples across a process boundary. It travels
// as a small record (GVariant dictionary a{sv}) that says where its bytes lie
// in the segment, how many are valid and in which format:
//
//   "NVKShmemSize"     t  slot size in bytes (the buffer's capacity)
//   "NVKLength"        t  valid bytes at the start of the slot
//   "NVKOffset"        t  byte offset of the slot from the segment's start
//   "NVKSampleRate"    x  samples per second
//   "NVKChannelCount"  x  interleaved channels
//   "NVKBitsPerSample" x  bits per sample
//   "SLFPresentationTime" t  when the slot's first sample plays, in
//                           microseconds of CLOCK_MONOTONIC (optional when
//                           decoding: 0 when missing)
//
// Two roles:
//  - sending side (the service): a writable slot made by its pool, filled with
//    appendBytes/appendData, sent, and given back with returnToPool;
//  - receiving side (the host): decoded from a record with initWithRecord,
//    adopted by the receiving pool's receivedBuffer(buffer, returnBlock) which
//    gives it the read-only mapping and its return block; the return block
//    runs exactly once, when the last reference to the buffer goes.
//
// Buffers are shared objects (std::shared_ptr); the owning pool is a weak
// link, so a pool and the buffers it holds never keep each other alive.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <span>

#include <glib.h>

class NVKXPCAudioBufferPool;

inline constexpr const char* kNVKXPCAudioBufferPresentationTimeKey = "SLFPresentationTime";

class NVKXPCAudioBuffer : public std::enable_shared_from_this<NVKXPCAudioBuffer> {
public:
    // Completion callback of a received buffer: tells the sending side that
    // the slot is free again.
    using ReturnBlock = std::function<void()>;

    // Sending side: a slot of `capacity` bytes at `offset` from `base` (the
    // pool's mapping). Length and format start at 0; no pool, no return block.
    static std::shared_ptr<NVKXPCAudioBuffer> initWithBuffer(void* base, uint64_t offset, uint64_t capacity);

    // Receiving side: decodes a record. Null when a key is missing, a value
    // has the wrong type, or the slot size is 0 or above the largest slot a
    // pool may have (an empty dictionary, the "no buffer" record, thus decodes
    // to null). A length above the slot size is clamped to it. The bytes stay
    // unreadable until a pool adopts the buffer with receivedBuffer.
    // A floating `record` is consumed; any other reference is only borrowed.
    static std::shared_ptr<NVKXPCAudioBuffer> initWithRecord(GVariant* record);

    // The record above, as a new floating GVariant of type a{sv}.
    GVariant* encodeRecord() const;

    // Runs the return block, if one is set, once.
    ~NVKXPCAudioBuffer();

    NVKXPCAudioBuffer(const NVKXPCAudioBuffer&) = delete;
    NVKXPCAudioBuffer& operator=(const NVKXPCAudioBuffer&) = delete;

    // The slot: `bytes` is the read-only view, `mutableBytes` is null on a
    // received buffer (one with a return block). Before the receiving pool set
    // the mapping, `bytes` is just `offset` taken as an address: do not read.
    const void* bytes() const;
    void* mutableBytes() const;
    uint64_t capacity() const { return m_shmemSize; }
    uint64_t offset() const { return m_offset; }

    // Copy at most capacity() - length() bytes to the end of the valid bytes;
    // the rest is dropped silently (read length() again to see what was
    // taken). Calling either on a buffer that has a return block ends the
    // process with an assertion report.
    void appendBytes(const void* source, uint64_t length);
    void appendData(std::span<const uint8_t> data);

    // Sending side: gives the buffer back to its owning pool (a no-op when the
    // pool is gone). On a buffer with a return block this ends the process
    // with an assertion report: received buffers go back through their block.
    void returnToPool();

    // Slot identity: two buffers are equal exactly when their offsets are.
    bool isEqual(const NVKXPCAudioBuffer& other) const { return m_offset == other.m_offset; }
    bool operator==(const NVKXPCAudioBuffer& other) const { return isEqual(other); }
    uint64_t hash() const { return m_offset; }

    uint64_t length() const { return m_length; }
    // Clamped to the capacity: the valid bytes never reach past the slot.
    void setLength(uint64_t length) { m_length = length > m_shmemSize ? m_shmemSize : length; }
    int64_t sampleRate() const { return m_sampleRate; }
    void setSampleRate(int64_t value) { m_sampleRate = value; }
    int64_t channelCount() const { return m_channelCount; }
    void setChannelCount(int64_t value) { m_channelCount = value; }
    int64_t bitsPerSample() const { return m_bitsPerSample; }
    void setBitsPerSample(int64_t value) { m_bitsPerSample = value; }
    // Microseconds of CLOCK_MONOTONIC at which the first sample plays; 0 unknown.
    uint64_t presentationTime() const { return m_presentationTime; }
    void setPresentationTime(uint64_t value) { m_presentationTime = value; }

    std::shared_ptr<NVKXPCAudioBufferPool> owningPool() const { return m_owningPool.lock(); }
    void setOwningPool(const std::shared_ptr<NVKXPCAudioBufferPool>& pool) { m_owningPool = pool; }

    // Set and read atomically: a reply callback may be installed on one
    // thread while another looks at it.
    ReturnBlock returnBlock() const;
    void setReturnBlock(ReturnBlock block);
    bool hasReturnBlock() const { return m_hasReturnBlock.load(std::memory_order_acquire); }

    // Base address of the whole segment's mapping in this process.
    void setMappedMemory(void* base) { m_mappedMemory = base; }
    void* mappedMemory() const { return m_mappedMemory; }

private:
    NVKXPCAudioBuffer(void* base, uint64_t offset, uint64_t capacity);

    void* m_mappedMemory = nullptr;
    uint64_t m_offset = 0;
    uint64_t m_shmemSize = 0;
    std::weak_ptr<NVKXPCAudioBufferPool> m_owningPool;
    // Lock order: a leaf; guards m_returnBlock only and runs no code under it.
    mutable std::mutex m_returnBlockLock;
    ReturnBlock m_returnBlock;
    std::atomic<bool> m_hasReturnBlock {false};
    uint64_t m_length = 0;
    int64_t m_sampleRate = 0;
    int64_t m_channelCount = 0;
    int64_t m_bitsPerSample = 0;
    uint64_t m_presentationTime = 0;
};

// Largest slot and slot count a pool or buffer record may describe.
inline constexpr uint64_t kNVKXPCAudioBufferMaxSlotSize = 16u * 1024u * 1024u;
inline constexpr uint64_t kNVKXPCAudioBufferMaxSlotCount = 1000000u;

// The transport's assertion report: prints the failed expression with the
// module name "NVKXPCAudioBuffer" and the given line, then aborts.
[[noreturn]] void NVKXPCAudioBufferAssertionFailure(const char* method, const char* expression, int line);
