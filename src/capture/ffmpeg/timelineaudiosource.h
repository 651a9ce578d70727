#pragma once

#include "capture/ffmpeg/ffmpegptr.h"
#include "library/result.h"

#include <QString>

#include <cstdint>
#include <memory>
#include <vector>

namespace qm::ff {

// One audio file decoded to interleaved float at the output's rate and channel count, and placed on the
// output timeline by its own timestamps: a track that starts two seconds in is heard two seconds in, and a
// hole in a track stays silent rather than pulling later audio forward.
//
// Used from one thread at a time. Frame index 0 of the timeline is `timelineStart` seconds into the file.
class TimelineAudioSource {
public:
    static expected<std::unique_ptr<TimelineAudioSource>, QString> open(const QString &path, int sampleRate,
                                                                        int channels, double timelineStart);

    // Adds this source's samples for timeline frames [first, first + count) into `mix` (interleaved).
    // Frames before `first` are released; calls must move forward.
    void mixInto(float *mix, std::int64_t first, int count);
    // True when the source has nothing left at or after timeline frame `position`.
    bool exhaustedAt(std::int64_t position);
    // Set when the file ended in a way other than a clean end (a capture cut short, damaged data).
    const QString &readProblem() const { return m_readProblem; }
    std::int64_t framesDecoded() const { return m_framesDecoded; }

private:
    TimelineAudioSource() = default;
    // Decodes until at least one more frame of audio is buffered; false at the end of the file.
    bool decodeMore();
    void place(const float *samples, int frames, double seconds);
    void append(const float *samples, int frames);

    InputPtr m_input;
    CodecPtr m_decoder;
    ResamplerPtr m_resampler;
    FramePtr m_frame;
    PacketPtr m_packet;
    int m_stream = -1;
    int m_rate = 48000;
    int m_channels = 2;
    double m_timelineStart = 0;
    bool m_placed = false;
    bool m_ended = false;
    bool m_draining = false;
    std::vector<float> m_buffer; // interleaved; m_buffer[m_offset] is timeline frame m_bufferStart
    std::size_t m_offset = 0;
    std::int64_t m_bufferStart = 0;
    std::int64_t m_framesDecoded = 0;
    QString m_readProblem;
};

} // namespace qm::ff
