#pragma once

#include "meeting/notifier.h"

#include <QDBusConnection>
#include <QHash>
#include <QObject>

#include <QObject>
#include <optional>

namespace qm::platform {

// Notifications through org.freedesktop.Notifications on the session bus, app name "Quillmoor", with the
// desktop entry as hint. Calls are sent without waiting for replies; errors are dropped. A notification about a
// recording carries the default action, and a click on it reaches the open handler.
class DBusNotifier : public QObject, public Notifier {
    Q_OBJECT

public:
    explicit DBusNotifier(QDBusConnection bus = QDBusConnection::sessionBus());

    void setUp() override;
    void post(const QString &title, const QString &body) override;
    void postAbout(const QString &title, const QString &body, const QUuid &recording) override;
    void setQuiet(bool quiet) override { m_quiet = quiet; }
    void setOpenHandler(std::function<void(const QUuid &)> handler) override { m_open = std::move(handler); }

private Q_SLOTS:
    void actionInvoked(uint id, const QString &action);
    void closed(uint id, uint reason);

private:
    void notify(const QString &title, const QString &body, const std::optional<QUuid> &recording);

    QDBusConnection m_bus;
    bool m_quiet = false;
    std::function<void(const QUuid &)> m_open;
    QHash<uint, QUuid> m_shown;
};

} // namespace qm::platform
