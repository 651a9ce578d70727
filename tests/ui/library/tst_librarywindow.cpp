// The library window end to end on a real controller and library: search, select, rename a speaker, and the
// transcript shown follows.

#include "support/app/controllerharness.h"
#include "support/samples.h"
#include "ui/library/librarysearch.h"
#include "ui/library/librarywindow.h"
#include "ui/library/recordingdetailview.h"
#include "ui/library/speakersbar.h"
#include "ui/library/transcriptmodel.h"

#include <QApplication>
#include <QDialog>
#include <QLineEdit>
#include <QListView>
#include <QPushButton>
#include <QTest>
#include <QTimer>

using namespace qm;
using namespace qm::ui;

class TestLibraryWindow : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void searchSelectAndRenameASpeaker()
    {
        test::ControllerHarness harness;
        const QString root = harness.settings->saveFolderPath();
        for (int i = 0; i < 3; ++i) {
            Recording r = test::sampleRecording();
            r.id = QUuid::createUuid();
            r.title = QStringLiteral("Meeting %1").arg(i);
            r.startedAt = r.startedAt.addDays(i);
            r.mediaFileName.reset();
            r.folder = QUrl::fromLocalFile(test::writeRecordingFolder(root, r.title, r));
            Transcript t = test::sampleTranscript();
            if (i == 1)
                t.segments[1].text = QStringLiteral("Shall we talk about the lighthouse?");
            QVERIFY(harness.store->saveTranscript(t, r).has_value());
        }
        harness.store->reload();

        LibraryWindow window(harness.start());
        window.showRecording();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        QCOMPARE(window.windowTitle(), QStringLiteral("Quillmoor Library"));
        QCOMPARE(window.list()->model()->rowCount(), 3);

        QTest::keyClick(&window, Qt::Key_F, Qt::ControlModifier);
        QVERIFY(window.searchField()->hasFocus());
        QTest::keyClicks(window.searchField(), QStringLiteral("LIGHTHOUSE"));
        QTRY_COMPARE(window.list()->model()->rowCount(), 1);

        QTest::mouseClick(window.list()->viewport(), Qt::LeftButton, {},
                          window.list()->visualRect(window.list()->model()->index(0, 0)).center());
        RecordingDetailView *detail = window.detail();
        QCOMPARE(detail->titleField()->text(), QStringLiteral("Meeting 1"));
        TranscriptModel &transcript = detail->transcript();
        QCOMPARE(transcript.rowCount(), 3);
        // Opened at the first match, marked.
        QCOMPARE(detail->transcriptView()->currentIndex().row(), 1);
        QVERIFY(!transcript.index(1).data(TranscriptModel::MatchesRole).value<QList<QPoint>>().isEmpty());

        // Rename "Speaker 1" through its pencil button's dialog.
        QTimer::singleShot(0, this, [] {
            auto *dialog = qobject_cast<QDialog *>(QApplication::activeModalWidget());
            QVERIFY(dialog);
            QCOMPARE(dialog->windowTitle(), QStringLiteral("Rename Speaker 1"));
            auto *field = dialog->findChild<QLineEdit *>();
            field->setText(QStringLiteral("Grace"));
            for (QPushButton *button : dialog->findChildren<QPushButton *>()) {
                if (button->text() == QStringLiteral("Save"))
                    button->click();
            }
        });
        detail->speakersBar()->renameSpeaker(1);
        QTRY_COMPARE(transcript.index(1).data(TranscriptModel::SpeakerRole).toString(), QStringLiteral("Grace"));
        QCOMPARE(transcript.index(0).data(TranscriptModel::SpeakerRole).toString(), QStringLiteral("Me"));
        // The transcript on disk carries the name; the search still finds the recording.
        const Recording renamed = *harness.store->recording(*window.detail()->recordingId());
        QCOMPARE(harness.store->transcript(renamed)->speakerNames.value(QStringLiteral("Speaker 1")),
                 QStringLiteral("Grace"));
        QCOMPARE(window.list()->model()->rowCount(), 1);

        // F2 renames the recording.
        QTest::keyClick(&window, Qt::Key_F2);
        QVERIFY(detail->titleField()->hasFocus());
        QTest::keyClicks(detail->titleField(), QStringLiteral("Lighthouse review"));
        QTest::keyClick(detail->titleField(), Qt::Key_Return);
        QTRY_COMPARE(harness.store->recording(renamed.id)->title, QStringLiteral("Lighthouse review"));
    }
};

QTEST_MAIN(TestLibraryWindow)
#include "tst_librarywindow.moc"
