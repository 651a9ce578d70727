#pragma once

#include "capture/capturefailure.h"
#include "capture/mediasample.h"
#include "library/recording.h"
#include "library/result.h"

#include <QList>

#include <functional>
#include <optional>

namespace qm {

// Where capture gets its audio: the sound server.
//
// Each started source delivers interleaved float chunks at 48 kHz (stereo for the meeting, mono for the
// microphone) stamped with the host clock (CLOCK_MONOTONIC). Deliveries and `failed` come on the
// implementation's own thread; after stop() returns nothing more is delivered.
class SoundServer {
public:
    struct Callbacks {
        std::function<void(AudioChunk)> deliver;
        std::function<void(QString)> failed; // the source stopped by itself; a sentence for the user
    };

    virtual ~SoundServer() = default;

    // Meeting audio: for `systemAudio` everything the default output plays (following a change of the default
    // output); for `zoom` only the playback streams of the processes in `zoomProcesses`, including streams
    // they open later, mixed into one.
    virtual expected<void, CaptureFailure> startMeeting(RecordingSource source, QList<int> zoomProcesses,
                                                        Callbacks callbacks) = 0;
    // The named input, or the default one when `name` is absent or unknown. A monitor of an output never
    // counts as a microphone.
    virtual expected<void, CaptureFailure> startMicrophone(std::optional<QString> name, Callbacks callbacks) = 0;
    virtual void stop() = 0;
};

// The running Zoom client's processes.
class ProcessList {
public:
    virtual ~ProcessList() = default;
    virtual QList<int> zoomProcesses() = 0;
};

} // namespace qm
