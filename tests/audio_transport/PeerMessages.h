// Framing of the messages that the cross-process test and its peer process
// exchange over pipes: a 32-bit length, a one-byte kind, then the payload.
// Records travel as serialised GVariant a{sv} bytes, the way D-Bus carries
// them; the reply that gives a slot back is a message of its own.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <unistd.h>

#include <glib.h>

namespace peer {

enum Kind : uint8_t {
    kPoolRecord = 'P',   // parent → child: serialised pool record
    kBufferRecord = 'B', // parent → child: serialised buffer record (adopt and queue it)
    kTakeAll = 'T',      // parent → child: take every queued buffer, check it, drop it
    kEnd = 'E',          // parent → child: drop the pool and exit
    kPoolOpened = 'O',   // child → parent: the pool was decoded and mapped
    kPoolRefused = 'F',  // child → parent: the pool record was refused
    kAdoptRefused = 'X', // child → parent: receivedBuffer refused a buffer (payload: offset)
    kSeen = 'V',         // child → parent: offset, length, format and FNV-1a hash of the bytes read
    kReturned = 'R',     // child → parent: the return block ran (payload: offset)
    kDone = 'D',         // child → parent: pool dropped, about to exit
};

struct Seen {
    uint64_t offset;
    uint64_t length;
    uint64_t hash;
    int64_t sampleRate;
    int64_t channelCount;
    int64_t bitsPerSample;
    uint8_t writable; // 1 when mutableBytes was not null (it must be null)
};

inline uint64_t Fnv1a(const void* data, uint64_t length)
{
    uint64_t hash = 1469598103934665603ull;
    const uint8_t* bytes = static_cast<const uint8_t*>(data);
    for (uint64_t i = 0; i < length; ++i) {
        hash ^= bytes[i];
        hash *= 1099511628211ull;
    }
    return hash;
}

inline bool WriteAll(int fd, const void* data, size_t size)
{
    const char* p = static_cast<const char*>(data);
    while (size > 0) {
        ssize_t n = write(fd, p, size);
        if (n <= 0)
            return false;
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

inline bool ReadAll(int fd, void* data, size_t size)
{
    char* p = static_cast<char*>(data);
    while (size > 0) {
        ssize_t n = read(fd, p, size);
        if (n <= 0)
            return false;
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

inline bool Send(int fd, Kind kind, const void* payload, uint32_t size)
{
    std::string frame(5 + size, '\0');
    memcpy(frame.data(), &size, 4);
    frame[4] = static_cast<char>(kind);
    if (size)
        memcpy(frame.data() + 5, payload, size);
    return WriteAll(fd, frame.data(), frame.size());
}

// Sends a record's serialised bytes; consumes a floating record.
inline bool SendRecord(int fd, Kind kind, GVariant* record)
{
    g_variant_ref_sink(record);
    bool ok = Send(fd, kind, g_variant_get_data(record), static_cast<uint32_t>(g_variant_get_size(record)));
    g_variant_unref(record);
    return ok;
}

inline bool Receive(int fd, Kind* kind, std::string* payload)
{
    uint32_t size = 0;
    uint8_t k = 0;
    if (!ReadAll(fd, &size, 4) || !ReadAll(fd, &k, 1))
        return false;
    payload->assign(size, '\0');
    if (size && !ReadAll(fd, payload->data(), size))
        return false;
    *kind = static_cast<Kind>(k);
    return true;
}

// A record rebuilt from received bytes, as untrusted data (new reference).
inline GVariant* RecordFromBytes(const std::string& payload)
{
    GBytes* bytes = g_bytes_new(payload.data(), payload.size());
    GVariant* record = g_variant_ref_sink(g_variant_new_from_bytes(G_VARIANT_TYPE_VARDICT, bytes, FALSE));
    g_bytes_unref(bytes);
    return record;
}

} // namespace peer
