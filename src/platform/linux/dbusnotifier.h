#pragma once

#include "meeting/notifier.h"

#include <QDBusConnection>

namespace qm::platform {

// Notifications through org.freedesktop.Notifications on the session bus, app name "Quillmoor", with the
// desktop entry "quillmoor" as hint. Calls are sent without waiting for replies; errors are dropped.
class DBusNotifier : public Notifier {
public:
    explicit DBusNotifier(QDBusConnection bus = QDBusConnection::sessionBus());

    void setUp() override;
    void post(const QString &title, const QString &body) override;
    void setQuiet(bool quiet) override { m_quiet = quiet; }

private:
    QDBusConnection m_bus;
    bool m_quiet = false;
};

} // namespace qm::platform
