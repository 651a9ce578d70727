#include "capture/ffmpeg/timelineaudiosource.h"

extern "C" {
#include <libavutil/opt.h>
}

#include <algorithm>
#include <cmath>

namespace qm::ff {

namespace {
// Timestamps and resampler delay jitter by a few milliseconds; only a real hole or overlap is acted on.
constexpr double kPlacementTolerance = 0.04;
} // namespace

expected<std::unique_ptr<TimelineAudioSource>, QString> TimelineAudioSource::open(const QString &path, int sampleRate,
                                                                                  int channels, double timelineStart)
{
    std::unique_ptr<TimelineAudioSource> source(new TimelineAudioSource);
    source->m_rate = sampleRate;
    source->m_channels = channels;
    source->m_timelineStart = timelineStart;

    QString error;
    source->m_input = openInput(path, &error);
    if (!source->m_input)
        return unexpected(error);

    const AVCodec *codec = nullptr;
    source->m_stream = av_find_best_stream(source->m_input.get(), AVMEDIA_TYPE_AUDIO, -1, -1, &codec, 0);
    if (source->m_stream < 0 || !codec)
        return unexpected(QStringLiteral("no audio stream"));
    AVStream *stream = source->m_input->streams[source->m_stream];

    source->m_decoder.reset(avcodec_alloc_context3(codec));
    int result = avcodec_parameters_to_context(source->m_decoder.get(), stream->codecpar);
    if (result >= 0)
        result = avcodec_open2(source->m_decoder.get(), codec, nullptr);
    if (result < 0)
        return unexpected(errorText(result));

    const AVCodecContext *decoder = source->m_decoder.get();
    AVChannelLayout outLayout;
    av_channel_layout_default(&outLayout, channels);
    SwrContext *resampler = nullptr;
    result = swr_alloc_set_opts2(&resampler, &outLayout, AV_SAMPLE_FMT_FLT, sampleRate,
                                 const_cast<AVChannelLayout *>(&decoder->ch_layout), decoder->sample_fmt,
                                 decoder->sample_rate, 0, nullptr);
    source->m_resampler.reset(resampler);
    av_channel_layout_uninit(&outLayout);
    if (result >= 0)
        result = swr_init(source->m_resampler.get());
    if (result < 0)
        return unexpected(errorText(result));

    // Reading from the start of a long file only to throw it away would make a short range slow.
    if (timelineStart > 1.0) {
        const auto target = static_cast<std::int64_t>((timelineStart - 1.0) * AV_TIME_BASE);
        av_seek_frame(source->m_input.get(), -1, target, AVSEEK_FLAG_BACKWARD);
    }

    source->m_frame.reset(av_frame_alloc());
    source->m_packet.reset(av_packet_alloc());
    return source;
}

void TimelineAudioSource::mixInto(float *mix, std::int64_t first, int count)
{
    const std::int64_t last = first + count;
    while (m_bufferStart + std::int64_t((m_buffer.size() - m_offset) / m_channels) < last && decodeMore()) {
    }

    const std::int64_t available = std::int64_t((m_buffer.size() - m_offset) / m_channels);
    const std::int64_t from = std::max(first, m_bufferStart);
    const std::int64_t to = std::min(last, m_bufferStart + available);
    for (std::int64_t frame = from; frame < to; ++frame) {
        const float *in = m_buffer.data() + m_offset + std::size_t((frame - m_bufferStart) * m_channels);
        float *out = mix + std::size_t((frame - first) * m_channels);
        for (int c = 0; c < m_channels; ++c)
            out[c] += in[c];
    }

    // Release what lies before the end of this block.
    const std::int64_t release = std::clamp<std::int64_t>(last - m_bufferStart, 0, available);
    m_offset += std::size_t(release * m_channels);
    m_bufferStart += release;
    if (m_offset > (1 << 16) && m_offset * 2 > m_buffer.size()) {
        m_buffer.erase(m_buffer.begin(), m_buffer.begin() + std::ptrdiff_t(m_offset));
        m_offset = 0;
    }
}

bool TimelineAudioSource::exhaustedAt(std::int64_t position)
{
    while (m_bufferStart + std::int64_t((m_buffer.size() - m_offset) / m_channels) <= position && decodeMore()) {
    }
    return m_bufferStart + std::int64_t((m_buffer.size() - m_offset) / m_channels) <= position;
}

bool TimelineAudioSource::decodeMore()
{
    while (!m_ended) {
        int result = avcodec_receive_frame(m_decoder.get(), m_frame.get());
        if (result >= 0) {
            const AVRational base = m_input->streams[m_stream]->time_base;
            const std::int64_t pts = m_frame->best_effort_timestamp;
            const double seconds = pts == AV_NOPTS_VALUE ? std::nan("") : double(pts) * av_q2d(base);
            const int capacity = swr_get_out_samples(m_resampler.get(), m_frame->nb_samples);
            std::vector<float> converted(std::size_t(std::max(capacity, 0)) * std::size_t(m_channels));
            auto *out = reinterpret_cast<std::uint8_t *>(converted.data());
            const int frames =
                swr_convert(m_resampler.get(), &out, capacity,
                            const_cast<const std::uint8_t **>(m_frame->extended_data), m_frame->nb_samples);
            av_frame_unref(m_frame.get());
            if (frames > 0) {
                place(converted.data(), frames, seconds);
                return true;
            }
            continue;
        }
        if (result == AVERROR_EOF) {
            m_ended = true;
            break;
        }
        if (result != AVERROR(EAGAIN)) {
            m_readProblem = errorText(result);
            m_ended = true;
            break;
        }
        if (m_draining) {
            m_ended = true;
            break;
        }

        result = av_read_frame(m_input.get(), m_packet.get());
        if (result < 0) {
            // A capture cut short ends in a torn fragment: keep everything before it.
            if (result != AVERROR_EOF)
                m_readProblem = errorText(result);
            avcodec_send_packet(m_decoder.get(), nullptr);
            m_draining = true;
            continue;
        }
        if (m_packet->stream_index == m_stream) {
            result = avcodec_send_packet(m_decoder.get(), m_packet.get());
            // A damaged packet is skipped; the decoder carries on with the next one.
            if (result < 0 && result != AVERROR(EAGAIN) && m_readProblem.isEmpty())
                m_readProblem = errorText(result);
        }
        av_packet_unref(m_packet.get());
    }
    return false;
}

void TimelineAudioSource::place(const float *samples, int frames, double seconds)
{
    m_framesDecoded += frames;
    const std::int64_t next = m_bufferStart + std::int64_t((m_buffer.size() - m_offset) / m_channels);
    if (std::isnan(seconds)) {
        if (!m_placed) {
            m_placed = true;
            m_bufferStart = 0;
        }
        append(samples, frames);
        return;
    }
    const auto target = std::llround((seconds - m_timelineStart) * m_rate);
    if (!m_placed) {
        m_placed = true;
        m_bufferStart = target;
        append(samples, frames);
        return;
    }
    const auto tolerance = std::int64_t(kPlacementTolerance * m_rate);
    if (target - next > tolerance) {
        m_buffer.insert(m_buffer.end(), std::size_t((target - next) * m_channels), 0.0f);
    } else if (next - target > tolerance) {
        const std::int64_t overlap = std::min<std::int64_t>(next - target, frames);
        samples += overlap * m_channels;
        frames -= int(overlap);
    }
    append(samples, frames);
}

void TimelineAudioSource::append(const float *samples, int frames)
{
    if (frames > 0)
        m_buffer.insert(m_buffer.end(), samples, samples + std::size_t(frames) * std::size_t(m_channels));
}

} // namespace qm::ff
