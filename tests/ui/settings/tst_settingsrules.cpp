#include "ui/settings/diagnostics.h"
#include "ui/settings/drivestatus.h"
#include "ui/settings/modelrows.h"
#include "ui/settings/permissionrows.h"
#include "ui/settings/providerfields.h"
#include "ui/settings/recordingchoices.h"

#include <QTest>

using namespace qm;
using namespace qm::ui;

class TestSettingsRules : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void permissionButtonsAskOnlyWhereSomethingCanBeDone()
    {
        for (PermissionKind kind :
             {PermissionKind::microphone, PermissionKind::screenRecording, PermissionKind::accessibility,
              PermissionKind::speechModel, PermissionKind::notifications}) {
            const PermissionRow granted = permissionRow(kind, PermissionStatus::granted);
            QVERIFY(granted.buttonText.isEmpty());
            QVERIFY(!permissionRow(kind, PermissionStatus::denied).buttonText.isEmpty());
            QVERIFY(granted.state != permissionRow(kind, PermissionStatus::denied).state);
        }
        // The notification status is still arriving while it reads notAsked: nothing to press yet.
        QVERIFY(permissionRow(PermissionKind::notifications, PermissionStatus::notAsked).buttonText.isEmpty());
        QCOMPARE(permissionRow(PermissionKind::speechModel, PermissionStatus::notAsked).buttonText,
                 QStringLiteral("Download Now"));
        // Zoom reads the accessibility switch only at its start, whatever the status.
        QVERIFY(permissionRow(PermissionKind::accessibility, PermissionStatus::granted).note.contains(u"restart Zoom"));
    }

    void keyFieldEdits_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<bool>("stored");
        QTest::addColumn<int>("kind");
        QTest::addColumn<QString>("key");

        const int nothing = int(KeyField::Edit::Kind::nothing), store = int(KeyField::Edit::Kind::store),
                  remove = int(KeyField::Edit::Kind::remove);
        QTest::newRow("stored key left alone") << KeyField::mask() << true << nothing << "";
        QTest::newRow("new key, trimmed") << "  sk-123\n" << false << store << "sk-123";
        QTest::newRow("typed over the dots") << "sk-456" << true << store << "sk-456";
        QTest::newRow("typed after the dots")
            << KeyField::mask() + QStringLiteral("sk-789") << true << store << "sk-789";
        QTest::newRow("cleared") << "" << true << remove << "";
        QTest::newRow("dots partly erased") << KeyField::mask().left(5) << true << remove << "";
        QTest::newRow("empty without a key") << "   " << false << nothing << "";
    }

    void keyFieldEdits()
    {
        QFETCH(QString, text);
        QFETCH(bool, stored);
        QFETCH(int, kind);
        QFETCH(QString, key);
        const KeyField::Edit edit = KeyField::editFor(text, stored);
        QCOMPARE(int(edit.kind), kind);
        QCOMPARE(edit.key, key);
    }

    void keyStatusNeverPretends()
    {
        QCOMPARE(KeyField::status(TranscriptionProvider::openAI, true, true),
                 QStringLiteral("Key saved in your keyring"));
        const QString none = KeyField::status(TranscriptionProvider::openAI, false, true);
        QCOMPARE(none, QStringLiteral("No keyring is available, so API keys can't be saved. Install and unlock GNOME "
                                      "Keyring or KWallet."));
        QVERIFY(KeyField::status(TranscriptionProvider::deepgram, true, false).contains(u"Deepgram"));
    }

    void modelRows_data()
    {
        QTest::addColumn<ModelFacts>("facts");
        QTest::addColumn<bool>("inUse");
        QTest::addColumn<bool>("ownFile");
        QTest::addColumn<QString>("status");
        QTest::addColumn<QString>("downloadText"); // empty: no download
        QTest::addColumn<QString>("buttons");      // c(ancel) u(se) d(elete)

        const qint64 base = 147'951'465;
        QTest::newRow("not downloaded") << ModelFacts{QStringLiteral("base"), base, false, 0, {}} << false << false
                                        << "Not downloaded"
                                        << "Download"
                                        << "u";
        QTest::newRow("in use, not yet downloaded")
            << ModelFacts{QStringLiteral("base"), base, false, 0, {}} << true << false << "In use, not downloaded yet"
            << "Download"
            << "";
        QTest::newRow("downloading") << ModelFacts{QStringLiteral("base"), base, false, 0, 0.426} << false << false
                                     << "Downloading… 42%"
                                     << ""
                                     << "c";
        QTest::newRow("paused") << ModelFacts{QStringLiteral("base"), base, false, base / 3, {}} << false << false
                                << "Paused at 33%"
                                << "Resume Download"
                                << "ud";
        QTest::newRow("downloaded") << ModelFacts{QStringLiteral("base"), base, true, 0, {}} << false << false
                                    << "Downloaded"
                                    << ""
                                    << "ud";
        QTest::newRow("in use") << ModelFacts{QStringLiteral("base"), base, true, 0, {}} << true << false << "In use"
                                << ""
                                << "d";
        QTest::newRow("own file in use") << ModelFacts{QStringLiteral("/m/mine.bin"), 10, true, 0, {}} << true << true
                                         << "In use"
                                         << ""
                                         << "";
        QTest::newRow("own file gone") << ModelFacts{QStringLiteral("/m/mine.bin"), 0, false, 0, {}} << true << true
                                       << "Missing: the file or folder is gone"
                                       << ""
                                       << "";
    }

    void modelRows()
    {
        QFETCH(ModelFacts, facts);
        QFETCH(bool, inUse);
        QFETCH(bool, ownFile);
        QFETCH(QString, status);
        QFETCH(QString, downloadText);
        QFETCH(QString, buttons);
        const ModelRow row = modelRow(facts, inUse, false, ownFile);
        QCOMPARE(row.status, status);
        QCOMPARE(row.canDownload, !downloadText.isEmpty());
        if (row.canDownload)
            QCOMPARE(row.downloadText, downloadText);
        QString offered;
        for (auto [on, letter] : {std::pair{row.canCancel, u'c'}, {row.canUse, u'u'}, {row.canDelete, u'd'}}) {
            if (on)
                offered += letter;
        }
        QCOMPARE(offered, buttons);
        QCOMPARE(row.title, ownFile ? QStringLiteral("mine.bin") : QStringLiteral("base"));
        QCOMPARE(modelRow(facts, true, true, false).status.contains(u"follows the language"),
                 facts.installed && !facts.progress);
    }

    void pickersKeepTheStoredChoice()
    {
        const QList<InputDevice> devices{{QStringLiteral("alsa_input.usb"), QStringLiteral("USB Headset")},
                                         {QStringLiteral("alsa_input.pci"), QStringLiteral("Built-in Audio")},
                                         {QStringLiteral("alsa_input.pci2"), QStringLiteral("Built-in Audio")}};
        const QList<Choice> microphones = microphoneChoices(devices, QStringLiteral("bluez_input.gone"));
        QCOMPARE(microphones.first(), (Choice{QStringLiteral("System default"), QString()}));
        QCOMPARE(microphones[1].text, QStringLiteral("USB Headset"));
        QCOMPARE(microphones[2].text, QStringLiteral("Built-in Audio (alsa_input.pci)"));
        QCOMPARE(microphones.last(),
                 (Choice{QStringLiteral("bluez_input.gone (not connected)"), QStringLiteral("bluez_input.gone")}));
        QCOMPARE(microphoneChoices(devices, QString()).size(), 4);

        const QList<Choice> displays = displayChoices({{7, QStringLiteral("DP-1"), QRect(0, 0, 2560, 1440)}}, 9);
        QCOMPARE(displays.first().text, QStringLiteral("Automatic \u2013 the screen the pointer is on"));
        QCOMPARE(displays[1], (Choice{QStringLiteral("DP-1 (2560 \u00d7 1440)"), 7}));
        QCOMPARE(displays.last().value, QVariant(9));

        QCOMPARE(frameRateChoices(15).size(), 3);
        QCOMPARE(frameRateChoices(24).last(), (Choice{QStringLiteral("24 fps"), 24}));
        QCOMPARE(indexOf(frameRateChoices(30), 30), 2);
    }

    void driveFolderAndCopyProgress()
    {
        QCOMPARE(driveFolder(QStringLiteral(" /mnt/gdrive\t"), {QStringLiteral("/run/rclone")}).path,
                 QStringLiteral("/mnt/gdrive"));
        const DriveFolder detected = driveFolder(QString(), {QStringLiteral("/run/rclone")});
        QCOMPARE(detected.heading, QStringLiteral("Using the detected Drive folder"));
        QVERIFY(!detected.chosen);
        const DriveFolder none = driveFolder(QStringLiteral("  "), {});
        QVERIFY(!none.found);
        QVERIFY(none.heading.startsWith(QStringLiteral("No Google Drive folder was found.")));

        const QUuid a = QUuid::createUuid(), b = QUuid::createUuid();
        const QString copying = QStringLiteral("Copying to Drive…");
        DriveCopyProgress progress;
        progress.start({a, b});
        QCOMPARE(progress.text(), QStringLiteral("Copying 1 of 2 recordings…"));
        progress.update({{a, copying}}, copying);
        // Another label (a transcription) on a recording not yet copied counts for nothing.
        progress.update({{a, copying}, {b, QStringLiteral("Transcribing…")}}, copying);
        QCOMPARE(progress.done(), 0);
        progress.update({{b, copying}}, copying);
        QCOMPARE(progress.done(), 1);
        QCOMPARE(progress.text(), QStringLiteral("Copying 2 of 2 recordings…"));
        progress.update({}, copying);
        progress.finish();
        QCOMPARE(progress.done(), 2);
        QCOMPARE(progress.text(), QStringLiteral("Finished copying 2 recordings."));
        progress.start({});
        QCOMPARE(progress.text(), QStringLiteral("There are no finished recordings to copy."));
    }

    void diagnosticsNameNoPlaces()
    {
        Diagnostics facts;
        facts.version = QStringLiteral("1.2.0");
        facts.model = QStringLiteral("/home/dana/Documents/Quillmoor/models/ggml-large.bin");
        facts.recordings = 12;
        const QString text = diagnosticsText(facts);
        QVERIFY(text.contains(QStringLiteral("On-device model: ggml-large.bin (installed: no)")));
        QVERIFY(!text.contains(u'/'));
        QVERIFY(text.contains(QStringLiteral("Recordings in the library: 12")));
    }

    void sizes()
    {
        QCOMPARE(sizeText(77'691'713), QStringLiteral("78 MB"));
        QCOMPARE(sizeText(1'533'763'059), QStringLiteral("1.5 GB"));
        QCOMPARE(sizeText(0), QString());
    }
};

Q_DECLARE_METATYPE(qm::ui::ModelFacts)

QTEST_GUILESS_MAIN(TestSettingsRules)
#include "tst_settingsrules.moc"
