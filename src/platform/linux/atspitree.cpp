#include "platform/linux/atspitree.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVariant>

// libatspi's headers use "signals" as an identifier, which QT_NO_KEYWORDS keeps free.
#include <atspi/atspi.h>

namespace qm::platform {

namespace {

struct GObjectUnref {
    void operator()(gpointer object) const { g_object_unref(object); }
};
using AccessiblePtr = std::unique_ptr<AtspiAccessible, GObjectUnref>;

QString takeText(gchar *text)
{
    const QString result = text ? QString::fromUtf8(text) : QString();
    g_free(text);
    return result;
}

class AtspiElement : public AccessibleElement {
public:
    explicit AtspiElement(AccessiblePtr accessible) : m_accessible(std::move(accessible)) {}

    QString name() override { return takeText(atspi_accessible_get_name(m_accessible.get(), nullptr)); }
    QString description() override { return takeText(atspi_accessible_get_description(m_accessible.get(), nullptr)); }
    AccessibleRole role() override
    {
        switch (atspi_accessible_get_role(m_accessible.get(), nullptr)) {
        case ATSPI_ROLE_FRAME:
        case ATSPI_ROLE_WINDOW:
        case ATSPI_ROLE_DIALOG:
            return AccessibleRole::frame;
        case ATSPI_ROLE_MENU_BAR:
            return AccessibleRole::menuBar;
        case ATSPI_ROLE_MENU:
            return AccessibleRole::menu;
        case ATSPI_ROLE_MENU_ITEM:
        case ATSPI_ROLE_CHECK_MENU_ITEM:
            return AccessibleRole::menuItem;
        default:
            return AccessibleRole::other;
        }
    }
    QList<ElementPtr> children() override
    {
        QList<ElementPtr> result;
        const gint count = atspi_accessible_get_child_count(m_accessible.get(), nullptr);
        for (gint i = 0; i < count; ++i) {
            if (AtspiAccessible *child = atspi_accessible_get_child_at_index(m_accessible.get(), i, nullptr))
                result.append(std::make_shared<AtspiElement>(AccessiblePtr(child)));
        }
        return result;
    }

private:
    AccessiblePtr m_accessible;
};

} // namespace

AtspiTree::AtspiTree(std::function<QList<int>()> zoomPids) : m_zoomPids(std::move(zoomPids)) {}

AtspiTree::~AtspiTree() = default;

bool AtspiTree::isEnabled()
{
    QDBusMessage get =
        QDBusMessage::createMethodCall(QStringLiteral("org.a11y.Bus"), QStringLiteral("/org/a11y/bus"),
                                       QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
    get << QStringLiteral("org.a11y.Status") << QStringLiteral("IsEnabled");
    const QDBusMessage reply = QDBusConnection::sessionBus().call(get, QDBus::Block, 500);
    return reply.type() == QDBusMessage::ReplyMessage && !reply.arguments().isEmpty() &&
           reply.arguments().constFirst().value<QDBusVariant>().variant().toBool();
}

ElementPtr AtspiTree::zoomApplication()
{
    if (!m_initialised) {
        // 0: initialised now; 1: already initialised elsewhere. Either way usable.
        if (atspi_init() < 0)
            return nullptr;
        atspi_set_timeout(1000, 2000);
        m_initialised = true;
    }
    const QList<int> pids = m_zoomPids ? m_zoomPids() : QList<int>();
    AccessiblePtr desktop(atspi_get_desktop(0));
    if (!desktop)
        return nullptr;
    const gint count = atspi_accessible_get_child_count(desktop.get(), nullptr);
    for (gint i = 0; i < count; ++i) {
        AccessiblePtr app(atspi_accessible_get_child_at_index(desktop.get(), i, nullptr));
        if (!app)
            continue;
        const int pid = int(atspi_accessible_get_process_id(app.get(), nullptr));
        const bool zoom = pids.isEmpty()
                              ? takeText(atspi_accessible_get_name(app.get(), nullptr)) == QLatin1String("zoom")
                              : pids.contains(pid);
        if (zoom) {
            // Nothing here runs a GLib main loop, so cached values would never learn of changes.
            atspi_accessible_set_cache_mask(app.get(), ATSPI_CACHE_NONE);
            return std::make_shared<AtspiElement>(std::move(app));
        }
    }
    return nullptr;
}

} // namespace qm::platform
