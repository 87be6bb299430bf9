// Helpers shared by the fuzz targets: turning the fuzzer's bytes into what a
// parser receives from another process, and stopping on a broken invariant.
#pragma once

#include <glib.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

// The bytes as a value of the given GVariant type, in the normal form a
// D-Bus message or one of our socket frames delivers. A new full reference.
inline GVariant* FuzzVariant(const char* type, const uint8_t* data, size_t size)
{
    GBytes* bytes = g_bytes_new(size ? data : nullptr, size);
    GVariant* value = g_variant_ref_sink(g_variant_new_from_bytes(G_VARIANT_TYPE(type), bytes, FALSE));
    g_bytes_unref(bytes);
    // Already a full reference (never floating): sinking it again would add
    // a second one, and every input's value would stay behind.
    GVariant* normal = g_variant_get_normal_form(value);
    g_variant_unref(value);
    return normal;
}

// The bytes as text up to the first NUL, as a C string parser reads them.
inline std::string FuzzText(const uint8_t* data, size_t size)
{
    std::string text(reinterpret_cast<const char*>(data), size);
    const size_t nul = text.find('\0');
    if (nul != std::string::npos)
        text.resize(nul);
    return text;
}

// A broken invariant is a finding: report it and abort, so that libFuzzer
// keeps the input as a crash.
#define FUZZ_CHECK(condition)                                                                                          \
    do {                                                                                                               \
        if (!(condition)) {                                                                                            \
            fprintf(stderr, "fuzz check failed: %s (%s:%d)\n", #condition, __FILE__, __LINE__);                        \
            abort();                                                                                                   \
        }                                                                                                              \
    } while (0)
