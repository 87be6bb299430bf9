// The receiving side of the page audio: one read-only pool per audio stream
// (decoded from the record that announces the stream), adoption of each
// buffer that arrives with its pending reply, and the hand-over of buffers to
// the host as AudioBuffer objects whose destruction sends that reply.
#pragma once

#include <glib.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "streamloft/AudioBuffer.h"

class NVKXPCAudioBufferPool;

namespace streamloft {

// Not thread-safe: used on the client's connection thread only. The buffers
// it hands out may be dropped on any thread.
class AudioStreamReceiver {
public:
    using Reply = std::function<void()>;

    AudioStreamReceiver();
    ~AudioStreamReceiver();

    // Decodes the pool record of a starting stream and maps its memory. A
    // stream already known under the same IDs is replaced. False and a message
    // when the record does not decode or the memory cannot be mapped.
    bool StartStream(int browserID, int streamID, GVariant* poolRecord, AudioStreamFormat* format, std::string* error);

    // Adopts a buffer record. `reply` gives the slot back to the service; it
    // runs exactly once: when the returned buffer is destroyed, or before this
    // returns when there is nothing to hand to the host. Returns null for the
    // empty record (the null buffer that precedes a stop) and for a buffer
    // that cannot be read (then with a message in `error`).
    std::shared_ptr<const AudioBuffer> ReceiveBuffer(int browserID, int streamID, GVariant* bufferRecord, Reply reply,
                                                     std::string* error);

    // Forgets the stream's pool; buffers the host still holds keep it mapped.
    void StopStream(int browserID, int streamID);
    void Clear();
    size_t streamCount() const { return pools_.size(); }

private:
    std::map<std::pair<int, int>, std::shared_ptr<NVKXPCAudioBufferPool>> pools_;
};

} // namespace streamloft
