#include "support/samples.h"

#include "library/jsoncoding.h"

#include <QDir>
#include <QFile>

namespace qm::test {

Recording sampleRecording(const QString &folder)
{
    Recording r;
    r.id = QUuid::createUuid();
    r.title = QStringLiteral("Weekly sync");
    r.source = RecordingSource::systemAudio;
    r.startedAt = QDateTime(QDate(2025, 3, 4), QTime(12, 5, 9), Qt::UTC);
    r.duration = 3725.5;
    r.mediaFileName = QStringLiteral("2025-03-04 13-05 Online Meeting.m4a");
    r.hasVideo = false;
    r.hasMicrophoneTrack = true;
    r.hasMeetingTrack = true;
    r.state = ProcessingState::ready;
    r.transcriptState = TranscriptState::done;
    r.transcriptEngine = QStringLiteral("Deepgram");
    r.lastError = QStringLiteral("Deepgram error 401: Invalid credentials.");
    r.driveSyncedAt = QDateTime(QDate(2025, 3, 4), QTime(14, 0, 0), Qt::UTC);
    r.folder = QUrl::fromLocalFile(folder);
    return r;
}

Transcript sampleTranscript()
{
    Transcript t;
    t.engine = QStringLiteral("Deepgram");
    t.model = QStringLiteral("nova-3");
    t.language = QStringLiteral("en");
    t.createdAt = QDateTime(QDate(2025, 3, 4), QTime(14, 1, 2), Qt::UTC);
    t.segments = {
        {QUuid::createUuid(), 0.0, 4.2, QStringLiteral("Me"), QStringLiteral("Good morning.")},
        {QUuid::createUuid(), 4.2, 9.9, QStringLiteral("Speaker 1"), QStringLiteral("Morning, shall we start?")},
        {QUuid::createUuid(), 3600.0, 3601.0, QStringLiteral("Me"), QStringLiteral("That's all.")},
    };
    return t;
}

QString writeRecordingFolder(const QString &root, const QString &name, const QByteArray &metadata)
{
    const QString folder = QDir(root).filePath(name);
    QDir().mkpath(folder + QStringLiteral("/Source"));
    QFile file(folder + QStringLiteral("/recording.json"));
    if (file.open(QIODevice::WriteOnly))
        file.write(metadata);
    return folder;
}

QString writeRecordingFolder(const QString &root, const QString &name, const Recording &recording)
{
    return writeRecordingFolder(root, name, JsonCoding::encode(recording));
}

} // namespace qm::test
