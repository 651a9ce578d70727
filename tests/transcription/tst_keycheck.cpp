#include "support/providers/fakekeycheck.h"
#include "transcription/keycheck.h"

#include <QCoroTask>
#include <QNetworkProxy>
#include <QTcpServer>
#include <QTest>

using namespace qm;
using namespace qm::test;

Q_DECLARE_METATYPE(qm::test::KeyRoute)

class TestKeyCheck : public QObject {
    Q_OBJECT

    FakeKeyCheck m_fake;

private Q_SLOTS:
    void initTestCase() { QNetworkProxy::setApplicationProxy(QNetworkProxy::NoProxy); }

    void eachServiceTellsAGoodKeyFromABadOne_data()
    {
        QTest::addColumn<TranscriptionProvider>("provider");
        QTest::addColumn<KeyRoute>("route");
        const QList<TranscriptionProvider> order{TranscriptionProvider::deepgram, TranscriptionProvider::openAI,
                                                 TranscriptionProvider::assemblyAI, TranscriptionProvider::elevenLabs};
        for (qsizetype i = 0; i < order.size(); ++i)
            QTest::newRow(keyRoutes()[i].service.constData()) << order[i] << keyRoutes()[i];
    }

    void eachServiceTellsAGoodKeyFromABadOne()
    {
        QFETCH(TranscriptionProvider, provider);
        QFETCH(KeyRoute, route);
        const QUrl base = m_fake.server.url(QString::fromLatin1(route.basePath));

        const auto good = QCoro::waitFor(KeyCheck::check(provider, QStringLiteral(" good-key-0123\n"), base));
        QCOMPARE(KeyCheck::message(good), QStringLiteral("Key works"));

        const auto bad = QCoro::waitFor(KeyCheck::check(provider, QStringLiteral("stale-key"), base));
        QVERIFY(!bad);
        QCOMPARE(bad.error().kind, TranscriptionError::Kind::api);
        QCOMPARE(KeyCheck::message(bad), QString::fromLatin1(route.service + " error 401: " + route.refusal));
    }

    void anUnreachableServiceIsNamed()
    {
        QTcpServer closed;
        QVERIFY(closed.listen(QHostAddress::LocalHost));
        const quint16 port = closed.serverPort();
        closed.close();
        const auto result = QCoro::waitFor(KeyCheck::check(TranscriptionProvider::openAI, QStringLiteral("k"),
                                                           QUrl(QStringLiteral("http://127.0.0.1:%1").arg(port))));
        QVERIFY(!result);
        QCOMPARE(result.error().kind, TranscriptionError::Kind::network);
        QVERIFY2(KeyCheck::message(result).startsWith(QStringLiteral("Quillmoor couldn't reach OpenAI: ")),
                 qPrintable(KeyCheck::message(result)));
    }
};

QTEST_GUILESS_MAIN(TestKeyCheck)
#include "tst_keycheck.moc"
