// A copy of a record (consumed) with `key` set to `value`, or removed when
// `value` is null: missing, mistyped and hostile records for the tests.
#pragma once

#include <glib.h>

inline GVariant* Edited(GVariant* record, const char* key, GVariant* value = nullptr)
{
    g_variant_take_ref(record);
    GVariantDict dict;
    g_variant_dict_init(&dict, record);
    value ? g_variant_dict_insert_value(&dict, key, value) : (void)g_variant_dict_remove(&dict, key);
    g_variant_unref(record);
    return g_variant_dict_end(&dict);
}
