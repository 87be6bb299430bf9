// The receiving process of the cross-process test, playing the host
// library's part. Commands on standard input, one a line: "P <pool record>",
// "B <buffer record>" (records as base64 of their serialised a{sv} bytes, the
// way D-Bus carries them), "T" (take every queued buffer, report it, drop
// it), "E" (drop the pool and exit). Answers on standard output: "O" or "F"
// (pool opened or refused), "X offset" (buffer refused), "V offset length
// sha1 rate channels bits writable" (a buffer read), "R offset" (its return
// block ran, standing in for the empty D-Bus reply), "D" (done).
#include <cstdio>
#include <memory>

#include "audio_transport/NVKXPCAudioBuffer.h"
#include "audio_transport/NVKXPCAudioBufferPool.h"

int main()
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    std::shared_ptr<NVKXPCAudioBufferPool> pool;
    static char line[1 << 16];
    while (fgets(line, sizeof line, stdin)) {
        GVariant* record = nullptr;
        if (line[0] == 'P' || line[0] == 'B') {
            gsize size = 0;
            guchar* bytes = g_base64_decode(line + 2, &size);
            record = g_variant_ref_sink(
                g_variant_new_from_data(G_VARIANT_TYPE_VARDICT, bytes, size, FALSE, g_free, bytes));
        }
        if (line[0] == 'P') {
            pool = NVKXPCAudioBufferPool::initWithRecord(record);
            printf(pool ? "O\n" : "F\n");
        } else if (line[0] == 'B') {
            std::shared_ptr<NVKXPCAudioBuffer> buffer = NVKXPCAudioBuffer::initWithRecord(record);
            if (!pool || !buffer)
                return 3;
            const unsigned long long offset = buffer->offset();
            if (!pool->receivedBuffer(buffer, [offset] { printf("R %llu\n", offset); }))
                printf("X %llu\n", offset);
        } else if (line[0] == 'T' && pool) { // dropping each buffer runs its return block
            while (std::shared_ptr<NVKXPCAudioBuffer> buffer = pool->bufferFromPool()) {
                gchar* sum = g_compute_checksum_for_data(G_CHECKSUM_SHA1, static_cast<const guchar*>(buffer->bytes()), buffer->length());
                printf("V %llu %llu %s %lld %lld %lld %d\n", (unsigned long long)buffer->offset(),
                       (unsigned long long)buffer->length(), sum, (long long)buffer->sampleRate(),
                       (long long)buffer->channelCount(), (long long)buffer->bitsPerSample(),
                       buffer->mutableBytes() != nullptr);
                g_free(sum);
            }
        } else if (line[0] == 'E') {
            pool.reset();
            printf("D\n");
            return 0;
        } else {
            return 4;
        }
        if (record)
            g_variant_unref(record);
    }
    return 5;
}
