#pragma once

#include <QDBusConnection>
#include <QDBusUnixFileDescriptor>
#include <QObject>

namespace qm::ui {

// logind on the system bus: a "delay" inhibitor of shutdown and sleep held while a recording is captured or
// finished, and the announcement that the system is going down. Without logind (no system bus, a container)
// both quietly do nothing.
class SessionInhibitor : public QObject {
    Q_OBJECT

public:
    explicit SessionInhibitor(QDBusConnection bus = QDBusConnection::systemBus(), QObject *parent = nullptr);

    // Takes or releases the inhibitor; repeated calls with the same value do nothing.
    void setHeld(bool held);
    bool isHeld() const { return m_lock.isValid(); }

Q_SIGNALS:
    void shuttingDown();

private Q_SLOTS:
    void prepareForShutdown(bool starting);

private:
    QDBusConnection m_bus;
    QDBusUnixFileDescriptor m_lock;
};

} // namespace qm::ui
