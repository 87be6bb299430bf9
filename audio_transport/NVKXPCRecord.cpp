#include "audio_transport/NVKXPCRecord.h"

NVKXPCRecordReader::NVKXPCRecordReader(GVariant* record)
{
    if (!record)
        return;
    m_record = g_variant_ref_sink(record);
    m_valid = g_variant_is_of_type(m_record, G_VARIANT_TYPE_VARDICT);
}

NVKXPCRecordReader::~NVKXPCRecordReader()
{
    if (m_record)
        g_variant_unref(m_record);
}

bool NVKXPCRecordReader::empty() const
{
    return !m_valid || g_variant_n_children(m_record) == 0;
}

bool NVKXPCRecordReader::readUnsigned(const char* key, uint64_t* value) const
{
    if (!m_valid)
        return false;
    GVariant* v = g_variant_lookup_value(m_record, key, G_VARIANT_TYPE_UINT64);
    if (!v)
        return false;
    *value = g_variant_get_uint64(v);
    g_variant_unref(v);
    return true;
}

bool NVKXPCRecordReader::readSigned(const char* key, int64_t* value) const
{
    if (!m_valid)
        return false;
    GVariant* v = g_variant_lookup_value(m_record, key, G_VARIANT_TYPE_INT64);
    if (!v)
        return false;
    *value = g_variant_get_int64(v);
    g_variant_unref(v);
    return true;
}

bool NVKXPCRecordReader::readString(const char* key, std::string* value) const
{
    if (!m_valid)
        return false;
    GVariant* v = g_variant_lookup_value(m_record, key, G_VARIANT_TYPE_STRING);
    if (!v)
        return false;
    gsize size = 0;
    const char* text = g_variant_get_string(v, &size);
    value->assign(text, size);
    g_variant_unref(v);
    return true;
}

NVKXPCRecordWriter::~NVKXPCRecordWriter()
{
    for (int i = 0; i < m_count; ++i)
        g_variant_unref(g_variant_ref_sink(m_entries[i]));
}

void NVKXPCRecordWriter::add(const char* key, GVariant* value)
{
    GVariant* entry = g_variant_new_dict_entry(g_variant_new_string(key), g_variant_new_variant(value));
    if (m_count < kMaxEntries)
        m_entries[m_count++] = entry;
    else
        g_variant_unref(g_variant_ref_sink(entry));
}

void NVKXPCRecordWriter::addUnsigned(const char* key, uint64_t value)
{
    add(key, g_variant_new_uint64(value));
}

void NVKXPCRecordWriter::addSigned(const char* key, int64_t value)
{
    add(key, g_variant_new_int64(value));
}

void NVKXPCRecordWriter::addString(const char* key, const char* value)
{
    add(key, g_variant_new_string(value));
}

GVariant* NVKXPCRecordWriter::finish()
{
    GVariant* record = g_variant_new_array(G_VARIANT_TYPE("{sv}"), m_entries, static_cast<gsize>(m_count));
    m_count = 0;
    return record;
}
