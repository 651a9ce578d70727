#include "capture/captureengine.h"
#include "platform/linux/gnomeprivacy.h"
#include "platform/linux/linuxpermissions.h"
#include "support/capture/fakesound.h"

#define G_SETTINGS_ENABLE_BACKEND
#include <gio/gio.h>
#include <gio/gsettingsbackend.h>

#include <QCoroTask>
#include <QTemporaryDir>
#include <QTest>

using namespace qm;
using namespace qm::platform;
using namespace qm::test;

// GNOME's privacy switch, set the way the desktop's settings panel sets it, in GSettings' in-memory backend.
class TestMicrophonePrivacy : public QObject {
    Q_OBJECT

    static void setMicrophoneDisabled(bool disabled)
    {
        GSettings *settings = g_settings_new("org.gnome.desktop.privacy");
        g_settings_set_boolean(settings, "disable-microphone", disabled);
        g_settings_sync();
        g_object_unref(settings);
    }

private Q_SLOTS:
    void initTestCase()
    {
        // Before anything opens GSettings, so that the test never writes the user's own settings.
        qputenv("GSETTINGS_BACKEND", "memory");
        QCOMPARE(G_OBJECT_TYPE_NAME(g_settings_backend_get_default()), "GMemorySettingsBackend");
        GSettingsSchemaSource *installed = g_settings_schema_source_get_default();
        GSettingsSchema *schema =
            installed ? g_settings_schema_source_lookup(installed, "org.gnome.desktop.privacy", TRUE) : nullptr;
        if (!schema)
            QSKIP("Needs the org.gnome.desktop.privacy schema (gsettings-desktop-schemas).");
        g_settings_schema_unref(schema);
    }

    void cleanup() { setMicrophoneDisabled(false); }

    void aCaptureWithTheMicrophoneDoesNotStart_data()
    {
        QTest::addColumn<RecordingSource>("source");
        QTest::addColumn<bool>("microphone");
        QTest::addColumn<bool>("starts");
        QTest::newRow("in person") << RecordingSource::inPerson << true << false;
        QTest::newRow("system audio with the microphone") << RecordingSource::systemAudio << true << false;
        QTest::newRow("system audio alone") << RecordingSource::systemAudio << false << true;
    }

    void aCaptureWithTheMicrophoneDoesNotStart()
    {
        QFETCH(RecordingSource, source);
        QFETCH(bool, microphone);
        QFETCH(bool, starts);
        QTemporaryDir dir;
        Recording recording;
        recording.source = source;
        recording.folder = QUrl::fromLocalFile(dir.path());
        CaptureConfiguration configuration = CaptureConfiguration::forRecording(recording);
        configuration.includeMicrophone = microphone;

        setMicrophoneDisabled(true);
        FakeSoundServer sound;
        FakeProcessList processes;
        FakeClock clock;
        GnomeMicrophonePrivacy privacy;
        CaptureEngine engine(sound, nullptr, processes, clock, &privacy);
        const auto started = QCoro::waitFor(engine.start(configuration));
        QCOMPARE(bool(started), starts);
        if (starts) {
            QCoro::waitFor(engine.stop());
            return;
        }
        QCOMPARE(started.error(), CaptureFailure::of(CaptureError::microphonePermissionDenied));
        QCOMPARE(sound.starts, 0);
        QVERIFY(!QFileInfo::exists(dir.filePath(QStringLiteral("Source/microphone.m4a"))));
    }

    void permissionsReportTheMicrophoneDenied()
    {
        GnomeMicrophonePrivacy privacy;
        QVERIFY(!privacy.microphoneDisabled());
        const PermissionStatus allowed = LinuxPermissionSources().microphone();

        setMicrophoneDisabled(true);
        QVERIFY(privacy.microphoneDisabled());
        Permissions permissions(std::make_unique<LinuxPermissionSources>());
        permissions.refresh();
        QCOMPARE(permissions.microphone(), PermissionStatus::denied);
        if (allowed != PermissionStatus::granted)
            QSKIP("Without a sound server that has a microphone (scripts/session) the switch makes no difference.");
    }
};

QTEST_GUILESS_MAIN(TestMicrophonePrivacy)
#include "tst_microphoneprivacy.moc"
