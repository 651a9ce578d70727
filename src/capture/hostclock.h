#pragma once

#include "capture/mediasample.h"

#include <ctime>

namespace qm {

// The one clock every track is timed against. Injectable so pauses and offsets are tested without waiting.
class HostClock {
public:
    virtual ~HostClock() = default;
    virtual Nanoseconds now() const = 0;
};

// CLOCK_MONOTONIC: never jumps with the wall clock, and is what the sound server's timing uses.
class MonotonicClock : public HostClock {
public:
    Nanoseconds now() const override
    {
        timespec ts{};
        clock_gettime(CLOCK_MONOTONIC, &ts);
        return Nanoseconds(ts.tv_sec) * kNanosecondsPerSecond + ts.tv_nsec;
    }
};

} // namespace qm
