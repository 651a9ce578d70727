#include "ui/shell/shell.h"

#include "app/appcontroller.h"
#include "app/application.h"
#include "app/updater.h"
#include "library/log.h"
#include "library/recordingstore.h"
#include "meeting/notifier.h"
#include "ui/shell/quitcoordinator.h"
#include "ui/shell/singleinstance.h"
#include "ui/tray/menubarview.h"
#include "ui/tray/trayicon.h"
#include "ui/tray/trayviewmodel.h"

#include <QDBusConnection>
#include <QDesktopServices>
#include <QDir>
#include <QGuiApplication>
#include <QUrl>

namespace qm::ui {

namespace {

bool canPlacePopups()
{
    // A Wayland client can't put a window beside the tray icon; there the panel is an ordinary window.
    return QGuiApplication::platformName() != QLatin1String("wayland");
}

} // namespace

Shell::Shell(Application &app, SingleInstance &instance, ShellWindows windows, QObject *parent)
    : QObject(parent), m_app(app), m_windows(std::move(windows))
{
    AppController &controller = app.controller();
    m_model = std::make_unique<TrayViewModel>(controller);
    m_quit = std::make_unique<QuitCoordinator>(controller);
    connect(m_quit.get(), &QuitCoordinator::quittingChanged, m_model.get(), &TrayViewModel::setQuitting);

    TrayActions actions{
        .openLibrary =
            [this](std::optional<QUuid> id) {
                if (m_windows.openLibrary)
                    m_windows.openLibrary(id);
                else
                    openFolder(id);
            },
        .openSettings =
            [this](bool permissions) {
                if (m_windows.openSettings)
                    m_windows.openSettings(permissions);
            },
        .openFolder = [this] { openFolder(std::nullopt); },
        .quit = [this] { m_quit->requestQuit(); },
        .relaunch =
            [this] {
                m_relaunch = true;
                m_quit->requestQuit();
            },
    };
    m_panel = std::make_unique<MenuBarView>(*m_model, actions);
    m_tray = std::make_unique<TrayIcon>(*m_model, actions);
    connect(m_tray.get(), &TrayIcon::activated, this, [this](const QRect &geometry) {
        if (m_panel->isVisible() && m_panel->isPopup())
            m_panel->hide();
        else
            m_panel->present(geometry);
    });
    connect(m_tray.get(), &TrayIcon::visibilityChanged, this, &Shell::trayVisibilityChanged);
    trayVisibilityChanged(m_tray->isVisible());

    connect(&instance, &SingleInstance::activateRequested, this, &Shell::showPanel);
    connect(&instance, &SingleInstance::openRequested, this, [](const QStringList &uris) {
        // Addresses of the quillmoor: scheme belong to account sign-in, which this build doesn't offer.
        for (const QString &uri : uris)
            logLine(QStringLiteral("ignored %1")
                        .arg(QUrl(uri).scheme() == QLatin1String("quillmoor")
                                 ? QStringLiteral("a quillmoor: address")
                                 : QStringLiteral("an address of another scheme")));
    });
    app.notifier().setOpenHandler([actions](const QUuid &id) { actions.openLibrary(id); });

    Updater &updater = app.updater();
    connect(&updater, &Updater::availableVersionChanged, this, [this, &updater] {
        m_model->setUpdateNotice(updater.availableVersion().isEmpty()
                                     ? QString()
                                     : tr("Quillmoor %1 is available.").arg(updater.availableVersion()));
    });

    m_quit->watchSignals();
    m_quit->watchSession();
}

Shell::~Shell() = default;

void Shell::showPanel()
{
    m_panel->present();
}

void Shell::trayVisibilityChanged(bool visible)
{
    const bool wasShown = m_panel->isVisible();
    m_panel->hide();
    m_panel->setPopup(visible && canPlacePopups());
    if (visible) {
        m_model->setTrayNotice(QString());
        if (wasShown && !m_panel->isPopup())
            m_panel->present();
        return;
    }
    // Never run invisibly: without a tray the panel is the program's window.
    m_model->setTrayNotice(TrayViewModel::noTrayNotice());
    m_panel->present();
}

void Shell::openFolder(std::optional<QUuid> recording)
{
    QString path = m_app.store().rootPath();
    if (recording) {
        if (const auto found = m_app.store().recording(*recording))
            path = found->folderPath();
    }
    // A new library's folder is made when the first recording is; the user asked to see it, so make it now.
    QDir().mkpath(path);
    if (!QDesktopServices::openUrl(QUrl::fromLocalFile(path)))
        logLine(QStringLiteral("no file manager opened the library folder"));
}

} // namespace qm::ui
