#include "capture/x11/x11desktop.h"
#include "capture/x11/x11screensource.h"

#include <QTest>
#include <QThread>

#include <algorithm>
#include <mutex>
#include <time.h>

using namespace qm;

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

// The test's own X client: it plays the application whose windows are filmed and, since Xvfb runs no window
// manager, the window manager that publishes the client list.
class XClient {
public:
    XClient() : m_connection(xcb_connect(nullptr, nullptr))
    {
        if (!xcb_connection_has_error(m_connection.get()))
            m_screen = xcb_setup_roots_iterator(xcb_get_setup(m_connection.get())).data;
    }
    bool ok() const { return m_screen != nullptr; }
    xcb_window_t root() const { return m_screen->root; }
    QSize size() const { return QSize(m_screen->width_in_pixels, m_screen->height_in_pixels); }

    xcb_window_t window(xcb_window_t parent, QRect rect, std::uint32_t colour, bool map = true)
    {
        const xcb_window_t id = xcb_generate_id(c());
        const std::uint32_t values[] = {colour, 1}; // background, override-redirect
        xcb_create_window(c(), XCB_COPY_FROM_PARENT, id, parent, std::int16_t(rect.x()), std::int16_t(rect.y()),
                          std::uint16_t(rect.width()), std::uint16_t(rect.height()), 0, XCB_WINDOW_CLASS_INPUT_OUTPUT,
                          m_screen->root_visual, XCB_CW_BACK_PIXEL | XCB_CW_OVERRIDE_REDIRECT, values);
        if (map)
            xcb_map_window(c(), id);
        return id;
    }
    void setText(xcb_window_t window, const char *property, const char *type, const QByteArray &text)
    {
        xcb_change_property(c(), XCB_PROP_MODE_REPLACE, window, atom(property), atom(type), 8,
                            std::uint32_t(text.size()), text.constData());
    }
    void setValues(xcb_window_t window, const char *property, xcb_atom_t type, const QList<std::uint32_t> &values)
    {
        xcb_change_property(c(), XCB_PROP_MODE_REPLACE, window, atom(property), type, 32, std::uint32_t(values.size()),
                            values.constData());
    }
    xcb_atom_t atom(const char *name)
    {
        x11::Reply<xcb_intern_atom_reply_t> reply(
            xcb_intern_atom_reply(c(), xcb_intern_atom(c(), 0, std::uint16_t(qstrlen(name)), name), nullptr));
        return reply ? reply->atom : xcb_atom_t(XCB_ATOM_NONE);
    }
    // Returns once the server has carried out everything sent before.
    void sync()
    {
        x11::Reply<xcb_get_input_focus_reply_t>(xcb_get_input_focus_reply(c(), xcb_get_input_focus(c()), nullptr));
    }
    xcb_connection_t *c() const { return m_connection.get(); }

private:
    x11::ConnectionPtr m_connection;
    xcb_screen_t *m_screen = nullptr;
};

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

    void windows_data()
    {
        QTest::addColumn<int>("index");
        QTest::addColumn<int>("pid");
        QTest::addColumn<QString>("title");
        QTest::addColumn<QRect>("geometry");
        QTest::addColumn<bool>("onScreen");

        QTest::newRow("nested, UTF-8 name, pid")
            << 0 << kClientPid << QStringLiteral("Zoom Meeting – Tëst") << QRect(410, 320, 320, 240) << true;
        QTest::newRow("Latin-1 WM_NAME only") << 1 << 0 << QStringLiteral("Café") << QRect(1200, 100, 300, 200) << true;
        QTest::newRow("hidden state") << 2 << 0 << QString() << QRect(50, 50, 200, 100) << false;
        QTest::newRow("unmapped") << 3 << 0 << QString() << QRect(60, 60, 200, 100) << false;
    }

    void windows()
    {
        QFETCH(int, index);
        QFETCH(int, pid);
        QFETCH(QString, title);
        QFETCH(QRect, geometry);
        QFETCH(bool, onScreen);
        X11ScreenSource source;
        const QList<WindowInfo> windows = source.windows();
        const QList<std::uint32_t> order{m_meeting, m_latin, m_hidden, m_unmapped};
        QCOMPARE(windows.size(), order.size());
        const WindowInfo &window = windows.at(index);
        QCOMPARE(window.id, order.at(index));
        QCOMPARE(window.pid, pid);
        QCOMPARE(window.title, title);
        QCOMPARE(window.geometry, geometry);
        QCOMPARE(window.onScreen, onScreen);
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
