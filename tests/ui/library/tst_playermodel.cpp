// The player's transport rules on a real media file, and the rules the detail view draws from.

#include "support/samples.h"
#include "ui/library/libraryviewstate.h"
#include "ui/library/playermodel.h"
#include "ui/library/transcriptmodel.h"

#include <QProcess>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

using namespace qm;
using namespace qm::ui;

class TestPlayerModel : public QObject {
    Q_OBJECT

    QTemporaryDir m_dir;
    QString m_media;

private Q_SLOTS:
    void initTestCase()
    {
        // Twenty seconds of AAC in MPEG-4, as the final media file of a recording is made.
        m_media = m_dir.filePath(QStringLiteral("tone.m4a"));
        const int status = QProcess::execute(QStringLiteral("ffmpeg"),
                                             {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-f"),
                                              QStringLiteral("lavfi"), QStringLiteral("-i"),
                                              QStringLiteral("sine=frequency=440:duration=20"), QStringLiteral("-c:a"),
                                              QStringLiteral("aac"), m_media});
        QCOMPARE(status, 0);
    }

    void transportRules()
    {
        PlayerModel player;
        player.load(QUrl::fromLocalFile(m_media));
        QTRY_VERIFY_WITH_TIMEOUT(player.duration() > 19.5, 10000);
        QCOMPARE(player.errorText(), QString());

        player.seek(5);
        player.skip(-PlayerModel::kSkipSeconds);
        QCOMPARE(player.currentTime(), 0.0);
        player.seek(player.duration() - 3);
        player.skip(PlayerModel::kSkipSeconds);
        QCOMPARE(player.currentTime(), player.duration());

        // At the end, play starts again from the beginning.
        player.toggle();
        QVERIFY(player.isPlaying());
        QTRY_VERIFY_WITH_TIMEOUT(player.currentTime() > 0.2 && player.currentTime() < 5, 10000);
        player.toggle();
        QVERIFY(!player.isPlaying());

        // A running recording holds the player: it pauses and won't start.
        player.toggle();
        QVERIFY(player.isPlaying());
        player.setHeld(true);
        QVERIFY(!player.isPlaying());
        player.toggle();
        QVERIFY(!player.isPlaying());
    }

    void followsTheSegmentBeingPlayed()
    {
        const QList<TranscriptSegment> segments = test::sampleTranscript().segments; // starts 0, 4.2, 3600
        QCOMPARE(TranscriptModel::segmentAt(segments, -1), -1);
        QCOMPARE(TranscriptModel::segmentAt(segments, 0), 0);
        QCOMPARE(TranscriptModel::segmentAt(segments, 4.2), 1);
        QCOMPARE(TranscriptModel::segmentAt(segments, 3599), 1);
        QCOMPARE(TranscriptModel::segmentAt(segments, 9999), 2);
    }

    void detailState_data()
    {
        QTest::addColumn<Recording>("recording");
        QTest::addColumn<bool>("transcript");
        QTest::addColumn<bool>("media");
        QTest::addColumn<bool>("sources");
        QTest::addColumn<QString>("activity");
        QTest::addColumn<QString>("transcribe");
        QTest::addColumn<bool>("transcribeEnabled");
        QTest::addColumn<QString>("drive");
        QTest::addColumn<QString>("note");

        Recording done = test::sampleRecording();
        Recording fresh = done;
        fresh.transcriptState = TranscriptState::none;
        fresh.driveSyncedAt.reset();
        Recording failed = fresh;
        failed.state = ProcessingState::failed;
        failed.mediaFileName.reset();
        Recording saving = fresh;
        saving.state = ProcessingState::processing;

        QTest::newRow("transcribed, copied")
            << done << true << true << true << QString() << "Re-transcribe" << true << "Re-sync Drive" << QString();
        QTest::newRow("new") << fresh << false << true << true << QString() << "Transcribe" << true
                             << "Copy to Google Drive" << QString();
        QTest::newRow("being transcribed") << fresh << false << true << true << "Transcribing…"
                                           << "Transcribe" << false << "Copy to Google Drive" << QString();
        QTest::newRow("failed with its tracks")
            << failed << false << false << true << QString() << "Transcribe" << false << "Copy to Google Drive"
            << "The recording couldn't be saved, so there is nothing to play. Its source tracks are still in its "
               "folder: open it with Show in Files.";
        QTest::newRow("media file gone") << fresh << false << false << true << QString() << "Transcribe" << true
                                         << "Copy to Google Drive"
                                         << "The media file is missing from the recording's folder. It can still be "
                                            "transcribed from its source tracks.";
        QTest::newRow("still saving") << saving << false << false << true << "Saving recording…"
                                      << "Transcribe" << false << "Copy to Google Drive"
                                      << "The recording is being saved. It can be played when that is done.";
    }

    void detailState()
    {
        QFETCH(Recording, recording);
        QFETCH(bool, transcript);
        QFETCH(bool, media);
        QFETCH(bool, sources);
        QFETCH(QString, activity);
        DetailFacts facts;
        facts.recording = recording;
        facts.hasTranscript = transcript;
        facts.mediaExists = media;
        facts.sourceTracksExist = sources;
        if (!activity.isEmpty())
            facts.activity = activity;
        facts.provider = TranscriptionProvider::deepgram;
        const DetailState state = qm::ui::detailState(facts);

        QTEST(state.transcribeText, "transcribe");
        QTEST(state.transcribeEnabled, "transcribeEnabled");
        QTEST(state.driveText, "drive");
        QTEST(state.mediaNote.value_or(QString()), "note");
        QCOMPARE(state.showPlayer, media);
        QCOMPARE(state.busyText.value_or(QString()), activity);
        QCOMPARE(state.exportEnabled, transcript);
        if (!transcript) {
            QCOMPARE(state.exportHint, QStringLiteral("Transcribe first to export"));
            QCOMPARE(state.emptyTitle, QStringLiteral("No transcript yet"));
            QCOMPARE(state.emptyDetail,
                     recording.state == ProcessingState::ready
                         ? QStringLiteral(
                               "Click Transcribe to create one with Deepgram – change in Settings › Transcription")
                         : QString());
        }
    }

    void texts()
    {
        Recording r = test::sampleRecording();
        QCOMPARE(trashTitle(r), QStringLiteral("Move “Weekly sync” to the Trash?"));
        QCOMPARE(trashMessage(), QStringLiteral("The recording, its transcript and source tracks will be moved to the "
                                                "Trash. Copies in Google Drive are not touched."));
        QCOMPARE(listPlaceholder(0, 0, {}, false)->title, QStringLiteral("No recordings yet"));
        QCOMPARE(listPlaceholder(0, 0, {}, false)->detail,
                 QStringLiteral("Start a recording from the Quillmoor icon in the system tray."));
        QVERIFY(!listPlaceholder(3, 1, QStringLiteral("x"), false));
        QCOMPARE(noSelectionPlaceholder().title, QStringLiteral("Select a recording"));
        r.state = ProcessingState::failed;
        QCOMPARE(rowStatus(r, std::nullopt),
                 (RowStatus{RowStatus::Kind::failed, QStringLiteral("Deepgram error 401: Invalid credentials.")}));
        QCOMPARE(rowStatus(r, QStringLiteral("Saving recording…")).kind, RowStatus::Kind::working);
    }
};

QTEST_MAIN(TestPlayerModel)
#include "tst_playermodel.moc"
