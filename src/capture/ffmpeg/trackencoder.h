#pragma once

#include "capture/audiosettings.h"
#include "capture/ffmpeg/ffmpegptr.h"
#include "capture/mediasample.h"
#include "library/result.h"

#include <QString>

#include <memory>
#include <vector>

struct SwsContext;

namespace qm {
struct VideoSettings;
}

namespace qm::ff {

// The FFmpeg side of a track file: one encoder and a fragmented MPEG-4 muxer. Used from one thread at a time.
// Errors are FFmpeg's own words; an empty text means success.
class TrackEncoder {
public:
    static expected<std::unique_ptr<TrackEncoder>, QString> openAudio(const QString &path,
                                                                      const AudioSettings &settings);
    static expected<std::unique_ptr<TrackEncoder>, QString> openVideo(const QString &path,
                                                                      const VideoSettings &settings);
    ~TrackEncoder();

    // Both place the sample at its time since `sessionStart`, filling holes in audio with silence.
    QString writeAudio(const AudioChunk &chunk, Nanoseconds sessionStart);
    QString writeVideo(const VideoFrame &frame, Nanoseconds sessionStart);
    // Flushes the encoder and completes the file.
    QString finish();

private:
    TrackEncoder() = default;
    static expected<std::unique_ptr<TrackEncoder>, QString> openOutput(const QString &path, const char *format);
    QString openStream();
    QString encodeFifo(bool flush);
    QString send(AVFrame *frame);

    OutputPtr m_output;
    CodecPtr m_codec;
    AVStream *m_stream = nullptr;
    FramePtr m_frame;
    PacketPtr m_packet;
    bool m_headerWritten = false;

    // audio
    int m_channels = 2;
    std::vector<float> m_fifo;    // interleaved frames waiting for a full encoder frame
    std::int64_t m_nextFrame = 0; // timeline position of the end of what was queued
    std::int64_t m_fifoStart = 0; // timeline position of m_fifo's first frame

    // video
    SwsContext *m_scaler = nullptr;
    std::int64_t m_lastVideoPts = -1;
};

} // namespace qm::ff
