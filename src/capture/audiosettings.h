#pragma once

#include "library/settingsvalues.h"

#include <optional>

namespace qm {

// How an audio track is encoded. Capture, the track writer and the media processor all derive their
// encoders from this one description.
struct AudioSettings {
    enum class Codec { aac, alac };

    Codec codec = Codec::aac;
    int sampleRate = 48000;
    int channels = 2;
    std::optional<int> bitRate;      // bits per second; AAC only
    std::optional<int> bitDepthHint; // ALAC only

    bool operator==(const AudioSettings &) const = default;
};

// AAC at 128 / 256 kbit/s for stereo and half that for mono, or 24-bit ALAC; always 48 kHz.
AudioSettings audioSettings(AudioQuality quality, int channels);

// Speech for transcription: AAC, 16 kHz, mono, 32 kbit/s.
AudioSettings speechAudioSettings();

} // namespace qm
