#include "support/providers/loopbackserver.h"
#include "transcription/http.h"

#include <QCoroTask>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonObject>
#include <QNetworkProxy>
#include <QTest>

using namespace qm;
using namespace qm::test;
using namespace std::chrono_literals;

Q_DECLARE_METATYPE(ScriptedResponse)

namespace {

expected<QJsonValue, TranscriptionError> sendTo(const QUrl &url, std::optional<QByteArray> body, HttpLimits limits = {})
{
    QNetworkRequest request(url);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArray("application/octet-stream"));
    return QCoro::waitFor(HTTP::send(request, std::move(body), QStringLiteral("Deepgram"), limits));
}

ScriptedResponse answer(int status, const char *contentType, const QByteArray &body)
{
    return ScriptedResponse::text(status, contentType, body);
}

} // namespace

class TestHttp : public QObject {
    Q_OBJECT

    ScriptedResponse m_next;
    LoopbackServer m_server;

public:
    TestHttp() : m_server([this](const ReceivedRequest &) { return m_next; }) {}

private Q_SLOTS:
    void initTestCase() { QNetworkProxy::setApplicationProxy(QNetworkProxy::NoProxy); }
    void init() { m_server.requests.clear(); }

    // Every non-2xx answer becomes one sentence with the most specific message the body offers.
    void errorMessages_data()
    {
        QTest::addColumn<ScriptedResponse>("response");
        QTest::addColumn<QString>("expected");

        const QByteArray html =
            "<html><head><title>502 Bad Gateway</title></head><body>" + QByteArray(400, 'x') + "</body></html>";
        QTest::newRow("error object with message")
            << answer(400, "application/json", "{\"error\":{\"message\":\"M\",\"type\":\"invalid_request_error\"}}")
            << QStringLiteral("Deepgram error 400: M");
        QTest::newRow("error string") << answer(401, "application/json", "{\"error\":\"E\"}")
                                      << QStringLiteral("Deepgram error 401: E");
        QTest::newRow("error object without message falls through to detail")
            << answer(400, "application/json", "{\"error\":{\"code\":7},\"detail\":\"D\"}")
            << QStringLiteral("Deepgram error 400: D");
        QTest::newRow("detail object") << answer(401, "application/json",
                                                 "{\"detail\":{\"status\":\"x\",\"message\":\"DM\"}}")
                                       << QStringLiteral("Deepgram error 401: DM");
        QTest::newRow("err_msg only") << answer(402, "application/json", "{\"err_code\":\"C\",\"err_msg\":\"EM\"}")
                                      << QStringLiteral("Deepgram error 402: EM");
        QTest::newRow("message last") << answer(403, "application/json", "{\"category\":\"C\",\"message\":\"MM\"}")
                                      << QStringLiteral("Deepgram error 403: MM");
        QTest::newRow("error wins over message")
            << answer(400, "application/json", "{\"message\":\"later\",\"error\":\"first\"}")
            << QStringLiteral("Deepgram error 400: first");
        QTest::newRow("detail list: raw body")
            << answer(422, "application/json", "{\"detail\":[{\"msg\":\"field required\"}]}")
            << QStringLiteral("Deepgram error 422: {\"detail\":[{\"msg\":\"field required\"}]}");
        QTest::newRow("HTML: first 300 bytes")
            << answer(500, "text/html", html)
            << QStringLiteral("Deepgram error 500: ") + QString::fromUtf8(html.left(300));
        QTest::newRow("cut inside a character is repaired")
            << answer(500, "text/plain", QByteArray(299, 'a') + "\xd7\x90")
            << QStringLiteral("Deepgram error 500: ") + QString(299, u'a') + QChar(QChar::ReplacementCharacter);
        QTest::newRow("empty 200") << answer(200, "application/json", {})
                                   << QStringLiteral("Deepgram returned a response Quillmoor couldn't read.");
        QTest::newRow("204") << answer(204, {}, {})
                             << QStringLiteral("Deepgram returned a response Quillmoor couldn't read.");
    }
    void errorMessages()
    {
        QFETCH(ScriptedResponse, response);
        QFETCH(QString, expected);
        m_next = response;
        const auto result = sendTo(m_server.url(QStringLiteral("/v1/listen")), QByteArray("body"));
        QVERIFY(!result);
        QCOMPARE(result.error().description(), expected);
    }

    // The inactivity limit restarts while bytes keep arriving; the total limit does not.
    void timeouts_data()
    {
        QTest::addColumn<ScriptedResponse>("response");
        QTest::addColumn<int>("inactivityMs");
        QTest::addColumn<int>("totalMs");
        QTest::addColumn<bool>("timesOut");

        ScriptedResponse slow = answer(200, "application/json", "{}");
        slow.delay = 1500ms;
        ScriptedResponse trickling = answer(200, "application/json", "{\"text\":\"" + QByteArray(64, 'a') + "\"}");
        trickling.trickle = 150ms; // eight pieces over 1.2 s
        QTest::newRow("silent past the inactivity limit") << slow << 300 << 60000 << true;
        QTest::newRow("silent within the inactivity limit") << slow << 5000 << 60000 << false;
        QTest::newRow("steady trickle outlives the inactivity limit") << trickling << 400 << 60000 << false;
        QTest::newRow("steady trickle still hits the total limit") << trickling << 400 << 600 << true;
    }
    void timeouts()
    {
        QFETCH(ScriptedResponse, response);
        QFETCH(int, inactivityMs);
        QFETCH(int, totalMs);
        QFETCH(bool, timesOut);
        m_next = response;
        QElapsedTimer clock;
        clock.start();
        const auto result =
            sendTo(m_server.url(QStringLiteral("/slow")), QByteArray("audio"),
                   HttpLimits{std::chrono::milliseconds(inactivityMs), std::chrono::milliseconds(totalMs)});
        QCOMPARE(!result, timesOut);
        if (timesOut) {
            QCOMPARE(result.error().kind, TranscriptionError::Kind::timedOut);
            QVERIFY(clock.elapsed() < 1400);
        }
    }

    void unreachableServiceIsANetworkError()
    {
        quint16 port = 0;
        {
            LoopbackServer gone([](const ReceivedRequest &) { return ScriptedResponse(); });
            port = gone.port();
        }
        const auto result = sendTo(QUrl(QStringLiteral("http://127.0.0.1:%1/v1/listen").arg(port)), QByteArray("x"));
        QVERIFY(!result);
        QCOMPARE(result.error().kind, TranscriptionError::Kind::network);
        QVERIFY(result.error().description().startsWith(QLatin1String("Quillmoor couldn't reach Deepgram: ")));
    }
};

QTEST_GUILESS_MAIN(TestHttp)
#include "tst_http.moc"
