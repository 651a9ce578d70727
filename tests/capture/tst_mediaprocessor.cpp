#include "capture/mediaprocessor.h"
#include "support/capture/mediaprobe.h"

#include <QCoroTask>
#include <QCryptographicHash>
#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <cmath>

using namespace qm;
using namespace qm::test;

namespace {

// A command line's words; no argument in this file contains a space.
QStringList words(const QString &line)
{
    return line.split(u' ');
}

QByteArray runTool(const QString &tool, const QStringList &arguments)
{
    QProcess process;
    process.start(tool, arguments);
    if (!process.waitForFinished(120000) || process.exitCode() != 0)
        qWarning().noquote() << tool << arguments.join(u' ') << process.readAllStandardError();
    return process.readAllStandardOutput();
}

// Makes a fixture with ffmpeg's command line: `inputs` are its input arguments, `codec` the output ones.
void makeMedia(const QString &path, const QStringList &inputs, const QStringList &codec)
{
    QDir().mkpath(QFileInfo(path).path());
    runTool(QStringLiteral("ffmpeg"), words(QStringLiteral("-v error -y")) + inputs + codec + QStringList{path});
    QVERIFY2(QFileInfo(path).size() > 0, qPrintable(path));
}

QStringList lavfi(const QString &graph)
{
    return words(QStringLiteral("-f lavfi -i ") + graph);
}

QStringList tone(double seconds, int hz = 1000)
{
    return lavfi(QStringLiteral("sine=frequency=%1:duration=%2").arg(hz).arg(seconds));
}

const QStringList kAac = words(QStringLiteral("-c:a aac -b:a 128k"));

QStringList videoPacketHashes(const QString &path)
{
    const QByteArray md5 =
        runTool(QStringLiteral("ffmpeg"), (words(QStringLiteral("-v error -i")) << path) +
                                              words(QStringLiteral("-map 0:v -c copy -f framemd5 -")));
    QStringList hashes;
    for (const QByteArray &line : md5.split('\n')) {
        if (!line.isEmpty() && !line.startsWith('#'))
            hashes.append(QString::fromLatin1(line.split(',').last().trimmed()));
    }
    return hashes;
}

QByteArray digest(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QCryptographicHash::hash(file.readAll(), QCryptographicHash::Sha256)
                                          : QByteArray();
}

} // namespace

class TestMediaProcessor : public QObject {
    Q_OBJECT

    QTemporaryDir m_dir;
    MediaProcessor m_processor;

    Recording recordingIn(const QString &name, bool meeting, bool microphone, bool video = false)
    {
        Recording r;
        r.id = QUuid::createUuid();
        r.folder = QUrl::fromLocalFile(m_dir.filePath(name));
        r.hasMeetingTrack = meeting;
        r.hasMicrophoneTrack = microphone;
        r.hasVideo = video;
        QDir().mkpath(r.folderPath() + QStringLiteral("/Source"));
        return r;
    }
    static QString track(const Recording &r, const char *file)
    {
        return r.folderPath() + QStringLiteral("/Source/") + QLatin1String(file);
    }

private Q_SLOTS:
    void tracksKeepTheirOwnStartTimes()
    {
        const Recording r = recordingIn(QStringLiteral("2024-05-01 Standup"), true, true);
        makeMedia(track(r, "meeting-audio.m4a"), words(QStringLiteral("-f lavfi -t 5 -i anullsrc=r=48000:cl=stereo")),
                  kAac);
        // The microphone opened two seconds after the meeting track: its first sample belongs at 2 s.
        makeMedia(track(r, "microphone.m4a"), tone(1), kAac + words(QStringLiteral("-output_ts_offset 2")));

        const auto name = QCoro::waitFor(m_processor.buildFinalMedia(r, AudioQuality::high));
        QVERIFY2(name, name ? "" : qPrintable(name.error().description()));
        QCOMPARE(*name, QStringLiteral("2024-05-01 Standup.m4a"));
        const QString output = QDir(r.folderPath()).filePath(*name);
        const QJsonObject audio = streamInfo(output, "a");
        QCOMPARE(audio.value(QLatin1String("codec_name")).toString(), QStringLiteral("aac"));
        QCOMPARE(audio.value(QLatin1String("channels")).toInt(), 2);
        QCOMPARE(audio.value(QLatin1String("sample_rate")).toString(), QStringLiteral("48000"));
        QVERIFY2(std::fabs(onset(output) - 2.0) < 0.03, qPrintable(QString::number(onset(output))));
        QVERIFY(std::fabs(QCoro::waitFor(m_processor.duration(QUrl::fromLocalFile(output))) - 5.0) < 0.1);
    }

    void aMicrophoneOnlyRecordingGetsTheRequestedChannels()
    {
        const Recording r = recordingIn(QStringLiteral("In person"), false, true);
        makeMedia(track(r, "microphone.m4a"), tone(2), kAac + words(QStringLiteral("-ac 1")));

        const auto name = QCoro::waitFor(m_processor.buildFinalMedia(r, AudioQuality::lossless));
        QVERIFY(name);
        const QJsonObject final = streamInfo(QDir(r.folderPath()).filePath(*name), "a");
        QCOMPARE(final.value(QLatin1String("codec_name")).toString(), QStringLiteral("alac"));
        QCOMPARE(final.value(QLatin1String("channels")).toInt(), 2);

        const QString speech = m_dir.filePath(QStringLiteral("speech.m4a"));
        QVERIFY(QCoro::waitFor(m_processor.exportSpeechAudio(r.audioSourceURLs(), QUrl::fromLocalFile(speech))));
        const QJsonObject small = streamInfo(speech, "a");
        QCOMPARE(small.value(QLatin1String("codec_name")).toString(), QStringLiteral("aac"));
        QCOMPARE(small.value(QLatin1String("channels")).toInt(), 1);
        QCOMPARE(small.value(QLatin1String("sample_rate")).toString(), QStringLiteral("16000"));
    }

    void videoIsCopiedAndLosslessBecomesAac()
    {
        const Recording r = recordingIn(QStringLiteral("With screen"), true, false, true);
        makeMedia(track(r, "meeting-audio.m4a"), tone(3), kAac);
        makeMedia(track(r, "screen.mov"), lavfi(QStringLiteral("testsrc=size=320x240:rate=15:duration=3")),
                  words(QStringLiteral("-c:v libx264 -g 30 -pix_fmt yuv420p")));

        const auto name = QCoro::waitFor(m_processor.buildFinalMedia(r, AudioQuality::lossless));
        QVERIFY2(name, name ? "" : qPrintable(name.error().description()));
        QCOMPARE(*name, QStringLiteral("With screen.mp4"));
        const QString output = QDir(r.folderPath()).filePath(*name);
        QCOMPARE(streamInfo(output, "a").value(QLatin1String("codec_name")).toString(), QStringLiteral("aac"));
        QCOMPARE(MediaProcessor::finalAudioSettings(AudioQuality::lossless, true).bitRate, 256000);
        const QStringList source = videoPacketHashes(track(r, "screen.mov"));
        QCOMPARE(source.size(), 45);
        QCOMPARE(videoPacketHashes(output), source);
    }

    void noAudioSourcesIsNoInput()
    {
        const Recording r = recordingIn(QStringLiteral("Empty"), true, true);
        const auto name = QCoro::waitFor(m_processor.buildFinalMedia(r, AudioQuality::high));
        QVERIFY(!name);
        QCOMPARE(name.error().description(), QStringLiteral("There is no audio in this recording."));
    }

    void aTimeRangeStartsAtZero()
    {
        const Recording r = recordingIn(QStringLiteral("Ranged"), true, false);
        // Silence with a tone from 5 s to 6 s.
        makeMedia(track(r, "meeting-audio.m4a"),
                  lavfi(QStringLiteral("sine=frequency=800:duration=10,volume=enable='between(t,5,6)':volume=1,"
                                       "volume=enable='not(between(t,5,6))':volume=0")),
                  kAac);
        const QString speech = m_dir.filePath(QStringLiteral("range.m4a"));
        const auto done = QCoro::waitFor(
            m_processor.exportSpeechAudio(r.audioSourceURLs(), QUrl::fromLocalFile(speech), TimeRange{3.0, 4.0}));
        QVERIFY(done);
        const QJsonObject audio = streamInfo(speech, "a");
        QVERIFY2(std::fabs(audio.value(QLatin1String("format_duration")).toDouble() - 4.0) < 0.1,
                 qPrintable(QString::number(audio.value(QLatin1String("format_duration")).toDouble())));
        QVERIFY2(std::fabs(onset(speech) - 2.0) < 0.05, qPrintable(QString::number(onset(speech))));
    }

    void damagedTracksGiveWhatIsReadableAndStayUntouched()
    {
        const Recording r = recordingIn(QStringLiteral("Crashed"), true, true);
        // A fragmented track cut off by a crash: the last fragment is torn.
        const QString meeting = track(r, "meeting-audio.m4a");
        makeMedia(meeting, tone(30),
                  kAac + words(QStringLiteral("-movflags +frag_keyframe+empty_moov+default_base_moof -frag_duration "
                                              "10000000")));
        QVERIFY(QFile::resize(meeting, QFileInfo(meeting).size() * 3 / 4));
        const QString microphone = track(r, "microphone.m4a");
        QFile garbage(microphone);
        QVERIFY(garbage.open(QIODevice::WriteOnly));
        for (int i = 0; i < 4096; ++i)
            garbage.putChar(char((i * 7919) % 251));
        garbage.close();
        const QByteArray before[] = {digest(meeting), digest(microphone)};

        const auto name = QCoro::waitFor(m_processor.buildFinalMedia(r, AudioQuality::standard));
        QVERIFY2(name, name ? "" : qPrintable(name.error().description()));
        const double seconds = QCoro::waitFor(m_processor.duration(QUrl::fromLocalFile(r.folderPath() + u'/' + *name)));
        QVERIFY2(seconds >= 19.5 && seconds <= 23, qPrintable(QString::number(seconds)));
        QCOMPARE(digest(meeting), before[0]);
        QCOMPARE(digest(microphone), before[1]);
    }
};

QTEST_GUILESS_MAIN(TestMediaProcessor)
#include "tst_mediaprocessor.moc"
