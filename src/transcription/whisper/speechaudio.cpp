#include "transcription/whisper/speechaudio.h"

#include "capture/ffmpeg/timelineaudiosource.h"
#include "transcription/whisper/frontend.h"

namespace qm::whisper {

expected<std::vector<float>, QString> readSpeechAudio(const QString &path)
{
    auto source = ff::TimelineAudioSource::open(path, kSampleRate, 1, 0.0);
    if (!source)
        return unexpected(source.error());
    constexpr int block = kSampleRate * 10;
    std::vector<float> samples;
    std::int64_t position = 0;
    while (!(*source)->exhaustedAt(position)) {
        samples.resize(samples.size() + block, 0.0f);
        (*source)->mixInto(samples.data() + position, position, block);
        position += block;
    }
    // The last block runs past the end; trim what no frame filled.
    samples.resize(std::size_t(std::min<std::int64_t>(position, (*source)->framesDecoded())));
    return samples;
}

} // namespace qm::whisper
