// The audio transport between two real processes: this test creates the pool
// and fills slots; a peer process (AudioTransportPeer) decodes the pool from
// its serialised record, adopts the buffers, reads the bytes through its own
// read-only mapping and drops them, which sends each slot back.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "audio_transport/NVKXPCAudioBuffer.h"
#include "audio_transport/NVKXPCAudioBufferPool.h"
#include "tests/audio_transport/PeerMessages.h"
#include "tests/audio_transport/TestRecords.h"

namespace {

class PeerProcess {
public:
    PeerProcess()
    {
        int toChild[2];
        int fromChild[2];
        if (pipe2(toChild, O_CLOEXEC) != 0 || pipe2(fromChild, O_CLOEXEC) != 0)
            return;
        m_pid = fork();
        if (m_pid == 0) {
            dup2(toChild[0], 0);
            dup2(fromChild[1], 1);
            execl(SLF_AUDIO_TRANSPORT_PEER, SLF_AUDIO_TRANSPORT_PEER, static_cast<char*>(nullptr));
            _exit(127);
        }
        close(toChild[0]);
        close(fromChild[1]);
        m_out = toChild[1];
        m_in = fromChild[0];
    }

    ~PeerProcess()
    {
        if (m_out >= 0)
            close(m_out);
        if (m_in >= 0)
            close(m_in);
        if (m_pid > 0 && !m_reaped) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
    }

    bool started() const { return m_pid > 0 && m_out >= 0; }
    int out() const { return m_out; }
    int in() const { return m_in; }

    int wait()
    {
        int status = 0;
        waitpid(m_pid, &status, 0);
        m_reaped = true;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

private:
    pid_t m_pid = -1;
    int m_out = -1;
    int m_in = -1;
    bool m_reaped = false;
};

peer::Kind ReceiveKind(PeerProcess& process, std::string* payload)
{
    peer::Kind kind = static_cast<peer::Kind>(0);
    EXPECT_TRUE(peer::Receive(process.in(), &kind, payload));
    return kind;
}

// Fills every slot with bytes that depend on the round and the slot, sends
// them all, asks the peer to read them and checks what it saw and that every
// slot came back through the return path.
void RunRound(PeerProcess& process, NVKXPCAudioBufferPool& pool, int round)
{
    std::map<uint64_t, std::shared_ptr<NVKXPCAudioBuffer>> out;
    std::map<uint64_t, uint64_t> expectedHash;
    std::map<uint64_t, uint64_t> expectedLength;
    std::vector<uint8_t> block(pool.bufferSize() + 100);
    for (uint64_t slot = 0; slot < pool.maxNumBuffers(); ++slot) {
        std::shared_ptr<NVKXPCAudioBuffer> buffer = pool.bufferFromPool();
        ASSERT_TRUE(buffer);
        ASSERT_EQ(buffer->length(), 0u);
        for (size_t i = 0; i < block.size(); ++i)
            block[i] = static_cast<uint8_t>(i * 13 + slot * 7 + static_cast<uint64_t>(round) * 101);
        // Lengths vary per slot; every tenth slot is offered more than fits.
        uint64_t offered = slot % 10 == 9 ? block.size() : pool.bufferSize() - slot * 3;
        buffer->appendBytes(block.data(), offered);
        uint64_t kept = std::min<uint64_t>(offered, pool.bufferSize());
        ASSERT_EQ(buffer->length(), kept);
        expectedLength[buffer->offset()] = kept;
        expectedHash[buffer->offset()] = peer::Fnv1a(block.data(), kept);
        ASSERT_TRUE(peer::SendRecord(process.out(), peer::kBufferRecord, buffer->encodeRecord()));
        out[buffer->offset()] = buffer;
    }
    EXPECT_EQ(pool.bufferFromPool(), nullptr);
    ASSERT_TRUE(peer::Send(process.out(), peer::kTakeAll, nullptr, 0));

    size_t seen = 0;
    size_t returned = 0;
    std::string payload;
    while (!out.empty()) {
        peer::Kind kind = ReceiveKind(process, &payload);
        if (kind == peer::kSeen) {
            ASSERT_EQ(payload.size(), sizeof(peer::Seen));
            peer::Seen s;
            memcpy(&s, payload.data(), sizeof s);
            ASSERT_TRUE(expectedHash.count(s.offset)) << s.offset;
            EXPECT_EQ(s.length, expectedLength[s.offset]);
            EXPECT_EQ(s.hash, expectedHash[s.offset]) << "slot at " << s.offset;
            EXPECT_EQ(s.sampleRate, 48000);
            EXPECT_EQ(s.channelCount, 2);
            EXPECT_EQ(s.bitsPerSample, 16);
            EXPECT_EQ(s.writable, 0);
            // Received buffers come out of the peer's pool in the order sent.
            EXPECT_EQ(s.offset, seen * pool.bufferSize());
            ++seen;
        } else if (kind == peer::kReturned) {
            uint64_t offset = 0;
            ASSERT_EQ(payload.size(), sizeof offset);
            memcpy(&offset, payload.data(), sizeof offset);
            auto it = out.find(offset);
            ASSERT_NE(it, out.end()) << "returned twice or unknown: " << offset;
            // The reply arrived: this is what the reply callback does.
            it->second->returnToPool();
            out.erase(it);
            ++returned;
            // A slot comes back only after the peer looked at it.
            EXPECT_EQ(returned, seen);
        } else {
            FAIL() << "unexpected message " << static_cast<char>(kind);
        }
    }
    EXPECT_EQ(seen, pool.maxNumBuffers());
    EXPECT_EQ(pool.freeBufferCount(), static_cast<int64_t>(pool.maxNumBuffers()));
    EXPECT_TRUE(pool.buffersInUse().empty());
}

} // namespace

TEST(NVKXPCAudioCrossProcess, SlotsTravelToAnotherProcessAndComeBack)
{
    auto pool = NVKXPCAudioBufferPool::initWithBufferSize(3840, 200);
    ASSERT_TRUE(pool);
    pool->setSampleRate(48000);
    pool->setChannelCount(2);
    pool->setBitsPerSample(16);
    const std::string name = pool->shmemName();

    PeerProcess process;
    ASSERT_TRUE(process.started());
    ASSERT_TRUE(peer::SendRecord(process.out(), peer::kPoolRecord, pool->encodeRecord()));
    std::string payload;
    ASSERT_EQ(ReceiveKind(process, &payload), peer::kPoolOpened);

    // Two rounds: the second reuses every slot with new contents.
    RunRound(process, *pool, 1);
    RunRound(process, *pool, 2);

    ASSERT_TRUE(peer::Send(process.out(), peer::kEnd, nullptr, 0));
    ASSERT_EQ(ReceiveKind(process, &payload), peer::kDone);
    EXPECT_EQ(process.wait(), 0);

    // The receiving pool unlinked the name when it went away.
    errno = 0;
    EXPECT_EQ(shm_open(name.c_str(), O_RDONLY, 0600), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(NVKXPCAudioCrossProcess, PeerRefusesUnknownSegmentAndHostileBuffers)
{
    auto pool = NVKXPCAudioBufferPool::initWithBufferSize(4096, 4);
    ASSERT_TRUE(pool);
    PeerProcess process;
    ASSERT_TRUE(process.started());
    std::string payload;

    // A pool record naming a segment that does not exist.
    ASSERT_TRUE(peer::SendRecord(process.out(), peer::kPoolRecord,
                                 WithEntry(pool->encodeRecord(), "NVKShmemName", g_variant_new_string("NVKXPCABN_0x1"))));
    ASSERT_EQ(ReceiveKind(process, &payload), peer::kPoolRefused);

    // The real pool, then a buffer whose slot lies past the end of the segment.
    ASSERT_TRUE(peer::SendRecord(process.out(), peer::kPoolRecord, pool->encodeRecord()));
    ASSERT_EQ(ReceiveKind(process, &payload), peer::kPoolOpened);
    auto buffer = pool->bufferFromPool();
    ASSERT_TRUE(buffer);
    ASSERT_TRUE(peer::SendRecord(process.out(), peer::kBufferRecord,
                                 WithEntry(buffer->encodeRecord(), "NVKOffset", g_variant_new_uint64(4 * 4096))));
    ASSERT_EQ(ReceiveKind(process, &payload), peer::kAdoptRefused);

    ASSERT_TRUE(peer::Send(process.out(), peer::kEnd, nullptr, 0));
    ASSERT_EQ(ReceiveKind(process, &payload), peer::kDone);
    EXPECT_EQ(process.wait(), 0);
}
