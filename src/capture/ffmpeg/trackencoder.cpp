#include "capture/ffmpeg/trackencoder.h"

#include "capture/ffmpeg/audioencoding.h"

#include "capture/trackwriter.h"

extern "C" {
#include <libavutil/opt.h>
#include <libswscale/swscale.h>
}

#include <QFile>

#include <algorithm>
#include <cmath>

namespace qm::ff {

namespace {

using Failure = unexpected<QString>;

constexpr AVRational kVideoTimeBase{1, 90000};

// A crash loses at most the fragment being written: ten seconds.
constexpr const char *kFragmentMicroseconds = "10000000";

} // namespace

TrackEncoder::~TrackEncoder()
{
    sws_freeContext(m_scaler);
}

expected<std::unique_ptr<TrackEncoder>, QString> TrackEncoder::openOutput(const QString &path, const char *format)
{
    std::unique_ptr<TrackEncoder> encoder(new TrackEncoder);
    AVFormatContext *raw = nullptr;
    const QByteArray file = path.toUtf8();
    int result = avformat_alloc_output_context2(&raw, nullptr, format, file.constData());
    encoder->m_output.reset(raw);
    if (result < 0)
        return Failure(errorText(result));
    result = avio_open(&encoder->m_output->pb, file.constData(), AVIO_FLAG_WRITE);
    if (result < 0)
        return Failure(errorText(result));
    // Each finished fragment goes to the file at once; left in the I/O buffer (256 KiB, half a minute of
    // audio) it would be lost with the process.
    encoder->m_output->flags |= AVFMT_FLAG_FLUSH_PACKETS;
    encoder->m_frame.reset(av_frame_alloc());
    encoder->m_packet.reset(av_packet_alloc());
    return encoder;
}

QString TrackEncoder::openStream()
{
    AVCodecContext *c = m_codec.get();
    m_stream = avformat_new_stream(m_output.get(), nullptr);
    if (!m_stream)
        return QStringLiteral("writer");
    int result = avcodec_parameters_from_context(m_stream->codecpar, c);
    if (result < 0)
        return errorText(result);
    m_stream->time_base = c->time_base;

    AVDictionary *options = nullptr;
    av_dict_set(&options, "movflags", "empty_moov+default_base_moof", 0);
    av_dict_set(&options, "frag_duration", kFragmentMicroseconds, 0);
    result = avformat_write_header(m_output.get(), &options);
    av_dict_free(&options);
    if (result < 0)
        return errorText(result);
    m_headerWritten = true;
    return {};
}

expected<std::unique_ptr<TrackEncoder>, QString> TrackEncoder::openAudio(const QString &path,
                                                                         const AudioSettings &settings)
{
    auto encoder = openOutput(path, "ipod");
    if (!encoder)
        return encoder;
    TrackEncoder &e = **encoder;
    auto codec = openAudioEncoder(settings, e.m_output->oformat, true);
    if (!codec)
        return Failure(codec.error());
    e.m_codec = std::move(*codec);
    const AVCodecContext *c = e.m_codec.get();
    e.m_channels = settings.channels;
    // A fragmented file can't carry the edit that hides the encoder's priming samples, so the timeline starts
    // after them instead: decoded sample n is then timeline frame n, as in every other track.
    e.m_nextFrame = e.m_fifoStart = c->initial_padding;
    if (const QString problem = e.openStream(); !problem.isEmpty())
        return Failure(problem);
    return encoder;
}

expected<std::unique_ptr<TrackEncoder>, QString> TrackEncoder::openVideo(const QString &path,
                                                                         const VideoSettings &settings)
{
    auto encoder = openOutput(path, "mov");
    if (!encoder)
        return encoder;
    const AVCodec *codec = avcodec_find_encoder_by_name("libx264");
    if (!codec)
        codec = avcodec_find_encoder(AV_CODEC_ID_H264);
    if (!codec)
        return Failure(QStringLiteral("no H.264 encoder"));
    TrackEncoder &e = **encoder;
    e.m_codec.reset(avcodec_alloc_context3(codec));
    AVCodecContext *c = e.m_codec.get();
    c->width = settings.width;
    c->height = settings.height;
    c->pix_fmt = AV_PIX_FMT_YUV420P;
    c->time_base = kVideoTimeBase;
    c->framerate = AVRational{std::max(settings.frameRate, 1), 1};
    c->bit_rate = settings.bitRate;
    c->gop_size = settings.keyFrameInterval;
    c->max_b_frames = 0; // pictures arrive live and leave in order
    if (e.m_output->oformat->flags & AVFMT_GLOBALHEADER)
        c->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    AVDictionary *options = nullptr;
    // Filming runs beside the meeting itself: the cheapest preset leaves the computer to the call.
    av_dict_set(&options, "preset", "ultrafast", 0);
    av_dict_set(&options, "tune", "zerolatency", 0);
    int result = avcodec_open2(c, codec, &options);
    av_dict_free(&options);
    if (result < 0)
        return Failure(errorText(result));
    if (const QString problem = e.openStream(); !problem.isEmpty())
        return Failure(problem);
    return encoder;
}

QString TrackEncoder::writeAudio(const AudioChunk &chunk, Nanoseconds sessionStart)
{
    const AVCodecContext *c = m_codec.get();
    const int rate = c->sample_rate;
    const std::int64_t at = av_rescale(chunk.pts - sessionStart, rate, kNanosecondsPerSecond);
    const int frames = chunk.frames();
    int skip = 0;
    if (at > m_nextFrame) {
        // A later start or a hole: silence keeps every later sample at its true time.
        m_fifo.insert(m_fifo.end(), std::size_t(at - m_nextFrame) * std::size_t(m_channels), 0.0f);
        m_nextFrame = at;
    } else if (at < m_nextFrame) {
        skip = int(std::min<std::int64_t>(m_nextFrame - at, frames));
    }
    for (int i = skip; i < frames; ++i) {
        const float *in = chunk.samples.data() + std::size_t(i) * std::size_t(chunk.channels);
        if (chunk.channels == m_channels) {
            m_fifo.insert(m_fifo.end(), in, in + m_channels);
        } else if (m_channels == 1) {
            float sum = 0;
            for (int ch = 0; ch < chunk.channels; ++ch)
                sum += in[ch];
            m_fifo.push_back(sum / float(std::max(chunk.channels, 1)));
        } else {
            for (int ch = 0; ch < m_channels; ++ch)
                m_fifo.push_back(in[std::min(ch, chunk.channels - 1)]);
        }
    }
    m_nextFrame += frames - skip;
    return encodeFifo(false);
}

QString TrackEncoder::encodeFifo(bool flush)
{
    AVCodecContext *c = m_codec.get();
    const int frameSize = c->frame_size > 0 ? c->frame_size : 1024;
    while (true) {
        const int available = int(m_fifo.size() / std::size_t(m_channels));
        if (available == 0 || (available < frameSize && !flush))
            return {};
        const int count = std::min(available, frameSize);
        if (const QString problem = fillAudioFrame(m_frame.get(), c, m_fifo.data(), count); !problem.isEmpty())
            return problem;
        m_frame->pts = m_fifoStart;
        m_fifo.erase(m_fifo.begin(), m_fifo.begin() + std::ptrdiff_t(count * m_channels));
        m_fifoStart += count;
        if (const QString problem = send(m_frame.get()); !problem.isEmpty())
            return problem;
    }
}

QString TrackEncoder::writeVideo(const VideoFrame &frame, Nanoseconds sessionStart)
{
    AVCodecContext *c = m_codec.get();
    if (!frame.pixels || frame.width <= 0 || frame.height <= 0)
        return {};
    m_scaler = sws_getCachedContext(m_scaler, frame.width, frame.height, AV_PIX_FMT_BGR0, c->width, c->height,
                                    AV_PIX_FMT_YUV420P, SWS_BILINEAR, nullptr, nullptr, nullptr);
    if (!m_scaler)
        return QStringLiteral("no scaler for %1×%2").arg(frame.width).arg(frame.height);

    std::int64_t pts = av_rescale(frame.pts - sessionStart, kVideoTimeBase.den, kNanosecondsPerSecond);
    // The first picture stands from time zero; later ones must move forward to be shown at all.
    if (m_lastVideoPts < 0)
        pts = 0;
    else if (pts <= m_lastVideoPts)
        return {};
    m_lastVideoPts = pts;

    av_frame_unref(m_frame.get());
    m_frame->format = c->pix_fmt;
    m_frame->width = c->width;
    m_frame->height = c->height;
    int result = av_frame_get_buffer(m_frame.get(), 0);
    if (result < 0)
        return errorText(result);
    const std::uint8_t *source[1] = {frame.pixels->data()};
    const int sourceStride[1] = {frame.stride};
    sws_scale(m_scaler, source, sourceStride, 0, frame.height, m_frame->data, m_frame->linesize);
    m_frame->pts = pts;
    return send(m_frame.get());
}

QString TrackEncoder::send(AVFrame *frame)
{
    int result = avcodec_send_frame(m_codec.get(), frame);
    if (result < 0 && !(frame == nullptr && result == AVERROR_EOF))
        return errorText(result);
    for (;;) {
        result = avcodec_receive_packet(m_codec.get(), m_packet.get());
        if (result == AVERROR(EAGAIN) || result == AVERROR_EOF)
            return {};
        if (result < 0)
            return errorText(result);
        av_packet_rescale_ts(m_packet.get(), m_codec->time_base, m_stream->time_base);
        m_packet->stream_index = m_stream->index;
        result = av_interleaved_write_frame(m_output.get(), m_packet.get());
        if (result < 0)
            return errorText(result);
    }
}

QString TrackEncoder::finish()
{
    if (m_codec->codec_type == AVMEDIA_TYPE_AUDIO) {
        if (const QString problem = encodeFifo(true); !problem.isEmpty())
            return problem;
    }
    if (const QString problem = send(nullptr); !problem.isEmpty())
        return problem;
    const int result = av_write_trailer(m_output.get());
    return result < 0 ? errorText(result) : QString();
}

} // namespace qm::ff
