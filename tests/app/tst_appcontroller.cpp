// The controller with real parts wherever they run here (settings, keyring, library, capture engine, media
// processor, transcription service, Drive copies into a temporary folder); the sound server, Zoom, the desktop's
// permission sources, notifications and the speech engine are stand-ins.

#include "app/appcontroller.h"
#include "app/appsettings.h"
#include "app/keychain.h"
#include "capture/audiosettings.h"
#include "capture/captureengine.h"
#include "capture/mediaprocessor.h"
#include "capture/trackwriter.h"
#include "library/recordingstore.h"
#include "meeting/notifier.h"
#include "meeting/permissions.h"
#include "meeting/zoommonitor.h"
#include "support/app/controllerfakes.h"
#include "support/capture/fakesound.h"
#include "support/capture/mediaprobe.h"
#include "support/fakesecretstore.h"
#include "transcription/transcriptionservice.h"

#include "../meeting/faketicker.h"

#include <QCoroTimer>
#include <QDir>
#include <QLockFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

using namespace qm;
using namespace qm::test;
using namespace std::chrono_literals;

namespace {

// Zoom as a script the test moves: running and in a meeting, or not.
class SwitchableProbes : public ZoomProbes {
public:
    explicit SwitchableProbes(bool *meeting) : m_meeting(meeting) {}
    QList<int> zoomProcesses() override { return *m_meeting ? QList<int>{4242} : QList<int>{}; }
    bool zoomIsUsingAudioInput(const QList<int> &pids) override { return !pids.isEmpty(); }
    bool zoomHasMeetingWindow(const QList<int> &) override { return false; }

private:
    bool *m_meeting;
};

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

    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<Keychain> m_keychain;
    std::unique_ptr<AppSettings> m_settings;
    std::unique_ptr<RecordingStore> m_store;
    std::unique_ptr<ZoomMonitor> m_zoom;
    std::unique_ptr<Permissions> m_permissions;
    std::unique_ptr<MediaProcessor> m_media;
    FakeSecretStore m_secrets;
    std::unique_ptr<TranscriptionService> m_transcription;
    RecordingNotifier m_notifier;
    FakeTickers m_tickers;
    FakeClock m_clock;
    FakeSoundServer m_sound;
    FakeProcessList m_processes;
    QDateTime m_now;
    bool m_inMeeting = false;
    std::optional<TranscriptionError> m_engineFailure;
    int m_engineRuns = 0;

    QString drivePath() const { return m_dir->filePath(QStringLiteral("Drive")); }

    std::unique_ptr<AppController> makeController()
    {
        ControllerParts parts{
            .settings = *m_settings,
            .store = *m_store,
            .zoom = *m_zoom,
            .permissions = *m_permissions,
            .notifier = m_notifier,
            .media = *m_media,
            .transcription = *m_transcription,
            .makeEngine = [this] { return std::make_unique<CaptureEngine>(m_sound, nullptr, m_processes, m_clock); },
        };
        parts.now = [this] { return m_now; };
        parts.tickers = m_tickers.factory();
        return std::make_unique<AppController>(std::move(parts));
    }

    // Moves both clocks on by `seconds` of tone into the tracks that are being recorded, then lets the ticker run.
    void record(AppController &controller, double seconds)
    {
        for (int i = 0; i < int(seconds * 4); ++i) {
            if (m_sound.meeting.deliver)
                m_sound.meeting.deliver(toneChunk(m_clock.now(), 0.25, 2));
            if (m_sound.microphone.deliver)
                m_sound.microphone.deliver(toneChunk(m_clock.now(), 0.25, 1));
            m_clock.advance(kNanosecondsPerSecond / 4);
            m_now = m_now.addMSecs(250);
            // Real time, as the sound server delivers: faster pacing outran the encoders under the sanitizers on a
            // loaded machine, and the capture rightly dropped what didn't fit its hand-off.
            QTest::qWait(250);
            if (controller.phase() == AppController::Phase::recording && m_tickers.last && m_tickers.last->tick)
                m_tickers.last->tick();
        }
    }

    static bool waitUntilIdle(AppController &controller, int timeoutMs = 60000)
    {
        return QTest::qWaitFor(
            [&] { return controller.phase() == AppController::Phase::idle && !controller.isProcessing(); }, timeoutMs);
    }

private Q_SLOTS:
    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        m_keychain = std::make_unique<Keychain>();
        m_settings = std::make_unique<AppSettings>(*m_keychain, m_dir->filePath(QStringLiteral("config")));
        m_settings->setSaveFolderPath(m_dir->filePath(QStringLiteral("Library")));
        m_settings->setDriveRootPath(drivePath());
        m_settings->setDriveSyncEnabled(true);
        m_settings->setAutoTranscribe(true);
        m_settings->setProvider(TranscriptionProvider::onDevice);
        m_settings->setAudioQuality(AudioQuality::high);
        AppSettings *settings = m_settings.get();
        m_store = std::make_unique<RecordingStore>([settings] { return settings->saveFolderPath(); });
        m_store->reload();
        m_inMeeting = false;
        m_zoom = std::make_unique<ZoomMonitor>(std::make_unique<SwitchableProbes>(&m_inMeeting), m_tickers.factory());
        m_permissions = std::make_unique<Permissions>(std::make_unique<GrantedPermissionSources>());
        m_media = std::make_unique<MediaProcessor>();
        m_engineFailure.reset();
        m_engineRuns = 0;
        m_transcription = std::make_unique<TranscriptionService>(m_secrets, *m_media, [this](TranscriptionProvider) {
            ++m_engineRuns;
            return std::make_unique<ScriptedEngine>(m_engineFailure);
        });
        m_notifier.posts.clear();
        m_sound = FakeSoundServer();
        m_processes.zoom = {4242};
        m_now = QDateTime(QDate(2026, 3, 1), QTime(10, 0), Qt::UTC);
    }

    void aRecordingGoesFromStartToTranscriptAndTwoDriveCopies()
    {
        auto controller = makeController();
        QSignalSpy phases(controller.get(), &AppController::phaseChanged);
        controller->startRecording(RecordingSource::zoom);
        controller->startRecording(RecordingSource::systemAudio); // still starting: ignored
        QTRY_COMPARE(controller->phase(), AppController::Phase::recording);
        QCOMPARE(m_store->count(), 1);
        QCOMPARE(controller->active()->source, RecordingSource::zoom);
        {
            // Another run starting meanwhile leaves the live recording alone.
            FakeTickers::Ticker *elapsedTicker = m_tickers.last;
            auto other = makeController();
            QVERIFY(!other->isProcessing());
            QCOMPARE(m_store->recordings().first().state, ProcessingState::recording);
            m_tickers.last = elapsedTicker;
        }

        record(*controller, 2.0);
        controller->togglePause();
        m_now = m_now.addSecs(10); // paused time never counts
        controller->togglePause();
        record(*controller, 2.0);
        controller->stopRecording();
        QVERIFY(waitUntilIdle(*controller));

        const Recording done = m_store->recordings().first();
        QCOMPARE(done.state, ProcessingState::ready);
        QVERIFY2(std::fabs(done.duration - 4.0) < 0.1, qPrintable(QString::number(done.duration)));
        QVERIFY(done.hasMeetingTrack && done.hasMicrophoneTrack && !done.hasVideo);
        QCOMPARE(done.transcriptState, TranscriptState::done);
        QVERIFY(done.driveSyncedAt);
        QVERIFY(!done.lastError);
        QCOMPARE(controller->transcriptRevision(), 1);
        QCOMPARE(phases.count(), 4); // starting, recording, stopping, idle

        const QDir copy(drivePath() + QStringLiteral("/Quillmoor/") + QDir(done.folderPath()).dirName());
        QVERIFY(copy.exists(*done.mediaFileName));
        QVERIFY(copy.exists(QStringLiteral("Transcript.md")));
        QVERIFY(std::fabs(mediaSeconds(copy.filePath(*done.mediaFileName)) - 4.0) < 0.1);
        QCOMPARE(m_notifier.titles(),
                 (QStringList{QStringLiteral("Recording saved"), QStringLiteral("Transcript ready")}));
        QVERIFY(m_notifier.posts.first().body.startsWith(done.title + QStringLiteral(" \u00b7 ")));
    }

    void aFailedStartLeavesNothingBehind()
    {
        m_processes.zoom = {};
        auto controller = makeController();
        controller->startRecording(RecordingSource::zoom);
        QTRY_COMPARE(controller->phase(), AppController::Phase::idle);
        QCOMPARE(m_store->count(), 0);
        QCOMPARE(m_sound.starts, 0);
        QCOMPARE(QDir(m_settings->saveFolderPath()).entryList(QDir::Dirs | QDir::NoDotAndDotDot).size(), 0);
        const QString sentence =
            QStringLiteral("Zoom isn't running. Join your meeting in Zoom first, or use “Record System Audio”.");
        QCOMPARE(controller->errorMessageText(), sentence);
        QVERIFY(!controller->permissionProblem());
        QCOMPARE(m_notifier.posts.size(), 1);
        QCOMPARE(m_notifier.posts.first().title, QStringLiteral("Couldn't start recording"));
        QCOMPARE(m_notifier.posts.first().body, sentence);
    }

    void aCaptureWithoutAudioFailsWithoutMediaWork()
    {
        m_settings->setIncludeMicrophone(false);
        auto controller = makeController();
        controller->startRecording(RecordingSource::systemAudio);
        QTRY_COMPARE(controller->phase(), AppController::Phase::recording);
        m_now = m_now.addSecs(3);
        controller->stopRecording();
        QVERIFY(waitUntilIdle(*controller));
        const Recording failed = m_store->recordings().first();
        QCOMPARE(failed.state, ProcessingState::failed);
        QVERIFY(!failed.mediaFileName);
        QCOMPARE(m_notifier.titles(), QStringList{QStringLiteral("Nothing was recorded")});
        QCOMPARE(m_engineRuns, 0);
    }

    void transcriptionAndDriveFailuresKeepTheRightMessage()
    {
        m_engineFailure = TranscriptionError::noSpeech();
        auto controller = makeController();
        controller->startRecording(RecordingSource::inPerson);
        QTRY_COMPARE(controller->phase(), AppController::Phase::recording);
        record(*controller, 1.0);
        controller->stopRecording();
        QVERIFY(waitUntilIdle(*controller));
        Recording record = m_store->recordings().first();
        QCOMPARE(record.transcriptState, TranscriptState::failed);
        const QString transcriptionMessage = *record.lastError;

        // A successful copy keeps the transcription's message while that is still failed.
        QCoro::waitFor(controller->syncToDrive(record.id));
        QCOMPARE(m_store->recordings().first().lastError, transcriptionMessage);

        // A Drive failure replaces it: the Drive "folder" is now a file.
        QDir(drivePath()).removeRecursively();
        QFile blocker(drivePath());
        QVERIFY(blocker.open(QIODevice::WriteOnly));
        blocker.close();
        QCoro::waitFor(controller->syncToDrive(record.id));
        record = m_store->recordings().first();
        QVERIFY(record.lastError && *record.lastError != transcriptionMessage);
        QCOMPARE(m_notifier.posts.last().title, QStringLiteral("Google Drive sync failed"));

        // Asked again while the recording isn't ready or is already transcribing: nothing happens.
        record.transcriptState = TranscriptState::running;
        QVERIFY(m_store->save(record));
        const int runs = m_engineRuns;
        QCoro::waitFor(controller->transcribe(record.id));
        QCOMPARE(m_engineRuns, runs);
    }

    void aRecordingDeletedWhileTranscribingIsLeftAlone()
    {
        m_settings->setDriveSyncEnabled(false);
        auto controller = makeController();
        controller->startRecording(RecordingSource::inPerson);
        QTRY_COMPARE(controller->phase(), AppController::Phase::recording);
        record(*controller, 1.0);
        controller->stopRecording();
        QTRY_VERIFY(controller->activities().value(controller->store().recordings().first().id) ==
                    QStringLiteral("Listening…"));
        m_store->deleteRecording(m_store->recordings().first());
        QVERIFY(waitUntilIdle(*controller));
        QCOMPARE(m_store->count(), 0);
        QVERIFY(!m_notifier.titles().contains(QStringLiteral("Transcript ready")));
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
        m_settings->setAutoTranscribe(false);
        m_settings->setDriveSyncEnabled(false);
        auto made = m_store->create(RecordingSource::inPerson, false);
        QVERIFY(made);
        const QString track = made->folderPath() + QStringLiteral("/Source/microphone.m4a");
        if (damaged) {
            QFile file(track);
            QVERIFY(file.open(QIODevice::WriteOnly));
            file.write(QByteArray(4096, 'x'));
        } else {
            QVERIFY(writeToneFile(track, 3.0));
        }

        auto controller = makeController();
        QVERIFY(waitUntilIdle(*controller));
        const Recording recovered = m_store->recordings().first();
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
        auto made = m_store->create(RecordingSource::zoom, false);
        QVERIFY(made);
        Recording record = *made;
        record.state = ProcessingState::ready;
        record.transcriptState = TranscriptState::running;
        QVERIFY(m_store->save(record));
        {
            // Another run is still transcribing it: left alone.
            QLockFile busy(AppController::transcriptionLockPath(record));
            QVERIFY(busy.tryLock(0));
            auto controller = makeController();
            QCOMPARE(m_store->recordings().first().transcriptState, TranscriptState::running);
        }
        auto controller = makeController();
        QCOMPARE(m_store->recordings().first().transcriptState, TranscriptState::failed);
        QVERIFY(m_store->recordings().first().lastError);
    }

    void zoomMeetingsStartAndStopRecordingsInAutomaticMode()
    {
        m_settings->setZoomStartMode(ZoomStartMode::automatic);
        m_settings->setAutoStopWhenZoomEnds(true);
        m_settings->setAutoTranscribe(false);
        m_settings->setDriveSyncEnabled(false);
        auto controller = makeController();
        m_inMeeting = true;
        m_zoom->poll();
        m_zoom->poll();
        QTRY_COMPARE(controller->phase(), AppController::Phase::recording);
        QCOMPARE(m_notifier.posts.first().title, QStringLiteral("Recording your Zoom meeting"));
        record(*controller, 1.0);
        m_inMeeting = false;
        for (int i = 0; i < ZoomMonitor::endAfterNegativePolls; ++i)
            m_zoom->poll();
        QVERIFY(waitUntilIdle(*controller));
        QVERIFY(m_notifier.titles().contains(QStringLiteral("Zoom meeting ended")));
        QCOMPARE(m_store->recordings().first().state, ProcessingState::ready);

        // A recording of another source is never stopped by Zoom.
        m_inMeeting = true;
        controller->startRecording(RecordingSource::inPerson);
        QTRY_COMPARE(controller->phase(), AppController::Phase::recording);
        m_zoom->poll();
        m_zoom->poll();
        m_inMeeting = false;
        for (int i = 0; i < ZoomMonitor::endAfterNegativePolls; ++i)
            m_zoom->poll();
        QCOMPARE(controller->phase(), AppController::Phase::recording);
        controller->discardRecording();
        QVERIFY(waitUntilIdle(*controller));
        QCOMPARE(m_notifier.posts.last().title, QStringLiteral("Recording discarded"));
    }

    void editsRewriteTheTranscriptOnlyWhenThereIsOne()
    {
        auto made = m_store->create(RecordingSource::zoom, false);
        QVERIFY(made);
        auto controller = makeController();
        controller->rename(*made, QStringLiteral(" \t "));
        QCOMPARE(m_store->recordings().first().title, made->title);
        controller->renameSpeaker(QStringLiteral("Speaker 1"), QStringLiteral("Dana"), *made);
        QCOMPARE(controller->transcriptRevision(), 0);

        Transcript transcript;
        transcript.engine = QStringLiteral("test");
        transcript.createdAt = m_now;
        TranscriptSegment segment;
        segment.end = 1;
        segment.speaker = QStringLiteral("Speaker 1");
        segment.text = QStringLiteral("Hi.");
        transcript.segments = {segment};
        QVERIFY(m_store->saveTranscript(transcript, *made));
        controller->rename(*made, QStringLiteral("  Weekly sync\t"));
        QCOMPARE(m_store->recordings().first().title, QStringLiteral("Weekly sync"));
        controller->renameSpeaker(QStringLiteral("Speaker 1"), QStringLiteral("Dana"), m_store->recordings().first());
        QCOMPARE(controller->transcriptRevision(), 1);
        QFile markdown(made->folderPath() + QStringLiteral("/Transcript.md"));
        QVERIFY(markdown.open(QIODevice::ReadOnly));
        const QString text = QString::fromUtf8(markdown.readAll());
        QVERIFY(text.contains(QStringLiteral("Weekly sync")));
        QVERIFY(text.contains(QStringLiteral("Dana")));
    }
};

QTEST_GUILESS_MAIN(TestAppController)
#include "tst_appcontroller.moc"
