#include "support/wayland/castrecorder.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QProcess>
#include <QTest>

namespace qm::test {

CastRecorder::CastRecorder(ScreenSource &screen, const QString &folder)
    : m_engine(std::make_unique<CaptureEngine>(m_sound, &screen, m_processes, m_clock))
{
    Recording recording;
    recording.folder = QUrl::fromLocalFile(folder);
    m_configuration = CaptureConfiguration::forRecording(recording);
    m_configuration.captureVideo = true;
    m_configuration.includeMicrophone = false;
    m_processes.zoom = {4242};
}

CastRecorder::~CastRecorder() = default;

expected<void, CaptureFailure> CastRecorder::start(int fps, RecordingSource source)
{
    m_configuration.source = source;
    m_configuration.frameRate = fps;
    return m_engine->startBlocking(m_configuration);
}

void CastRecorder::play(double seconds)
{
    constexpr int chunksPerSecond = 20;
    QElapsedTimer timer;
    timer.start();
    if (m_audioAt == 0)
        m_audioAt = m_clock.now();
    for (int i = 0; i < int(seconds * chunksPerSecond); ++i) {
        // Back to back, as a sound server sends them, however late the event loop wakes.
        if (m_sound.meeting.deliver)
            m_sound.meeting.deliver(toneChunk(m_audioAt, 1.0 / chunksPerSecond, 2));
        m_audioAt += kNanosecondsPerSecond / chunksPerSecond;
        const qint64 next = qint64(i + 1) * 1000 / chunksPerSecond;
        QTest::qWait(int(std::max<qint64>(next - timer.elapsed(), 0)));
    }
}

CaptureResult CastRecorder::stop()
{
    return m_engine->stopBlocking();
}

QString CastRecorder::screenPath() const
{
    return m_configuration.screenURL.toLocalFile();
}

QString CastRecorder::meetingPath() const
{
    return m_configuration.meetingTrackURL.toLocalFile();
}

QList<QByteArray> greyFrames(const QString &path, int width, int height)
{
    QProcess ffmpeg;
    ffmpeg.start(QStringLiteral("ffmpeg"),
                 {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-i"), path, QStringLiteral("-vf"),
                  QStringLiteral("scale=%1:%2,format=gray").arg(width).arg(height), QStringLiteral("-f"),
                  QStringLiteral("rawvideo"), QStringLiteral("-")});
    ffmpeg.waitForFinished(60000);
    const QByteArray all = ffmpeg.readAllStandardOutput();
    QList<QByteArray> frames;
    const qsizetype size = qsizetype(width) * height;
    for (qsizetype at = 0; at + size <= all.size(); at += size)
        frames.append(all.mid(at, size));
    return frames;
}

} // namespace qm::test
