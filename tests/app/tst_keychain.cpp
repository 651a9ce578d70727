#include "app/appsettings.h"
#include "app/keychain.h"

#include <QElapsedTimer>
#include <QLocalServer>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <libsecret/secret.h>

using namespace qm;

namespace {

const SecretSchema kAttributesOnly = {
    "any",
    SECRET_SCHEMA_DONT_MATCH_NAME,
    {{"service", SECRET_SCHEMA_ATTRIBUTE_STRING},
     {"account", SECRET_SCHEMA_ATTRIBUTE_STRING},
     {nullptr, SECRET_SCHEMA_ATTRIBUTE_STRING}},
    0,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
};

// Every item the keyring holds for (service, account), with its label, straight from libsecret.
QStringList itemLabels(const QString &service, const QString &account)
{
    GError *error = nullptr;
    GList *items =
        secret_password_search_sync(&kAttributesOnly, SECRET_SEARCH_ALL, nullptr, &error, "service",
                                    service.toUtf8().constData(), "account", account.toUtf8().constData(), nullptr);
    QStringList labels;
    for (GList *it = items; it; it = it->next) {
        gchar *label = secret_retrievable_get_label(static_cast<SecretRetrievable *>(it->data));
        labels.append(QString::fromUtf8(label));
        g_free(label);
    }
    g_list_free_full(items, g_object_unref);
    if (error)
        g_error_free(error);
    return labels;
}

bool isChild()
{
    return qEnvironmentVariableIsSet("QM_KEYCHAIN_CHILD");
}

} // namespace

class TestKeychain : public QObject {
    Q_OBJECT

    // Runs one test function of this binary in a child process whose session bus is `busAddress`, so the
    // keyring-less case can't be spoiled by the connection this process already holds.
    void runChild(const char *function, const QString &busAddress)
    {
        QProcess child;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("QM_KEYCHAIN_CHILD"), QStringLiteral("1"));
        env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), busAddress);
        child.setProcessEnvironment(env);
        child.setProcessChannelMode(QProcess::MergedChannels);
        child.start(QCoreApplication::applicationFilePath(), {QLatin1String(function)});
        QVERIFY(child.waitForFinished(60000));
        QVERIFY2(child.exitCode() == 0, child.readAll().constData());
    }

private Q_SLOTS:
    void initTestCase()
    {
        if (isChild())
            return;
        Keychain keychain;
        if (!keychain.probe())
            QFAIL("No Secret Service in this session: run the suite through ./scripts/test.");
    }

    void storingTwiceLeavesOneLabelledItem()
    {
        Keychain keychain;
        const QString service = QStringLiteral("app.quillmoor.Quillmoor");
        const QString account = QStringLiteral("apikey.deepgram");
        QVERIFY(keychain.set(QStringLiteral("first"), account));
        QVERIFY(keychain.set(QStringLiteral("second"), account));
        QCOMPARE(itemLabels(service, account), QStringList{QStringLiteral("Quillmoor – apikey.deepgram")});
        QCOMPARE(keychain.get(account, service), QStringLiteral("second"));

        QVERIFY(keychain.set(std::nullopt, account));
        QVERIFY(itemLabels(service, account).isEmpty());
        QCOMPARE(keychain.get(account, service), std::nullopt);
        QVERIFY(keychain.isAvailable());
    }

    void apiKeysAreTrimmedAndBlankKeysRemoveTheItem()
    {
        QTemporaryDir dir;
        Keychain keychain;
        AppSettings settings(keychain, dir.path(), dir.path());
        QVERIFY(settings.setAPIKey(QStringLiteral("  sk-test-123\n"), TranscriptionProvider::openAI));
        QCOMPARE(settings.apiKey(TranscriptionProvider::openAI), QStringLiteral("sk-test-123"));
        QCOMPARE(settings.apiKey(TranscriptionProvider::deepgram), std::nullopt);

        QVERIFY(settings.setAPIKey(QStringLiteral("  \n\t"), TranscriptionProvider::openAI));
        QCOMPARE(settings.apiKey(TranscriptionProvider::openAI), std::nullopt);
        QVERIFY(itemLabels(QStringLiteral("app.quillmoor.Quillmoor"), QStringLiteral("apikey.openAI")).isEmpty());
    }

    void earlierInstallationsKeysAreMigrated()
    {
        // Stored the way the earlier installation did: its own service name, the same account.
        GError *error = nullptr;
        QVERIFY(secret_password_store_sync(&kAttributesOnly, SECRET_COLLECTION_DEFAULT, "old", "old-key", nullptr,
                                           &error, "service", "net.quillmoor.Quillmoor", "account", "apikey.assemblyAI",
                                           nullptr));
        QTemporaryDir dir;
        Keychain keychain;
        AppSettings settings(keychain, dir.path(), dir.path());
        QCOMPARE(settings.apiKey(TranscriptionProvider::assemblyAI), QStringLiteral("old-key"));
        QCOMPARE(itemLabels(QStringLiteral("net.quillmoor.Quillmoor"), QStringLiteral("apikey.assemblyAI")).size(), 1);
        settings.setAPIKey(QString(), TranscriptionProvider::assemblyAI);
    }

    void withoutAKeyringReadsAreAbsentAndWritesFail()
    {
        if (!isChild()) {
            runChild("withoutAKeyringReadsAreAbsentAndWritesFail",
                     QStringLiteral("unix:path=/nonexistent/quillmoor-no-bus"));
            return;
        }
        Keychain keychain(std::chrono::seconds(2));
        QCOMPARE(keychain.get(QStringLiteral("apikey.openAI"), QStringLiteral("app.quillmoor.Quillmoor")),
                 std::nullopt);
        QVERIFY(!keychain.set(QStringLiteral("key"), QStringLiteral("apikey.openAI")));
        QVERIFY(!keychain.isAvailable());

        QTemporaryDir dir;
        AppSettings settings(keychain, dir.path(), dir.path());
        QVERIFY(!settings.keyringAvailable());
        QVERIFY(!settings.setAPIKey(QStringLiteral("key"), TranscriptionProvider::deepgram));
    }

    void aKeyringThatNeverAnswersIsAbandonedInTime()
    {
        if (!isChild()) {
            // A bus socket that takes connections (the kernel's backlog does that) and then says nothing.
            QTemporaryDir dir;
            QLocalServer silent;
            QVERIFY(silent.listen(dir.filePath(QStringLiteral("bus"))));
            runChild("aKeyringThatNeverAnswersIsAbandonedInTime",
                     QStringLiteral("unix:path=") + silent.fullServerName());
            return;
        }
        Keychain keychain(std::chrono::milliseconds(500));
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(keychain.get(QStringLiteral("apikey.openAI"), QStringLiteral("app.quillmoor.Quillmoor")),
                 std::nullopt);
        QVERIFY(!keychain.set(QStringLiteral("key"), QStringLiteral("apikey.openAI")));
        QVERIFY2(timer.elapsed() < 5000, QByteArray::number(timer.elapsed()).constData());
        QVERIFY(!keychain.isAvailable());
    }
};

QTEST_GUILESS_MAIN(TestKeychain)
#include "tst_keychain.moc"
