// The receiving process of the cross-process test: plays the host library's
// part. Reads messages from standard input and answers on standard output
// (see PeerMessages.h).
#include <cstdio>
#include <memory>
#include <string>

#include "audio_transport/NVKXPCAudioBuffer.h"
#include "audio_transport/NVKXPCAudioBufferPool.h"
#include "tests/audio_transport/PeerMessages.h"

int main()
{
    const int in = 0;
    const int out = 1;
    std::shared_ptr<NVKXPCAudioBufferPool> pool;

    peer::Kind kind;
    std::string payload;
    while (peer::Receive(in, &kind, &payload)) {
        switch (kind) {
        case peer::kPoolRecord: {
            GVariant* record = peer::RecordFromBytes(payload);
            pool = NVKXPCAudioBufferPool::initWithRecord(record);
            g_variant_unref(record);
            peer::Send(out, pool ? peer::kPoolOpened : peer::kPoolRefused, nullptr, 0);
            break;
        }
        case peer::kBufferRecord: {
            GVariant* record = peer::RecordFromBytes(payload);
            std::shared_ptr<NVKXPCAudioBuffer> buffer = NVKXPCAudioBuffer::initWithRecord(record);
            g_variant_unref(record);
            if (!pool || !buffer)
                return 3;
            const uint64_t offset = buffer->offset();
            // The return block stands in for the empty D-Bus reply.
            bool adopted = pool->receivedBuffer(buffer, [out, offset] {
                peer::Send(out, peer::kReturned, &offset, sizeof offset);
            });
            if (!adopted)
                peer::Send(out, peer::kAdoptRefused, &offset, sizeof offset);
            break;
        }
        case peer::kTakeAll: {
            if (!pool)
                return 3;
            while (std::shared_ptr<NVKXPCAudioBuffer> buffer = pool->bufferFromPool()) {
                peer::Seen seen{};
                seen.offset = buffer->offset();
                seen.length = buffer->length();
                seen.hash = peer::Fnv1a(buffer->bytes(), buffer->length());
                seen.sampleRate = buffer->sampleRate();
                seen.channelCount = buffer->channelCount();
                seen.bitsPerSample = buffer->bitsPerSample();
                seen.writable = buffer->mutableBytes() != nullptr;
                peer::Send(out, peer::kSeen, &seen, sizeof seen);
                // Dropping the last reference here runs the return block.
            }
            break;
        }
        case peer::kEnd:
            pool.reset();
            peer::Send(out, peer::kDone, nullptr, 0);
            return 0;
        default:
            return 4;
        }
    }
    return 5;
}
