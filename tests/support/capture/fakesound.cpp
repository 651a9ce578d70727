#include "support/capture/fakesound.h"

#include <cmath>

namespace qm::test {

expected<void, CaptureFailure> FakeSoundServer::startMeeting(RecordingSource, QList<int>, Callbacks callbacks)
{
    ++starts;
    meeting = std::move(callbacks);
    return {};
}

expected<void, CaptureFailure> FakeSoundServer::startMicrophone(std::optional<QString>, Callbacks callbacks)
{
    ++starts;
    if (failMicrophone)
        return unexpected(*failMicrophone);
    microphone = std::move(callbacks);
    return {};
}

void FakeSoundServer::stop()
{
    stopped = true;
    meeting = {};
    microphone = {};
}

AudioChunk toneChunk(Nanoseconds pts, double seconds, int channels, float amplitude)
{
    AudioChunk chunk;
    chunk.pts = pts;
    chunk.channels = channels;
    const int frames = int(seconds * 48000);
    chunk.samples.resize(std::size_t(frames) * std::size_t(channels));
    for (int i = 0; i < frames; ++i) {
        const auto value = float(amplitude * std::sin(2 * M_PI * 440.0 * i / 48000.0));
        for (int ch = 0; ch < channels; ++ch)
            chunk.samples[std::size_t(i * channels + ch)] = value;
    }
    return chunk;
}

} // namespace qm::test
