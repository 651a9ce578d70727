#include "capture/ffmpeg/mediarender.h"

#include "capture/ffmpeg/audioencoding.h"
#include "capture/ffmpeg/ffmpegptr.h"
#include "capture/ffmpeg/timelineaudiosource.h"
#include "library/log.h"

#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cmath>
#include <vector>

namespace qm::ff {

namespace {

using Failure = unexpected<MediaProcessorError>;

Failure failed(const QString &message)
{
    return Failure(MediaProcessorError::failed(message));
}

// The screen track, read packet by packet and shifted onto the output's timeline.
struct VideoInput {
    InputPtr input;
    int stream = -1;
    AVStream *out = nullptr;
    PacketPtr pending{av_packet_alloc()};
    bool hasPending = false;
    bool ended = false;
    std::int64_t shift = 0; // subtracted from every timestamp, in the input stream's time base

    AVRational base() const { return input->streams[stream]->time_base; }

    // Reads ahead to the next packet of the video stream; false when there is none.
    bool peek()
    {
        while (!hasPending && !ended) {
            const int result = av_read_frame(input.get(), pending.get());
            if (result < 0) {
                ended = true;
                break;
            }
            if (pending->stream_index == stream)
                hasPending = true;
            else
                av_packet_unref(pending.get());
        }
        return hasPending;
    }

    double nextSeconds() const
    {
        const std::int64_t ts = pending->dts != AV_NOPTS_VALUE ? pending->dts : pending->pts;
        return ts == AV_NOPTS_VALUE ? 0.0 : double(ts - shift) * av_q2d(base());
    }
};

std::optional<VideoInput> openVideo(const QString &path, const std::optional<TimeRange> &range)
{
    if (!QFileInfo::exists(path))
        return std::nullopt;
    QString error;
    VideoInput video;
    video.input = openInput(path, &error);
    if (!video.input) {
        logLine(QStringLiteral("couldn't read the screen track %1: %2").arg(path, error));
        return std::nullopt;
    }
    video.stream = av_find_best_stream(video.input.get(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    if (video.stream < 0)
        return std::nullopt;
    if (range) {
        // Copying can only begin at a key frame: start at the one before the range and let it lead in.
        const auto target = std::int64_t(range->start * AV_TIME_BASE);
        av_seek_frame(video.input.get(), -1, target, AVSEEK_FLAG_BACKWARD);
        video.shift = av_rescale_q(target, AV_TIME_BASE_Q, video.base());
    }
    return video;
}

// Writes mixed float audio through the encoder into the output.
class AudioEncoder {
public:
    QString open(AVFormatContext *output, const AudioSettings &settings)
    {
        auto encoder = openAudioEncoder(settings, output->oformat);
        if (!encoder)
            return encoder.error();
        m_context = std::move(*encoder);
        AVCodecContext *c = m_context.get();
        int result = 0;

        m_stream = avformat_new_stream(output, nullptr);
        if (!m_stream)
            return QStringLiteral("writer");
        result = avcodec_parameters_from_context(m_stream->codecpar, c);
        if (result < 0)
            return errorText(result);
        m_stream->time_base = c->time_base;
        m_output = output;
        m_frame.reset(av_frame_alloc());
        m_packet.reset(av_packet_alloc());
        return {};
    }

    int frameSize() const { return m_context->frame_size > 0 ? m_context->frame_size : 4096; }
    int channels() const { return m_context->ch_layout.nb_channels; }

    // Encodes `count` interleaved frames that start at timeline frame `position`.
    QString encode(const float *mix, int count, std::int64_t position)
    {
        if (const QString problem = fillAudioFrame(m_frame.get(), m_context.get(), mix, count); !problem.isEmpty())
            return problem;
        m_frame->pts = position;
        const int result = avcodec_send_frame(m_context.get(), m_frame.get());
        if (result < 0)
            return errorText(result);
        return drain();
    }

    QString finish()
    {
        const int result = avcodec_send_frame(m_context.get(), nullptr);
        if (result < 0 && result != AVERROR_EOF)
            return errorText(result);
        return drain();
    }

private:
    QString drain()
    {
        for (;;) {
            int result = avcodec_receive_packet(m_context.get(), m_packet.get());
            if (result == AVERROR(EAGAIN) || result == AVERROR_EOF)
                return {};
            if (result < 0)
                return errorText(result);
            av_packet_rescale_ts(m_packet.get(), m_context->time_base, m_stream->time_base);
            m_packet->stream_index = m_stream->index;
            result = av_interleaved_write_frame(m_output, m_packet.get());
            if (result < 0)
                return errorText(result);
        }
    }

    CodecPtr m_context;
    AVStream *m_stream = nullptr;
    AVFormatContext *m_output = nullptr;
    FramePtr m_frame;
    PacketPtr m_packet;
};

} // namespace

expected<void, MediaProcessorError> render(const RenderRequest &request)
{
    const AudioSettings &settings = request.audio;
    const double timelineStart = request.timeRange ? request.timeRange->start : 0.0;

    std::vector<std::unique_ptr<TimelineAudioSource>> sources;
    for (const QString &path : request.audioSources) {
        if (!QFileInfo::exists(path))
            continue;
        auto source = TimelineAudioSource::open(path, settings.sampleRate, settings.channels, timelineStart);
        if (!source) {
            // One damaged track must not cost the user the others.
            logLine(QStringLiteral("couldn't read the audio track %1: %2").arg(path, source.error()));
            continue;
        }
        sources.push_back(std::move(*source));
    }
    if (sources.empty())
        return Failure(MediaProcessorError::noInput());

    std::optional<VideoInput> video;
    if (request.videoSource)
        video = openVideo(*request.videoSource, request.timeRange);

    QFile::remove(request.output);
    const char *format = request.fileType == MediaFileType::mp4 ? "mp4" : "ipod";
    AVFormatContext *rawOutput = nullptr;
    int result = avformat_alloc_output_context2(&rawOutput, nullptr, format, request.output.toUtf8().constData());
    OutputPtr output(rawOutput);
    if (result < 0 || !output)
        return failed(QStringLiteral("writer"));

    AudioEncoder encoder;
    if (const QString problem = encoder.open(output.get(), settings); !problem.isEmpty())
        return failed(problem);
    if (video) {
        video->out = avformat_new_stream(output.get(), nullptr);
        if (!video->out ||
            avcodec_parameters_copy(video->out->codecpar, video->input->streams[video->stream]->codecpar) < 0)
            return failed(QStringLiteral("writer"));
        video->out->codecpar->codec_tag = 0;
        video->out->time_base = video->base();
    }

    result = avio_open(&output->pb, request.output.toUtf8().constData(), AVIO_FLAG_WRITE);
    if (result < 0)
        return failed(errorText(result));
    result = avformat_write_header(output.get(), nullptr);
    if (result < 0)
        return failed(errorText(result));

    const std::int64_t limit = request.timeRange
                                   ? std::int64_t(std::llround(request.timeRange->duration * settings.sampleRate))
                                   : std::numeric_limits<std::int64_t>::max();
    const int block = encoder.frameSize();
    std::vector<float> mix(std::size_t(block) * std::size_t(settings.channels));
    std::int64_t position = 0;
    bool audioDone = false;
    const double rangeEnd = request.timeRange ? request.timeRange->duration : 0.0;

    // Audio and video go out side by side, whichever is behind first, so the muxer never buffers much.
    while (true) {
        const bool videoWaiting = video && video->peek() && (!request.timeRange || video->nextSeconds() < rangeEnd);
        const double audioSeconds = double(position) / settings.sampleRate;
        if (videoWaiting && (audioDone || video->nextSeconds() <= audioSeconds)) {
            AVPacket *packet = video->pending.get();
            if (packet->pts != AV_NOPTS_VALUE)
                packet->pts -= video->shift;
            if (packet->dts != AV_NOPTS_VALUE)
                packet->dts -= video->shift;
            av_packet_rescale_ts(packet, video->base(), video->out->time_base);
            packet->stream_index = video->out->index;
            packet->pos = -1;
            result = av_interleaved_write_frame(output.get(), packet);
            video->hasPending = false;
            av_packet_unref(packet);
            if (result < 0)
                return failed(errorText(result));
            continue;
        }
        if (audioDone)
            break;

        const int count = int(std::min<std::int64_t>(block, limit - position));
        const bool allEnded = std::all_of(sources.begin(), sources.end(),
                                          [&](const auto &source) { return source->exhaustedAt(position); });
        if (count <= 0 || (allEnded && !request.timeRange)) {
            audioDone = true;
            continue;
        }
        std::fill(mix.begin(), mix.end(), 0.0f);
        for (const auto &source : sources)
            source->mixInto(mix.data(), position, count);
        if (const QString problem = encoder.encode(mix.data(), count, position); !problem.isEmpty())
            return failed(problem);
        position += count;
        if (allEnded)
            audioDone = true;
    }

    if (const QString problem = encoder.finish(); !problem.isEmpty())
        return failed(problem);
    result = av_write_trailer(output.get());
    if (result < 0)
        return failed(errorText(result));

    for (std::size_t i = 0; i < sources.size(); ++i) {
        if (!sources[i]->readProblem().isEmpty())
            logLine(QStringLiteral("an audio track ended early (%1); kept what was readable")
                        .arg(sources[i]->readProblem()));
    }
    const bool anyAudio =
        std::any_of(sources.begin(), sources.end(), [](const auto &source) { return source->framesDecoded() > 0; });
    if (!anyAudio)
        return failed(QStringLiteral("read error"));
    return {};
}

std::optional<double> mediaDuration(const QString &path)
{
    const InputPtr input = openInput(path);
    if (!input || input->duration == AV_NOPTS_VALUE)
        return std::nullopt;
    return double(input->duration) / AV_TIME_BASE;
}

} // namespace qm::ff
