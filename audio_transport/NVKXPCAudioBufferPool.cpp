#include "audio_transport/NVKXPCAudioBufferPool.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <mutex>
#include <new>
#include <set>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "audio_transport/NVKXPCRecord.h"
#include "dbg/FlowLog.h"
#include "dbg/NSLog.h"

namespace {

// Line of the assertion report for receivedBuffer on the sending side.
constexpr int kReceivedBufferAssertLine = 357;

constexpr char kSegmentNamePrefix[] = "NVKXPCABN_";

bool sizesAreAcceptable(uint64_t bufferSize, uint64_t count)
{
    return bufferSize > 0 && bufferSize <= kNVKXPCAudioBufferMaxSlotSize && count > 0 &&
           count <= kNVKXPCAudioBufferMaxSlotCount;
}

// The memory of freed pools, oldest first, held back from the allocator so
// that a new pool cannot take a recent pool's address and with it that pool's
// segment name. When full, the oldest block is really freed.
class FreedPoolQuarantine {
public:
    // Keeps `block`; returns the block that leaves to make room, or null.
    void* hold(void* block)
    {
        std::lock_guard<std::mutex> guard(m_lock);
        if (m_count < kCapacity) {
            m_blocks[(m_oldest + m_count++) % kCapacity] = block;
            return nullptr;
        }
        void* leaving = m_blocks[m_oldest];
        m_blocks[m_oldest] = block;
        m_oldest = (m_oldest + 1) % kCapacity;
        return leaving;
    }

private:
    static constexpr size_t kCapacity = 1024;
    // Lock order: a leaf. Guards m_blocks, m_oldest and m_count; taken with
    // no other lock held inside it, and nothing is called while it is held
    // (the leaving block is freed after it is let go).
    std::mutex m_lock;
    void* m_blocks[kCapacity] = {};
    size_t m_oldest = 0;
    size_t m_count = 0;
};

// Made on first use and never destroyed: pools freed during process exit,
// after static destructors have run, still find it. It stays reachable
// through this pointer, so leak checkers do not report the held blocks.
FreedPoolQuarantine& TheFreedPoolQuarantine()
{
    static FreedPoolQuarantine* const quarantine = new FreedPoolQuarantine;
    return *quarantine;
}

// The names of the segments this process created and has not unlinked yet,
// so that all of them go when the process ends.
class LiveSegments {
public:
    void add(const std::string& name)
    {
        std::lock_guard<std::mutex> guard(m_lock);
        if (!m_atExitRegistered) {
            m_atExitRegistered = true;
            std::atexit([] { NVKXPCAudioBufferPool::unlinkAllSegments(); });
        }
        m_names.insert(name);
    }
    void remove(const std::string& name)
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_names.erase(name);
    }
    void unlinkAll()
    {
        std::lock_guard<std::mutex> guard(m_lock);
        for (const std::string& name : m_names)
            shm_unlink(name.c_str());
        m_names.clear();
    }

private:
    // Lock order: a leaf. Guards m_names and m_atExitRegistered; nothing
    // but shm_unlink is called while it is held.
    std::mutex m_lock;
    std::set<std::string> m_names;
    bool m_atExitRegistered = false;
};

// Never destroyed, like the quarantine: pools freed during exit find it.
LiveSegments& TheLiveSegments()
{
    static LiveSegments* const segments = new LiveSegments;
    return *segments;
}

} // namespace

void* NVKXPCAudioBufferPool::operator new(std::size_t size)
{
    // The quarantine is made here, where failing may throw, never first in
    // operator delete.
    TheFreedPoolQuarantine();
    return ::operator new(size);
}

void NVKXPCAudioBufferPool::operator delete(void* memory) noexcept
{
    if (!memory)
        return;
    ::operator delete(TheFreedPoolQuarantine().hold(memory));
}

NVKXPCAudioBufferPool::NVKXPCAudioBufferPool(uint64_t bufferSize, uint64_t count)
    : m_shmemSize(bufferSize * count),
      m_freeBuffers(static_cast<uint32_t>(count)),
      m_maxNumBuffers(count),
      m_bufferSize(bufferSize)
{
}

bool NVKXPCAudioBufferPool::isValidSegmentName(const std::string& name)
{
    // "NVKXPCABN_" and a pointer as printf's %p writes it: 0x and hex digits.
    const size_t prefixLength = sizeof kSegmentNamePrefix - 1;
    if (name.compare(0, prefixLength, kSegmentNamePrefix) != 0)
        return false;
    const std::string address = name.substr(prefixLength);
    if (address.size() < 3 || address.size() > 18 || address[0] != '0' || address[1] != 'x')
        return false;
    for (size_t i = 2; i < address.size(); ++i) {
        if (!g_ascii_isxdigit(address[i]))
            return false;
    }
    return true;
}

std::shared_ptr<NVKXPCAudioBufferPool> NVKXPCAudioBufferPool::initWithBufferSize(uint64_t bufferSize, uint64_t count)
{
    if (!sizesAreAcceptable(bufferSize, count)) {
        NSLog("NVKXPCAudioBufferPool initWithBufferSize - Refused a pool of %llu slots of %llu bytes",
              static_cast<unsigned long long>(count), static_cast<unsigned long long>(bufferSize));
        return nullptr;
    }
    std::shared_ptr<NVKXPCAudioBufferPool> pool(new NVKXPCAudioBufferPool(bufferSize, count));
    pool->m_buffersInUse.resize(count);
    char name[64];
    snprintf(name, sizeof name, "%s%p", kSegmentNamePrefix, static_cast<void*>(pool.get()));
    pool->m_shmemName = name;
    pool->m_shmemFD = -1;
    if (!pool->nvk_createShMemAndReturnSuccess())
        return nullptr;

    for (uint64_t i = 0; i < count; ++i) {
        auto buffer = NVKXPCAudioBuffer::initWithBuffer(pool->m_mappedMemory, i * bufferSize, bufferSize);
        buffer->setOwningPool(pool);
        pool->m_freeBuffers.Enqueue(std::move(buffer));
    }
    return pool;
}

bool NVKXPCAudioBufferPool::nvk_createShMemAndReturnSuccess()
{
    m_isXPCService = true;
    // Only this user may map the segment (the hosts are the same user). A
    // name left by an earlier process is taken over: its old segment is
    // unlinked first, so that nobody else holds the new one open.
    int fd = shm_open(m_shmemName.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
    if (fd == -1 && errno == EEXIST) {
        shm_unlink(m_shmemName.c_str());
        fd = shm_open(m_shmemName.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
    }
    if (fd == -1) {
        NSLog("Couldn't shm_open: %d", errno);
        return false;
    }
    m_shmemFD = fd;
    // The whole segment is reserved now: on a full /dev/shm the pool fails
    // here, instead of a later copy into a slot faulting (SIGBUS).
    const int reserved = posix_fallocate(fd, 0, static_cast<off_t>(m_shmemSize));
    if (reserved != 0) {
        close(fd);
        shm_unlink(m_shmemName.c_str());
        m_shmemFD = -1;
        NSLog("Couldn't reserve %llu bytes of shared memory: %d", static_cast<unsigned long long>(m_shmemSize),
              reserved);
        return false;
    }
    void* memory = mmap(nullptr, m_shmemSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    // The mapping keeps the segment alive; the descriptor is not needed any
    // more. Its stale number stays in m_shmemFD.
    close(fd);
    if (memory == MAP_FAILED) {
        shm_unlink(m_shmemName.c_str());
        m_shmemFD = -1;
        NSLog("Couldn't mmap: %d", errno);
        return false;
    }
    m_mappedMemory = memory;
    TheLiveSegments().add(m_shmemName);
    return true;
}

void NVKXPCAudioBufferPool::unlinkAllSegments()
{
    TheLiveSegments().unlinkAll();
}

std::shared_ptr<NVKXPCAudioBufferPool> NVKXPCAudioBufferPool::initWithRecord(GVariant* record)
{
    NVKXPCRecordReader reader(record);
    int64_t sampleRate = 0;
    int64_t channelCount = 0;
    int64_t bitsPerSample = 0;
    uint64_t bufferSize = 0;
    uint64_t count = 0;
    std::string name;
    if (!reader.readSigned("NVKBufferSampleRate", &sampleRate) ||
        !reader.readSigned("NVKBufferChannelCount", &channelCount) ||
        !reader.readSigned("NVKBufferBitsPerSample", &bitsPerSample) ||
        !reader.readUnsigned("NVKBufferCapacity", &bufferSize) || !reader.readUnsigned("NVKMaxNumBuffers", &count) ||
        !reader.readString("NVKShmemName", &name)) {
        NSLog("NVKXPCAudioBufferPool initWithRecord - Refused a pool record with a missing or mistyped key");
        return nullptr;
    }
    if (!sizesAreAcceptable(bufferSize, count)) {
        NSLog("NVKXPCAudioBufferPool initWithRecord - Refused a pool record of %llu slots of %llu bytes",
              static_cast<unsigned long long>(count), static_cast<unsigned long long>(bufferSize));
        return nullptr;
    }
    if (!isValidSegmentName(name)) {
        NSLog("NVKXPCAudioBufferPool initWithRecord - Refused a pool record with the segment name \"%s\"",
              name.c_str());
        return nullptr;
    }

    std::shared_ptr<NVKXPCAudioBufferPool> pool(new NVKXPCAudioBufferPool(bufferSize, count));
    pool->m_sampleRate = sampleRate;
    pool->m_channelCount = channelCount;
    pool->m_bitsPerSample = bitsPerSample;
    pool->m_shmemName = std::move(name);
    pool->m_shmemFD = -1;
    if (!pool->nvk_openShMemAndReturnSuccess())
        return nullptr;
    // No buffers yet: they arrive one by one.
    return pool;
}

bool NVKXPCAudioBufferPool::nvk_openShMemAndReturnSuccess()
{
    m_isXPCService = false;
    int fd = shm_open(m_shmemName.c_str(), O_RDONLY, 0600);
    if (fd == -1) {
        NSLog("Couldn't shm_open: %d", errno);
        return false;
    }
    m_shmemFD = fd;

    // A segment shorter than its record says would make reads of the last
    // slots fault: refuse it. The name is left alone, it may well belong to a
    // healthy pool that this record merely describes wrongly.
    struct stat status;
    if (fstat(fd, &status) != 0 || status.st_size < 0 || static_cast<uint64_t>(status.st_size) < m_shmemSize) {
        close(fd);
        m_shmemFD = -1;
        NSLog("NVKXPCAudioBufferPool - Shared memory segment %s is smaller than %llu bytes", m_shmemName.c_str(),
              static_cast<unsigned long long>(m_shmemSize));
        return false;
    }

    void* memory = mmap(nullptr, m_shmemSize, PROT_READ, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED) {
        shm_unlink(m_shmemName.c_str());
        int mapError = errno;
        close(fd);
        m_shmemFD = -1;
        NSLog("Couldn't mmap: %d", mapError);
        return false;
    }
    m_mappedMemory = memory;
    return true;
}

GVariant* NVKXPCAudioBufferPool::encodeRecord() const
{
    NVKXPCRecordWriter writer;
    writer.addSigned("NVKBufferBitsPerSample", m_bitsPerSample);
    writer.addSigned("NVKBufferChannelCount", m_channelCount);
    writer.addSigned("NVKBufferSampleRate", m_sampleRate);
    writer.addUnsigned("NVKBufferCapacity", m_bufferSize);
    writer.addUnsigned("NVKMaxNumBuffers", m_maxNumBuffers);
    writer.addString("NVKShmemName", m_shmemName.c_str());
    return writer.finish();
}

NVKXPCAudioBufferPool::~NVKXPCAudioBufferPool()
{
    // The creating side owns the name: it unlinks it when its pool goes
    // (receivers that mapped the segment keep their mappings). A receiver
    // never unlinks, so that it cannot take the name from another receiver
    // that has yet to open it; it only closes its descriptor, so that a
    // host that sees many streams does not run out of them.
    if (m_isXPCService && m_mappedMemory) {
        shm_unlink(m_shmemName.c_str());
        TheLiveSegments().remove(m_shmemName);
    } else if (!m_isXPCService && m_shmemFD >= 0) {
        close(m_shmemFD);
    }
    if (m_mappedMemory) {
        munmap(m_mappedMemory, m_shmemSize);
        m_mappedMemory = nullptr;
    }
    m_shmemFD = -1;
    // The queued buffers go now: received ones that were never taken run
    // their return blocks, so the sender gets those slots back.
    m_freeBuffers.Clear();
}

bool NVKXPCAudioBufferPool::ownsBuffer(const NVKXPCAudioBuffer& buffer) const
{
    return buffer.mappedMemory() == m_mappedMemory && buffer.offset() % m_bufferSize == 0 &&
           buffer.offset() / m_bufferSize < m_maxNumBuffers;
}

std::shared_ptr<NVKXPCAudioBuffer> NVKXPCAudioBufferPool::bufferFromPool()
{
    std::shared_ptr<NVKXPCAudioBuffer> buffer = m_freeBuffers.Dequeue();
    if (m_isXPCService && !buffer)
        SLF_AUDIO_LOG("%s: no free slot", m_shmemName.c_str());
    if (m_isXPCService && buffer) {
        SLF_AUDIO_LOG("%s: slot at %llu taken", m_shmemName.c_str(), static_cast<unsigned long long>(buffer->offset()));
        buffer->setLength(0);
        buffer->setBitsPerSample(m_bitsPerSample);
        buffer->setSampleRate(m_sampleRate);
        buffer->setChannelCount(m_channelCount);
        std::lock_guard<std::recursive_mutex> lock(m_buffersInUseLock);
        std::shared_ptr<NVKXPCAudioBuffer>& entry = m_buffersInUse[buffer->offset() / m_bufferSize];
        if (!entry) {
            entry = buffer;
            ++m_buffersInUseCount;
        }
    }
    return buffer;
}

void NVKXPCAudioBufferPool::returnBuffer(const std::shared_ptr<NVKXPCAudioBuffer>& buffer)
{
    if (!m_isXPCService) {
        NSLog("Asked to return a buffer to a client's pool. Did you forget to set the returnBlock?");
        return;
    }
    // Only slots of this pool's own segment can come back here.
    if (!buffer || !ownsBuffer(*buffer))
        return;
    std::shared_ptr<NVKXPCAudioBuffer> removed;
    {
        std::lock_guard<std::recursive_mutex> lock(m_buffersInUseLock);
        std::shared_ptr<NVKXPCAudioBuffer>& entry = m_buffersInUse[buffer->offset() / m_bufferSize];
        if (entry) {
            removed = std::move(entry);
            --m_buffersInUseCount;
        }
    }
    SLF_AUDIO_LOG("%s: slot at %llu returned", m_shmemName.c_str(), static_cast<unsigned long long>(buffer->offset()));
    m_freeBuffers.Enqueue(buffer);
}

bool NVKXPCAudioBufferPool::receivedBuffer(const std::shared_ptr<NVKXPCAudioBuffer>& buffer, ReturnBlock returnBlock)
{
    if (m_isXPCService)
        NVKXPCAudioBufferAssertionFailure("NVKXPCAudioBufferPool::receivedBuffer", "!isXPCService",
                                          kReceivedBufferAssertLine);
    if (!buffer)
        return false;
    // The slot must lie inside this process's mapping, whatever the record said.
    if (buffer->offset() > m_shmemSize || buffer->capacity() > m_shmemSize - buffer->offset()) {
        NSLog("NVKXPCAudioBufferPool receivedBuffer - Refused a buffer of %llu bytes at offset %llu in a segment of "
              "%llu bytes",
              static_cast<unsigned long long>(buffer->capacity()), static_cast<unsigned long long>(buffer->offset()),
              static_cast<unsigned long long>(m_shmemSize));
        return false;
    }
    if (buffer->hasReturnBlock()) {
        NSLog("NVKXPCAudioBufferPool receivedBuffer - Refused a buffer that was received before");
        return false;
    }
    buffer->setOwningPool(shared_from_this());
    buffer->setReturnBlock(std::move(returnBlock));
    buffer->setMappedMemory(m_mappedMemory);
    return m_freeBuffers.Enqueue(buffer);
}

uint64_t NVKXPCAudioBufferPool::usedBufferCount()
{
    m_buffersInUseLock.lock();
    uint64_t count = m_buffersInUseCount;
    m_buffersInUseLock.lock();
    return count;
}

std::vector<std::shared_ptr<NVKXPCAudioBuffer>> NVKXPCAudioBufferPool::buffersInUse() const
{
    std::vector<std::shared_ptr<NVKXPCAudioBuffer>> copy;
    std::lock_guard<std::recursive_mutex> lock(m_buffersInUseLock);
    copy.reserve(m_buffersInUseCount);
    for (const auto& entry : m_buffersInUse) {
        if (entry)
            copy.push_back(entry);
    }
    return copy;
}
