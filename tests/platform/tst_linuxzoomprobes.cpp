#include "capture/x11/x11desktop.h"
#include "meeting/zoommonitor.h"
#include "platform/linux/linuxzoomprobes.h"
#include "platform/linux/pulsesnapshot.h"

#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

using namespace qm;
using namespace qm::platform;

namespace {

// The test plays the window manager (Xvfb runs none): it creates windows and publishes the client list.
class WindowManager {
public:
    WindowManager() : m_c(xcb_connect(nullptr, nullptr))
    {
        if (!xcb_connection_has_error(m_c.get()))
            m_screen = xcb_setup_roots_iterator(xcb_get_setup(m_c.get())).data;
    }
    bool ok() const { return m_screen != nullptr; }

    void add(const QByteArray &title, std::uint32_t pid)
    {
        xcb_connection_t *c = m_c.get();
        const xcb_window_t id = xcb_generate_id(c);
        const std::uint32_t values[] = {1}; // override-redirect
        xcb_create_window(c, XCB_COPY_FROM_PARENT, id, m_screen->root, 10, 10, 640, 480, 0,
                          XCB_WINDOW_CLASS_INPUT_OUTPUT, m_screen->root_visual, XCB_CW_OVERRIDE_REDIRECT, values);
        xcb_map_window(c, id);
        xcb_change_property(c, XCB_PROP_MODE_REPLACE, id, atom("_NET_WM_NAME"), atom("UTF8_STRING"), 8,
                            std::uint32_t(title.size()), title.constData());
        xcb_change_property(c, XCB_PROP_MODE_REPLACE, id, atom("_NET_WM_PID"), XCB_ATOM_CARDINAL, 32, 1, &pid);
        m_windows.append(id);
        xcb_change_property(c, XCB_PROP_MODE_REPLACE, m_screen->root, atom("_NET_CLIENT_LIST"), XCB_ATOM_WINDOW, 32,
                            std::uint32_t(m_windows.size()), m_windows.constData());
        x11::Reply<xcb_get_input_focus_reply_t>(xcb_get_input_focus_reply(c, xcb_get_input_focus(c), nullptr));
    }
    void clear()
    {
        for (xcb_window_t id : m_windows)
            xcb_destroy_window(m_c.get(), id);
        m_windows.clear();
        xcb_delete_property(m_c.get(), m_screen->root, atom("_NET_CLIENT_LIST"));
        xcb_flush(m_c.get());
    }

private:
    xcb_atom_t atom(const char *name)
    {
        x11::Reply<xcb_intern_atom_reply_t> reply(xcb_intern_atom_reply(
            m_c.get(), xcb_intern_atom(m_c.get(), 0, std::uint16_t(qstrlen(name)), name), nullptr));
        return reply ? reply->atom : xcb_atom_t(XCB_ATOM_NONE);
    }
    x11::ConnectionPtr m_c;
    xcb_screen_t *m_screen = nullptr;
    QList<xcb_window_t> m_windows;
};

} // namespace

class TestLinuxZoomProbes : public QObject {
    Q_OBJECT

    QTemporaryDir m_dir;
    QString m_zoom;  // pacat under the Zoom client's name
    QString m_other; // pacat under another name
    WindowManager m_wm;

    QProcess *launch(const QString &program, const QStringList &arguments)
    {
        auto *process = new QProcess(this);
        process->setStandardOutputFile(QProcess::nullDevice());
        process->start(program, arguments);
        process->waitForStarted();
        return process;
    }
    static void end(QProcess *process)
    {
        process->kill();
        process->waitForFinished();
        delete process;
    }
    static bool recording(LinuxZoomProbes &probes, bool expected)
    {
        // The server lists a stream a moment after the client connects.
        for (int i = 0; i < 50; ++i) {
            if (probes.zoomIsUsingAudioInput({}) == expected)
                return true;
            QTest::qWait(50);
        }
        return false;
    }

private Q_SLOTS:
    void initTestCase()
    {
        if (!qEnvironmentVariableIsSet("DISPLAY") || !readPulseSnapshot(std::chrono::seconds(2)))
            QSKIP("Needs the private session of scripts/session (sound server and display).");
        QVERIFY(m_wm.ok());
        const QString pacat = QStandardPaths::findExecutable(QStringLiteral("pacat"));
        QVERIFY(!pacat.isEmpty());
        m_zoom = m_dir.filePath(QStringLiteral("zoom"));
        m_other = m_dir.filePath(QStringLiteral("recorder"));
        for (const QString &copy : {m_zoom, m_other}) {
            QVERIFY(QFile::copy(pacat, copy));
            QFile::setPermissions(copy, QFile::ReadOwner | QFile::ExeOwner | QFile::WriteOwner);
        }
    }

    void recordingStreams_data()
    {
        QTest::addColumn<bool>("asZoom");
        QTest::addColumn<QString>("device");
        QTest::addColumn<bool>("counts");
        QTest::newRow("zoom on the microphone") << true << QStringLiteral("microphone") << true;
        QTest::newRow("zoom on a monitor") << true << QStringLiteral("speakers.monitor") << false;
        QTest::newRow("another program") << false << QStringLiteral("microphone") << false;
    }
    void recordingStreams()
    {
        QFETCH(bool, asZoom);
        QFETCH(QString, device);
        QFETCH(bool, counts);
        LinuxZoomProbes probes;
        QVERIFY(recording(probes, false));
        QProcess *recorder =
            launch(asZoom ? m_zoom : m_other, {QStringLiteral("--record"), QStringLiteral("--device=") + device});
        // Judge only once the server lists the stream.
        QTRY_VERIFY([] {
            const auto snapshot = readPulseSnapshot(std::chrono::seconds(1));
            return snapshot && !snapshot->outputs.isEmpty();
        }());
        QVERIFY(recording(probes, counts));
        end(recorder);
        QVERIFY(recording(probes, false));
    }

    void meetingWindows_data()
    {
        QTest::addColumn<QByteArray>("title");
        QTest::addColumn<bool>("ownedByZoom");
        QTest::addColumn<bool>("counts");
        QTest::newRow("meeting window") << QByteArray("Zoom Meeting") << true << true;
        QTest::newRow("chat window") << QByteArray("Zoom Meeting – Chat") << true << false;
        QTest::newRow("someone else's meeting") << QByteArray("Meeting") << false << false;
    }
    void meetingWindows()
    {
        QFETCH(QByteArray, title);
        QFETCH(bool, ownedByZoom);
        QProcess *zoom = launch(m_zoom, {QStringLiteral("--record"), QStringLiteral("--device=microphone")});
        QProcess *other = launch(m_other, {QStringLiteral("--record"), QStringLiteral("--device=microphone")});
        LinuxZoomProbes probes;
        const QList<int> pids = probes.zoomProcesses();
        QVERIFY(pids.contains(int(zoom->processId())));
        QVERIFY(!pids.contains(int(other->processId())));
        m_wm.add(title, std::uint32_t(ownedByZoom ? zoom->processId() : other->processId()));
        QTEST(probes.zoomHasMeetingWindow(pids), "counts");
        m_wm.clear();
        end(zoom);
        end(other);
    }

    void monitorSeesAStandInMeetingStartAndEnd()
    {
        auto owned = std::make_unique<LinuxZoomProbes>();
        ZoomMonitor monitor(std::move(owned), [] { return std::unique_ptr<Ticker>(); });
        QProcess *zoom = launch(m_zoom, {QStringLiteral("--record"), QStringLiteral("--device=microphone")});
        QTRY_VERIFY((monitor.poll(), monitor.isZoomRunning()));
        QTRY_VERIFY((monitor.poll(), monitor.isMeetingActive()));
        end(zoom);
        for (int i = 0; i < 4; ++i)
            monitor.poll();
        QVERIFY(!monitor.isMeetingActive());
        QVERIFY(!monitor.isZoomRunning());
    }
};

QTEST_GUILESS_MAIN(TestLinuxZoomProbes)
#include "tst_linuxzoomprobes.moc"
