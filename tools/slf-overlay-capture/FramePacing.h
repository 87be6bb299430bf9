// What the receive times of a frame stream say about its pacing: missed
// frames are read from gaps between consecutive frames measured against the
// requested frame period; the service's frame sequence numbers tell which of
// them the service dropped (the rest the page did not paint), and the paint
// times of frames and audio tell how far apart the two arrive.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace slf_capture {

// Frames a gap of `interval` seconds between two consecutive frames stands
// for at a frame period of `period` seconds: none up to 1.5 periods (normal
// jitter), then round(interval / period) - 1.
inline uint64_t FramesMissedInInterval(double interval, double period)
{
    if (!(period > 0) || !(interval > 1.5 * period))
        return 0;
    return static_cast<uint64_t>(std::llround(interval / period)) - 1;
}

// Frames the requested rate promises over `seconds` minus the frames that
// arrived; 0 when at least as many arrived.
inline uint64_t FramesShortOfRate(double fps, double seconds, uint64_t received)
{
    const double expected = std::floor(fps * seconds);
    return expected > static_cast<double>(received) ? static_cast<uint64_t>(expected) - received : 0;
}

// Collects the intervals between consecutive frames, in seconds, without
// keeping them (a capture may run for a day).
class FramePacing {
public:
    explicit FramePacing(double fps) : period_(fps > 0 ? 1.0 / fps : 0) {}

    void AddInterval(double interval)
    {
        ++intervals_;
        // Welford's update: the deviation stays exact over long runs.
        const double delta = interval - mean_;
        mean_ += delta / static_cast<double>(intervals_);
        squares_ += delta * (interval - mean_);
        longest_ = std::max(longest_, interval);
        if (uint64_t missed = FramesMissedInInterval(interval, period_)) {
            ++longGaps_;
            missed_ += missed;
        }
    }

    uint64_t intervals() const { return intervals_; }
    double meanInterval() const { return mean_; }
    double longestInterval() const { return longest_; }
    // Standard deviation of the interval (over all intervals seen).
    double jitter() const { return intervals_ ? std::sqrt(squares_ / static_cast<double>(intervals_)) : 0; }
    // Intervals longer than 1.5 frame periods, and the frames they stand for.
    uint64_t longGaps() const { return longGaps_; }
    uint64_t framesMissed() const { return missed_; }

private:
    double period_;
    uint64_t intervals_ = 0;
    double mean_ = 0;
    double squares_ = 0;
    double longest_ = 0;
    uint64_t longGaps_ = 0;
    uint64_t missed_ = 0;
};

// Splits the frames missing from a stream by cause, from the service's
// sequence numbers (0 = the service sent none) and the slots each interval
// missed: a jump in the sequence is frames the service produced and dropped;
// missed slots beyond that are frames the page did not paint.
class FrameAccounting {
public:
    void AddFrame(uint64_t sequence, uint64_t missedSlots)
    {
        uint64_t dropped = 0;
        if (sequence && lastSequence_ && sequence > lastSequence_ + 1)
            dropped = sequence - lastSequence_ - 1;
        droppedByService_ += dropped;
        notPainted_ += missedSlots > dropped ? missedSlots - dropped : 0;
        if (sequence)
            lastSequence_ = sequence;
    }
    uint64_t droppedByService() const { return droppedByService_; }
    uint64_t notPainted() const { return notPainted_; }

private:
    uint64_t lastSequence_ = 0;
    uint64_t droppedByService_ = 0;
    uint64_t notPainted_ = 0;
};

// Mean of the time from presentation (paint, or first sample played) to
// receipt, in seconds, over the items that carried a presentation time.
class DeliveryDelay {
public:
    void Add(double seconds)
    {
        ++count_;
        mean_ += (seconds - mean_) / static_cast<double>(count_);
    }
    uint64_t count() const { return count_; }
    double mean() const { return mean_; }

private:
    uint64_t count_ = 0;
    double mean_ = 0;
};

} // namespace slf_capture
