#include "platform/linux/dbusnotifier.h"
#include "platform/linux/linuxpermissions.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QFile>
#include <QSignalSpy>
#include <QTest>

using namespace qm;
using namespace qm::platform;

namespace {

// A notification server on the private session bus that records what it was sent.
class NotificationServer : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")

public:
    struct Received {
        QString app, summary, body;
        QStringList actions;
        QVariantMap hints;
    };
    QList<Received> received;

public Q_SLOTS:
    uint Notify(const QString &app, uint, const QString &, const QString &summary, const QString &body,
                const QStringList &actions, const QVariantMap &hints, int)
    {
        received.append({app, summary, body, actions, hints});
        return uint(received.size());
    }
    QStringList GetCapabilities() { return {QStringLiteral("body")}; }
};

} // namespace

class TestDesktopServices : public QObject {
    Q_OBJECT

    QDBusConnection m_bus = QDBusConnection::sessionBus();
    NotificationServer m_server;
    const QString m_name = QStringLiteral("org.freedesktop.Notifications");

    void registerServer()
    {
        QVERIFY(m_bus.registerObject(QStringLiteral("/org/freedesktop/Notifications"), &m_server,
                                     QDBusConnection::ExportAllSlots));
        QVERIFY(m_bus.registerService(m_name));
    }
    void unregisterServer()
    {
        m_bus.unregisterService(m_name);
        m_bus.unregisterObject(QStringLiteral("/org/freedesktop/Notifications"));
    }
    static PermissionStatus notificationStatus(LinuxPermissionSources &sources)
    {
        std::optional<PermissionStatus> status;
        sources.notifications([&status](PermissionStatus s) { status = s; });
        [&status] { QTRY_VERIFY(status.has_value()); }();
        return status.value_or(PermissionStatus::notAsked);
    }

private Q_SLOTS:
    void initTestCase()
    {
        if (!m_bus.isConnected())
            QSKIP("Needs a session bus (dbus-run-session).");
        if (m_bus.interface()->isServiceRegistered(m_name))
            QSKIP("Another notification server owns the name on this bus.");
    }

    void notificationsReachTheServer_data()
    {
        QTest::addColumn<bool>("quiet");
        QTest::newRow("idle") << false;
        QTest::newRow("while recording") << true;
    }
    void notificationsReachTheServer()
    {
        QFETCH(bool, quiet);
        registerServer();
        m_server.received.clear();
        DBusNotifier notifier;
        notifier.setUp();
        notifier.setQuiet(quiet);
        notifier.post(QStringLiteral("Zoom meeting ended"), QStringLiteral("Recording stopped and saved."));
        QTRY_COMPARE(m_server.received.size(), 1);
        const auto &sent = m_server.received.constFirst();
        QCOMPARE(sent.app, QStringLiteral("Quillmoor"));
        QCOMPARE(sent.summary, QStringLiteral("Zoom meeting ended"));
        QCOMPARE(sent.body, QStringLiteral("Recording stopped and saved."));
        QCOMPARE(sent.hints.value(QStringLiteral("desktop-entry")).toString(),
                 QStringLiteral("app.quillmoor.Quillmoor"));
        QCOMPARE(sent.hints.value(QStringLiteral("suppress-sound")).toBool(), quiet);
        QVERIFY(sent.actions.isEmpty());

        // A notification about a recording opens it when clicked; a click on another one does nothing.
        QList<QUuid> opened;
        notifier.setOpenHandler([&](const QUuid &id) { opened.append(id); });
        const QUuid recording = QUuid::createUuid();
        notifier.postAbout(QStringLiteral("Recording saved"), QStringLiteral("Standup"), recording);
        QTRY_COMPARE(m_server.received.size(), 2);
        QCOMPARE(m_server.received.last().actions.value(0), QStringLiteral("default"));
        // A click names the id that the Notify reply carried, which reaches the notifier a moment after the server
        // has shown it; clicks on the earlier notification, which has no recording, do nothing meanwhile.
        const auto click = [this](uint id) {
            QDBusMessage signal = QDBusMessage::createSignal(QStringLiteral("/org/freedesktop/Notifications"), m_name,
                                                             QStringLiteral("ActionInvoked"));
            signal << id << QStringLiteral("default");
            m_bus.send(signal);
        };
        QTRY_VERIFY_WITH_TIMEOUT((click(1), click(2), !opened.isEmpty()), 10000);
        QVERIFY(std::all_of(opened.cbegin(), opened.cend(), [&](const QUuid &id) { return id == recording; }));
        unregisterServer();
    }

    void postingWithoutAServerIsSilent()
    {
        DBusNotifier notifier;
        notifier.post(QStringLiteral("Transcript ready"), QString());
        QTest::qWait(50);
    }

    void notificationStatusFollowsTheServer()
    {
        LinuxPermissionSources sources;
        // The standard session bus may offer an activatable server; only an owned or activatable name grants.
        const bool activatable = m_bus.interface()->activatableServiceNames().value().contains(m_name);
        QCOMPARE(notificationStatus(sources), activatable ? PermissionStatus::granted : PermissionStatus::denied);
        registerServer();
        QCOMPARE(notificationStatus(sources), PermissionStatus::granted);
        unregisterServer();
        PermissionServices missing;
        missing.notifications = QStringLiteral("app.quillmoor.NoSuchNotifications");
        LinuxPermissionSources without({}, m_bus, missing);
        QCOMPARE(notificationStatus(without), PermissionStatus::denied);
    }

    void accessibilityBusAbsentReadsDenied()
    {
        PermissionServices missing;
        missing.accessibilityBus = QStringLiteral("app.quillmoor.NoSuchA11yBus");
        LinuxPermissionSources sources({}, m_bus, missing);
        QCOMPARE(sources.accessibility(), PermissionStatus::denied);
        QVERIFY(!sources.enableAccessibility());
    }

    void launchAtLoginEntry()
    {
        LinuxPermissionSources sources;
        const QString path = autostartEntryPath();
        QVERIFY(path.endsWith(QStringLiteral("/autostart/quillmoor.desktop")));
        QVERIFY(!sources.launchAtLogin());
        QVERIFY(sources.setLaunchAtLogin(true).has_value());
        QVERIFY(sources.launchAtLogin());
        // A user who hid the entry in their desktop's start-up settings has turned it off.
        QFile file(path);
        QVERIFY(file.open(QIODevice::Append));
        file.write("Hidden=true\n");
        file.close();
        QVERIFY(!sources.launchAtLogin());
        QVERIFY(sources.setLaunchAtLogin(false).has_value());
        QVERIFY(!QFile::exists(path));
        QVERIFY(sources.setLaunchAtLogin(false).has_value());
    }

    void settingsPages_data()
    {
        QTest::addColumn<QString>("desktop");
        QTest::addColumn<int>("page");
        QTest::addColumn<QStringList>("installed");
        QTest::addColumn<QStringList>("command");
        const QStringList all{QStringLiteral("gnome-control-center"), QStringLiteral("systemsettings"),
                              QStringLiteral("pavucontrol")};
        QTest::newRow("gnome notifications")
            << QStringLiteral("ubuntu:GNOME") << int(SettingsPage::notifications) << all
            << QStringList{QStringLiteral("gnome-control-center"), QStringLiteral("notifications")};
        QTest::newRow("kde microphone") << QStringLiteral("KDE") << int(SettingsPage::microphone) << all
                                        << QStringList{QStringLiteral("systemsettings"),
                                                       QStringLiteral("kcm_pulseaudio")};
        QTest::newRow("xfce microphone") << QStringLiteral("XFCE") << int(SettingsPage::microphone) << all
                                         << QStringList{QStringLiteral("pavucontrol"), QStringLiteral("--tab=4")};
        QTest::newRow("gnome without its settings") << QStringLiteral("GNOME") << int(SettingsPage::notifications)
                                                    << QStringList{QStringLiteral("pavucontrol")} << QStringList();
        QTest::newRow("xfce notifications")
            << QStringLiteral("XFCE") << int(SettingsPage::notifications) << all << QStringList();
    }
    void settingsPages()
    {
        QFETCH(QString, desktop);
        QFETCH(int, page);
        QFETCH(QStringList, installed);
        const auto command = settingsCommand(SettingsPage(page), desktop,
                                             [&installed](const QString &name) { return installed.contains(name); });
        QTEST(command.value_or(QStringList()), "command");
    }
};

QTEST_GUILESS_MAIN(TestDesktopServices)
#include "tst_desktopservices.moc"
