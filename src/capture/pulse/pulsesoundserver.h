#pragma once

#include "capture/hostclock.h"
#include "capture/soundserver.h"

#include <memory>

namespace qm {

// The sound server through libpulse (PulseAudio, or PipeWire's PulseAudio service).
//
// One threaded main loop ("app.quillmoor.pulse") per capture delivers every stream's audio. Meeting audio is
// either the default output's monitor, reopened on the new output when the default changes, or one monitor
// stream per Zoom playback stream (attached when Zoom opens one, detached when it closes it) mixed into one.
// Streams never move to another device by themselves: a stream whose device goes away fails, which is
// reported, instead of silently recording something else.
class PulseSoundServer : public SoundServer {
public:
    explicit PulseSoundServer(const HostClock &clock);
    ~PulseSoundServer() override;

    expected<void, CaptureFailure> startMeeting(RecordingSource source, QList<int> zoomProcesses,
                                                Callbacks callbacks) override;
    expected<void, CaptureFailure> startMicrophone(std::optional<QString> name, Callbacks callbacks) override;
    void stop() override;

    // Milliseconds any single request to the server may take before it counts as unreachable.
    static constexpr int kRequestTimeoutMs = 5000;

private:
    struct Connection;
    // One connection serves every source of a capture; a refusal is reported as `denied`.
    expected<void, CaptureFailure> connect(CaptureError denied);
    std::unique_ptr<Connection> m_connection;
    const HostClock &m_clock;
};

} // namespace qm
