#pragma once

#include <cstdint>
#include <memory>
#include <vector>

namespace qm {

// Host-clock time in nanoseconds (CLOCK_MONOTONIC), or a length of time in nanoseconds.
using Nanoseconds = std::int64_t;

inline constexpr Nanoseconds kNanosecondsPerSecond = 1'000'000'000;

// A run of interleaved 32-bit float audio. `pts` is the host-clock time of the first frame.
struct AudioChunk {
    Nanoseconds pts = 0;
    int sampleRate = 48000;
    int channels = 2;
    std::vector<float> samples; // frames × channels

    int frames() const { return channels > 0 ? int(samples.size() / std::size_t(channels)) : 0; }
    Nanoseconds duration() const
    {
        return sampleRate > 0 ? Nanoseconds(frames()) * kNanosecondsPerSecond / sampleRate : 0;
    }
};

// One captured picture, 32-bit BGRX rows (the X server's native layout). `pts` is the host-clock time.
struct VideoFrame {
    Nanoseconds pts = 0;
    int width = 0;
    int height = 0;
    int stride = 0; // bytes per row
    std::shared_ptr<const std::vector<std::uint8_t>> pixels;
    bool complete = true; // a frame the source could only partly deliver is not written
};

} // namespace qm
