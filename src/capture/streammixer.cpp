#include "capture/streammixer.h"

#include <algorithm>

namespace qm {

StreamMixer::StreamMixer(int sampleRate, int channels, Nanoseconds holdBack)
    : m_rate(sampleRate), m_channels(channels), m_holdBack(holdBack)
{}

std::int64_t StreamMixer::frameAt(Nanoseconds pts) const
{
    const Nanoseconds since = pts - m_origin;
    return (since * m_rate + (since >= 0 ? kNanosecondsPerSecond / 2 : -kNanosecondsPerSecond / 2)) /
           kNanosecondsPerSecond;
}

void StreamMixer::add(int stream, const AudioChunk &chunk)
{
    if (chunk.channels != m_channels || chunk.frames() == 0)
        return;
    if (!m_started) {
        m_started = true;
        m_origin = chunk.pts;
    }
    std::int64_t first = frameAt(chunk.pts);
    // A stream's chunks follow each other exactly; rounding must not open hairline gaps between them.
    if (const auto known = m_ends.find(stream); known != m_ends.end() && std::llabs(first - known->second) <= 2)
        first = known->second;
    const std::int64_t end = first + chunk.frames();
    m_ends[stream] = end;

    const std::int64_t from = std::max(first, m_emitted);
    if (end <= from)
        return;
    const std::size_t needed = std::size_t(end - m_emitted) * std::size_t(m_channels);
    if (m_pending.size() < needed)
        m_pending.resize(needed, 0.0f);
    for (std::int64_t frame = from; frame < end; ++frame) {
        const float *in = chunk.samples.data() + std::size_t(frame - first) * std::size_t(m_channels);
        float *out = m_pending.data() + std::size_t(frame - m_emitted) * std::size_t(m_channels);
        for (int c = 0; c < m_channels; ++c)
            out[c] += in[c];
    }
}

void StreamMixer::remove(int stream)
{
    m_ends.erase(stream);
}

std::vector<AudioChunk> StreamMixer::take(bool everything)
{
    std::vector<AudioChunk> out;
    const auto held = std::int64_t(m_pending.size() / std::size_t(m_channels));
    if (held == 0)
        return out;
    std::int64_t upTo = m_emitted + held;
    if (!everything)
        upTo -= m_holdBack * m_rate / kNanosecondsPerSecond;
    if (upTo <= m_emitted)
        return out;

    AudioChunk chunk;
    chunk.sampleRate = m_rate;
    chunk.channels = m_channels;
    chunk.pts = m_origin + m_emitted * kNanosecondsPerSecond / m_rate;
    const auto count = std::size_t(upTo - m_emitted) * std::size_t(m_channels);
    chunk.samples.assign(m_pending.begin(), m_pending.begin() + std::ptrdiff_t(count));
    m_pending.erase(m_pending.begin(), m_pending.begin() + std::ptrdiff_t(count));
    m_emitted = upTo;
    out.push_back(std::move(chunk));
    return out;
}

} // namespace qm
