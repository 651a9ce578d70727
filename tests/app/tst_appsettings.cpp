#include "app/appsettings.h"
#include "app/keychain.h"

#include <QDir>
#include <QSettings>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

using namespace qm;

class TestAppSettings : public QObject {
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_dir;
    Keychain m_keychain{std::chrono::seconds(2)};

    QString confPath() const { return m_dir->filePath(QStringLiteral("app.quillmoor.Quillmoor.conf")); }
    QString documents() const { return m_dir->filePath(QStringLiteral("Documents")); }
    std::unique_ptr<AppSettings> open()
    {
        return std::make_unique<AppSettings>(m_keychain, m_dir->path(), documents());
    }

    void writeConf(const QByteArray &contents) const
    {
        QFile file(confPath());
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(contents);
    }

private Q_SLOTS:
    void init() { m_dir = std::make_unique<QTemporaryDir>(); }

    void storedTextMatchesExactlyOrFallsBack_data()
    {
        QTest::addColumn<QByteArray>("conf");
        QTest::addColumn<ZoomStartMode>("mode");
        QTest::addColumn<TranscriptionProvider>("provider");
        QTest::addColumn<bool>("autoTranscribe");
        QTest::addColumn<int>("frameRate");

        QTest::newRow("exact values") << QByteArray("[General]\nzoomStartMode=automatic\nprovider=deepgram\n"
                                                    "autoTranscribe=false\nvideoFrameRate=30\n")
                                      << ZoomStartMode::automatic << TranscriptionProvider::deepgram << false << 30;
        QTest::newRow("wrong case and retired names")
            << QByteArray("[General]\nzoomStartMode=Automatic\nprovider=apple\n") << ZoomStartMode::ask
            << TranscriptionProvider::onDevice << true << 15;
        QTest::newRow("nonsense values") << QByteArray("[General]\nautoTranscribe=perhaps\nvideoFrameRate=fast\n")
                                         << ZoomStartMode::ask << TranscriptionProvider::onDevice << true << 15;
        QByteArray garbage(4096, '\0');
        for (int i = 0; i < garbage.size(); ++i)
            garbage[i] = char((i * 131 + 7) % 256);
        QTest::newRow("binary garbage") << garbage << ZoomStartMode::ask << TranscriptionProvider::onDevice << true
                                        << 15;
    }

    void storedTextMatchesExactlyOrFallsBack()
    {
        QFETCH(QByteArray, conf);
        writeConf(conf);
        const auto s = open();
        QTEST(s->zoomStartMode(), "mode");
        QTEST(s->provider(), "provider");
        QTEST(s->autoTranscribe(), "autoTranscribe");
        QTEST(s->videoFrameRate(), "frameRate");
    }

    void modelsAreDiscardedWholeUnlessEveryValueIsText_data()
    {
        QTest::addColumn<QByteArray>("conf");
        QTest::addColumn<int>("expectedCount");
        QTest::newRow("texts") << QByteArray("[models]\ndeepgram=nova-2\nopenAI=whisper-1\n") << 2;
        QTest::newRow("a list among texts") << QByteArray("[models]\ndeepgram=nova-2\nopenAI=a, b\n") << 0;
        QTest::newRow("a nested group") << QByteArray("[models]\ndeepgram=nova-2\nopenAI\\x=y\n") << 0;
        QTest::newRow("not a map") << QByteArray("[General]\nmodels=nova-2\n") << 0;
    }

    void modelsAreDiscardedWholeUnlessEveryValueIsText()
    {
        QFETCH(QByteArray, conf);
        QFETCH(int, expectedCount);
        writeConf(conf);
        QCOMPARE(open()->models().size(), expectedCount);
    }

    void modelChoiceIsTrimmedOrDefaults()
    {
        const auto s = open();
        QCOMPARE(s->model(TranscriptionProvider::deepgram), QStringLiteral("nova-3"));
        QCOMPARE(s->model(TranscriptionProvider::assemblyAI), QString());

        s->setModel(QStringLiteral("  nova-2 \t"), TranscriptionProvider::deepgram);
        QCOMPARE(s->model(TranscriptionProvider::deepgram), QStringLiteral("nova-2"));
        s->setModel(QStringLiteral("   "), TranscriptionProvider::deepgram);
        QCOMPARE(s->model(TranscriptionProvider::deepgram), QStringLiteral("nova-3"));
        s->setModel(QStringLiteral("whisper-1"), TranscriptionProvider::openAI);

        // The whole map is written, and reads back as texts.
        const auto again = open();
        QCOMPARE(again->models().value(QStringLiteral("openAI")), QStringLiteral("whisper-1"));
        QCOMPARE(again->models().value(QStringLiteral("deepgram")), QStringLiteral("   "));
    }

    void writesPublishOnlyRealChangesAndPersistAtOnce()
    {
        const auto s = open();
        QSignalSpy mode(s.get(), &AppSettings::zoomStartModeChanged);
        QSignalSpy rate(s.get(), &AppSettings::videoFrameRateChanged);
        QSignalSpy sync(s.get(), &AppSettings::driveSyncEnabledChanged);

        s->setZoomStartMode(ZoomStartMode::ask); // unchanged
        s->setZoomStartMode(ZoomStartMode::automatic);
        s->setZoomStartMode(ZoomStartMode::automatic);
        s->setVideoFrameRate(30);
        s->setDriveSyncEnabled(true);
        QCOMPARE(mode.count(), 1);
        QCOMPARE(rate.count(), 1);
        QCOMPARE(sync.count(), 1);

        const QSettings raw(confPath(), QSettings::IniFormat);
        QCOMPARE(raw.value(QStringLiteral("zoomStartMode")).toString(), QStringLiteral("automatic"));
        QCOMPARE(raw.value(QStringLiteral("videoFrameRate")).toString(), QStringLiteral("30"));
        QCOMPARE(raw.value(QStringLiteral("driveSyncEnabled")).toString(), QStringLiteral("true"));
        // Language "auto" is stored under its own raw text, not the C++ case name.
        s->setLanguage(TranscriptionLanguage::hebrew);
        s->setLanguage(TranscriptionLanguage::automatic);
        QCOMPARE(QSettings(confPath(), QSettings::IniFormat).value(QStringLiteral("language")).toString(),
                 QStringLiteral("auto"));

        const auto again = open();
        QCOMPARE(again->zoomStartMode(), ZoomStartMode::automatic);
        QCOMPARE(again->videoFrameRate(), 30);
        QVERIFY(again->driveSyncEnabled());
    }

    void earlierInstallationsAreReadBeforeAnythingElse()
    {
        QSettings old(m_dir->filePath(QStringLiteral("app.harrowbrook.Harrowbrook.conf")), QSettings::IniFormat);
        old.setValue(QStringLiteral("zoomStartMode"), QStringLiteral("manual"));
        old.setValue(QStringLiteral("saveFolderPath"), QDir(documents()).filePath(QStringLiteral("Harrowbrook")));
        old.sync();
        QDir().mkpath(QDir(documents()).filePath(QStringLiteral("Harrowbrook/2024-01-02 10-00 Zoom Meeting")));

        const auto s = open();
        QCOMPARE(s->zoomStartMode(), ZoomStartMode::manual);
        // The copied library setting was pointed at the moved folder.
        QCOMPARE(s->saveFolderPath(), QDir(documents()).filePath(QStringLiteral("Quillmoor")));
        QVERIFY(QFileInfo(s->saveFolderPath() + QStringLiteral("/2024-01-02 10-00 Zoom Meeting")).isDir());
    }

    void anotherWritersChangesAreReadBack()
    {
        const auto watching = open();
        const auto other = open();
        QSignalSpy mode(watching.get(), &AppSettings::zoomStartModeChanged);
        QSignalSpy models(watching.get(), &AppSettings::modelsChanged);
        QSignalSpy name(watching.get(), &AppSettings::myNameChanged);

        other->setZoomStartMode(ZoomStartMode::automatic);
        QTRY_COMPARE(watching->zoomStartMode(), ZoomStartMode::automatic);
        other->setModel(QStringLiteral("small"), TranscriptionProvider::onDevice);
        QTRY_COMPARE(watching->model(TranscriptionProvider::onDevice), QStringLiteral("small"));
        // Only what changed is announced, and the watcher keeps following a file replaced by each write.
        QCOMPARE(mode.count(), 1);
        QCOMPARE(models.count(), 1);
        QCOMPARE(name.count(), 0);
    }
};

QTEST_GUILESS_MAIN(TestAppSettings)
#include "tst_appsettings.moc"
