#pragma once

#include "capture/hostclock.h"
#include "capture/soundserver.h"

#include <atomic>

namespace qm::test {

// A clock the test moves by hand.
class FakeClock : public HostClock {
public:
    Nanoseconds now() const override { return time.load(); }
    void advance(Nanoseconds by) { time += by; }
    std::atomic<Nanoseconds> time{100 * kNanosecondsPerSecond};
};

// Stands in for the sound server where a test needs exact sample times; the real one is tested against a
// private PulseAudio.
class FakeSoundServer : public SoundServer {
public:
    expected<void, CaptureFailure> startMeeting(RecordingSource source, QList<int> zoomProcesses,
                                                Callbacks callbacks) override;
    expected<void, CaptureFailure> startMicrophone(std::optional<QString> name, Callbacks callbacks) override;
    void stop() override;

    Callbacks meeting;
    Callbacks microphone;
    int starts = 0;
    bool stopped = false;
    std::optional<CaptureFailure> failMicrophone;
};

class FakeProcessList : public ProcessList {
public:
    QList<int> zoomProcesses() override { return zoom; }
    QList<int> zoom;
};

// `seconds` of a 440 Hz tone (or silence) starting at `pts`, in one chunk.
AudioChunk toneChunk(Nanoseconds pts, double seconds, int channels, float amplitude = 0.5f);

} // namespace qm::test
