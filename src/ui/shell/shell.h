#pragma once

#include <QObject>
#include <QUuid>

#include <functional>
#include <memory>
#include <optional>

namespace qm {
class Application;
}

namespace qm::ui {

class MenuBarView;
class QuitCoordinator;
class SingleInstance;
class TrayIcon;
class TrayViewModel;

// The windows the shell opens on request; each is made on first use by whoever provides it.
struct ShellWindows {
    // Opens the library, with a recording selected when one is given. Without it, a recording's folder (or the
    // library folder) opens in the file manager instead.
    std::function<void(std::optional<QUuid>)> openLibrary;
    // Opens the settings, on the Permissions pane when asked.
    std::function<void(bool permissions)> openSettings;
};

// The desktop program around the application's services: the tray icon and its panel, the single instance's
// requests, notifications' clicks, update notices and quitting. Built once in main, after the Application.
class Shell : public QObject {
    Q_OBJECT

public:
    Shell(Application &app, SingleInstance &instance, ShellWindows windows, QObject *parent = nullptr);
    ~Shell() override;

    void showPanel();
    TrayViewModel &model() { return *m_model; }
    TrayIcon &tray() { return *m_tray; }
    MenuBarView &panel() { return *m_panel; }
    QuitCoordinator &quitting() { return *m_quit; }
    // The user asked for a relaunch; main starts the new process once this one has quit.
    bool relaunchRequested() const { return m_relaunch; }

private:
    void trayVisibilityChanged(bool visible);
    void openFolder(std::optional<QUuid> recording);

    Application &m_app;
    ShellWindows m_windows;
    std::unique_ptr<TrayViewModel> m_model;
    std::unique_ptr<QuitCoordinator> m_quit;
    std::unique_ptr<TrayIcon> m_tray;
    std::unique_ptr<MenuBarView> m_panel;
    bool m_relaunch = false;
};

} // namespace qm::ui
