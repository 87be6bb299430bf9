// Shared graphics surfaces: the memory behind every video frame that the
// service hands to a host.
//
// A surface is a sealed memfd holding a BGRA image (4 bytes a pixel, B, G,
// R, A in memory, premultiplied alpha), `height` rows of `bytesPerRow` bytes;
// a row may end in padding beyond width × 4 bytes. The memfd's size is
// sealed (no shrink, no grow, no further seals), so a host can map it
// read-only without fearing that it shrinks under its mapping.
//
// With every frame the surface travels as a file descriptor plus a D-Bus
// dictionary (a{sv}) of its properties. The keys and value types are fixed:
//
//   key                        type  meaning
//   "IOSurfaceWidth"           t     pixels per row
//   "IOSurfaceHeight"          t     rows
//   "IOSurfaceBytesPerRow"     t     bytes from one row to the next (>= width × 4)
//   "IOSurfaceBytesPerElement" t     4
//   "IOSurfacePixelFormat"     u     0x42475241 ('BGRA')
//   "IOSurfaceID"              t     process-unique, increasing, never 0
//   "IOSurfaceAllocSize"       t     bytes of the memfd (bytesPerRow × height)
//
// and, for the frame the surface carries this time (added per frame; a
// reader treats them as optional):
//
//   "SLFFrameSequence"         t     per browser, from 1: every frame the
//                                    service produced for it, sent or dropped
//   "SLFFramePresentationTime" t     when the engine painted the frame,
//                                    microseconds of CLOCK_MONOTONIC
//
// The part of this header above the class (keys, property record, building
// and reading the dictionary) is inline and needs only GLib, so a host can
// use it without linking the platform library.
#pragma once

#include <glib.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

inline constexpr const char* kNplSharedSurfaceWidthKey = "IOSurfaceWidth";
inline constexpr const char* kNplSharedSurfaceHeightKey = "IOSurfaceHeight";
inline constexpr const char* kNplSharedSurfaceBytesPerRowKey = "IOSurfaceBytesPerRow";
inline constexpr const char* kNplSharedSurfaceBytesPerElementKey = "IOSurfaceBytesPerElement";
inline constexpr const char* kNplSharedSurfacePixelFormatKey = "IOSurfacePixelFormat";
inline constexpr const char* kNplSharedSurfaceIDKey = "IOSurfaceID";
inline constexpr const char* kNplSharedSurfaceAllocSizeKey = "IOSurfaceAllocSize";
inline constexpr const char* kNplSharedSurfaceFrameSequenceKey = "SLFFrameSequence";
inline constexpr const char* kNplSharedSurfaceFramePresentationTimeKey = "SLFFramePresentationTime";

// The four-character code 'BGRA': 32-bit BGRA, the only format of surfaces.
inline constexpr uint32_t kNplPixelFormatType_32BGRA = 0x42475241;
inline constexpr uint64_t kNplSharedSurfaceBytesPerElement = 4;

struct NplSharedSurfaceProperties {
    uint64_t width = 0;
    uint64_t height = 0;
    uint64_t bytesPerRow = 0;
    uint64_t bytesPerElement = kNplSharedSurfaceBytesPerElement;
    uint32_t pixelFormat = kNplPixelFormatType_32BGRA;
    uint64_t surfaceID = 0;
    uint64_t allocSize = 0;
    // The frame's keys; 0 when the dictionary has none (a surface's own).
    uint64_t frameSequence = 0;
    uint64_t framePresentationTime = 0;
};

// A new floating a{sv} with the seven keys above.
inline GVariant* NplSharedSurface_BuildPropertiesVariant(const NplSharedSurfaceProperties& p)
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE_VARDICT);
    g_variant_builder_add(&builder, "{sv}", kNplSharedSurfaceWidthKey, g_variant_new_uint64(p.width));
    g_variant_builder_add(&builder, "{sv}", kNplSharedSurfaceHeightKey, g_variant_new_uint64(p.height));
    g_variant_builder_add(&builder, "{sv}", kNplSharedSurfaceBytesPerRowKey, g_variant_new_uint64(p.bytesPerRow));
    g_variant_builder_add(&builder, "{sv}", kNplSharedSurfaceBytesPerElementKey,
                          g_variant_new_uint64(p.bytesPerElement));
    g_variant_builder_add(&builder, "{sv}", kNplSharedSurfacePixelFormatKey, g_variant_new_uint32(p.pixelFormat));
    g_variant_builder_add(&builder, "{sv}", kNplSharedSurfaceIDKey, g_variant_new_uint64(p.surfaceID));
    g_variant_builder_add(&builder, "{sv}", kNplSharedSurfaceAllocSizeKey, g_variant_new_uint64(p.allocSize));
    return g_variant_builder_end(&builder);
}

// A new floating a{sv}: the surface's property dictionary followed by the
// frame's sequence number and presentation time.
inline GVariant* NplSharedSurface_BuildFramePropertiesVariant(GVariant* surfaceProperties, uint64_t sequence,
                                                              uint64_t presentationTime)
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE_VARDICT);
    if (surfaceProperties) {
        const gsize count = g_variant_n_children(surfaceProperties);
        for (gsize i = 0; i < count; ++i) {
            GVariant* entry = g_variant_get_child_value(surfaceProperties, i);
            g_variant_builder_add_value(&builder, entry);
            g_variant_unref(entry);
        }
    }
    g_variant_builder_add(&builder, "{sv}", kNplSharedSurfaceFrameSequenceKey, g_variant_new_uint64(sequence));
    g_variant_builder_add(&builder, "{sv}", kNplSharedSurfaceFramePresentationTimeKey,
                          g_variant_new_uint64(presentationTime));
    return g_variant_builder_end(&builder);
}

// Reads a property dictionary as a host receives it. False when the value
// is not an a{sv}, a key is missing or has another type, or the values do
// not describe a BGRA image that fits its allocation (zero size, bytes per
// element other than 4, another pixel format, rows shorter than width × 4,
// an allocation smaller than bytesPerRow × height). The frame's keys are
// optional (0 when missing); other keys are ignored.
inline bool NplSharedSurface_ParsePropertiesVariant(GVariant* dictionary, NplSharedSurfaceProperties* out)
{
    if (!dictionary || !out || !g_variant_is_of_type(dictionary, G_VARIANT_TYPE_VARDICT)) {
        return false;
    }
    NplSharedSurfaceProperties p;
    const struct {
        const char* key;
        uint64_t* value;
    } sizes[] = {
        {kNplSharedSurfaceWidthKey, &p.width},         {kNplSharedSurfaceHeightKey, &p.height},
        {kNplSharedSurfaceBytesPerRowKey, &p.bytesPerRow}, {kNplSharedSurfaceBytesPerElementKey, &p.bytesPerElement},
        {kNplSharedSurfaceIDKey, &p.surfaceID},        {kNplSharedSurfaceAllocSizeKey, &p.allocSize},
    };
    for (const auto& entry : sizes) {
        if (!g_variant_lookup(dictionary, entry.key, "t", entry.value)) {
            return false;
        }
    }
    if (!g_variant_lookup(dictionary, kNplSharedSurfacePixelFormatKey, "u", &p.pixelFormat)) {
        return false;
    }
    if (!g_variant_lookup(dictionary, kNplSharedSurfaceFrameSequenceKey, "t", &p.frameSequence))
        p.frameSequence = 0;
    if (!g_variant_lookup(dictionary, kNplSharedSurfaceFramePresentationTimeKey, "t", &p.framePresentationTime))
        p.framePresentationTime = 0;
    if (p.width == 0 || p.height == 0 || p.bytesPerElement != kNplSharedSurfaceBytesPerElement ||
        p.pixelFormat != kNplPixelFormatType_32BGRA || p.width > UINT32_MAX || p.height > UINT32_MAX ||
        p.bytesPerRow / kNplSharedSurfaceBytesPerElement < p.width ||
        p.allocSize / p.height < p.bytesPerRow) {
        return false;
    }
    *out = p;
    return true;
}

// One shared surface, owned by the service side (the pixel-buffer pool
// keeps one per pixel buffer). The memory is mapped read-write here for the
// whole life of the object.
//
// The use count says how many holders other than the owning pixel buffer
// still read the surface: the service adds one for every receiver it sends
// the surface to and takes it away when that receiver lets go (its reply
// arrives or its connection closes). The owner learns of every change
// through its observer, which is how the pool knows when a buffer may be
// reused. Incrementing and decrementing are thread safe.
class CNplSharedSurface {
public:
    // Told of every change of the use count; called on the thread that made
    // the change, without any lock of the surface.
    class IUseCountObserver {
    public:
        virtual void SharedSurfaceUseCountIncremented(CNplSharedSurface* surface) = 0;
        virtual void SharedSurfaceUseCountDecremented(CNplSharedSurface* surface) = 0;

    protected:
        ~IUseCountObserver() = default;
    };

    // Creates, sizes, seals and maps a surface of height rows of bytesPerRow
    // bytes. Null when the sizes are zero, bytesPerRow < width × 4, or the
    // system refuses (errno tells why).
    static CNplSharedSurface* Create(uint32_t width, uint32_t height, uint64_t bytesPerRow);
    ~CNplSharedSurface();
    CNplSharedSurface(const CNplSharedSurface&) = delete;
    CNplSharedSurface& operator=(const CNplSharedSurface&) = delete;

    // The memfd; stays owned by the surface (senders duplicate it).
    int GetFd() const { return m_nFd; }
    uint32_t GetWidth() const { return m_nWidth; }
    uint32_t GetHeight() const { return m_nHeight; }
    uint64_t GetBytesPerRow() const { return m_nBytesPerRow; }
    uint64_t GetBytesPerElement() const { return kNplSharedSurfaceBytesPerElement; }
    uint32_t GetPixelFormat() const { return kNplPixelFormatType_32BGRA; }
    uint64_t GetID() const { return m_nID; }
    uint64_t GetAllocSize() const { return m_nAllocSize; }
    void* GetBaseAddress() const { return m_pBase; }

    NplSharedSurfaceProperties GetProperties() const;
    // The property dictionary, built once at creation and owned by the
    // surface (a full reference, never floating): senders take their own
    // reference, so sending a frame builds nothing.
    GVariant* GetPropertiesVariant() const { return m_pProperties; }

    void IncrementUseCount();
    void DecrementUseCount();
    int32_t GetUseCount() const { return m_nUseCount.load(std::memory_order_acquire); }
    bool IsInUse() const { return GetUseCount() > 0; }

    // Set once by the owner before the surface is handed out.
    void SetUseCountObserver(IUseCountObserver* observer) { m_pObserver = observer; }

private:
    CNplSharedSurface() = default;

    int m_nFd = -1;
    uint32_t m_nWidth = 0;
    uint32_t m_nHeight = 0;
    uint64_t m_nBytesPerRow = 0;
    uint64_t m_nAllocSize = 0;
    uint64_t m_nID = 0;
    void* m_pBase = nullptr;
    GVariant* m_pProperties = nullptr;
    std::atomic<int32_t> m_nUseCount{0};
    IUseCountObserver* m_pObserver = nullptr;
};
