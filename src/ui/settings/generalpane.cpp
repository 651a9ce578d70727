#include "ui/settings/generalpane.h"

#include "app/appsettings.h"
#include "app/updater.h"
#include "meeting/permissions.h"
#include "ui/settings/bindings.h"
#include "ui/settings/paneform.h"

#include <QButtonGroup>
#include <QDesktopServices>
#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QPushButton>
#include <QRadioButton>
#include <QUrl>
#include <QVBoxLayout>

namespace qm::ui {

GeneralPane::GeneralPane(AppSettings &settings, Permissions &permissions, Updater &updater, QWidget *parent)
    : QWidget(parent), m_settings(settings)
{
    PaneForm form(this, tr("General"));

    auto *modes = new QVBoxLayout;
    modes->setContentsMargins(0, 0, 0, 0);
    auto *group = new QButtonGroup(this);
    QRadioButton *first = nullptr;
    for (ZoomStartMode mode : allCases<ZoomStartMode>()) {
        auto *choice = new QRadioButton(label(mode));
        choice->setObjectName(QStringLiteral("zoomStartMode.") + rawValue(mode));
        group->addButton(choice, int(mode));
        modes->addWidget(choice);
        first = first ? first : choice;
    }
    const auto showMode = [group, &settings] {
        const QSignalBlocker quiet(group);
        group->button(int(settings.zoomStartMode()))->setChecked(true);
    };
    showMode();
    connect(group, &QButtonGroup::idClicked, &settings,
            [&settings](int id) { settings.setZoomStartMode(ZoomStartMode(id)); });
    connect(&settings, &AppSettings::zoomStartModeChanged, this, showMode);
    form.row(tr("When a Zoom meeting starts:"), modes, first);

    auto *autoStop = bind::checkBox(tr("Stop recording when the Zoom meeting ends"), "autoStopWhenZoomEnds", &settings,
                                    &AppSettings::autoStopWhenZoomEnds, &AppSettings::setAutoStopWhenZoomEnds,
                                    &AppSettings::autoStopWhenZoomEndsChanged);
    form.row(autoStop);
    form.gap();

    auto *timer = bind::checkBox(tr("Show the timer beside the tray icon"), "showTimerInMenuBar", &settings,
                                 &AppSettings::showTimerInMenuBar, &AppSettings::setShowTimerInMenuBar,
                                 &AppSettings::showTimerInMenuBarChanged);
    form.row(tr("Tray icon:"), timer);

    // The box shows what the desktop will really do, read back after every change, not what was clicked.
    auto *login = bind::checkBox(tr("Open Quillmoor when I log in"), "launchAtLogin", &permissions,
                                 &Permissions::launchAtLogin, &Permissions::setLaunchAtLogin, &Permissions::changed);
    form.row(tr("Start-up:"), login);

    auto *updates = bind::checkBox(tr("Check for updates automatically"), "automaticallyChecksForUpdates", &updater,
                                   &Updater::automaticallyChecks, &Updater::setAutomaticallyChecks,
                                   &Updater::automaticallyChecksChanged);
    form.row(tr("Updates:"), updates);
    form.gap();

    m_folder = new QLineEdit;
    m_folder->setObjectName(QStringLiteral("saveFolderPath"));
    m_folder->setReadOnly(true);
    auto *choose = new QPushButton(tr("Choose…"));
    m_reveal = new QPushButton(tr("Show in Files"));
    connect(choose, &QPushButton::clicked, this, &GeneralPane::chooseLibraryFolder);
    connect(m_reveal, &QPushButton::clicked, this, &GeneralPane::showLibraryFolder);
    const auto showFolder = [this] {
        m_folder->setText(QDir::toNativeSeparators(m_settings.saveFolderPath()));
        m_folder->setCursorPosition(0);
        m_reveal->setEnabled(QFileInfo(m_settings.saveFolderPath()).isDir());
    };
    showFolder();
    connect(&settings, &AppSettings::saveFolderPathChanged, this, showFolder);
    form.row(tr("&Library folder:"), m_folder);
    form.row(sideBySide({choose, m_reveal}));
    form.note(tr("Recordings already in a folder stay there when you choose another one. Choose that folder "
                 "again to see them."));
    form.finish();
}

void GeneralPane::chooseLibraryFolder()
{
    const QString chosen =
        QFileDialog::getExistingDirectory(this, tr("Choose the Library Folder"), m_settings.saveFolderPath());
    if (!chosen.isEmpty())
        m_settings.setSaveFolderPath(chosen);
}

void GeneralPane::showLibraryFolder()
{
    QDesktopServices::openUrl(QUrl::fromLocalFile(m_settings.saveFolderPath()));
}

} // namespace qm::ui
