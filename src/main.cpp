#include "app/application.h"
#include "app/appsettings.h"
#include "cli/arguments.h"
#include "cli/commandline.h"
#include "library/log.h"
#include "library/recordingstore.h"
#include "ui/library/librarywindow.h"
#include "ui/prompt/promptcard.h"
#include "ui/settings/settingswindow.h"
#include "ui/shell/shell.h"
#include "ui/shell/singleinstance.h"
#include "ui/tray/symbols.h"

#include <QApplication>
#include <QProcess>

#include <memory>

#include <cstdio>
#include <unistd.h>

namespace {

void nameApplication()
{
    QCoreApplication::setApplicationName(QStringLiteral("Quillmoor"));
    QCoreApplication::setApplicationVersion(QStringLiteral(QM_VERSION));
}

// Without a session bus, libdbus and GLib would start one of their own (with an accessibility bus beside it)
// that outlives this process. Pointing them at the place a session bus would be makes them fail fast instead.
void withoutAutolaunchedBus()
{
    if (qEnvironmentVariableIsSet("DBUS_SESSION_BUS_ADDRESS"))
        return;
    const QByteArray runtime = qgetenv("XDG_RUNTIME_DIR");
    const QByteArray socket =
        (runtime.isEmpty() ? QByteArray("/run/user/") + QByteArray::number(::getuid()) : runtime) + "/bus";
    qputenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + socket);
}

bool hasDisplay()
{
    return qEnvironmentVariableIsSet("DISPLAY") || qEnvironmentVariableIsSet("WAYLAND_DISPLAY") ||
           qEnvironmentVariableIsSet("QT_QPA_PLATFORM");
}

} // namespace

int main(int argc, char *argv[])
{
    QStringList arguments;
    for (int i = 0; i < argc; ++i)
        arguments.append(QString::fromLocal8Bit(argv[i]));

    withoutAutolaunchedBus();
    // A command runs without a display; only the tray needs the windowing system.
    if (qm::cli::wantsCommandLine(arguments)) {
        QCoreApplication app(argc, argv);
        nameApplication();
        return qm::cli::run(QCoreApplication::arguments());
    }

    if (!hasDisplay()) {
        std::fputs("Quillmoor needs a desktop session to show its tray icon, and none was found (DISPLAY and "
                   "WAYLAND_DISPLAY are unset). Run “quillmoor --help” for the commands that work without one.\n",
                   stderr);
        return 1;
    }
    QApplication app(argc, argv);
    nameApplication();
    QApplication::setDesktopFileName(QStringLiteral("app.quillmoor.Quillmoor"));
    QApplication::setQuitOnLastWindowClosed(false);
    qm::ui::symbols::useFallbackTheme();

    QStringList addresses;
    for (const QString &argument : QCoreApplication::arguments().mid(1)) {
        if (!argument.startsWith(u'-'))
            addresses.append(argument);
    }
    qm::ui::SingleInstance instance;
    if (!instance.claim()) {
        // Another Quillmoor runs in this session: it shows itself (or takes the address) and this run ends.
        if (qm::ui::SingleInstance::handOver(addresses))
            return 0;
        qm::logLine(QStringLiteral("another Quillmoor holds this session but doesn't answer"));
        return 1;
    }

    qm::Application quillmoor({.promptViews = qm::ui::makePromptCardView, .watchZoom = true, .checkForUpdates = true});
    qm::logLine(QStringLiteral("started; library at %1 with %2 recordings")
                    .arg(quillmoor.store().rootPath())
                    .arg(quillmoor.store().count()));
    if (!quillmoor.settings().keyringAvailable())
        qm::logLine(QStringLiteral("no keyring answered; API keys can't be saved until one is available"));

    // Each window is made the first time it is asked for and kept for the rest of the run.
    std::unique_ptr<qm::ui::LibraryWindow> library;
    std::unique_ptr<qm::ui::SettingsWindow> settings;
    qm::ui::ShellWindows windows{
        .openLibrary =
            [&](std::optional<QUuid> id) {
                if (!library)
                    library = std::make_unique<qm::ui::LibraryWindow>(quillmoor.controller());
                library->showRecording(id);
            },
        .openSettings =
            [&](bool permissions) {
                if (!settings)
                    settings = std::make_unique<qm::ui::SettingsWindow>(quillmoor);
                settings->showPane(permissions ? qm::ui::SettingsWindow::Pane::permissions
                                               : qm::ui::SettingsWindow::Pane::general);
            },
    };
    qm::ui::Shell shell(quillmoor, instance, windows);
    const int status = QApplication::exec();
    if (shell.relaunchRequested())
        QProcess::startDetached(QCoreApplication::applicationFilePath(), {});
    return status;
}
