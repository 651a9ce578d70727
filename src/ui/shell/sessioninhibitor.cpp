#include "ui/shell/sessioninhibitor.h"

#include "library/log.h"

#include <QDBusMessage>
#include <QDBusReply>

namespace qm::ui {

namespace {

const QString kLogin = QStringLiteral("org.freedesktop.login1");
const QString kPath = QStringLiteral("/org/freedesktop/login1");
const QString kManager = QStringLiteral("org.freedesktop.login1.Manager");
constexpr int kTimeoutMs = 2000;

} // namespace

SessionInhibitor::SessionInhibitor(QDBusConnection bus, QObject *parent) : QObject(parent), m_bus(std::move(bus))
{
    if (m_bus.isConnected())
        m_bus.connect(kLogin, kPath, kManager, QStringLiteral("PrepareForShutdown"), this,
                      SLOT(prepareForShutdown(bool)));
}

void SessionInhibitor::setHeld(bool held)
{
    if (held == isHeld())
        return;
    if (!held) {
        // Closing the last copy of the descriptor is what releases the inhibitor.
        m_lock = QDBusUnixFileDescriptor();
        return;
    }
    if (!m_bus.isConnected())
        return;
    QDBusMessage call = QDBusMessage::createMethodCall(kLogin, kPath, kManager, QStringLiteral("Inhibit"));
    call << QStringLiteral("shutdown:sleep") << QStringLiteral("Quillmoor") << tr("Saving a recording")
         << QStringLiteral("delay");
    const QDBusReply<QDBusUnixFileDescriptor> reply = m_bus.call(call, QDBus::Block, kTimeoutMs);
    if (reply.isValid())
        m_lock = reply.value();
    else
        logLine(QStringLiteral("no shutdown inhibitor: %1").arg(reply.error().message()));
}

void SessionInhibitor::prepareForShutdown(bool starting)
{
    if (starting)
        Q_EMIT shuttingDown();
}

} // namespace qm::ui
