// Runs inside tests/support/wayland/session portal: the real xdg-desktop-portal in front of our test backend,
// with a GStreamer test pattern (QM_TEST_SIZE) as the shared screen.
#include "capture/wayland/restoretokens.h"
#include "capture/wayland/waylandscreensource.h"
#include "support/capture/mediaprobe.h"
#include "support/wayland/castrecorder.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusReply>
#include <QJsonObject>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

using namespace qm;
using namespace qm::wayland;

class TestWaylandPortal : public QObject {
    Q_OBJECT

    QTemporaryDir m_dir;
    QSize m_size;

    // Steers the test backend (see screencast-backend.py).
    static QDBusMessage backend(const QString &method, const QVariantList &arguments = {})
    {
        QDBusMessage call = QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.impl.portal.desktop.qmtest"),
                                                           QStringLiteral("/org/freedesktop/portal/desktop"),
                                                           QStringLiteral("org.quillmoor.TestBackend"), method);
        call.setArguments(arguments);
        return QDBusConnection::sessionBus().call(call);
    }
    static uint dialogs() { return QDBusReply<uint>(backend(QStringLiteral("Dialogs"))).value(); }
    static QVariantMap lastSelect() { return QDBusReply<QVariantMap>(backend(QStringLiteral("LastSelect"))).value(); }
    WaylandScreenSource::Options options(const QString &tokens)
    {
        WaylandScreenSource::Options o;
        o.tokenFile = m_dir.filePath(tokens);
        o.answerTime = std::chrono::seconds(10);
        return o;
    }
    static VideoTarget screen() { return VideoTarget{VideoTarget::Kind::display, 1, {}, QStringLiteral("Screen")}; }

private Q_SLOTS:
    void initTestCase()
    {
        if (qEnvironmentVariableIsEmpty("QM_TEST_SIZE"))
            QSKIP("needs tests/support/wayland/session portal");
        const QStringList size = qEnvironmentVariable("QM_TEST_SIZE").split(QLatin1Char('x'));
        m_size = QSize(size.value(0).toInt(), size.value(1).toInt());
    }

    void startsThroughTheDialogOrTheToken_data()
    {
        QTest::addColumn<QString>("stored"); // "earlier start": the token an earlier start left behind
        QTest::addColumn<QString>("answer");
        QTest::addColumn<bool>("shares");
        QTest::addColumn<bool>("denied");
        QTest::addColumn<int>("dialogs");
        QTest::addColumn<int>("consent"); // ShareConsent

        QTest::newRow("first start") << ""
                                     << "ok" << true << false << 1 << int(ShareConsent::granted);
        QTest::newRow("token restores") << "earlier start"
                                        << "ok" << true << false << 0 << int(ShareConsent::granted);
        QTest::newRow("unknown token") << "3f1a7a47-6f0e-4d0c-9d55-2a4f1b8e9c01"
                                       << "ok" << true << false << 1 << int(ShareConsent::granted);
        QTest::newRow("malformed token, then recovery") << "not-a-token"
                                                        << "ok" << true << false << 1 << int(ShareConsent::granted);
        QTest::newRow("cancelled") << ""
                                   << "cancel" << false << true << 0 << int(ShareConsent::declined);
        QTest::newRow("backend error") << ""
                                       << "error" << false << false << 0 << int(ShareConsent::notAsked);
    }
    void startsThroughTheDialogOrTheToken()
    {
        QFETCH(QString, stored);
        QFETCH(QString, answer);
        QFETCH(bool, shares);
        QFETCH(bool, denied);
        QFETCH(int, dialogs);
        QFETCH(int, consent);

        const QString file = QString::fromLatin1(QTest::currentDataTag()) + QStringLiteral(".ini");
        RestoreTokens tokens(m_dir.filePath(file));
        if (stored == u"earlier start") {
            WaylandScreenSource earlier(options(file));
            QVERIFY(earlier.prepare(screen()));
            earlier.stop();
            // The portal keeps the token a moment after Start.
            QTest::qWait(1000);
        } else if (!stored.isEmpty()) {
            QVERIFY(tokens.store(SourceType::monitor, stored));
        }
        const QString before = tokens.token(SourceType::monitor);
        backend(QStringLiteral("Answer"), {answer});
        const uint dialogsBefore = this->dialogs();

        WaylandScreenSource source(options(file));
        const auto prepared = source.prepare(screen());
        QCOMPARE(prepared.has_value(), shares);
        QCOMPARE(int(this->dialogs() - dialogsBefore), dialogs);
        QCOMPARE(int(tokens.consent()), consent);
        if (!shares) {
            QCOMPARE(prepared.error().error == CaptureError::screenPermissionDenied, denied);
            QVERIFY(!prepared.error().description().isEmpty());
            return;
        }
        QCOMPARE(prepared->geometry.size(), m_size);
        // Whatever Start hands back replaces the token given (the portal may hand the same one back).
        QVERIFY(!tokens.token(SourceType::monitor).isEmpty());
        QCOMPARE(tokens.token(SourceType::monitor) != before, stored != u"earlier start");
        QCOMPARE(lastSelect().value(QStringLiteral("persist_mode")).toUInt(), 2u);
        QCOMPARE(lastSelect().value(QStringLiteral("cursor_mode")).toUInt(), 2u); // embedded
        source.stop();
    }

    void filmsAtTheFrameRateAndSize()
    {
        WaylandScreenSource source(options(QStringLiteral("film.ini")));
        test::CastRecorder recorder(source, m_dir.filePath(QStringLiteral("film")));
        QVERIFY(recorder.start(10));
        recorder.play(2.5);
        const CaptureResult result = recorder.stop();
        QVERIFY(result.screen);
        const QJsonObject video = test::streamInfo(recorder.screenPath(), "v");
        QCOMPARE(video.value(QLatin1String("width")).toInt(), m_size.width());
        QCOMPARE(video.value(QLatin1String("height")).toInt(), m_size.height());
        // The pattern sends 30 pictures a second; the track keeps 10.
        const QList<QByteArray> frames = test::greyFrames(recorder.screenPath(), 32, 24);
        const double fps = frames.size() / video.value(QLatin1String("format_duration")).toDouble();
        QVERIFY2(fps > 8.5 && fps < 11, qPrintable(QString::number(fps)));
        QVERIFY(frames.first() != frames.last()); // the ball moves
    }

    void theWindowIsPickedInTheDialog()
    {
        // Zoom's window can't be listed on Wayland: a Zoom recording asks for a window, kept under its own token.
        WaylandScreenSource source(options(QStringLiteral("window.ini")));
        test::CastRecorder recorder(source, m_dir.filePath(QStringLiteral("window")));
        QVERIFY(recorder.start(5, RecordingSource::zoom));
        QCOMPARE(recorder.engine().videoDescription(), QStringLiteral("Zoom meeting window"));
        QCOMPARE(lastSelect().value(QStringLiteral("types")).toUInt(), 2u);
        recorder.stop();
        RestoreTokens tokens(m_dir.filePath(QStringLiteral("window.ini")));
        QVERIFY(!tokens.token(SourceType::window).isEmpty());
        QVERIFY(tokens.token(SourceType::monitor).isEmpty());
    }

    void sharingStoppedFromTheDesktopKeepsTheAudio()
    {
        WaylandScreenSource source(options(QStringLiteral("closed.ini")));
        test::CastRecorder recorder(source, m_dir.filePath(QStringLiteral("closed")));
        QSignalSpy failed(&recorder.engine(), &CaptureEngine::videoStopped);
        QVERIFY(recorder.start(10));
        recorder.play(1.0);
        backend(QStringLiteral("CloseSessions"));
        QTRY_COMPARE(failed.size(), 1);
        QCOMPARE(failed.first().first().toString(), QStringLiteral("Screen sharing was stopped from the desktop."));
        recorder.play(1.5);
        const CaptureResult result = recorder.stop();
        QVERIFY(result.meeting);
        QVERIFY(result.screen);
        // The video ends where sharing ended; the meeting's sound goes on to the end.
        QVERIFY(test::mediaSeconds(recorder.meetingPath()) > 2.3);
        QVERIFY(test::mediaSeconds(recorder.screenPath()) < 1.8);
    }
};

QTEST_GUILESS_MAIN(TestWaylandPortal)
#include "tst_waylandportal.moc"
