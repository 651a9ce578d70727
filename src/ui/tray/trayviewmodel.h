#pragma once

#include "app/appcontroller.h"
#include "library/recording.h"

#include <QList>
#include <QObject>
#include <QString>

#include <optional>

namespace qm::ui {

// What the tray icon, its menu and the panel show, decided from the controller, the settings, the Zoom monitor
// and the permissions. Pixel-free: the widgets read it and call the controller; tests drive it directly.
//
// Main thread only. `changed` fires whenever anything below may read differently; the level meters follow the
// controller's `levelsChanged` themselves, since they move ten times a second.
class TrayViewModel : public QObject {
    Q_OBJECT

public:
    enum class IconState { idle, processing, recording, paused };
    Q_ENUM(IconState)

    static constexpr int kRecentCount = 4;

    explicit TrayViewModel(AppController &controller, QObject *parent = nullptr);

    AppController &controller() { return m_controller; }

    IconState iconState() const;
    // The elapsed time drawn beside the icon while recording with the timer setting on; empty otherwise.
    QString timerText() const;
    QString tooltip() const;
    QString statusLine() const;

    bool isIdle() const { return m_controller.phase() == AppController::Phase::idle; }
    // The recording card replaces the three ways to record from "Starting…" until the capture has stopped.
    bool showsRecordingCard() const { return !isIdle(); }
    bool showsPermissionsBanner() const;
    bool showsZoomBanner() const;
    QString errorBanner() const { return m_controller.errorMessageText(); }
    // The error is one the desktop's settings can fix, so the banner offers them and a relaunch.
    bool errorOffersSettings() const { return m_controller.permissionProblem(); }

    QString recordingCardTitle() const;
    QString videoLine() const;
    QString micButtonText() const;
    QString micButtonHelp() const;
    QString muteNote() const;
    QString pauseButtonText() const;
    bool canToggleMicrophone() const { return m_controller.activeRecordingUsesMicrophone(); }

    // The newest recordings, the one being recorded left out, at most four.
    QList<Recording> recent() const;
    // The status symbols' meaning for a recent row: its activity label, its error, or empty.
    QString recentDetail(const Recording &recording) const;

    // While a quit waits for the recording to be saved, the status says so whatever the phase.
    void setQuitting(bool quitting);
    bool isQuitting() const { return m_quitting; }
    // Why the program has no tray icon (shown once in the panel), or empty.
    void setTrayNotice(const QString &notice);
    static QString noTrayNotice();
    QString trayNotice() const { return m_trayNotice; }
    // A newer release to mention in the panel, or empty.
    void setUpdateNotice(const QString &notice);
    QString updateNotice() const { return m_updateNotice; }

    static QString title(RecordingSource source);
    static QString subtitle(RecordingSource source);

Q_SIGNALS:
    void changed();

private:
    AppController &m_controller;
    bool m_quitting = false;
    QString m_trayNotice;
    QString m_updateNotice;
};

} // namespace qm::ui
