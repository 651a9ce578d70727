// Runs inside tests/support/wayland/session mutter: a headless mutter with a 1280×720 virtual monitor, GNOME's
// portal backend, an animating Wayland client, and a permission the portal restores from QM_TEST_RESTORE_TOKEN.
#include "capture/wayland/restoretokens.h"
#include "capture/wayland/waylandscreensource.h"
#include "support/capture/mediaprobe.h"
#include "support/wayland/castrecorder.h"

#include <QJsonObject>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>

using namespace qm;
using namespace qm::wayland;

class TestWaylandMutter : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void filmsTheCompositorsScreen()
    {
        const QString seeded = qEnvironmentVariable("QM_TEST_RESTORE_TOKEN");
        if (seeded.isEmpty())
            QSKIP("needs tests/support/wayland/session mutter");
        QTemporaryDir dir;
        RestoreTokens tokens(dir.filePath(QStringLiteral("tokens.ini")));
        QVERIFY(tokens.store(SourceType::monitor, seeded));

        WaylandScreenSource::Options options;
        options.tokenFile = tokens.path();
        options.answerTime = std::chrono::seconds(20); // a dialog here would mean the token didn't restore
        WaylandScreenSource source(options);
        test::CastRecorder recorder(source, dir.filePath(QStringLiteral("recording")));
        const auto started = recorder.start(10);
        QVERIFY2(started, started ? "" : qPrintable(started.error().description()));
        recorder.play(5.0);
        QVERIFY(recorder.stop().screen);
        QVERIFY(!tokens.token(SourceType::monitor).isEmpty()); // the portal hands a restored token back

        const QJsonObject video = test::streamInfo(recorder.screenPath(), "v");
        QCOMPARE(video.value(QLatin1String("width")).toInt(), 1280);
        QCOMPARE(video.value(QLatin1String("height")).toInt(), 720);
        const QList<QByteArray> frames = test::greyFrames(recorder.screenPath(), 64, 36);
        qInfo("%lld frames", qlonglong(frames.size()));
        QVERIFY(frames.size() >= 30);
        // Not black (mutter's background and the client's window), and the client's pattern moves.
        const auto lit = [](const QByteArray &frame) {
            return std::count_if(frame.begin(), frame.end(), [](char c) { return std::uint8_t(c) > 24; });
        };
        QVERIFY(std::all_of(frames.begin(), frames.end(), [&](const QByteArray &f) { return lit(f) > 20; }));
        const auto changes = std::count_if(
            frames.begin() + 1, frames.end(),
            [&, previous = frames.first()](const QByteArray &f) mutable { return std::exchange(previous, f) != f; });
        QVERIFY2(changes >= 10, qPrintable(QString::number(changes)));
    }
};

QTEST_GUILESS_MAIN(TestWaylandMutter)
#include "tst_waylandmutter.moc"
