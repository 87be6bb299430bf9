#include "client/SurfaceMappingCache.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <limits>

namespace streamloft {

namespace {

bool ReadWholeNumber(GVariant* value, uint64_t* out) {
  const GVariantType* type = g_variant_get_type(value);
  auto fromSigned = [out](int64_t v) {
    if (v < 0) return false;
    *out = static_cast<uint64_t>(v);
    return true;
  };
  if (g_variant_type_equal(type, G_VARIANT_TYPE_BYTE)) { *out = g_variant_get_byte(value); return true; }
  if (g_variant_type_equal(type, G_VARIANT_TYPE_UINT16)) { *out = g_variant_get_uint16(value); return true; }
  if (g_variant_type_equal(type, G_VARIANT_TYPE_UINT32)) { *out = g_variant_get_uint32(value); return true; }
  if (g_variant_type_equal(type, G_VARIANT_TYPE_UINT64)) { *out = g_variant_get_uint64(value); return true; }
  if (g_variant_type_equal(type, G_VARIANT_TYPE_INT16)) return fromSigned(g_variant_get_int16(value));
  if (g_variant_type_equal(type, G_VARIANT_TYPE_INT32)) return fromSigned(g_variant_get_int32(value));
  if (g_variant_type_equal(type, G_VARIANT_TYPE_INT64)) return fromSigned(g_variant_get_int64(value));
  if (g_variant_type_equal(type, G_VARIANT_TYPE_DOUBLE)) {
    double d = g_variant_get_double(value);
    if (!std::isfinite(d) || d < 0 || d != std::floor(d) || d >= 18446744073709551616.0) return false;
    *out = static_cast<uint64_t>(d);
    return true;
  }
  return false;
}

bool ReadField(GVariant* dictionary, const char* key, uint64_t max, uint64_t* out, std::string* error) {
  GVariant* value = g_variant_lookup_value(dictionary, key, nullptr);
  if (!value) {
    *error = std::string("surface property ") + key + " is missing";
    return false;
  }
  // A value boxed once more as a variant is unwrapped.
  if (g_variant_is_of_type(value, G_VARIANT_TYPE_VARIANT)) {
    GVariant* inner = g_variant_get_variant(value);
    g_variant_unref(value);
    value = inner;
  }
  uint64_t number = 0;
  bool ok = ReadWholeNumber(value, &number);
  std::string typeString = g_variant_get_type_string(value);
  g_variant_unref(value);
  if (!ok) {
    *error = std::string("surface property ") + key + " is not a non-negative whole number (type " + typeString + ")";
    return false;
  }
  if (number > max) {
    *error = std::string("surface property ") + key + " is out of range (" + std::to_string(number) + ")";
    return false;
  }
  *out = number;
  return true;
}

}  // namespace

bool ParseSurfaceProperties(GVariant* dictionary, SurfaceProperties* properties, std::string* error) {
  if (!dictionary || !g_variant_is_of_type(dictionary, G_VARIANT_TYPE_VARDICT)) {
    *error = "surface properties are not a dictionary";
    return false;
  }
  constexpr uint64_t u32 = std::numeric_limits<uint32_t>::max();
  uint64_t width, height, bytesPerRow, bytesPerElement, pixelFormat, surfaceID, allocSize;
  if (!ReadField(dictionary, "IOSurfaceWidth", u32, &width, error) ||
      !ReadField(dictionary, "IOSurfaceHeight", u32, &height, error) ||
      !ReadField(dictionary, "IOSurfaceBytesPerRow", u32, &bytesPerRow, error) ||
      !ReadField(dictionary, "IOSurfaceBytesPerElement", u32, &bytesPerElement, error) ||
      !ReadField(dictionary, "IOSurfacePixelFormat", u32, &pixelFormat, error) ||
      !ReadField(dictionary, "IOSurfaceID", std::numeric_limits<uint64_t>::max(), &surfaceID, error) ||
      !ReadField(dictionary, "IOSurfaceAllocSize", std::numeric_limits<uint64_t>::max(), &allocSize, error))
    return false;
  properties->width = static_cast<uint32_t>(width);
  properties->height = static_cast<uint32_t>(height);
  properties->bytesPerRow = static_cast<uint32_t>(bytesPerRow);
  properties->bytesPerElement = static_cast<uint32_t>(bytesPerElement);
  properties->pixelFormat = static_cast<uint32_t>(pixelFormat);
  properties->surfaceID = surfaceID;
  properties->allocSize = allocSize;
  // The frame's timing is optional: a service that does not send it gives 0.
  std::string ignored;
  uint64_t sequence = 0, presentationTime = 0;
  properties->frameSequence =
      ReadField(dictionary, "SLFFrameSequence", std::numeric_limits<uint64_t>::max(), &sequence, &ignored) ? sequence : 0;
  properties->framePresentationTime =
      ReadField(dictionary, "SLFFramePresentationTime", std::numeric_limits<uint64_t>::max(), &presentationTime,
                &ignored)
          ? presentationTime
          : 0;
  return true;
}

bool ValidateSurfaceProperties(const SurfaceProperties& p, uint64_t fileSize, std::string* error) {
  if (p.pixelFormat != kPixelFormatBGRA) {
    *error = "surface pixel format " + std::to_string(p.pixelFormat) + " is not BGRA";
    return false;
  }
  if (p.bytesPerElement != 4) {
    *error = "surface has " + std::to_string(p.bytesPerElement) + " bytes per element, not 4";
    return false;
  }
  if (p.width == 0 || p.height == 0) {
    *error = "surface is empty (" + std::to_string(p.width) + "x" + std::to_string(p.height) + ")";
    return false;
  }
  // 32-bit factors: none of these products can overflow 64 bits.
  const uint64_t rowBytes = static_cast<uint64_t>(p.width) * 4;
  if (p.bytesPerRow < rowBytes) {
    *error = "surface stride " + std::to_string(p.bytesPerRow) + " is shorter than a row of " +
             std::to_string(rowBytes) + " bytes";
    return false;
  }
  const uint64_t imageBytes = static_cast<uint64_t>(p.bytesPerRow) * p.height;
  if (p.allocSize < imageBytes) {
    *error = "surface allocation of " + std::to_string(p.allocSize) + " bytes is smaller than its image of " +
             std::to_string(imageBytes) + " bytes";
    return false;
  }
  if (p.allocSize > fileSize) {
    *error = "surface allocation of " + std::to_string(p.allocSize) + " bytes exceeds its memory of " +
             std::to_string(fileSize) + " bytes";
    return false;
  }
  return true;
}

SurfaceMapping::~SurfaceMapping() {
  munmap(const_cast<uint8_t*>(base_), size_);
}

std::shared_ptr<const SurfaceMapping> SurfaceMappingCache::Map(int browserID, const SurfaceProperties& properties,
                                                               int fd, std::string* error) {
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
  if (!ValidateSurfaceProperties(properties, fileSize, error)) return nullptr;

  const auto now = std::chrono::steady_clock::now();
  const Key key{properties.surfaceID, st.st_dev, st.st_ino};
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
      if (e->second.lastUse < oldest->second.lastUse) oldest = e;
    entries_.erase(oldest);
  }
  void* base = mmap(nullptr, fileSize, PROT_READ, MAP_SHARED, fd, 0);
  if (base == MAP_FAILED) {
    *error = std::string("cannot map surface: ") + strerror(errno);
    return nullptr;
  }
  ++mapCount_;
  auto mapping = std::make_shared<const SurfaceMapping>(static_cast<const uint8_t*>(base), fileSize);
  entries_[key] = Entry{mapping, now, browserID};
  return mapping;
}

void SurfaceMappingCache::BrowserDidClose(int browserID) {
  std::erase_if(entries_, [&](const auto& entry) { return entry.second.browserID == browserID; });
  PruneIdle(std::chrono::steady_clock::now());
}

void SurfaceMappingCache::PruneIdle(std::chrono::steady_clock::time_point now) {
  std::erase_if(entries_, [&](const auto& entry) { return now - entry.second.lastUse > idleLimit_; });
}

}  // namespace streamloft
