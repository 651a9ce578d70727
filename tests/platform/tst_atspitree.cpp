#include "meeting/zoommuteobserver.h"
#include "platform/linux/atspitree.h"

#include <QApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QProcess>
#include <QPushButton>
#include <QSocketNotifier>
#include <QTest>
#include <QVBoxLayout>

#include <csignal>
#include <cstdio>
#include <unistd.h>

using namespace qm;

namespace {

const char *const childMode = "--zoom-stand-in";
const QString launcher = QStringLiteral("/usr/libexec/at-spi-bus-launcher");

// The stand-in: a window titled like Zoom's meeting window whose microphone button tells the mute state in its
// accessible description. Each line on stdin flips the state; end of input quits.
int runStandIn(int argc, char **argv)
{
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("zoom"));
    QWidget window;
    window.setWindowTitle(QStringLiteral("Zoom Meeting"));
    auto *layout = new QVBoxLayout(&window);
    auto *microphone = new QPushButton(QStringLiteral("Unmute"), &window);
    microphone->setAccessibleDescription(QStringLiteral("Microphone: audio muted"));
    layout->addWidget(microphone);
    window.show();

    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&input, &QSocketNotifier::activated, &app, [&] {
        char line[64];
        if (::read(STDIN_FILENO, line, sizeof line) <= 0) {
            QApplication::quit();
            return;
        }
        microphone->setText(QStringLiteral("Mute"));
        microphone->setAccessibleDescription(QStringLiteral("Microphone: audio unmuted"));
        std::puts("changed");
        std::fflush(stdout);
    });
    std::puts("ready");
    std::fflush(stdout);
    return QApplication::exec();
}

bool setAccessibilityEnabled(bool enabled = true)
{
    QDBusMessage set =
        QDBusMessage::createMethodCall(QStringLiteral("org.a11y.Bus"), QStringLiteral("/org/a11y/bus"),
                                       QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Set"));
    set << QStringLiteral("org.a11y.Status") << QStringLiteral("IsEnabled")
        << QVariant::fromValue(QDBusVariant(enabled));
    return QDBusConnection::sessionBus().call(set, QDBus::Block, 2000).type() == QDBusMessage::ReplyMessage;
}

// The registry daemon is started by the accessibility bus on demand and outlives the launcher; its id comes
// from that bus so that exactly it can be ended.
qint64 registryPid()
{
    const QDBusMessage address = QDBusConnection::sessionBus().call(
        QDBusMessage::createMethodCall(QStringLiteral("org.a11y.Bus"), QStringLiteral("/org/a11y/bus"),
                                       QStringLiteral("org.a11y.Bus"), QStringLiteral("GetAddress")),
        QDBus::Block, 2000);
    if (address.type() != QDBusMessage::ReplyMessage || address.arguments().isEmpty())
        return 0;
    const QString name = QStringLiteral("a11y");
    qint64 pid = 0;
    {
        QDBusConnection bus = QDBusConnection::connectToBus(address.arguments().constFirst().toString(), name);
        QDBusMessage ask = QDBusMessage::createMethodCall(
            QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
            QStringLiteral("org.freedesktop.DBus"), QStringLiteral("GetConnectionUnixProcessID"));
        ask << QStringLiteral("org.a11y.atspi.Registry");
        const QDBusMessage reply = bus.call(ask, QDBus::Block, 2000);
        if (reply.type() == QDBusMessage::ReplyMessage && !reply.arguments().isEmpty())
            pid = reply.arguments().constFirst().toLongLong();
    }
    QDBusConnection::disconnectFromBus(name);
    return pid;
}

bool waitForLine(QProcess &process, const QByteArray &line)
{
    QByteArray seen;
    while (process.waitForReadyRead(10'000)) {
        seen += process.readAllStandardOutput();
        if (seen.contains(line))
            return true;
    }
    return false;
}

} // namespace

class TestAtspiTree : public QObject {
    Q_OBJECT

    QProcess m_launcher;
    QProcess m_standIn;

private Q_SLOTS:
    void initTestCase()
    {
        if (!QFile::exists(launcher))
            QSKIP("at-spi2-core is not installed");
        if (!qEnvironmentVariableIsSet("DISPLAY"))
            QSKIP("needs the X display of the test session");
        QVERIFY(QDBusConnection::sessionBus().isConnected());
        // Whatever the launcher starts inherits its output; a test runner would wait on it.
        m_launcher.setStandardOutputFile(QProcess::nullDevice());
        m_launcher.setStandardErrorFile(QProcess::nullDevice());
        m_launcher.start(launcher, {QStringLiteral("--launch-immediately")});
        QVERIFY(m_launcher.waitForStarted());
        QTRY_VERIFY_WITH_TIMEOUT(
            QDBusConnection::sessionBus().interface()->isServiceRegistered(QStringLiteral("org.a11y.Bus")), 5000);
    }

    void cleanupTestCase()
    {
        if (m_standIn.state() != QProcess::NotRunning) {
            m_standIn.closeWriteChannel();
            if (!m_standIn.waitForFinished(5000))
                m_standIn.kill();
        }
        if (m_launcher.state() != QProcess::NotRunning) {
            if (const qint64 registry = registryPid(); registry > 0)
                ::kill(pid_t(registry), SIGTERM);
            m_launcher.terminate();
            if (!m_launcher.waitForFinished(5000))
                m_launcher.kill();
        }
    }

    void disabledBusIsNotTrusted()
    {
        // Earlier tests of the same session may have turned the bus on; the setting outlives them.
        QVERIFY(setAccessibilityEnabled(false));
        platform::AtspiTree tree({});
        QVERIFY(!tree.isEnabled());
        QVERIFY(setAccessibilityEnabled());
        QVERIFY(tree.isEnabled());
    }

    void readsTheStandInsMuteStateAndItsChange()
    {
        QVERIFY(setAccessibilityEnabled());
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
        env.insert(QStringLiteral("QT_LINUX_ACCESSIBILITY_ALWAYS_ON"), QStringLiteral("1"));
        // Qt's xcb start-up trips strict string checks inside libxkbcommon-x11, which is not ours to fix.
        env.insert(QStringLiteral("ASAN_OPTIONS"), QStringLiteral("detect_leaks=0"));
        m_standIn.setProcessEnvironment(env);
        m_standIn.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_standIn.start(QCoreApplication::applicationFilePath(), {QString::fromLatin1(childMode)});
        QVERIFY(waitForLine(m_standIn, "ready"));

        const int pid = int(m_standIn.processId());
        ZoomMuteObserver observer(std::make_unique<platform::AtspiTree>([pid] { return QList<int>{pid}; }));
        QTRY_VERIFY_WITH_TIMEOUT(observer.isMutedInZoom() == true, 10'000);

        // The control found first is read again next time: it must answer with its current description.
        m_standIn.write("unmute\n");
        QVERIFY(waitForLine(m_standIn, "changed"));
        QTRY_VERIFY_WITH_TIMEOUT(observer.isMutedInZoom() == false, 10'000);
    }

    void anotherApplicationIsNotZoom()
    {
        QVERIFY(m_standIn.state() == QProcess::Running);
        platform::AtspiTree tree([] { return QList<int>{int(::getpid())}; });
        QVERIFY(!tree.zoomApplication());
        QVERIFY(!mute::read(tree).muted);
    }
};

int main(int argc, char **argv)
{
    if (argc > 1 && qstrcmp(argv[1], childMode) == 0)
        return runStandIn(argc, argv);
    QCoreApplication app(argc, argv);
    TestAtspiTree test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "tst_atspitree.moc"
