#include "platform/linux/dbusnotifier.h"

#include <QDBusMessage>
#include <QDBusPendingCall>
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

DBusNotifier::DBusNotifier(QDBusConnection bus) : m_bus(std::move(bus)) {}

void DBusNotifier::setUp()
{
    // Nothing to authorise on Linux; asking for the server's capabilities starts an activatable server early.
    m_bus.asyncCall(notificationsCall(QStringLiteral("GetCapabilities")));
}

void DBusNotifier::post(const QString &title, const QString &body)
{
    QVariantMap hints{{QStringLiteral("desktop-entry"), QStringLiteral("quillmoor")}};
    if (m_quiet)
        hints.insert(QStringLiteral("suppress-sound"), true);
    QDBusMessage call = notificationsCall(QStringLiteral("Notify"));
    call << QStringLiteral("Quillmoor") << 0u << QString() << title << body << QStringList() << hints << -1;
    m_bus.asyncCall(call);
}

} // namespace qm::platform
