// The release-feed check against a loopback feed.

#include "app/appsettings.h"
#include "app/keychain.h"
#include "app/updater.h"
#include "support/app/controllerfakes.h"
#include "support/providers/loopbackserver.h"

#include <QNetworkAccessManager>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

using namespace qm;
using namespace qm::test;

class TestUpdater : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void versionsCompareByNumberNotText_data()
    {
        QTest::addColumn<QString>("candidate");
        QTest::addColumn<bool>("newer");
        QTest::newRow("later minor") << QStringLiteral("1.10.0") << true;
        QTest::newRow("same") << QStringLiteral("1.9.2") << false;
        QTest::newRow("earlier") << QStringLiteral("1.9.1") << false;
        QTest::newRow("not a version") << QStringLiteral("soon") << false;
    }
    void versionsCompareByNumberNotText()
    {
        QFETCH(QString, candidate);
        QFETCH(bool, newer);
        QCOMPARE(Updater::isNewer(candidate, QStringLiteral("1.9.2")), newer);
    }

    // A user who asks always hears back; a newer release is announced once; a dead feed says so only when asked.
    void checkingTellsWhatTheFeedSays()
    {
        QByteArray feed = R"({"version": "0.1.0", "url": "https://quillmoor.app/releases/0.1.0"})";
        LoopbackServer server([&](const ReceivedRequest &) { return ScriptedResponse::json(200, feed); });
        QTemporaryDir dir;
        Keychain keychain;
        AppSettings settings(keychain, dir.path());
        settings.setAutomaticallyChecksForUpdates(false);
        QNetworkAccessManager network;
        RecordingNotifier notifier;
        Updater updater(settings, network, notifier, server.url(QStringLiteral("/linux.json")),
                        QStringLiteral("0.1.0"));
        QSignalSpy answers(&updater, &Updater::checkFinished);

        updater.checkForUpdates();
        QTRY_COMPARE(answers.size(), 1);
        QCOMPARE(answers.last().constFirst().toString(), QStringLiteral("Quillmoor 0.1.0 is the latest version."));

        feed = R"({"version": "0.2.0", "url": "https://quillmoor.app/releases/0.2.0"})";
        updater.checkForUpdates();
        QTRY_COMPARE(answers.size(), 2);
        QCOMPARE(answers.last().constFirst().toString(), QStringLiteral("Quillmoor 0.2.0 is available."));
        QCOMPARE(updater.availableVersion(), QStringLiteral("0.2.0"));
        QCOMPARE(notifier.posts.size(), 0);

        Updater dead(settings, network, notifier, QUrl(QStringLiteral("http://127.0.0.1:9/linux.json")));
        QSignalSpy deadAnswers(&dead, &Updater::checkFinished);
        dead.checkForUpdates();
        QTRY_COMPARE(deadAnswers.size(), 1);
        QCOMPARE(deadAnswers.last().constFirst().toString(),
                 QStringLiteral("Couldn't reach the update server. Try again later."));
        QVERIFY(dead.availableVersion().isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestUpdater)
#include "tst_updater.moc"
