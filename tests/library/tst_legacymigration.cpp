#include "library/legacymigration.h"
#include "support/fakesecretstore.h"

#include <QDir>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>

using namespace qm;

class TestLegacyMigration : public QObject {
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_dir;
    QString m_config;
    QString m_documents;

    QString domainFile(const char *bundle) const
    {
        return QDir(m_config).filePath(QLatin1String(bundle) + QLatin1String(".conf"));
    }

    void writeOld(const char *bundle, const QVariantMap &values) const
    {
        QSettings old(domainFile(bundle), QSettings::IniFormat);
        for (auto it = values.cbegin(); it != values.cend(); ++it)
            old.setValue(it.key(), it.value());
    }

private Q_SLOTS:
    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        m_config = m_dir->filePath(QStringLiteral("config"));
        m_documents = m_dir->filePath(QStringLiteral("Documents"));
        QDir().mkpath(m_config);
        QDir().mkpath(m_documents);
    }

    void copiesMissingSettingsAndKeysOnce()
    {
        writeOld(LegacyMigration::kHarrowbrookBundle, {{QStringLiteral("myName"), QStringLiteral("Dana")},
                                                       {QStringLiteral("provider"), QStringLiteral("deepgram")},
                                                       {QStringLiteral("migratedFromX"), true},
                                                       {QStringLiteral("models/deepgram"), QStringLiteral("nova-2")},
                                                       {QStringLiteral("models/openAI"), QStringLiteral("whisper-1")}});
        QSettings current(domainFile("app.quillmoor.Quillmoor"), QSettings::IniFormat);
        current.setValue(QStringLiteral("provider"), QStringLiteral("openAI"));

        test::FakeSecretStore secrets;
        const QString old = QLatin1String(LegacyMigration::kHarrowbrookBundle);
        secrets.put(old, QStringLiteral("apikey.deepgram"), QStringLiteral("old-deepgram"));
        secrets.put(old, QStringLiteral("apikey.openAI"), QStringLiteral("old-openai"));
        secrets.put(QStringLiteral("app.quillmoor.Quillmoor"), QStringLiteral("apikey.openAI"),
                    QStringLiteral("current-openai"));

        LegacyMigration migration(current, m_config, secrets, m_documents);
        migration.migrate(old);

        QCOMPARE(current.value(QStringLiteral("myName")).toString(), QStringLiteral("Dana"));
        QCOMPARE(current.value(QStringLiteral("provider")).toString(), QStringLiteral("openAI")); // existing wins
        QVERIFY(!current.contains(QStringLiteral("migratedFromX")));
        QCOMPARE(current.value(QStringLiteral("models/openAI")).toString(), QStringLiteral("whisper-1"));
        QVERIFY(current.value(QStringLiteral("migrated:") + old).toBool());

        const QString service = QStringLiteral("app.quillmoor.Quillmoor");
        QCOMPARE(secrets.get(QStringLiteral("apikey.deepgram"), service), QStringLiteral("old-deepgram"));
        QCOMPARE(secrets.get(QStringLiteral("apikey.openAI"), service), QStringLiteral("current-openai"));
        QCOMPARE(secrets.get(QStringLiteral("apikey.deepgram"), old), QStringLiteral("old-deepgram")); // left in place

        // With the flag set, later changes to the old installation are never picked up.
        writeOld(LegacyMigration::kHarrowbrookBundle, {{QStringLiteral("driveSubfolder"), QStringLiteral("Later")}});
        secrets.put(old, QStringLiteral("apikey.assemblyAI"), QStringLiteral("later"));
        const int writes = secrets.writes;
        migration.migrate(old);
        QVERIFY(!current.contains(QStringLiteral("driveSubfolder")));
        QCOMPARE(secrets.writes, writes);
    }

    void aGroupIsCopiedWholeOrNotAtAll()
    {
        writeOld(LegacyMigration::kEarlierBundle, {{QStringLiteral("models/deepgram"), QStringLiteral("nova-2")},
                                                   {QStringLiteral("models/openAI"), QStringLiteral("whisper-1")}});
        QSettings current(domainFile("app.quillmoor.Quillmoor"), QSettings::IniFormat);
        current.setValue(QStringLiteral("models/elevenLabs"), QStringLiteral("scribe_v2"));
        test::FakeSecretStore secrets;
        LegacyMigration(current, m_config, secrets, m_documents)
            .migrate(QLatin1String(LegacyMigration::kEarlierBundle));
        current.beginGroup(QStringLiteral("models"));
        QCOMPARE(current.childKeys(), QStringList{QStringLiteral("elevenLabs")});
    }

    void movesTheEarlierProductsFolder_data()
    {
        QTest::addColumn<bool>("oldExists");
        QTest::addColumn<bool>("newExists");
        QTest::addColumn<bool>("settingPointsAtOld");
        QTest::addColumn<bool>("movedBefore"); // the flag is already set
        QTest::addColumn<bool>("expectMoved");

        QTest::newRow("moved, setting follows") << true << false << true << false << true;
        QTest::newRow("moved, no setting") << true << false << false << false << true;
        QTest::newRow("new exists: nothing moved, setting still follows") << true << true << true << false << false;
        QTest::newRow("nothing to move") << false << false << false << false << false;
        QTest::newRow("flag set: nothing moved") << true << false << false << true << false;
    }

    void movesTheEarlierProductsFolder()
    {
        QFETCH(bool, oldExists);
        QFETCH(bool, newExists);
        QFETCH(bool, settingPointsAtOld);
        QFETCH(bool, movedBefore);
        QFETCH(bool, expectMoved);

        const QString oldPath = QDir(m_documents).filePath(QStringLiteral("Harrowbrook"));
        const QString newPath = QDir(m_documents).filePath(QStringLiteral("Quillmoor"));
        if (oldExists)
            QDir().mkpath(oldPath + QStringLiteral("/2024-01-02 10-00 Zoom Meeting"));
        if (newExists)
            QDir().mkpath(newPath);
        QSettings current(domainFile("app.quillmoor.Quillmoor"), QSettings::IniFormat);
        if (settingPointsAtOld)
            current.setValue(QStringLiteral("saveFolderPath"), oldPath);
        if (movedBefore)
            current.setValue(QStringLiteral("migratedFromHarrowbrook"), true);

        test::FakeSecretStore secrets;
        LegacyMigration(current, m_config, secrets, m_documents).moveHarrowbrookFolder();

        QCOMPARE(QFileInfo::exists(newPath + QStringLiteral("/2024-01-02 10-00 Zoom Meeting")), expectMoved);
        QCOMPARE(QFileInfo::exists(oldPath), oldExists && !expectMoved);
        if (settingPointsAtOld)
            QCOMPARE(current.value(QStringLiteral("saveFolderPath")).toString(), newPath);
        else
            QVERIFY(!current.contains(QStringLiteral("saveFolderPath")));
        QVERIFY(current.value(QStringLiteral("migratedFromHarrowbrook")).toBool());
    }

    void aFailedMoveKeepsTheLibraryWhereItIs()
    {
        const QString oldPath = QDir(m_documents).filePath(QStringLiteral("Harrowbrook"));
        const QString newPath = QDir(m_documents).filePath(QStringLiteral("Quillmoor"));
        QDir().mkpath(oldPath);
        // A dangling link does not count as an existing folder, but a directory can't be renamed over it.
        QVERIFY(QFile::link(m_dir->filePath(QStringLiteral("nowhere")), newPath));

        QSettings current(domainFile("app.quillmoor.Quillmoor"), QSettings::IniFormat);
        test::FakeSecretStore secrets;
        LegacyMigration(current, m_config, secrets, m_documents).moveHarrowbrookFolder();
        QCOMPARE(current.value(QStringLiteral("saveFolderPath")).toString(), oldPath);
        QVERIFY(QFileInfo(oldPath).isDir());
    }
};

QTEST_GUILESS_MAIN(TestLegacyMigration)
#include "tst_legacymigration.moc"
