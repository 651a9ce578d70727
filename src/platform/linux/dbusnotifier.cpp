#include "platform/linux/dbusnotifier.h"

#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QPointer>
#include <QVariantMap>

namespace qm::platform {

namespace {

QDBusMessage notificationsCall(const QString &method)
{
    return QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.Notifications"),
                                          QStringLiteral("/org/freedesktop/Notifications"),
                                          QStringLiteral("org.freedesktop.Notifications"), method);
}

} // namespace

DBusNotifier::DBusNotifier(QDBusConnection bus) : m_bus(std::move(bus))
{
    const QString service = QStringLiteral("org.freedesktop.Notifications");
    const QString path = QStringLiteral("/org/freedesktop/Notifications");
    m_bus.connect(service, path, service, QStringLiteral("ActionInvoked"), this, SLOT(actionInvoked(uint, QString)));
    m_bus.connect(service, path, service, QStringLiteral("NotificationClosed"), this, SLOT(closed(uint, uint)));
}

void DBusNotifier::setUp()
{
    // Nothing to authorise on Linux; asking for the server's capabilities starts an activatable server early.
    m_bus.asyncCall(notificationsCall(QStringLiteral("GetCapabilities")));
}

void DBusNotifier::post(const QString &title, const QString &body)
{
    notify(title, body, std::nullopt);
}

void DBusNotifier::postAbout(const QString &title, const QString &body, const QUuid &recording)
{
    notify(title, body, recording);
}

void DBusNotifier::notify(const QString &title, const QString &body, const std::optional<QUuid> &recording)
{
    QVariantMap hints{{QStringLiteral("desktop-entry"), QStringLiteral("app.quillmoor.Quillmoor")}};
    if (m_quiet)
        hints.insert(QStringLiteral("suppress-sound"), true);
    QStringList actions;
    if (recording)
        actions << QStringLiteral("default") << QObject::tr("Open");
    QDBusMessage call = notificationsCall(QStringLiteral("Notify"));
    call << QStringLiteral("Quillmoor") << 0u << QStringLiteral("app.quillmoor.Quillmoor") << title << body << actions
         << hints << -1;
    QDBusPendingCall pending = m_bus.asyncCall(call);
    if (!recording)
        return;
    auto *watcher = new QDBusPendingCallWatcher(pending, this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this, watcher, id = *recording] {
        const QDBusPendingReply<uint> reply = *watcher;
        if (!reply.isError())
            m_shown.insert(reply.value(), id);
        watcher->deleteLater();
    });
}

void DBusNotifier::actionInvoked(uint id, const QString &action)
{
    const auto found = m_shown.constFind(id);
    if (found == m_shown.constEnd() || action != QLatin1String("default"))
        return;
    const QUuid recording = found.value();
    if (m_open)
        m_open(recording);
}

void DBusNotifier::closed(uint id, uint)
{
    m_shown.remove(id);
}

} // namespace qm::platform
