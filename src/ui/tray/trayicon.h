#pragma once

#include "ui/tray/trayactions.h"

#include <QObject>
#include <QPointer>
#include <QTimer>

#include <memory>

class QAction;
class QDBusServiceWatcher;
class QMenu;
class QSystemTrayIcon;

namespace qm::ui {

class TrayViewModel;

// The tray icon and its menu. The icon says what Quillmoor is doing (with the elapsed time drawn beside the
// record symbol while the timer setting is on); the menu holds every action as a plain item, because
// StatusNotifierItem hosts export only those.
//
// Qt picks XEmbed or StatusNotifierItem when the first icon is made, so the icon is made only once a host is
// there: at start, when org.kde.StatusNotifierWatcher appears on the bus, or at one of a few retries for an
// XEmbed tray that starts late. `isVisible` tells whether an icon is shown now.
class TrayIcon : public QObject {
    Q_OBJECT

public:
    TrayIcon(TrayViewModel &model, TrayActions actions, QObject *parent = nullptr);
    ~TrayIcon() override;

    bool isVisible() const;
    QMenu &menu() { return *m_menu; }
    // The icon as it is drawn now, for tests and screenshots.
    QIcon currentIcon() const;

Q_SIGNALS:
    // A left click on the icon (hosts that report it); `geometry` is the icon's screen rectangle when known.
    void activated(const QRect &geometry);
    void visibilityChanged(bool visible);

private:
    void tryCreate();
    void refresh();
    void rebuildRecent();

    TrayViewModel &m_model;
    TrayActions m_actions;
    std::unique_ptr<QMenu> m_menu;
    std::unique_ptr<QSystemTrayIcon> m_icon;
    std::unique_ptr<QDBusServiceWatcher> m_hostWatcher;
    QTimer m_retry;
    int m_retriesLeft = 5;
    QTimer m_debounce;
    QString m_iconKey;

    QAction *m_status;
    QList<QAction *> m_recordActions;
    QAction *m_includeMicrophone;
    QAction *m_pause;
    QAction *m_mute;
    QAction *m_stop;
    QAction *m_discard;
    QAction *m_recentSeparator;
    QList<QAction *> m_recent;
    QString m_recentKey;
};

} // namespace qm::ui
