#pragma once

#include "ui/tray/trayactions.h"

#include <QFrame>

class QCheckBox;
class QLabel;
class QPushButton;
class QToolButton;
class QVBoxLayout;

namespace qm::ui {

class Banner;
class MeetingLevelMeter;
class MicLevelMeter;
class TrayViewModel;

// The tray's panel: status, banners, the ways to record or the recording card, the recent recordings and the
// footer, top to bottom. It reads the view-model and calls the controller; it decides nothing itself.
//
// As a popup (beside the tray icon on X11) it has no frame and closes when it loses focus; as a window (on
// Wayland, or without a tray) it is an ordinary small window titled "Quillmoor".
class MenuBarView : public QFrame {
    Q_OBJECT

public:
    MenuBarView(TrayViewModel &model, TrayActions actions, QWidget *parent = nullptr);

    // Turns the panel into a popup or an ordinary window; call while hidden.
    void setPopup(bool popup);
    bool isPopup() const { return m_popup; }
    // Shows the panel (at `anchor`, the icon's screen rectangle, when it is a popup and one is known) and gives
    // it the keyboard.
    void present(const QRect &anchor = {});

protected:
    void keyPressEvent(QKeyEvent *event) override;

private:
    void refresh();
    void refreshRecent();
    void followLevels();

    TrayViewModel &m_model;
    TrayActions m_actions;
    bool m_popup = false;

    QLabel *m_status;
    QLabel *m_notice;
    Banner *m_permissionsBanner;
    Banner *m_zoomBanner;
    Banner *m_errorBanner;
    QPushButton *m_openScreenSettings;
    QPushButton *m_relaunch;
    QWidget *m_options;
    QCheckBox *m_includeMicrophone;
    QFrame *m_card;
    QLabel *m_cardTitle;
    QLabel *m_cardElapsed;
    MeetingLevelMeter *m_meetingMeter;
    MicLevelMeter *m_micMeter;
    QLabel *m_video;
    QLabel *m_muteNote;
    QPushButton *m_mute;
    QPushButton *m_pause;
    QPushButton *m_stop;
    QToolButton *m_discard;
    QLabel *m_recentHeading;
    QVBoxLayout *m_recentRows;
    QLabel *m_noRecent;
    QString m_recentKey;
};

} // namespace qm::ui
