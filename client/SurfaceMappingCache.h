// Mapping the surfaces that come with frames: the checks of their properties
// (parsed by protocol/SurfaceDictionary.h) against the surface's file, and
// read-only mappings kept per surface so that a steady stream of frames over
// the same few surfaces does not map and unmap memory for every frame.
#pragma once

#include <glib.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <tuple>

#include "streamloft/VideoFrame.h"

namespace streamloft {

// One read-only mapping of a whole surface file.
class SurfaceMapping {
public:
    SurfaceMapping(const uint8_t* base, size_t size) : base_(base), size_(size) {}
    ~SurfaceMapping();
    SurfaceMapping(const SurfaceMapping&) = delete;
    SurfaceMapping& operator=(const SurfaceMapping&) = delete;
    const uint8_t* base() const { return base_; }
    size_t size() const { return size_; }

private:
    const uint8_t* base_;
    size_t size_;
};

// Not thread-safe: used on the client's connection thread only. Mappings it
// hands out stay valid for as long as their holders keep them, also after
// the cache has let go of them.
//
// The service frees a surface by closing its memory, which the host cannot
// see: its own mapping keeps the memory alive. So a surface counts as freed
// when it has not come with a frame for kIdleLimit (the service's pool lets
// go of buffers unused for a second), or when its browser has closed.
class SurfaceMappingCache {
public:
    // Surfaces not seen for this long are unmapped once nobody holds them.
    static constexpr std::chrono::milliseconds kIdleLimit {3000};
    static constexpr size_t kMaxEntries = 64;

    explicit SurfaceMappingCache(std::chrono::milliseconds idleLimit = kIdleLimit) : idleLimit_(idleLimit) {}

    // Validates the properties against the surface file behind `fd` (which must
    // be sealed against shrinking, so it cannot be cut short under the
    // mapping) and returns the mapping of that surface, mapping it when it is
    // new. Lets go of idle surfaces on the way. Does not take ownership of `fd`.
    std::shared_ptr<const SurfaceMapping> Map(int browserID, const SurfaceProperties& properties, int fd,
                                              std::string* error);

    // Lets go of the surfaces of a browser that has closed, and of idle ones.
    void BrowserDidClose(int browserID);
    // Lets go of the surfaces not seen for the idle limit.
    void Prune() { PruneIdle(std::chrono::steady_clock::now()); }

    size_t size() const { return entries_.size(); }
    // Number of mmap calls made so far (for tests and statistics).
    uint64_t mapCount() const { return mapCount_; }

private:
    using Key = std::tuple<uint64_t, dev_t, ino_t>;
    struct Entry {
        std::shared_ptr<const SurfaceMapping> mapping;
        std::chrono::steady_clock::time_point lastUse;
        int browserID; // of the latest frame that came with the surface
    };
    void PruneIdle(std::chrono::steady_clock::time_point now);

    std::chrono::milliseconds idleLimit_;
    std::map<Key, Entry> entries_;
    uint64_t mapCount_ = 0;
};

} // namespace streamloft
