// Reading and writing the transport's records: GVariant dictionaries a{sv}
// whose unsigned fields are 't', signed fields 'x' and strings 's'.
// Internal to audio_transport/.
#pragma once

#include <cstdint>
#include <string>

#include <glib.h>

class NVKXPCRecordReader {
public:
    // Takes a reference to `record` (sinking a floating one). valid() is false
    // for null or for anything that is not an a{sv} dictionary.
    explicit NVKXPCRecordReader(GVariant* record);
    ~NVKXPCRecordReader();
    NVKXPCRecordReader(const NVKXPCRecordReader&) = delete;
    NVKXPCRecordReader& operator=(const NVKXPCRecordReader&) = delete;

    bool valid() const { return m_valid; }
    bool empty() const;

    // False when the key is missing or its value has another type.
    bool readUnsigned(const char* key, uint64_t* value) const;
    bool readSigned(const char* key, int64_t* value) const;
    bool readString(const char* key, std::string* value) const;

private:
    GVariant* m_record = nullptr;
    bool m_valid = false;
};

class NVKXPCRecordWriter {
public:
    NVKXPCRecordWriter() = default;
    ~NVKXPCRecordWriter();
    NVKXPCRecordWriter(const NVKXPCRecordWriter&) = delete;
    NVKXPCRecordWriter& operator=(const NVKXPCRecordWriter&) = delete;

    void addUnsigned(const char* key, uint64_t value);
    void addSigned(const char* key, int64_t value);
    void addString(const char* key, const char* value);

    // The dictionary, in the order the entries were added, as a new floating
    // reference. The writer is empty afterwards.
    GVariant* finish();

private:
    void add(const char* key, GVariant* value);

    static constexpr int kMaxEntries = 8;
    GVariant* m_entries[kMaxEntries] = {};
    int m_count = 0;
};
