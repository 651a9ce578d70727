#include "capture/audiosettings.h"

namespace qm {

AudioSettings audioSettings(AudioQuality quality, int channels)
{
    AudioSettings settings;
    settings.channels = channels;
    switch (quality) {
    case AudioQuality::standard:
    case AudioQuality::high: {
        const int stereoRate = quality == AudioQuality::standard ? 128000 : 256000;
        // Only a mono track gets half: any other channel count keeps the full rate.
        settings.bitRate = channels == 1 ? stereoRate >> 1 : stereoRate;
        break;
    }
    case AudioQuality::lossless:
        settings.codec = AudioSettings::Codec::alac;
        settings.bitDepthHint = 24;
        break;
    }
    return settings;
}

AudioSettings speechAudioSettings()
{
    AudioSettings settings;
    settings.sampleRate = 16000;
    settings.channels = 1;
    settings.bitRate = 32000;
    return settings;
}

} // namespace qm
