#include "capture/captureengine.h"
#include "support/capture/fakesound.h"
#include "support/capture/mediaprobe.h"

#include <QCoroTask>
#include <QDir>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

using namespace qm;
using namespace qm::test;

namespace {
constexpr Nanoseconds kSecond = kNanosecondsPerSecond;
}

class TestCaptureEngine : public QObject {
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_dir;
    FakeClock m_clock;
    FakeSoundServer m_sound;
    FakeProcessList m_processes;

    CaptureConfiguration configuration(RecordingSource source, bool microphone = true)
    {
        Recording recording;
        recording.source = source;
        recording.folder = QUrl::fromLocalFile(m_dir->filePath(QStringLiteral("Recording")));
        CaptureConfiguration c = CaptureConfiguration::forRecording(recording);
        c.includeMicrophone = microphone;
        return c;
    }
    QString track(const char *name) const
    {
        return m_dir->filePath(QStringLiteral("Recording/Source/")) + QLatin1String(name);
    }

    // Delivers `seconds` of tone from the microphone in 10 ms chunks, moving the clock along as real time would
    // once each chunk has been handled.
    // Chunks are 20 ms so a test's few seconds fit the writer's hand-off even when the encoder lags behind.
    void speak(CaptureEngine &engine, double seconds, Nanoseconds clockOffset = 0, int chunksPerSecond = 50)
    {
        for (int i = 0; i < int(seconds * chunksPerSecond); ++i) {
            m_sound.microphone.deliver(toneChunk(m_clock.now() + clockOffset, 1.0 / chunksPerSecond, 1));
            engine.drain();
            m_clock.advance(kSecond / chunksPerSecond);
        }
    }

private Q_SLOTS:
    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        m_sound = FakeSoundServer();
        m_processes.zoom = {};
    }

    void aPauseLeavesNoGapAndMutingWritesSilence()
    {
        CaptureEngine engine(m_sound, nullptr, m_processes, m_clock);
        QVERIFY(QCoro::waitFor(engine.start(configuration(RecordingSource::inPerson))));
        speak(engine, 1.0);
        engine.setPaused(true);
        speak(engine, 5.0); // heard while paused: dropped
        engine.setPaused(false);
        speak(engine, 1.0);
        engine.setMicrophoneMuted(true);
        speak(engine, 1.0);
        engine.setMicrophoneMuted(false);
        speak(engine, 1.0);
        const CaptureResult result = QCoro::waitFor(engine.stop());
        QCOMPARE(result, (CaptureResult{false, true, false}));

        // 1 s + 1 s + 1 s muted + 1 s: the paused five seconds are gone, the muted one stays as silence.
        QVERIFY2(std::fabs(mediaSeconds(track("microphone.m4a")) - 4.0) < 0.05,
                 qPrintable(QString::number(mediaSeconds(track("microphone.m4a")))));
        const QVector<double> levels = loudness(track("microphone.m4a"), 0.5);
        QCOMPARE(levels.size(), 8);
        for (int half = 0; half < 8; ++half) {
            const bool muted = half == 4 || half == 5;
            QVERIFY2(muted ? levels[half] < 0.01 : levels[half] > 0.2,
                     qPrintable(QStringLiteral("half %1: %2").arg(half).arg(levels[half])));
        }
    }

    void aSourceOnAnotherClockIsShiftedOnce_data()
    {
        QTest::addColumn<Nanoseconds>("offset");
        QTest::addColumn<double>("expectedOnset");
        QTest::newRow("two seconds: latency, left alone") << 2 * kSecond << 2.0;
        // Audio at the very first instant of a track gives way to the encoder's 21 ms of priming.
        QTest::newRow("just over two seconds: another clock") << 2 * kSecond + kSecond / 1000 << 0.021;
        QTest::newRow("far behind: another clock") << -3600 * kSecond << 0.021;
    }

    void aSourceOnAnotherClockIsShiftedOnce()
    {
        QFETCH(Nanoseconds, offset);
        QFETCH(double, expectedOnset);
        CaptureEngine engine(m_sound, nullptr, m_processes, m_clock);
        QVERIFY(QCoro::waitFor(engine.start(configuration(RecordingSource::inPerson))));
        speak(engine, 1.0, offset);
        QVERIFY(QCoro::waitFor(engine.stop()).microphone);
        QVERIFY2(std::fabs(onset(track("microphone.m4a")) - expectedOnset) < 0.02,
                 qPrintable(QString::number(onset(track("microphone.m4a")))));
    }

    void aSilentMicrophoneLeavesNoTrack()
    {
        m_processes.zoom = {4242};
        CaptureEngine engine(m_sound, nullptr, m_processes, m_clock);
        QVERIFY(QCoro::waitFor(engine.start(configuration(RecordingSource::zoom))));
        for (int i = 0; i < 100; ++i) {
            m_sound.meeting.deliver(toneChunk(m_clock.now(), 0.01, 2));
            engine.drain();
            m_clock.advance(kSecond / 100);
        }
        const CaptureResult result = QCoro::waitFor(engine.stop());
        QCOMPARE(result, (CaptureResult{true, false, false}));
        QVERIFY(QFileInfo::exists(track("meeting-audio.m4a")));
        QVERIFY(!QFileInfo::exists(track("microphone.m4a")));
        QVERIFY(m_sound.stopped);
    }

    void levelsAndFailuresReachTheMainThread()
    {
        CaptureEngine engine(m_sound, nullptr, m_processes, m_clock);
        QSignalSpy levels(&engine, &CaptureEngine::levelsChanged);
        QSignalSpy failures(&engine, &CaptureEngine::failed);
        QVERIFY(QCoro::waitFor(engine.start(configuration(RecordingSource::inPerson))));
        speak(engine, 1.0, 0, 100);
        QTRY_VERIFY(levels.count() >= 9);
        QVERIFY(levels.count() <= 11); // at most ten a second of capture
        QVERIFY(levels.last().at(0).toFloat() > 0.5f);

        engine.setMicrophoneMuted(true);
        speak(engine, 1.0, 0, 100);
        QTRY_VERIFY(levels.count() >= 18);
        QVERIFY(levels.last().at(0).toFloat() < 0.01f); // decayed to nothing while muted

        m_sound.microphone.failed(QStringLiteral("The microphone was unplugged."));
        QTRY_COMPARE(failures.count(), 1);
        QCOMPARE(failures.first().first().toString(), QStringLiteral("The microphone was unplugged."));
        QCoro::waitFor(engine.stop());
    }

    void aFailedStartStopsWhatItStarted()
    {
        m_sound.failMicrophone = CaptureFailure::of(CaptureError::microphoneUnavailable);
        CaptureEngine engine(m_sound, nullptr, m_processes, m_clock);
        const auto started = QCoro::waitFor(engine.start(configuration(RecordingSource::systemAudio)));
        QVERIFY(!started);
        QCOMPARE(started.error().description(), QStringLiteral("The selected microphone isn't available."));
        QVERIFY(m_sound.stopped);
        QVERIFY(!QFileInfo::exists(track("meeting-audio.m4a")));
    }

    void levelIsMappedFromDecibels()
    {
        const std::vector<float> full(480, 1.0f);
        const std::vector<float> quiet(480, 0.001f); // -60 dBFS
        const std::vector<float> half(480, 0.1f);    // -20 dBFS
        QCOMPARE(CaptureEngine::level(full.data(), full.size()), 1.0f);
        QCOMPARE(CaptureEngine::level(quiet.data(), quiet.size()), 0.0f);
        QVERIFY(std::fabs(CaptureEngine::level(half.data(), half.size()) - 2.0f / 3.0f) < 1e-4f);
        QCOMPARE(CaptureEngine::level(nullptr, 0), 0.0f);
    }
};

QTEST_GUILESS_MAIN(TestCaptureEngine)
#include "tst_captureengine.moc"
