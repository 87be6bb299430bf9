#include "tools/slf-overlay-capture/WavStreamWriter.h"

namespace slf_capture {

WavStreamWriter::~WavStreamWriter()
{
    Close();
}

bool WavStreamWriter::Open(const std::string& path, int64_t sampleRate, int64_t channelCount, int64_t bitsPerSample,
                           std::string* error)
{
    Close();
    int subtype = 0;
    switch (bitsPerSample) {
    case 16:
        subtype = SF_FORMAT_PCM_16;
        break;
    case 24:
        subtype = SF_FORMAT_PCM_24;
        break;
    case 32:
        subtype = SF_FORMAT_PCM_32;
        break;
    default:
        *error = "cannot write " + path + ": " + std::to_string(bitsPerSample) + " bits a sample is not supported";
        return false;
    }
    if (sampleRate <= 0 || sampleRate > 1000000 || channelCount <= 0 || channelCount > 64) {
        *error = "cannot write " + path + ": unusable format (" + std::to_string(sampleRate) + " Hz, " +
                 std::to_string(channelCount) + " channels)";
        return false;
    }
    SF_INFO info {};
    info.samplerate = static_cast<int>(sampleRate);
    info.channels = static_cast<int>(channelCount);
    info.format = SF_FORMAT_WAV | subtype | SF_ENDIAN_FILE;
    file_ = sf_open(path.c_str(), SFM_WRITE, &info);
    if (!file_) {
        *error = "cannot write " + path + ": " + sf_strerror(nullptr);
        return false;
    }
    path_ = path;
    bytesPerFrame_ = static_cast<uint64_t>(channelCount) * (bitsPerSample / 8);
    framesWritten_ = 0;
    return true;
}

bool WavStreamWriter::Write(const uint8_t* bytes, uint64_t length, std::string* error)
{
    if (!file_) {
        *error = "no open sound file";
        return false;
    }
    // The samples arrive in the file's own byte order (little endian), so the
    // bytes go in unchanged.
    const uint64_t whole = length / bytesPerFrame_ * bytesPerFrame_;
    if (whole == 0)
        return true;
    sf_count_t written = sf_write_raw(file_, bytes, static_cast<sf_count_t>(whole));
    if (written != static_cast<sf_count_t>(whole)) {
        *error = "cannot write " + path_ + ": " + sf_strerror(file_);
        return false;
    }
    framesWritten_ += whole / bytesPerFrame_;
    return true;
}

void WavStreamWriter::Close()
{
    if (file_)
        sf_close(file_);
    file_ = nullptr;
}

} // namespace slf_capture
