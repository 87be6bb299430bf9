// Writing one audio stream of a page to a WAV file (through libsndfile).
#pragma once

#include <sndfile.h>

#include <cstdint>
#include <string>

namespace slf_capture {

class WavStreamWriter {
public:
    WavStreamWriter() = default;
    ~WavStreamWriter();
    WavStreamWriter(const WavStreamWriter&) = delete;
    WavStreamWriter& operator=(const WavStreamWriter&) = delete;

    // Signed little-endian PCM of 16, 24 or 32 bits a sample, interleaved.
    bool Open(const std::string& path, int64_t sampleRate, int64_t channelCount, int64_t bitsPerSample,
              std::string* error);
    // Appends whole sample frames; a trailing partial frame is dropped.
    bool Write(const uint8_t* bytes, uint64_t length, std::string* error);
    void Close();

    bool isOpen() const { return file_ != nullptr; }
    uint64_t framesWritten() const { return framesWritten_; }
    const std::string& path() const { return path_; }

private:
    SNDFILE* file_ = nullptr;
    std::string path_;
    uint64_t bytesPerFrame_ = 0;
    uint64_t framesWritten_ = 0;
};

} // namespace slf_capture
