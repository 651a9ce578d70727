#include "platform/linux/linuxzoomprobes.h"
#include "platform/linux/pulsesnapshot.h"
#include "support/x11/xclient.h"

#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

using namespace qm;
using namespace qm::platform;
using namespace qm::test;

class TestLinuxZoomProbes : public QObject {
    Q_OBJECT

    QTemporaryDir m_dir;
    QString m_zoom;  // pacat under the Zoom client's name
    QString m_other; // pacat under another name
    XClient m_x;

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
    // A meeting-sized window of `pid`, published in the client list as a window manager would.
    void addWindow(const QByteArray &title, std::uint32_t pid)
    {
        const xcb_window_t id = m_x.window(m_x.root(), QRect(10, 10, 640, 480), 0);
        m_x.setText(id, "_NET_WM_NAME", "UTF8_STRING", title);
        m_x.setValues(id, "_NET_WM_PID", XCB_ATOM_CARDINAL, {pid});
        m_x.setValues(m_x.root(), "_NET_CLIENT_LIST", XCB_ATOM_WINDOW, {id});
        m_x.sync();
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
        QVERIFY(m_x.ok());
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
        addWindow(title, std::uint32_t(ownedByZoom ? zoom->processId() : other->processId()));
        QTEST(probes.zoomHasMeetingWindow(pids), "counts");
        xcb_delete_property(m_x.c(), m_x.root(), m_x.atom("_NET_CLIENT_LIST"));
        m_x.sync();
        end(zoom);
        end(other);
    }
};

QTEST_GUILESS_MAIN(TestLinuxZoomProbes)
#include "tst_linuxzoomprobes.moc"
