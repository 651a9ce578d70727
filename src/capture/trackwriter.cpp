#include "capture/trackwriter.h"

#include "capture/ffmpeg/trackencoder.h"
#include "library/log.h"

#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cmath>

namespace qm {

namespace {
// A sample without a usable length still moves the track's end on by one tick of 1/600 s.
constexpr Nanoseconds kMinimumAdvance = kNanosecondsPerSecond / 600;
} // namespace

struct TrackWriter::Encoder {
    std::unique_ptr<ff::TrackEncoder> track;
    Nanoseconds sessionStart = 0;
};

VideoSettings VideoSettings::forCapture(int sourceWidth, int sourceHeight, int frameRate)
{
    double width = sourceWidth;
    double height = sourceHeight;
    if (width > 1920) {
        height = height * 1920.0 / width;
        width = 1920;
    }
    auto even = [](double side) { return std::max(2, int(side)) / 2 * 2; };
    VideoSettings settings;
    settings.width = even(width);
    settings.height = even(height);
    settings.frameRate = frameRate;
    const int fps = std::max(frameRate, 1);
    settings.bitRate = std::int64_t(double(settings.width) * settings.height * fps * 0.12);
    settings.keyFrameInterval = std::max(frameRate * 4, 1);
    return settings;
}

TrackWriter::TrackWriter() : m_encoder(std::make_unique<Encoder>()) {}

TrackWriter::~TrackWriter()
{
    if (m_thread.joinable()) {
        {
            const std::lock_guard lock(m_mutex);
            m_closing = true;
        }
        m_wake.notify_all();
        m_thread.join();
    }
}

expected<std::unique_ptr<TrackWriter>, QString>
TrackWriter::wrap(const QString &path, bool video, expected<std::unique_ptr<ff::TrackEncoder>, QString> track)
{
    if (!track)
        return unexpected(QStringLiteral("Couldn't create “%1”: %2").arg(QFileInfo(path).fileName(), track.error()));
    std::unique_ptr<TrackWriter> writer(new TrackWriter);
    writer->m_path = path;
    writer->m_encoder->track = std::move(*track);
    writer->m_video = video;
    return writer;
}

expected<std::unique_ptr<TrackWriter>, QString> TrackWriter::createAudio(const QString &path, AudioSettings settings)
{
    QFile::remove(path);
    return wrap(path, false, ff::TrackEncoder::openAudio(path, settings));
}

expected<std::unique_ptr<TrackWriter>, QString> TrackWriter::createVideo(const QString &path, VideoSettings settings)
{
    QFile::remove(path);
    return wrap(path, true, ff::TrackEncoder::openVideo(path, settings));
}

void TrackWriter::start(Nanoseconds sessionStart)
{
    if (m_status.load() != WriterStatus::unknown)
        return;
    m_encoder->sessionStart = sessionStart;
    m_status.store(WriterStatus::writing);
    m_thread = std::thread([this] { run(); });
}

bool TrackWriter::admit(Nanoseconds pts, Nanoseconds duration)
{
    m_received.fetch_add(1);
    if (m_status.load() != WriterStatus::writing) {
        m_dropped.fetch_add(1);
        return false;
    }
    // The track's time never runs backwards: a sample that starts inside the previous one is discarded.
    if (m_lastEnd && pts < *m_lastEnd) {
        m_dropped.fetch_add(1);
        return false;
    }
    {
        const std::lock_guard lock(m_mutex);
        const bool full = m_video ? m_queue.size() >= kVideoQueueDepth : m_queuedLength + duration > kAudioQueueLength;
        if (full) {
            m_dropped.fetch_add(1);
            return false;
        }
    }
    m_lastEnd = pts + (duration > 0 ? duration : kMinimumAdvance);
    return true;
}

void TrackWriter::enqueue(Sample sample, Nanoseconds duration)
{
    {
        const std::lock_guard lock(m_mutex);
        m_queue.emplace_back(std::move(sample), duration);
        m_queuedLength += duration;
    }
    m_appended.fetch_add(1);
    m_wake.notify_one();
}

void TrackWriter::append(AudioChunk chunk)
{
    const Nanoseconds duration = chunk.duration();
    if (admit(chunk.pts, duration))
        enqueue(std::move(chunk), duration);
}

void TrackWriter::append(VideoFrame frame)
{
    if (admit(frame.pts, 0))
        enqueue(std::move(frame), 0);
}

std::size_t TrackWriter::pendingCount()
{
    const std::lock_guard lock(m_mutex);
    return m_queue.size();
}

void TrackWriter::run()
{
    for (;;) {
        Sample sample;
        {
            std::unique_lock lock(m_mutex);
            m_wake.wait(lock, [this] { return !m_queue.empty() || m_closing; });
            if (m_queue.empty())
                return;
            sample = std::move(m_queue.front().first);
            m_queuedLength -= m_queue.front().second;
            m_queue.pop_front();
        }
        if (m_status.load() != WriterStatus::writing)
            continue; // a failed track drains without work so finish() is not held up
        const Nanoseconds start = m_encoder->sessionStart;
        const QString problem = std::holds_alternative<AudioChunk>(sample)
                                    ? m_encoder->track->writeAudio(std::get<AudioChunk>(sample), start)
                                    : m_encoder->track->writeVideo(std::get<VideoFrame>(sample), start);
        if (!problem.isEmpty())
            fail(problem);
    }
}

void TrackWriter::fail(const QString &reason)
{
    {
        const std::lock_guard lock(m_mutex);
        if (m_error.isEmpty())
            m_error = reason;
    }
    m_status.store(WriterStatus::failed);
}

bool TrackWriter::finish()
{
    // Everything handed over is written before the file is closed.
    if (m_thread.joinable()) {
        {
            const std::lock_guard lock(m_mutex);
            m_closing = true;
        }
        m_wake.notify_all();
        m_thread.join();
    }

    QString error;
    {
        const std::lock_guard lock(m_mutex);
        error = m_error;
    }
    logLine(QStringLiteral("%1: received %2, written %3, dropped %4, status %5, error %6")
                .arg(QFileInfo(m_path).fileName())
                .arg(m_received.load())
                .arg(m_appended.load())
                .arg(m_dropped.load())
                .arg(int(m_status.load()))
                .arg(error.isEmpty() ? QStringLiteral("none") : error));

    if (m_status.load() == WriterStatus::writing && m_appended.load() >= 1) {
        const QString problem = m_encoder->track->finish();
        m_encoder->track.reset();
        if (problem.isEmpty()) {
            m_status.store(WriterStatus::completed);
            return true;
        }
        fail(problem);
        logLine(QStringLiteral("%1: couldn't complete the file: %2").arg(QFileInfo(m_path).fileName(), problem));
    } else if (m_status.load() == WriterStatus::writing || m_status.load() == WriterStatus::unknown) {
        m_status.store(WriterStatus::cancelled);
    }
    m_encoder->track.reset();
    // A track that failed after writing is still readable up to its last fragment: it is not a usable
    // track for joining, but it is the user's audio, so it stays in the folder.
    if (m_status.load() == WriterStatus::failed && m_appended.load() >= 1)
        logLine(QStringLiteral("%1: kept the partly written file").arg(QFileInfo(m_path).fileName()));
    else
        QFile::remove(m_path);
    return false;
}

} // namespace qm
