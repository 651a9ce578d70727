// Renders the settings window, one PNG per pane, plus the Transcription pane with a cloud provider and a key.
// Runs inside the private session (scripts/screenshots): its keyring, sound server and display are real.

#include "shot.h"

#include "app/application.h"
#include "app/appsettings.h"
#include "transcription/whisper/modellibrary.h"
#include "ui/settings/settingswindow.h"

#include <QDir>
#include <QFile>
#include <QIcon>

using qm::ui::SettingsWindow;

namespace {

// A download stopped a third of the way, so the list shows a model that can be resumed.
void leavePartialDownload(qm::Application &app)
{
    QDir().mkpath(app.models().directory());
    QFile part(app.models().pathFor(QStringLiteral("small")) + QStringLiteral(".part"));
    if (part.open(QIODevice::WriteOnly))
        part.resize(qm::whisper::ModelLibrary::catalog()[4].bytes / 3);
}

} // namespace

int main(int argc, char *argv[])
{
    return qm::shots::run(argc, argv, [](qm::shots::Theme, const auto &save) {
        // GNOME's icon theme, as a GNOME session would give it.
        QIcon::setThemeName(QStringLiteral("Adwaita"));
        qm::Application app({.promptViews = {}, .watchZoom = false, .checkForUpdates = false});
        app.settings().setProvider(qm::TranscriptionProvider::onDevice);
        leavePartialDownload(app);
        SettingsWindow window(app);
        const QList<std::pair<SettingsWindow::Pane, QString>> panes{
            {SettingsWindow::Pane::general, QStringLiteral("settings-general")},
            {SettingsWindow::Pane::permissions, QStringLiteral("settings-permissions")},
            {SettingsWindow::Pane::recording, QStringLiteral("settings-recording")},
            {SettingsWindow::Pane::transcription, QStringLiteral("settings-transcription")},
            {SettingsWindow::Pane::drive, QStringLiteral("settings-drive")},
            {SettingsWindow::Pane::about, QStringLiteral("settings-about")},
        };
        for (const auto &[pane, name] : panes) {
            window.showPane(pane);
            save(&window, name);
        }
        app.settings().setAPIKey(QStringLiteral("screenshot-key"), qm::TranscriptionProvider::deepgram);
        app.settings().setProvider(qm::TranscriptionProvider::deepgram);
        window.showPane(SettingsWindow::Pane::transcription);
        save(&window, QStringLiteral("settings-transcription-cloud"));
        app.settings().setAPIKey(QString(), qm::TranscriptionProvider::deepgram);
        app.settings().setProvider(qm::TranscriptionProvider::onDevice);
    });
}
