// The controller with real parts wherever they run here (settings, keyring, library, capture engine, media
// processor, transcription service, Drive copies into a temporary folder); the sound server, Zoom, the desktop's
// permission sources, notifications and the speech engine are stand-ins.

#include "app/appcontroller.h"
#include "app/appsettings.h"
#include "capture/audiosettings.h"
#include "capture/captureengine.h"
#include "capture/mediaprocessor.h"
#include "capture/trackwriter.h"
#include "library/recordingstore.h"
#include "meeting/notifier.h"
#include "meeting/permissions.h"
#include "meeting/zoommonitor.h"
#include "support/app/controllerharness.h"
#include "support/capture/fakesound.h"
#include "support/capture/mediaprobe.h"
#include "transcription/transcriptionservice.h"

#include <QCoroTimer>
#include <QDir>
#include <QLockFile>
#include <QSignalSpy>
#include <QTest>

using namespace qm;
using namespace qm::test;
using namespace std::chrono_literals;

namespace {

// Answers after a short wait with one segment per pass, or with the failure it was given.
class ScriptedEngine : public SpeechEngine {
public:
    explicit ScriptedEngine(std::optional<TranscriptionError> failure) : m_failure(std::move(failure)) {}
    QCoro::Task<SegmentsResult> transcribe(EngineRequest request, ProgressCallback progress) override
    {
        progress(QStringLiteral("Listening…"));
        QTimer timer;
        timer.start(50ms);
        co_await timer;
        if (m_failure)
            co_return unexpected(*m_failure);
        TranscriptSegment segment;
        segment.end = std::min(1.0, request.duration);
        segment.text = QStringLiteral("Hello there.");
        co_return Segments{segment};
    }

private:
    std::optional<TranscriptionError> m_failure;
};

// A microphone track as a capture cut short would have left it: `seconds` of tone in a fragmented file.
bool writeToneFile(const QString &path, double seconds)
{
    auto writer = TrackWriter::createAudio(path, audioSettings(AudioQuality::high, 1));
    if (!writer)
        return false;
    (*writer)->start(0);
    for (int i = 0; i < int(seconds * 10); ++i) {
        (*writer)->append(toneChunk(i * kNanosecondsPerSecond / 10, 0.1, 1));
        QTest::qWait(5);
    }
    return (*writer)->finish();
}

} // namespace

class TestAppController : public QObject {
    Q_OBJECT

    std::unique_ptr<ControllerHarness> m_h;
    std::optional<TranscriptionError> m_engineFailure;
    int m_engineRuns = 0;

    QString drivePath() const { return m_h->dir.filePath(QStringLiteral("Drive")); }

private Q_SLOTS:
    void init()
    {
        m_h = std::make_unique<ControllerHarness>();
        AppSettings &settings = *m_h->settings;
        settings.setDriveRootPath(drivePath());
        settings.setDriveSyncEnabled(true);
        settings.setAutoTranscribe(true);
        settings.setProvider(TranscriptionProvider::onDevice);
        settings.setAudioQuality(AudioQuality::high);
        m_engineFailure.reset();
        m_engineRuns = 0;
        m_h->engine = [this] {
            ++m_engineRuns;
            return std::make_unique<ScriptedEngine>(m_engineFailure);
        };
    }
    void cleanup() { m_h.reset(); }

    void aRecordingGoesFromStartToTranscriptAndTwoDriveCopies()
    {
        AppController &controller = m_h->start();
        QSignalSpy phases(&controller, &AppController::phaseChanged);
        controller.startRecording(RecordingSource::zoom);
        controller.startRecording(RecordingSource::systemAudio); // still starting: ignored
        QTRY_COMPARE(controller.phase(), AppController::Phase::recording);
        QCOMPARE(m_h->store->count(), 1);
        QCOMPARE(controller.active()->source, RecordingSource::zoom);
        {
            // Another run starting meanwhile leaves the live recording alone.
            FakeTickers::Ticker *elapsedTicker = m_h->tickers.last;
            auto other = m_h->makeController();
            QVERIFY(!other->isProcessing());
            QCOMPARE(m_h->store->recordings().first().state, ProcessingState::recording);
            m_h->tickers.last = elapsedTicker;
        }

        m_h->record(2.0);
        controller.togglePause();
        m_h->now = m_h->now.addSecs(10); // paused time never counts
        controller.togglePause();
        m_h->record(2.0);
        controller.stopRecording();
        QVERIFY(ControllerHarness::waitUntilSettled(controller));

        const Recording done = m_h->store->recordings().first();
        QCOMPARE(done.state, ProcessingState::ready);
        QVERIFY2(std::fabs(done.duration - 4.0) < 0.1, qPrintable(QString::number(done.duration)));
        QVERIFY(done.hasMeetingTrack && done.hasMicrophoneTrack && !done.hasVideo);
        QCOMPARE(done.transcriptState, TranscriptState::done);
        QVERIFY(done.driveSyncedAt);
        QVERIFY(!done.lastError);
        QCOMPARE(controller.transcriptRevision(), 1);
        QCOMPARE(phases.count(), 4); // starting, recording, stopping, idle

        const QDir copy(drivePath() + QStringLiteral("/Quillmoor/") + QDir(done.folderPath()).dirName());
        QVERIFY(copy.exists(*done.mediaFileName));
        QVERIFY(copy.exists(QStringLiteral("Transcript.md")));
        QVERIFY(std::fabs(mediaSeconds(copy.filePath(*done.mediaFileName)) - 4.0) < 0.1);
        QCOMPARE(m_h->notifier.titles(),
                 (QStringList{QStringLiteral("Recording saved"), QStringLiteral("Transcript ready")}));
        QVERIFY(m_h->notifier.posts.first().body.startsWith(done.title + QStringLiteral(" \u00b7 ")));
    }

    void aFailedStartLeavesNothingBehind()
    {
        m_h->processes.zoom = {};
        AppController &controller = m_h->start();
        controller.startRecording(RecordingSource::zoom);
        QTRY_COMPARE(controller.phase(), AppController::Phase::idle);
        QCOMPARE(m_h->store->count(), 0);
        QCOMPARE(m_h->sound.starts, 0);
        QCOMPARE(QDir(m_h->settings->saveFolderPath()).entryList(QDir::Dirs | QDir::NoDotAndDotDot).size(), 0);
        const QString sentence =
            QStringLiteral("Zoom isn't running. Join your meeting in Zoom first, or use “Record System Audio”.");
        QCOMPARE(controller.errorMessageText(), sentence);
        QVERIFY(!controller.permissionProblem());
        QCOMPARE(m_h->notifier.posts.size(), 1);
        QCOMPARE(m_h->notifier.posts.first().title, QStringLiteral("Couldn't start recording"));
        QCOMPARE(m_h->notifier.posts.first().body, sentence);
    }

    void aCaptureWithoutAudioFailsWithoutMediaWork()
    {
        m_h->settings->setIncludeMicrophone(false);
        AppController &controller = m_h->start();
        controller.startRecording(RecordingSource::systemAudio);
        QTRY_COMPARE(controller.phase(), AppController::Phase::recording);
        m_h->now = m_h->now.addSecs(3);
        controller.stopRecording();
        QVERIFY(ControllerHarness::waitUntilSettled(controller));
        const Recording failed = m_h->store->recordings().first();
        QCOMPARE(failed.state, ProcessingState::failed);
        QVERIFY(!failed.mediaFileName);
        QCOMPARE(m_h->notifier.titles(), QStringList{QStringLiteral("Nothing was recorded")});
        QCOMPARE(m_engineRuns, 0);
    }

    void transcriptionAndDriveFailuresKeepTheRightMessage()
    {
        m_engineFailure = TranscriptionError::noSpeech();
        AppController &controller = m_h->start();
        controller.startRecording(RecordingSource::inPerson);
        QTRY_COMPARE(controller.phase(), AppController::Phase::recording);
        m_h->record(1.0);
        controller.stopRecording();
        QVERIFY(ControllerHarness::waitUntilSettled(controller));
        Recording record = m_h->store->recordings().first();
        QCOMPARE(record.transcriptState, TranscriptState::failed);
        const QString transcriptionMessage = *record.lastError;

        // A successful copy keeps the transcription's message while that is still failed.
        QCoro::waitFor(controller.syncToDrive(record.id));
        QCOMPARE(m_h->store->recordings().first().lastError, transcriptionMessage);

        // A Drive failure replaces it: the Drive "folder" is now a file.
        QDir(drivePath()).removeRecursively();
        QFile blocker(drivePath());
        QVERIFY(blocker.open(QIODevice::WriteOnly));
        blocker.close();
        QCoro::waitFor(controller.syncToDrive(record.id));
        record = m_h->store->recordings().first();
        QVERIFY(record.lastError && *record.lastError != transcriptionMessage);
        QCOMPARE(m_h->notifier.posts.last().title, QStringLiteral("Google Drive sync failed"));

        // Asked again while the recording isn't ready or is already transcribing: nothing happens.
        record.transcriptState = TranscriptState::running;
        QVERIFY(m_h->store->save(record));
        const int runs = m_engineRuns;
        QCoro::waitFor(controller.transcribe(record.id));
        QCOMPARE(m_engineRuns, runs);
    }

    void aRecordingDeletedWhileTranscribingIsLeftAlone()
    {
        m_h->settings->setDriveSyncEnabled(false);
        AppController &controller = m_h->start();
        controller.startRecording(RecordingSource::inPerson);
        QTRY_COMPARE(controller.phase(), AppController::Phase::recording);
        m_h->record(1.0);
        controller.stopRecording();
        QTRY_VERIFY(controller.activities().value(controller.store().recordings().first().id) ==
                    QStringLiteral("Listening…"));
        m_h->store->deleteRecording(m_h->store->recordings().first());
        QVERIFY(ControllerHarness::waitUntilSettled(controller));
        QCOMPARE(m_h->store->count(), 0);
        QVERIFY(!m_h->notifier.titles().contains(QStringLiteral("Transcript ready")));
    }

    void recoveryFinishesWhatACrashLeft_data()
    {
        QTest::addColumn<bool>("damaged");
        QTest::newRow("readable track") << false;
        QTest::newRow("damaged track") << true;
    }

    void recoveryFinishesWhatACrashLeft()
    {
        QFETCH(bool, damaged);
        m_h->settings->setAutoTranscribe(false);
        m_h->settings->setDriveSyncEnabled(false);
        auto made = m_h->store->create(RecordingSource::inPerson, false);
        QVERIFY(made);
        const QString track = made->folderPath() + QStringLiteral("/Source/microphone.m4a");
        if (damaged) {
            QFile file(track);
            QVERIFY(file.open(QIODevice::WriteOnly));
            file.write(QByteArray(4096, 'x'));
        } else {
            QVERIFY(writeToneFile(track, 3.0));
        }

        AppController &controller = m_h->start();
        QVERIFY(ControllerHarness::waitUntilSettled(controller));
        const Recording recovered = m_h->store->recordings().first();
        QVERIFY(recovered.hasMicrophoneTrack && !recovered.hasMeetingTrack);
        if (damaged) {
            QCOMPARE(recovered.state, ProcessingState::failed);
            QCOMPARE(*recovered.lastError,
                     QStringLiteral("This recording was interrupted (Quillmoor was force-quit or the computer shut "
                                    "down) before its audio could be saved."));
        } else {
            QCOMPARE(recovered.state, ProcessingState::ready);
            QVERIFY(std::fabs(recovered.duration - 3.0) < 0.1);
        }
    }

    void aTranscriptionCutOffWithItsRunCanBeRetried()
    {
        auto made = m_h->store->create(RecordingSource::zoom, false);
        QVERIFY(made);
        Recording record = *made;
        record.state = ProcessingState::ready;
        record.transcriptState = TranscriptState::running;
        QVERIFY(m_h->store->save(record));
        {
            // Another run is still transcribing it: left alone.
            QLockFile busy(AppController::transcriptionLockPath(record));
            QVERIFY(busy.tryLock(0));
            m_h->start();
            QCOMPARE(m_h->store->recordings().first().transcriptState, TranscriptState::running);
        }
        m_h->start();
        QCOMPARE(m_h->store->recordings().first().transcriptState, TranscriptState::failed);
        QVERIFY(m_h->store->recordings().first().lastError);
    }

    void zoomMeetingsStartAndStopRecordingsInAutomaticMode()
    {
        m_h->settings->setZoomStartMode(ZoomStartMode::automatic);
        m_h->settings->setAutoStopWhenZoomEnds(true);
        m_h->settings->setAutoTranscribe(false);
        m_h->settings->setDriveSyncEnabled(false);
        AppController &controller = m_h->start();
        m_h->zoomProbes->inMeeting = true;
        m_h->zoom->poll();
        m_h->zoom->poll();
        QTRY_COMPARE(controller.phase(), AppController::Phase::recording);
        QCOMPARE(m_h->notifier.posts.first().title, QStringLiteral("Recording your Zoom meeting"));
        m_h->record(1.0);
        m_h->zoomProbes->inMeeting = false;
        for (int i = 0; i < ZoomMonitor::endAfterNegativePolls; ++i)
            m_h->zoom->poll();
        QVERIFY(ControllerHarness::waitUntilSettled(controller));
        QVERIFY(m_h->notifier.titles().contains(QStringLiteral("Zoom meeting ended")));
        QCOMPARE(m_h->store->recordings().first().state, ProcessingState::ready);

        // A recording of another source is never stopped by Zoom.
        m_h->zoomProbes->inMeeting = true;
        controller.startRecording(RecordingSource::inPerson);
        QTRY_COMPARE(controller.phase(), AppController::Phase::recording);
        m_h->zoom->poll();
        m_h->zoom->poll();
        m_h->zoomProbes->inMeeting = false;
        for (int i = 0; i < ZoomMonitor::endAfterNegativePolls; ++i)
            m_h->zoom->poll();
        QCOMPARE(controller.phase(), AppController::Phase::recording);
        controller.discardRecording();
        QVERIFY(ControllerHarness::waitUntilSettled(controller));
        QCOMPARE(m_h->notifier.posts.last().title, QStringLiteral("Recording discarded"));
    }

    void editsRewriteTheTranscriptOnlyWhenThereIsOne()
    {
        auto made = m_h->store->create(RecordingSource::zoom, false);
        QVERIFY(made);
        AppController &controller = m_h->start();
        controller.rename(*made, QStringLiteral(" \t "));
        QCOMPARE(m_h->store->recordings().first().title, made->title);
        controller.renameSpeaker(QStringLiteral("Speaker 1"), QStringLiteral("Dana"), *made);
        QCOMPARE(controller.transcriptRevision(), 0);

        Transcript transcript;
        transcript.engine = QStringLiteral("test");
        transcript.createdAt = m_h->now;
        TranscriptSegment segment;
        segment.end = 1;
        segment.speaker = QStringLiteral("Speaker 1");
        segment.text = QStringLiteral("Hi.");
        transcript.segments = {segment};
        QVERIFY(m_h->store->saveTranscript(transcript, *made));
        controller.rename(*made, QStringLiteral("  Weekly sync\t"));
        QCOMPARE(m_h->store->recordings().first().title, QStringLiteral("Weekly sync"));
        controller.renameSpeaker(QStringLiteral("Speaker 1"), QStringLiteral("Dana"), m_h->store->recordings().first());
        QCOMPARE(controller.transcriptRevision(), 1);
        QFile markdown(made->folderPath() + QStringLiteral("/Transcript.md"));
        QVERIFY(markdown.open(QIODevice::ReadOnly));
        const QString text = QString::fromUtf8(markdown.readAll());
        QVERIFY(text.contains(QStringLiteral("Weekly sync")));
        QVERIFY(text.contains(QStringLiteral("Dana")));
    }
};

QTEST_GUILESS_MAIN(TestAppController)
#include "tst_appcontroller.moc"
