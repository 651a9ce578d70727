#pragma once

#include "ui/settings/drivestatus.h"

#include <QCoroTask>
#include <QWidget>

class QLabel;
class QLineEdit;
class QProgressBar;
class QPushButton;

namespace qm {
class AppController;
class AppSettings;
} // namespace qm

namespace qm::ui {

// Copying to Google Drive: on or off, the folder in use (detected or chosen), the subfolder, what is copied,
// and copying every finished recording now.
class DrivePane : public QWidget {
    Q_OBJECT

public:
    DrivePane(AppSettings &settings, AppController &controller, QWidget *parent = nullptr);

    // Looks for Drive folders again (a mount may have appeared since).
    void refreshFolder();

private:
    void chooseFolder();
    QCoro::Task<> copyAll();
    void showCopy();

    AppSettings &m_settings;
    AppController &m_controller;
    DriveFolder m_folder;
    DriveCopyProgress m_copy;
    QLabel *m_heading = nullptr;
    QLineEdit *m_path = nullptr;
    QPushButton *m_useDetected = nullptr;
    QPushButton *m_copyAll = nullptr;
    QProgressBar *m_progress = nullptr;
    QLabel *m_copyStatus = nullptr;
};

} // namespace qm::ui
