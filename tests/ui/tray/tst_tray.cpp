// The tray's rules, panel and shell, driven through the real controller with a stand-in sound server and Zoom.

#include "support/app/controllerharness.h"
#include "ui/shell/quitcoordinator.h"
#include "ui/tray/menubarview.h"
#include "ui/tray/panelrows.h"
#include "ui/tray/trayicon.h"
#include "ui/tray/trayviewmodel.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QMenu>
#include <QProcess>
#include <QPushButton>
#include <QTest>

#include <csignal>

using namespace qm;
using namespace qm::test;
using namespace qm::ui;

class TestTray : public QObject {
    Q_OBJECT

    std::unique_ptr<ControllerHarness> h;

    AppController &controller() { return *h->controller; }

    void startRecording(RecordingSource source)
    {
        controller().startRecording(source);
        QTRY_COMPARE(controller().phase(), AppController::Phase::recording);
    }

private Q_SLOTS:
    void init()
    {
        h = std::make_unique<ControllerHarness>();
        h->start();
    }
    void cleanup() { h.reset(); }

    void theStatusIconAndCardFollowTheController()
    {
        TrayViewModel model(controller());
        using Icon = TrayViewModel::IconState;
        QCOMPARE(model.statusLine(), QStringLiteral("Ready to record"));
        QCOMPARE(model.iconState(), Icon::idle);

        h->zoomProbes->running = true;
        h->pollZoom(1);
        QCOMPARE(model.statusLine(), QStringLiteral("Zoom is open · ready"));
        h->zoomProbes->inMeeting = true;
        h->pollZoom(1);
        // One sighting isn't a meeting yet: the monitor's debounce decides.
        QCOMPARE(model.statusLine(), QStringLiteral("Zoom is open · ready"));
        QVERIFY(!model.showsZoomBanner());
        h->pollZoom(1);
        QCOMPARE(model.statusLine(), QStringLiteral("Zoom meeting in progress"));
        QVERIFY(model.showsZoomBanner());

        controller().startRecording(RecordingSource::zoom);
        QCOMPARE(model.statusLine(), QStringLiteral("Starting…"));
        QCOMPARE(model.recordingCardTitle(), QStringLiteral("Starting"));
        QTRY_COMPARE(controller().phase(), AppController::Phase::recording);
        QVERIFY(!model.showsZoomBanner());
        QCOMPARE(model.statusLine(), QStringLiteral("Recording"));
        QCOMPARE(model.recordingCardTitle(), QStringLiteral("Zoom Meeting"));
        QCOMPARE(model.iconState(), Icon::recording);
        h->record(1.5);
        QCOMPARE(model.timerText(), QStringLiteral("0:01"));
        QVERIFY(model.tooltip().endsWith(QStringLiteral("Recording 0:01")));
        h->settings->setShowTimerInMenuBar(false);
        QCOMPARE(model.timerText(), QString());
        QVERIFY(model.tooltip().endsWith(QStringLiteral("0:01")));

        controller().toggleMicrophoneMute();
        QCOMPARE(model.micButtonText(), QStringLiteral("Unmute"));
        QCOMPARE(model.muteNote(), QStringLiteral("Microphone muted – only the meeting is recorded"));
        controller().togglePause();
        QCOMPARE(model.statusLine(), QStringLiteral("Paused"));
        QCOMPARE(model.iconState(), Icon::paused);
        QCOMPARE(model.pauseButtonText(), QStringLiteral("Resume"));

        controller().stopRecording();
        QCOMPARE(model.statusLine(), QStringLiteral("Saving…"));
        QTRY_COMPARE(controller().phase(), AppController::Phase::idle);
        QVERIFY(ControllerHarness::waitUntilSettled(controller()));
        QCOMPARE(model.iconState(), Icon::idle);
    }

    void recentListsTheFourNewestButNotTheLiveOne()
    {
        TrayViewModel model(controller());
        QList<QUuid> made;
        for (int i = 0; i < 5; ++i) {
            h->now = h->now.addSecs(60);
            made.prepend(h->store->create(RecordingSource::inPerson, false)->id);
        }
        auto ids = [&] {
            QList<QUuid> shown;
            for (const Recording &recording : model.recent())
                shown.append(recording.id);
            return shown;
        };
        QCOMPARE(ids(), made.mid(0, 4));
        startRecording(RecordingSource::systemAudio);
        QCOMPARE(ids(), made.mid(0, 4));
        QVERIFY(!ids().contains(controller().active()->id));
        controller().discardRecording();
        QTRY_COMPARE(controller().phase(), AppController::Phase::idle);
    }

    // Every way of quitting (the menu, a signal) saves the recording first and quits once, when all is done.
    void quittingWhileRecordingWaitsForTheSavedRecording_data()
    {
        QTest::addColumn<bool>("bySignal");
        QTest::newRow("Quit") << false;
        QTest::newRow("SIGTERM") << true;
    }

    void quittingWhileRecordingWaitsForTheSavedRecording()
    {
        QFETCH(bool, bySignal);
        int quits = 0;
        QuitCoordinator quit(controller(), [&] { ++quits; });
        TrayViewModel model(controller());
        connect(&quit, &QuitCoordinator::quittingChanged, &model, &TrayViewModel::setQuitting);
        quit.watchSignals();
        startRecording(RecordingSource::systemAudio);
        const QUuid id = controller().active()->id;
        h->record(1);

        if (bySignal)
            ::raise(SIGTERM);
        else
            quit.requestQuit();
        QTRY_VERIFY(quit.isQuitting());
        QCOMPARE(model.statusLine(), QStringLiteral("Saving…"));
        QTRY_COMPARE_WITH_TIMEOUT(quits, 1, 60000);
        const auto saved = h->store->recording(id);
        QVERIFY(saved);
        QCOMPARE(saved->state, ProcessingState::ready);
        QVERIFY(QFileInfo::exists(QDir(saved->folderPath()).filePath(*saved->mediaFileName)));
        QVERIFY(controller().activities().isEmpty());
        QTest::qWait(50);
        QCOMPARE(quits, 1);
    }

    void thePanelAndMenuDriveARecording()
    {
        TrayViewModel model(controller());
        QList<std::optional<QUuid>> opened;
        TrayActions actions{.openLibrary = [&](std::optional<QUuid> id) { opened.append(id); },
                            .openSettings = [](bool) {},
                            .openFolder = [] {},
                            .quit = [] {},
                            .relaunch = [] {}};
        MenuBarView panel(model, actions);
        panel.setPopup(false);
        panel.show();
        for (int i = 0; i < 5; ++i)
            h->store->create(RecordingSource::zoom, false);
        QCOMPARE(panel.findChildren<RecentRow *>().size(), 4);
        panel.findChildren<RecentRow *>().constFirst()->click();
        QCOMPARE(opened, (QList<std::optional<QUuid>>{h->store->recordings().constFirst().id}));

        const auto options = panel.findChildren<RecordOptionButton *>();
        QCOMPARE(options.size(), 3);
        QCOMPARE(options.at(1)->accessibleName(), QStringLiteral("Record System Audio"));
        options.at(1)->click();
        QTRY_COMPARE(controller().phase(), AppController::Phase::recording);
        QVERIFY(!options.at(1)->isVisible());
        auto button = [&](const QString &text) {
            for (QPushButton *b : panel.findChildren<QPushButton *>())
                if ((b->text() == text || b->accessibleName() == text) && b->isVisible())
                    return b;
            return static_cast<QPushButton *>(nullptr);
        };
        QVERIFY(button(QStringLiteral("Pause")));
        button(QStringLiteral("Pause"))->click();
        QVERIFY(controller().isPaused());

        TrayIcon tray(model, actions);
        QStringList visible;
        for (QAction *action : tray.menu().actions())
            if (action->isVisible() && !action->isSeparator())
                visible << action->text();
        QCOMPARE(visible.mid(0, 5),
                 (QStringList{QStringLiteral("Paused"), QStringLiteral("Resume"), QStringLiteral("Mute"),
                              QStringLiteral("Stop && Save"), QStringLiteral("Stop without saving…")}));
        QCOMPARE(visible.mid(visible.size() - 4), (QStringList{QStringLiteral("Library"), QStringLiteral("Folder"),
                                                               QStringLiteral("Settings"), QStringLiteral("Quit")}));
        button(QStringLiteral("Stop & Save"))->click();
        QVERIFY(ControllerHarness::waitUntilSettled(controller()));
        QVERIFY(options.at(1)->isVisible());
    }

    // The real program: a second launch shows the first one's panel and ends; SIGTERM ends the first cleanly.
    void aSecondLaunchHandsOverToTheFirst()
    {
        QProcess first;
        first.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        first.start(QStringLiteral(QM_BINARY), {});
        QVERIFY(first.waitForStarted());
        QTRY_VERIFY_WITH_TIMEOUT(
            QDBusConnection::sessionBus().interface()->isServiceRegistered(QStringLiteral("app.quillmoor.Quillmoor")),
            30000);
        for (const QStringList &arguments : {QStringList(), QStringList{QStringLiteral("quillmoor://signin?x=1")}}) {
            QProcess second;
            second.start(QStringLiteral(QM_BINARY), arguments);
            QVERIFY(second.waitForFinished(30000));
            QCOMPARE(second.exitCode(), 0);
        }
        QCOMPARE(first.state(), QProcess::Running);
        first.terminate();
        QVERIFY(first.waitForFinished(30000));
        QCOMPARE(first.exitStatus(), QProcess::NormalExit);
        QCOMPARE(first.exitCode(), 0);
    }
};

QTEST_MAIN(TestTray)
#include "tst_tray.moc"
