// Editing records in tests: copies of a record with one entry replaced or
// removed, to make missing, mistyped and hostile records.
#pragma once

#include <glib.h>

// A copy of `record` (consumed) with `key` set to `value`; new floating record.
inline GVariant* WithEntry(GVariant* record, const char* key, GVariant* value)
{
    g_variant_ref_sink(record);
    GVariantDict dict;
    g_variant_dict_init(&dict, record);
    g_variant_dict_insert_value(&dict, key, value);
    g_variant_unref(record);
    return g_variant_dict_end(&dict);
}

// A copy of `record` (consumed) without `key`; new floating record.
inline GVariant* WithoutEntry(GVariant* record, const char* key)
{
    g_variant_ref_sink(record);
    GVariantDict dict;
    g_variant_dict_init(&dict, record);
    g_variant_dict_remove(&dict, key);
    g_variant_unref(record);
    return g_variant_dict_end(&dict);
}
