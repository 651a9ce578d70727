#include "app/application.h"
#include "app/appsettings.h"
#include "app/keychain.h"
#include "cli/settingkeys.h"
#include "ui/settings/settingswindow.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDir>
#include <QFile>
#include <QLabel>
#include <QLineEdit>
#include <QProcess>
#include <QRadioButton>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>
#include <QTreeWidget>

using namespace qm;
using qm::ui::SettingsWindow;

namespace {

QByteArray pactl(const QString &line)
{
    QProcess process;
    process.start(QStringLiteral("pactl"), line.split(u' '));
    process.waitForFinished(10000);
    return process.exitCode() == 0 ? process.readAllStandardOutput().trimmed() : QByteArray();
}

// What a control shows, as text, whatever kind of control it is.
QString shown(QWidget *control)
{
    if (auto *box = qobject_cast<QCheckBox *>(control))
        return box->isChecked() ? QStringLiteral("true") : QStringLiteral("false");
    if (auto *radio = qobject_cast<QRadioButton *>(control))
        return radio->isChecked() ? QStringLiteral("true") : QStringLiteral("false");
    if (auto *combo = qobject_cast<QComboBox *>(control))
        return combo->currentData().toString();
    if (auto *field = qobject_cast<QLineEdit *>(control))
        return field->text();
    return {};
}

// Changes a control the way a user would, which writes its setting.
void operate(QWidget *control, const QString &value)
{
    if (auto *box = qobject_cast<QAbstractButton *>(control)) {
        if (shown(control) != value)
            box->click();
    } else if (auto *combo = qobject_cast<QComboBox *>(control)) {
        const int index = combo->findData(value);
        QVERIFY2(index >= 0, qPrintable(value));
        combo->setCurrentIndex(index);
        Q_EMIT combo->activated(index);
    } else if (auto *field = qobject_cast<QLineEdit *>(control)) {
        field->setText(value);
        field->setModified(true);
        Q_EMIT field->editingFinished();
    }
}

} // namespace

// Runs inside the private session (scripts/session): its keyring, sound server and display.
class TestSettingsWindow : public QObject {
    Q_OBJECT

    QTemporaryDir m_home;
    std::unique_ptr<Application> m_app;
    std::unique_ptr<SettingsWindow> m_window;
    Keychain m_otherKeychain; // another program's, writing the same settings file

    template <class T> T *control(const QString &name)
    {
        T *found = m_window->findChild<T *>(name);
        if (!found)
            qWarning() << "no control" << name;
        return found;
    }

    QString stored(const QString &key) const
    {
        QSettings file(QDir(AppSettings::defaultConfigDir()).filePath(QStringLiteral("app.quillmoor.Quillmoor.conf")),
                       QSettings::IniFormat);
        return file.value(key).toString();
    }

private Q_SLOTS:
    void initTestCase()
    {
        qputenv("XDG_CONFIG_HOME", m_home.filePath(QStringLiteral("config")).toUtf8());
        qputenv("XDG_DATA_HOME", m_home.filePath(QStringLiteral("data")).toUtf8());
        qputenv("XDG_DOCUMENTS_DIR", m_home.filePath(QStringLiteral("Documents")).toUtf8());
        m_app = std::make_unique<Application>(ApplicationOptions{{}, false, false});
        m_window = std::make_unique<SettingsWindow>(*m_app);
        m_window->showPane();
        QVERIFY(QTest::qWaitForWindowExposed(m_window.get()));
    }

    void cleanupTestCase()
    {
        m_window.reset();
        m_app.reset();
    }

    // Each control writes its setting at once, and shows a change another program made to the file (the
    // same as `quillmoor config set KEY VALUE` in a terminal).
    void controlsWriteAndFollowTheirSetting_data()
    {
        QTest::addColumn<QString>("name");    // the control
        QTest::addColumn<QString>("key");     // the setting it writes
        QTest::addColumn<QString>("value");   // what the user picks, as the control shows it
        QTest::addColumn<QString>("written"); // what the file then holds
        QTest::addColumn<QString>("outside"); // what another program writes next
        QTest::addColumn<QString>("after");   // what the control then shows

        QTest::newRow("start mode") << "zoomStartMode.automatic"
                                    << "zoomStartMode"
                                    << "true"
                                    << "automatic"
                                    << "manual"
                                    << "false";
        QTest::newRow("auto stop") << "autoStopWhenZoomEnds"
                                   << "autoStopWhenZoomEnds"
                                   << "false"
                                   << "false"
                                   << "true"
                                   << "true";
        QTest::newRow("timer") << "showTimerInMenuBar"
                               << "showTimerInMenuBar"
                               << "false"
                               << "false"
                               << "true"
                               << "true";
        QTest::newRow("update checks") << "automaticallyChecksForUpdates"
                                       << "automaticallyChecksForUpdates"
                                       << "false"
                                       << "false"
                                       << "true"
                                       << "true";
        QTest::newRow("format") << "captureFormat"
                                << "captureFormat"
                                << "video"
                                << "video"
                                << "audio"
                                << "audio";
        QTest::newRow("quality") << "audioQuality"
                                 << "audioQuality"
                                 << "lossless"
                                 << "lossless"
                                 << "standard"
                                 << "standard";
        QTest::newRow("microphone") << "microphoneID"
                                    << "microphoneID"
                                    << "microphone"
                                    << "microphone"
                                    << ""
                                    << "";
        QTest::newRow("include microphone") << "includeMicrophone"
                                            << "includeMicrophone"
                                            << "false"
                                            << "false"
                                            << "true"
                                            << "true";
        QTest::newRow("follow mute") << "followZoomMute"
                                     << "followZoomMute"
                                     << "false"
                                     << "false"
                                     << "true"
                                     << "true";
        QTest::newRow("frame rate") << "videoFrameRate"
                                    << "videoFrameRate"
                                    << "30"
                                    << "30"
                                    << "10"
                                    << "10";
        QTest::newRow("provider") << "provider"
                                  << "provider"
                                  << "openAI"
                                  << "openAI"
                                  << "on-device"
                                  << "onDevice";
        QTest::newRow("auto transcribe") << "autoTranscribe"
                                         << "autoTranscribe"
                                         << "false"
                                         << "false"
                                         << "true"
                                         << "true";
        QTest::newRow("language") << "language"
                                  << "language"
                                  << "hebrew"
                                  << "hebrew"
                                  << "english"
                                  << "english";
        QTest::newRow("speakers") << "detectSpeakers"
                                  << "detectSpeakers"
                                  << "false"
                                  << "false"
                                  << "true"
                                  << "true";
        QTest::newRow("my voice") << "labelMyVoice"
                                  << "labelMyVoice"
                                  << "false"
                                  << "false"
                                  << "true"
                                  << "true";
        QTest::newRow("my name") << "myName"
                                 << "myName"
                                 << "Dana"
                                 << "Dana"
                                 << "Noa"
                                 << "Noa";
        QTest::newRow("drive") << "driveSyncEnabled"
                               << "driveSyncEnabled"
                               << "true"
                               << "true"
                               << "false"
                               << "false";
        QTest::newRow("subfolder") << "driveSubfolder"
                                   << "driveSubfolder"
                                   << "Meetings/2025"
                                   << "Meetings/2025"
                                   << "Calls"
                                   << "Calls";
        QTest::newRow("drive media") << "driveIncludeMedia"
                                     << "driveIncludeMedia"
                                     << "false"
                                     << "false"
                                     << "true"
                                     << "true";
        QTest::newRow("drive transcript") << "driveIncludeTranscript"
                                          << "driveIncludeTranscript"
                                          << "false"
                                          << "false"
                                          << "true"
                                          << "true";
    }

    void controlsWriteAndFollowTheirSetting()
    {
        QFETCH(QString, name);
        QFETCH(QString, key);
        QFETCH(QString, value);
        QFETCH(QString, written);
        QFETCH(QString, outside);
        QFETCH(QString, after);
        QWidget *widget = control<QWidget>(name);
        QVERIFY(widget);

        operate(widget, value);
        QCOMPARE(shown(widget), value);
        QCOMPARE(stored(key), written);

        AppSettings other(m_otherKeychain);
        const auto set = cli::setSetting(other, key, outside);
        QVERIFY2(set, qPrintable(set ? QString() : set.error()));
        QTRY_COMPARE(shown(widget), after);
    }

    void microphonePickerFollowsTheSoundServer()
    {
        auto *picker = control<QComboBox>(QStringLiteral("microphoneID"));
        QVERIFY(picker);
        const QByteArray sink = pactl(QStringLiteral("load-module module-null-sink sink_name=desk"));
        const QByteArray source =
            pactl(QStringLiteral("load-module module-remap-source master=desk.monitor "
                                 "source_name=deskmic source_properties=device.description=Desk"));
        QVERIFY(!sink.isEmpty() && !source.isEmpty());
        QTRY_VERIFY(picker->findData(QStringLiteral("deskmic")) >= 0);
        QCOMPARE(picker->itemText(picker->findData(QStringLiteral("deskmic"))), QStringLiteral("Desk"));
        QCOMPARE(picker->findData(QStringLiteral("desk.monitor")), -1);
        pactl(QStringLiteral("unload-module ") + QString::fromLatin1(source));
        pactl(QStringLiteral("unload-module ") + QString::fromLatin1(sink));
        QTRY_COMPARE(picker->findData(QStringLiteral("deskmic")), -1);
    }

    // The key goes to the session's real keyring, never into the field or the settings file.
    void apiKeyIsKeptInTheKeyring()
    {
        m_app->settings().setProvider(TranscriptionProvider::deepgram);
        m_window->showPane(SettingsWindow::Pane::transcription);
        auto *field = control<QLineEdit>(QStringLiteral("apiKey"));
        auto *status = control<QLabel>(QStringLiteral("apiKeyStatus"));
        QVERIFY(field && status);
        QVERIFY(field->isVisible());
        const auto stored = [this] {
            return m_app->keychain().get(QStringLiteral("apikey.deepgram"), QStringLiteral("app.quillmoor.Quillmoor"));
        };

        operate(field, QStringLiteral("  dg-secret-1 "));
        QCOMPARE(stored(), std::optional(QStringLiteral("dg-secret-1")));
        QVERIFY(!field->text().contains(QStringLiteral("dg-secret")));
        QCOMPARE(status->text(), QStringLiteral("Key saved in your keyring"));

        operate(field, QString());
        QCOMPARE(stored(), std::nullopt);
        QVERIFY(status->text().startsWith(QStringLiteral("No key saved.")));
        QFile file(QDir(AppSettings::defaultConfigDir()).filePath(QStringLiteral("app.quillmoor.Quillmoor.conf")));
        QVERIFY(file.open(QIODevice::ReadOnly));
        QVERIFY(!file.readAll().contains("dg-secret"));
    }

    void modelListOffersTheCatalogueAndFollowsTheLanguage()
    {
        m_app->settings().setProvider(TranscriptionProvider::onDevice);
        m_app->settings().setModel(QString(), TranscriptionProvider::onDevice);
        auto *list = control<QTreeWidget>(QStringLiteral("models"));
        QVERIFY(list && list->isVisible());
        QCOMPARE(list->topLevelItemCount(), 8);
        const auto inUse = [list] {
            for (int i = 0; i < list->topLevelItemCount(); ++i) {
                if (list->topLevelItem(i)->font(0).bold())
                    return list->topLevelItem(i)->data(0, Qt::UserRole).toString();
            }
            return QString();
        };
        m_app->settings().setLanguage(TranscriptionLanguage::english);
        QCOMPARE(inUse(), QStringLiteral("base.en"));
        m_app->settings().setLanguage(TranscriptionLanguage::hebrew);
        QCOMPARE(inUse(), QStringLiteral("base"));
    }
};

QTEST_MAIN(TestSettingsWindow)
#include "tst_settingswindow.moc"
