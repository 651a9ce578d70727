#include "capture/x11/x11desktop.h"
#include "capture/x11/x11screensource.h"
#include "support/x11/xclient.h"

#include <QTest>
#include <QThread>

#include <algorithm>
#include <mutex>
#include <time.h>

using namespace qm;
using namespace qm::test;

namespace {

// A solid, recognisable colour (0xRRGGBB) on the 24-bit visual.
constexpr std::uint32_t kBlue = 0x3366cc;
constexpr int kClientPid = 4242;

Nanoseconds hostNow()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return Nanoseconds(now.tv_sec) * kNanosecondsPerSecond + now.tv_nsec;
}

void ignoreFrame(VideoFrame) {}
void ignoreFailure(QString) {}

// What the grabber thread delivered, reduced to what the checks need.
struct Received {
    std::mutex mutex;
    QList<Nanoseconds> pts;
    QSize size;
    int framesNotSolid = 0;
    int mostNotBlue = 0; // in one frame
    int smallStride = 0;
    int wrongThread = 0;
    QStringList failures;

    void take(const VideoFrame &frame)
    {
        std::lock_guard lock(mutex);
        pts.append(frame.pts);
        size = QSize(frame.width, frame.height);
        smallStride += frame.stride < frame.width * 4 ? 1 : 0;
        wrongThread += QThread::currentThread()->objectName() == u"app.quillmoor.screen" ? 0 : 1;
        int wrong = 0;
        for (int y = 0; y < frame.height; ++y) {
            const std::uint8_t *row = frame.pixels->data() + std::size_t(y) * std::size_t(frame.stride);
            for (int x = 0; x < frame.width; ++x) {
                const std::uint8_t *p = row + 4 * x;
                wrong += (p[0] == 0xcc && p[1] == 0x66 && p[2] == 0x33) ? 0 : 1;
            }
        }
        framesNotSolid += wrong > 0 ? 1 : 0;
        mostNotBlue = std::max(mostNotBlue, wrong);
    }
    void fail(const QString &sentence)
    {
        std::lock_guard lock(mutex);
        failures.append(sentence);
    }
    QStringList failureList()
    {
        std::lock_guard lock(mutex);
        return failures;
    }
    qsizetype count()
    {
        std::lock_guard lock(mutex);
        return pts.size();
    }
};

} // namespace

class TestX11ScreenSource : public QObject {
    Q_OBJECT

    std::unique_ptr<XClient> m_x;
    xcb_window_t m_meeting = 0, m_latin = 0, m_hidden = 0, m_unmapped = 0;

private Q_SLOTS:
    void initTestCase()
    {
        if (qEnvironmentVariableIsEmpty("DISPLAY"))
            QSKIP("No X server: DISPLAY is unset");
        m_x = std::make_unique<XClient>();
        QVERIFY2(m_x->ok(), "cannot connect to $DISPLAY");
        // The meeting window sits inside another, as under a reparenting window manager.
        const xcb_window_t frame = m_x->window(m_x->root(), QRect(400, 300, 600, 400), 0x808080);
        m_meeting = m_x->window(frame, QRect(10, 20, 320, 240), kBlue);
        m_x->setText(m_meeting, "_NET_WM_NAME", "UTF8_STRING", "Zoom Meeting – Tëst");
        m_x->setText(m_meeting, "WM_NAME", "STRING", "fallback");
        m_x->setValues(m_meeting, "_NET_WM_PID", XCB_ATOM_CARDINAL, {kClientPid});
        m_latin = m_x->window(m_x->root(), QRect(1200, 100, 300, 200), 0x00ff00);
        m_x->setText(m_latin, "WM_NAME", "STRING", QByteArray("Caf\xe9"));
        m_hidden = m_x->window(m_x->root(), QRect(50, 50, 200, 100), 0xff0000);
        m_x->setValues(m_hidden, "_NET_WM_STATE", XCB_ATOM_ATOM, {m_x->atom("_NET_WM_STATE_HIDDEN")});
        m_unmapped = m_x->window(m_x->root(), QRect(60, 60, 200, 100), 0xff0000, false);
        m_x->setValues(m_x->root(), "_NET_CLIENT_LIST", XCB_ATOM_WINDOW, {m_meeting, m_latin, m_hidden, m_unmapped});
        xcb_warp_pointer(m_x->c(), XCB_NONE, m_x->root(), 0, 0, 0, 0, 5, std::int16_t(m_x->size().height() - 5));
        m_x->sync();
    }

    void cleanupTestCase()
    {
        if (m_x)
            xcb_delete_property(m_x->c(), m_x->root(), m_x->atom("_NET_CLIENT_LIST"));
        m_x.reset();
    }

    // In client-list order: id, pid, title, geometry on the root, whether it shows. The meeting window sits in a
    // frame and has a UTF-8 name and a pid; the next has only a Latin-1 WM_NAME.
    void windows()
    {
        const auto line = [](std::uint32_t id, int pid, const QString &title, QRect r, bool onScreen) {
            const auto n = [](qint64 v) { return QString::number(v); };
            const QStringList fields{n(id),    n(pid),       title,         n(r.x()),
                                     n(r.y()), n(r.width()), n(r.height()), n(onScreen)};
            return fields.join(u' ');
        };
        QStringList seen;
        for (const WindowInfo &w : X11ScreenSource().windows())
            seen << line(w.id, w.pid, w.title, w.geometry, w.onScreen);
        const QStringList expected{
            line(m_meeting, kClientPid, QStringLiteral("Zoom Meeting – Tëst"), {410, 320, 320, 240}, true),
            line(m_latin, 0, QStringLiteral("Café"), {1200, 100, 300, 200}, true),
            line(m_hidden, 0, QString(), {50, 50, 200, 100}, false),
            line(m_unmapped, 0, QString(), {60, 60, 200, 100}, false)};
        QCOMPARE(seen, expected);
    }

    void displays()
    {
        X11ScreenSource source;
        const QList<DisplayInfo> displays = source.displays();
        QCOMPARE(displays.size(), 1);
        QVERIFY(displays.first().id != 0);
        QVERIFY(!displays.first().name.isEmpty());
        QCOMPARE(displays.first().geometry, QRect(QPoint(0, 0), m_x->size()));
        QCOMPARE(X11ScreenSource().displays().first().id, displays.first().id);
        QCOMPARE(source.displayUnderPointer(), std::optional(displays.first().id));
    }

    void grab_data()
    {
        QTest::addColumn<bool>("byWindow");
        QTest::addColumn<bool>("pointerInside");
        QTest::newRow("display region") << false << false;
        QTest::newRow("window") << true << false;
        QTest::newRow("display region, pointer drawn") << false << true;
        QTest::newRow("window, pointer drawn") << true << true;
    }

    void grab()
    {
        QFETCH(bool, byWindow);
        QFETCH(bool, pointerInside);
        const QPoint pointer = pointerInside ? QPoint(500, 400) : QPoint(5, m_x->size().height() - 5);
        xcb_warp_pointer(m_x->c(), XCB_NONE, m_x->root(), 0, 0, 0, 0, std::int16_t(pointer.x()),
                         std::int16_t(pointer.y()));
        m_x->sync();
        constexpr int kFps = 10;
        X11ScreenSource source;
        VideoTarget target;
        target.kind = byWindow ? VideoTarget::Kind::window : VideoTarget::Kind::display;
        target.id = byWindow ? m_meeting : source.displays().value(0).id;
        target.geometry = byWindow ? QRect() : QRect(410, 320, 320, 240);
        Received received;
        const Nanoseconds started = hostNow();
        const auto result = source.start(
            target, kFps, [&](VideoFrame frame) { received.take(frame); },
            [&](QString sentence) { received.fail(sentence); });
        QVERIFY2(result.has_value(), result ? "" : qPrintable(result.error()));
        QVERIFY(!source.start(target, kFps, ignoreFrame, ignoreFailure));
        QTest::qWait(2000);
        source.stop();
        const Nanoseconds stopped = hostNow();
        const qsizetype delivered = received.count();
        QTest::qWait(300);
        QCOMPARE(received.count(), delivered);

        QVERIFY(received.failures.isEmpty());
        QCOMPARE(received.size, QSize(320, 240));
        QCOMPARE(received.smallStride, 0);
        QCOMPARE(received.wrongThread, 0);
        // The pointer is drawn in, small against the window; nothing else may differ from the window's colour.
        QCOMPARE(received.framesNotSolid, pointerInside ? delivered : 0);
        QVERIFY(received.mostNotBlue < 320 * 240 / 20);
        QVERIFY2(delivered >= 12 && delivered <= 24, qPrintable(QString::number(delivered)));
        QVERIFY(std::is_sorted(received.pts.begin(), received.pts.end()));
        QVERIFY(received.pts.first() >= started && received.pts.last() <= stopped);
        // The device paces itself; the ticks should average the requested one.
        const double tick = double(received.pts.last() - received.pts.first()) / double(delivered - 1);
        QVERIFY2(tick > 80e6 && tick < 120e6, qPrintable(QString::number(tick)));
    }

    void closedWindow()
    {
        const xcb_window_t doomed = m_x->window(m_x->root(), QRect(900, 600, 300, 200), kBlue);
        m_x->sync();
        X11ScreenSource source;
        Received received;
        const VideoTarget target{VideoTarget::Kind::window, doomed, {}, {}};
        QVERIFY(source.start(
            target, 20, [&](VideoFrame frame) { received.take(frame); },
            [&](QString sentence) { received.fail(sentence); }));
        QTRY_VERIFY(received.count() > 0);
        xcb_destroy_window(m_x->c(), doomed);
        m_x->sync();
        QTRY_VERIFY(!received.failureList().isEmpty());
        const qsizetype delivered = received.count();
        QTest::qWait(300);
        source.stop();
        QCOMPARE(received.count(), delivered);
        QCOMPARE(received.failures,
                 QStringList{QStringLiteral("Filming stopped because the window being filmed closed.")});
        const auto again = source.start(target, 20, ignoreFrame, ignoreFailure);
        QCOMPARE(again ? QString() : again.error(), QStringLiteral("The window to film has closed."));
    }

    void displayArea_data()
    {
        QTest::addColumn<QRect>("geometry");
        QTest::addColumn<QSize>("expected"); // empty: start refuses
        const QSize screen = m_x->size();
        QTest::newRow("reaching past the screen edge")
            << QRect(screen.width() - 100, screen.height() - 60, 400, 200) << QSize(100, 60);
        QTest::newRow("off the screen") << QRect(screen.width() + 10, 0, 100, 100) << QSize();
    }

    void displayArea()
    {
        QFETCH(QRect, geometry);
        QFETCH(QSize, expected);
        X11ScreenSource source;
        Received received;
        const VideoTarget target{VideoTarget::Kind::display, source.displays().value(0).id, geometry, {}};
        const auto result = source.start(
            target, 20, [&](VideoFrame frame) { received.take(frame); }, ignoreFailure);
        if (expected.isEmpty()) {
            QCOMPARE(result ? QString() : result.error(),
                     QStringLiteral("The display to film is no longer connected."));
            return;
        }
        QVERIFY(result);
        QTRY_VERIFY(received.count() > 0);
        source.stop();
        QCOMPARE(received.size, expected);
    }

    void noServer_data()
    {
        QTest::addColumn<QString>("display");
        QTest::addColumn<bool>("unsetDisplay");
        QTest::newRow("DISPLAY unset") << QString() << true;
        QTest::newRow("nobody listening") << QStringLiteral(":4097") << false;
        QTest::newRow("malformed name") << QStringLiteral("not a display") << false;
    }

    void noServer()
    {
        QFETCH(QString, display);
        QFETCH(bool, unsetDisplay);
        const QByteArray saved = qgetenv("DISPLAY");
        if (unsetDisplay)
            qunsetenv("DISPLAY");
        X11ScreenSource source(display);
        const auto displays = source.displays();
        const auto windows = source.windows();
        const auto pointer = source.displayUnderPointer();
        const auto result =
            source.start({VideoTarget::Kind::display, 1, QRect(0, 0, 64, 64), {}}, 10, ignoreFrame, ignoreFailure);
        qputenv("DISPLAY", saved);
        QVERIFY(displays.isEmpty());
        QVERIFY(windows.isEmpty());
        QVERIFY(!pointer);
        QVERIFY(!result);
        QCOMPARE(result.error(),
                 QStringLiteral("Screen recording needs an X11 session; it isn't available on this desktop yet."));
    }
};

QTEST_GUILESS_MAIN(TestX11ScreenSource)
#include "tst_x11screensource.moc"
