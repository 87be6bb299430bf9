#include "client/SurfaceMappingCache.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "protocol/SurfaceDictionary.h"

namespace streamloft {

SurfaceMapping::~SurfaceMapping()
{
    munmap(const_cast<uint8_t*>(base_), size_);
}

std::shared_ptr<const SurfaceMapping> SurfaceMappingCache::Map(int browserID, const SurfaceProperties& properties,
                                                               int fd, std::string* error)
{
    struct stat st {};
    if (fstat(fd, &st) != 0) {
        *error = std::string("cannot inspect surface: ") + strerror(errno);
        return nullptr;
    }
    if (!S_ISREG(st.st_mode) || st.st_size <= 0) {
        *error = "surface is not a shared memory file with content";
        return nullptr;
    }
    // A file that can still shrink could be cut short while mapped, and
    // reading past its new end would kill the host with SIGBUS.
    int seals = fcntl(fd, F_GET_SEALS);
    if (seals < 0 || !(seals & F_SEAL_SHRINK)) {
        *error = "surface memory is not sealed against shrinking";
        return nullptr;
    }
    const uint64_t fileSize = static_cast<uint64_t>(st.st_size);
    if (!protocol::ValidateSurfaceProperties(properties, fileSize, error))
        return nullptr;

    const auto now = std::chrono::steady_clock::now();
    const Key key {properties.surfaceID, st.st_dev, st.st_ino};
    auto it = entries_.find(key);
    if (it != entries_.end() && it->second.mapping->size() == fileSize) {
        it->second.lastUse = now;
        it->second.browserID = browserID;
        auto mapping = it->second.mapping;
        // Surfaces freed by a resize stop coming while this one keeps coming.
        PruneIdle(now);
        return mapping;
    }
    PruneIdle(now);
    // Room for the new surface: the one unused the longest goes.
    while (entries_.size() >= kMaxEntries) {
        auto oldest = entries_.begin();
        for (auto e = entries_.begin(); e != entries_.end(); ++e)
            if (e->second.lastUse < oldest->second.lastUse)
                oldest = e;
        entries_.erase(oldest);
    }
    void* base = mmap(nullptr, fileSize, PROT_READ, MAP_SHARED, fd, 0);
    if (base == MAP_FAILED) {
        *error = std::string("cannot map surface: ") + strerror(errno);
        return nullptr;
    }
    ++mapCount_;
    auto mapping = std::make_shared<const SurfaceMapping>(static_cast<const uint8_t*>(base), fileSize);
    entries_[key] = Entry {mapping, now, browserID};
    return mapping;
}

void SurfaceMappingCache::BrowserDidClose(int browserID)
{
    std::erase_if(entries_, [&](const auto& entry) { return entry.second.browserID == browserID; });
    PruneIdle(std::chrono::steady_clock::now());
}

void SurfaceMappingCache::PruneIdle(std::chrono::steady_clock::time_point now)
{
    std::erase_if(entries_, [&](const auto& entry) { return now - entry.second.lastUse > idleLimit_; });
}

} // namespace streamloft
