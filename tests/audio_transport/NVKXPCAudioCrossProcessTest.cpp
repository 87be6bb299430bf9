// The audio transport between two real processes; the receiving one is AudioTransportPeer.cpp.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <map>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "audio_transport/NVKXPCAudioBuffer.h"
#include "audio_transport/NVKXPCAudioBufferPool.h"
#include "tests/audio_transport/TestRecords.h"

namespace {

// The peer process, driven through pipes (fork and exec: no GLib threads here).
class Peer {
public:
    Peer()
    {
        int toChild[2], fromChild[2];
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
        m_to = fdopen(toChild[1], "w");
        m_from = fdopen(fromChild[0], "r");
    }
    ~Peer()
    {
        fclose(m_to);
        fclose(m_from);
        if (m_pid > 0 && !m_reaped) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
    }
    bool Started() const { return m_pid > 0 && m_to && m_from; }
    // Sends a command with a record (consumed) as base64 of its bytes.
    void Send(char kind, GVariant* record = nullptr)
    {
        gchar* text = nullptr;
        if (record) {
            g_variant_ref_sink(record);
            text = g_base64_encode(static_cast<const guchar*>(g_variant_get_data(record)), g_variant_get_size(record));
            g_variant_unref(record);
        }
        fprintf(m_to, "%c %s\n", kind, text ? text : "");
        fflush(m_to);
        g_free(text);
    }
    std::string Receive()
    {
        char line[512];
        return fgets(line, sizeof line, m_from) ? std::string(line) : std::string("<eof>");
    }
    int Wait()
    {
        int status = 0;
        waitpid(m_pid, &status, 0);
        m_reaped = true;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

private:
    pid_t m_pid = -1;
    FILE* m_to = nullptr;
    FILE* m_from = nullptr;
    bool m_reaped = false;
};

// Fills and sends every slot; each must be read intact, in order, and come back only after it was read.
void RunRound(Peer& peer, NVKXPCAudioBufferPool& pool, int round)
{
    std::map<uint64_t, std::shared_ptr<NVKXPCAudioBuffer>> out;
    std::map<uint64_t, std::string> expected;
    std::vector<uint64_t> order;
    std::vector<uint8_t> block(pool.bufferSize() + 100);
    for (uint64_t slot = 0; slot < pool.maxNumBuffers(); ++slot) {
        auto buffer = pool.bufferFromPool();
        ASSERT_TRUE(buffer);
        for (size_t i = 0; i < block.size(); ++i)
            block[i] = static_cast<uint8_t>(i * 13 + slot * 7 + round * 101);
        // Lengths vary per slot; every tenth slot is offered more than fits.
        buffer->appendBytes(block.data(), slot % 10 == 9 ? block.size() : pool.bufferSize() - slot * 3);
        gchar* sum = g_compute_checksum_for_data(G_CHECKSUM_SHA1, block.data(), buffer->length());
        expected[buffer->offset()] = "V " + std::to_string(buffer->offset()) + " " + std::to_string(buffer->length()) +
                                     " " + sum + " 48000 2 16 0\n";
        g_free(sum);
        peer.Send('B', buffer->encodeRecord());
        order.push_back(buffer->offset());
        out[buffer->offset()] = buffer;
    }
    EXPECT_EQ(pool.bufferFromPool(), nullptr);
    peer.Send('T');
    uint64_t seen = 0, returned = 0, offset = 0;
    while (!out.empty()) {
        const std::string line = peer.Receive();
        ASSERT_EQ(sscanf(line.c_str() + 1, " %lu", &offset), 1) << line;
        if (line[0] == 'V') {
            EXPECT_EQ(offset, order[seen++]); // in the order sent
            EXPECT_EQ(line, expected[offset]);
        } else {
            ASSERT_EQ(line[0], 'R') << line;
            ASSERT_EQ(out.count(offset), 1u) << "returned twice or unknown: " << offset;
            out[offset]->returnToPool(); // what the reply handler does
            out.erase(offset);
            EXPECT_EQ(++returned, seen);
        }
    }
    EXPECT_EQ(seen, pool.maxNumBuffers());
    EXPECT_EQ(pool.freeBufferCount(), static_cast<int64_t>(pool.maxNumBuffers()));
}

} // namespace

TEST(NVKXPCAudioCrossProcess, SlotsTravelToAnotherProcessAndComeBack)
{
    auto pool = NVKXPCAudioBufferPool::initWithBufferSize(3840, 200);
    pool->setSampleRate(48000);
    pool->setChannelCount(2);
    pool->setBitsPerSample(16);
    Peer peer;
    ASSERT_TRUE(peer.Started());
    peer.Send('P', Edited(pool->encodeRecord(), "NVKShmemName", g_variant_new_string("NVKXPCABN_0x1")));
    ASSERT_EQ(peer.Receive(), "F\n");
    peer.Send('P', pool->encodeRecord());
    ASSERT_EQ(peer.Receive(), "O\n");
    auto hostile = pool->bufferFromPool();
    peer.Send('B', Edited(hostile->encodeRecord(), "NVKOffset", g_variant_new_uint64(200 * 3840)));
    ASSERT_EQ(peer.Receive(), "X 768000\n");
    hostile->returnToPool();
    RunRound(peer, *pool, 1);
    RunRound(peer, *pool, 2); // every slot again, with new contents
    peer.Send('E');
    ASSERT_EQ(peer.Receive(), "D\n");
    EXPECT_EQ(peer.Wait(), 0);
    const std::string name = pool->shmemName();
    pool.reset();
    EXPECT_EQ(shm_open(name.c_str(), O_RDONLY, 0600), -1);
    EXPECT_EQ(errno, ENOENT);
}
