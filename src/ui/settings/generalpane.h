#pragma once

#include <QWidget>

class QLineEdit;
class QPushButton;

namespace qm {
class AppSettings;
class Permissions;
class Updater;
} // namespace qm

namespace qm::ui {

// Zoom meetings, the tray icon, start at login, the library folder and update checks.
class GeneralPane : public QWidget {
    Q_OBJECT

public:
    GeneralPane(AppSettings &settings, Permissions &permissions, Updater &updater, QWidget *parent = nullptr);

private:
    void chooseLibraryFolder();
    void showLibraryFolder();

    AppSettings &m_settings;
    QLineEdit *m_folder = nullptr;
    QPushButton *m_reveal = nullptr;
};

} // namespace qm::ui
