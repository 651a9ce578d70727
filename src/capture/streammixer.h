#pragma once

#include "capture/mediasample.h"

#include <map>
#include <vector>

namespace qm {

// Mixes several live streams of one kind (each Zoom playback stream) into one, by their timestamps.
//
// Audio is held back briefly so a stream that delivers a little later than another is still mixed in;
// anything arriving for time already handed on is dropped. Used from one thread.
class StreamMixer {
public:
    StreamMixer(int sampleRate, int channels, Nanoseconds holdBack = kNanosecondsPerSecond / 5);

    void add(int stream, const AudioChunk &chunk);
    void remove(int stream);
    // Mixed audio that no stream can still add to; with `everything`, all that is held.
    std::vector<AudioChunk> take(bool everything = false);

private:
    std::int64_t frameAt(Nanoseconds pts) const;

    int m_rate;
    int m_channels;
    Nanoseconds m_holdBack;
    bool m_started = false;
    Nanoseconds m_origin = 0;           // host time of timeline frame 0
    std::int64_t m_emitted = 0;         // timeline frames already handed on
    std::vector<float> m_pending;       // interleaved, starting at m_emitted
    std::map<int, std::int64_t> m_ends; // each stream's end on the timeline
};

} // namespace qm
