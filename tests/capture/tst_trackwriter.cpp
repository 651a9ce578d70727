#include "capture/trackwriter.h"
#include "support/capture/mediaprobe.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <cmath>
#include <cstdlib>

using namespace qm;
using namespace qm::test;

namespace {

constexpr Nanoseconds kSecond = kNanosecondsPerSecond;
constexpr Nanoseconds kSession = 1000 * kSecond; // an arbitrary host-clock instant

AudioChunk tone(Nanoseconds pts, int frames, int channels = 2, float amplitude = 0.5f)
{
    AudioChunk chunk;
    chunk.pts = pts;
    chunk.channels = channels;
    chunk.samples.resize(std::size_t(frames) * std::size_t(channels));
    for (int i = 0; i < frames; ++i) {
        const auto value = float(amplitude * std::sin(2 * M_PI * 440.0 * double(i) / 48000.0));
        for (int ch = 0; ch < channels; ++ch)
            chunk.samples[std::size_t(i * channels + ch)] = value;
    }
    return chunk;
}

VideoFrame solid(Nanoseconds pts, int width, int height)
{
    auto pixels = std::make_shared<std::vector<std::uint8_t>>(std::size_t(width) * std::size_t(height) * 4);
    for (std::size_t i = 0; i < pixels->size(); i += 4) {
        (*pixels)[i] = 200; // blue
        (*pixels)[i + 1] = 40;
        (*pixels)[i + 2] = 10;
    }
    return VideoFrame{pts, width, height, width * 4, pixels, true};
}

// Writes `seconds` of tone in 10 ms chunks starting `offset` after the session start, faster than real time
// but never faster than the encoder, as a live source would.
void feed(TrackWriter &writer, double seconds, Nanoseconds offset = 0)
{
    const int chunks = int(seconds * 100);
    for (int i = 0; i < chunks; ++i) {
        while (writer.pendingCount() > 100) // a second of 10 ms chunks
            QThread::msleep(1);
        writer.append(tone(kSession + offset + Nanoseconds(i) * kSecond / 100, 480));
    }
}

bool isChild()
{
    return qEnvironmentVariableIsSet("QM_WRITER_CHILD");
}

} // namespace

class TestTrackWriter : public QObject {
    Q_OBJECT

    QTemporaryDir m_dir;

    QString path(const char *name) const { return m_dir.filePath(QLatin1String(name)); }

private Q_SLOTS:
    void aLateTrackKeepsItsStartAndCountsEverything()
    {
        auto writer = TrackWriter::createAudio(path("late.m4a"), audioSettings(AudioQuality::high, 2));
        QVERIFY(writer);
        (*writer)->append(tone(kSession, 480)); // before start: dropped
        (*writer)->start(kSession);
        feed(**writer, 3.0, kSecond);
        QVERIFY((*writer)->finish());
        QCOMPARE((*writer)->status(), WriterStatus::completed);
        QCOMPARE((*writer)->receivedCount(), 301);
        QCOMPARE((*writer)->appendedCount(), 300);
        QCOMPARE((*writer)->droppedCount(), 1);

        const QJsonObject stream = streamInfo(path("late.m4a"));
        QCOMPARE(stream.value(QLatin1String("codec_name")).toString(), QStringLiteral("aac"));
        QCOMPARE(stream.value(QLatin1String("channels")).toInt(), 2);
        QVERIFY2(std::fabs(stream.value(QLatin1String("format_duration")).toDouble() - 4.0) < 0.05,
                 qPrintable(QString::number(stream.value(QLatin1String("format_duration")).toDouble())));
        QVERIFY2(std::fabs(onset(path("late.m4a"), 0.2f) - 1.0) < 0.01,
                 qPrintable(QString::number(onset(path("late.m4a"), 0.2f))));
    }

    void timeNeverRunsBackwards()
    {
        auto made = TrackWriter::createAudio(path("order.m4a"), audioSettings(AudioQuality::lossless, 1));
        QVERIFY(made);
        TrackWriter &writer = **made;
        writer.start(kSession);
        writer.append(tone(kSession, 480, 1)); // ends at +10 ms
        writer.append(tone(kSession + kSecond / 100 - 1, 480, 1));
        QCOMPARE(writer.droppedCount(), 1); // one nanosecond early
        writer.append(tone(kSession + kSecond / 100, 480, 1));
        QCOMPARE(writer.droppedCount(), 1); // exactly at the end
        // A sample without length advances the end by 1/600 s.
        writer.append(tone(kSession + kSecond, 0, 1));
        writer.append(tone(kSession + kSecond + kSecond / 600 - 1, 480, 1));
        QCOMPARE(writer.droppedCount(), 2);
        writer.append(tone(kSession + kSecond + kSecond / 600, 480, 1));
        QCOMPARE(writer.appendedCount(), 4);
        QVERIFY(writer.finish());
        QCOMPARE(streamInfo(path("order.m4a")).value(QLatin1String("codec_name")).toString(), QStringLiteral("alac"));
    }

    void aTrackWithNothingWrittenLeavesNoFile()
    {
        QFile old(path("empty.m4a"));
        QVERIFY(old.open(QIODevice::WriteOnly));
        old.write("an older file that must not survive");
        old.close();

        auto writer = TrackWriter::createAudio(path("empty.m4a"), audioSettings(AudioQuality::standard, 1));
        QVERIFY(writer);
        (*writer)->append(tone(kSession, 480, 1)); // received while not writing
        (*writer)->start(kSession);
        QVERIFY(!(*writer)->finish());
        QCOMPARE((*writer)->status(), WriterStatus::cancelled);
        QCOMPARE((*writer)->receivedCount(), 1);
        QCOMPARE((*writer)->droppedCount(), 1);
        QVERIFY(!QFileInfo::exists(path("empty.m4a")));

        QVERIFY(!TrackWriter::createAudio(m_dir.filePath(QStringLiteral("missing/folder/x.m4a")),
                                          audioSettings(AudioQuality::high, 2)));
    }

    void aCrashLeavesEverythingUpToTheLastFragment()
    {
        if (!isChild()) {
            QProcess child;
            QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
            env.insert(QStringLiteral("QM_WRITER_CHILD"), path("crashed.m4a"));
            child.setProcessEnvironment(env);
            child.start(QCoreApplication::applicationFilePath(),
                        {QStringLiteral("aCrashLeavesEverythingUpToTheLastFragment")});
            QVERIFY(child.waitForFinished(120000));
            const double seconds = streamInfo(path("crashed.m4a")).value(QLatin1String("format_duration")).toDouble();
            QVERIFY2(seconds >= 9.9 && seconds <= 13.0, qPrintable(QString::number(seconds)));
            return;
        }
        // A low bit rate, so that one fragment is far smaller than any I/O buffer that could hold it back.
        auto writer =
            TrackWriter::createAudio(qEnvironmentVariable("QM_WRITER_CHILD"), audioSettings(AudioQuality::standard, 2));
        QVERIFY(writer);
        (*writer)->start(kSession);
        feed(**writer, 13.0);
        QTest::qWait(1000); // let the encoder catch up, then die without finishing
        std::_Exit(0);
    }

    void videoIsScaledToFitAndEncoded_data()
    {
        QTest::addColumn<int>("width");
        QTest::addColumn<int>("height");
        QTest::addColumn<int>("fps");
        QTest::addColumn<int>("outWidth");
        QTest::addColumn<int>("outHeight");
        QTest::addColumn<qint64>("bitRate");
        QTest::addColumn<int>("keyInterval");
        QTest::newRow("wide screen") << 2560 << 1440 << 15 << 1920 << 1080 << qint64(3732480) << 60;
        QTest::newRow("odd window") << 641 << 361 << 10 << 640 << 360 << qint64(276480) << 40;
        QTest::newRow("zero rate") << 640 << 360 << 0 << 640 << 360 << qint64(27648) << 1;
        QTest::newRow("tiny") << 1 << 1 << 30 << 2 << 2 << qint64(14) << 120;
    }

    void videoIsScaledToFitAndEncoded()
    {
        QFETCH(int, width);
        QFETCH(int, height);
        QFETCH(int, fps);
        const VideoSettings settings = VideoSettings::forCapture(width, height, fps);
        QTEST(settings.width, "outWidth");
        QTEST(settings.height, "outHeight");
        QTEST(qint64(settings.bitRate), "bitRate");
        QTEST(settings.keyFrameInterval, "keyInterval");
        if (QByteArray(QTest::currentDataTag()) != "wide screen")
            return;

        auto writer = TrackWriter::createVideo(path("screen.mov"), settings);
        QVERIFY(writer);
        (*writer)->start(kSession);
        const VideoFrame frame = solid(kSession, width, height);
        for (int i = 0; i < 30; ++i) {
            while ((*writer)->pendingCount() > 2)
                QThread::msleep(5);
            VideoFrame next = frame;
            next.pts = kSession + Nanoseconds(i) * kSecond / 15;
            (*writer)->append(next);
        }
        QVERIFY((*writer)->finish());
        const QJsonObject stream = streamInfo(path("screen.mov"), "v");
        QCOMPARE(stream.value(QLatin1String("codec_name")).toString(), QStringLiteral("h264"));
        QCOMPARE(stream.value(QLatin1String("width")).toInt(), 1920);
        QCOMPARE(stream.value(QLatin1String("height")).toInt(), 1080);
    }

    void aFullHandOffDropsInsteadOfWaiting()
    {
        auto writer = TrackWriter::createVideo(path("busy.mov"), VideoSettings::forCapture(1920, 1080, 30));
        QVERIFY(writer);
        (*writer)->start(kSession);
        QElapsedTimer timer;
        timer.start();
        const VideoFrame frame = solid(kSession, 1920, 1080);
        for (int i = 0; i < 200; ++i) {
            VideoFrame next = frame;
            next.pts = kSession + Nanoseconds(i) * kSecond / 30;
            (*writer)->append(next);
        }
        QVERIFY2(timer.elapsed() < 2000, "appending must not wait for the encoder");
        QVERIFY((*writer)->droppedCount() > 0);
        QCOMPARE((*writer)->appendedCount() + (*writer)->droppedCount(), 200);
        QVERIFY((*writer)->finish());
    }
};

QTEST_GUILESS_MAIN(TestTrackWriter)
#include "tst_trackwriter.moc"
