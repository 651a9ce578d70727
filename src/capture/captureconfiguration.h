#pragma once

#include "capture/audiosettings.h"
#include "library/recording.h"

#include <QUrl>

#include <cstdint>
#include <optional>

namespace qm {

// Everything one capture needs to know, handed from the controller to the capture engine.
struct CaptureConfiguration {
    RecordingSource source = RecordingSource::zoom;
    bool captureVideo = false;     // ignored for inPerson, which never films
    bool includeMicrophone = true; // ignored for inPerson, which always records the microphone
    AudioQuality quality = AudioQuality::high;
    std::optional<QString> microphoneID; // sound-server source name; absent or empty = the default input
    int frameRate = 15;                  // below 1 counts as 1
    std::optional<std::uint32_t> displayID;
    QUrl meetingTrackURL;
    QUrl microphoneTrackURL;
    QUrl screenURL;

    bool recordsMicrophone() const { return source == RecordingSource::inPerson || includeMicrophone; }
    bool recordsMeeting() const { return source != RecordingSource::inPerson; }
    bool recordsVideo() const { return captureVideo && source != RecordingSource::inPerson; }
    // The chosen microphone, or nothing for the default input (an empty name counts as none).
    std::optional<QString> chosenMicrophone() const
    {
        return microphoneID && !microphoneID->isEmpty() ? microphoneID : std::nullopt;
    }
    int effectiveFrameRate() const { return frameRate < 1 ? 1 : frameRate; }

    // The three track files inside a recording's Source folder.
    static CaptureConfiguration forRecording(const Recording &recording);
};

} // namespace qm
