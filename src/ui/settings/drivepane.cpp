#include "ui/settings/drivepane.h"

#include "app/appcontroller.h"
#include "app/appsettings.h"
#include "drive/drivesync.h"
#include "library/recordingstore.h"
#include "ui/settings/bindings.h"
#include "ui/settings/paneform.h"

#include <QDir>
#include <QFileDialog>
#include <QLabel>
#include <QLineEdit>
#include <QPointer>
#include <QProgressBar>
#include <QPushButton>
#include <QVBoxLayout>

namespace qm::ui {

DrivePane::DrivePane(AppSettings &settings, AppController &controller, QWidget *parent)
    : QWidget(parent), m_settings(settings), m_controller(controller)
{
    PaneForm form(this, tr("Google Drive"));

    auto *enabled = bind::checkBox(tr("Copy finished recordings to Google Drive"), "driveSyncEnabled", &settings,
                                   &AppSettings::driveSyncEnabled, &AppSettings::setDriveSyncEnabled,
                                   &AppSettings::driveSyncEnabledChanged);
    form.row(enabled);
    form.note(tr("Each recording is copied when it is finished and again when its transcript is ready."));
    form.gap();

    m_heading = valueLabel(QString());
    form.row(tr("Drive folder:"), m_heading);
    m_path = pathField(QString());
    m_path->setObjectName(QStringLiteral("driveRootPath"));
    form.row(m_path);

    auto *choose = new QPushButton(tr("Choose…"));
    m_useDetected = new QPushButton(tr("Use Detected"));
    connect(choose, &QPushButton::clicked, this, &DrivePane::chooseFolder);
    connect(m_useDetected, &QPushButton::clicked, &settings, [this] { m_settings.setDriveRootPath(QString()); });
    form.row(sideBySide({choose, m_useDetected}));
    form.note(tr("Quillmoor finds Drive folders mounted with rclone or google-drive-ocamlfuse, and Insync "
                 "folders."));
    connect(&settings, &AppSettings::driveRootPathChanged, this, &DrivePane::refreshFolder);
    form.gap();

    auto *subfolder = new QLineEdit;
    subfolder->setObjectName(QStringLiteral("driveSubfolder"));
    bind::text(subfolder, &settings, &AppSettings::driveSubfolder, &AppSettings::setDriveSubfolder,
               &AppSettings::driveSubfolderChanged);
    form.row(tr("&Subfolder:"), subfolder);
    form.note(tr("The folder inside your Drive that receives the copies; “a/b” makes one inside another."));
    form.gap();

    auto *media = bind::checkBox(tr("The recording's audio or video"), "driveIncludeMedia", &settings,
                                 &AppSettings::driveIncludeMedia, &AppSettings::setDriveIncludeMedia,
                                 &AppSettings::driveIncludeMediaChanged);
    form.row(tr("Copy:"), media);
    auto *transcript = bind::checkBox(tr("The transcript, as .md and .txt"), "driveIncludeTranscript", &settings,
                                      &AppSettings::driveIncludeTranscript, &AppSettings::setDriveIncludeTranscript,
                                      &AppSettings::driveIncludeTranscriptChanged);
    form.row(transcript);
    form.gap();

    m_copyAll = new QPushButton(tr("Copy All Recordings Now"));
    m_copyAll->setObjectName(QStringLiteral("copyAll"));
    connect(m_copyAll, &QPushButton::clicked, this, [this] { copyAll(); });
    m_progress = new QProgressBar;
    m_progress->setTextVisible(false);
    m_progress->setMaximumWidth(160);
    m_copyStatus = new QLabel;
    m_copyStatus->setWordWrap(true);
    form.row(sideBySide({m_copyAll, m_progress}));
    form.row(m_copyStatus);
    connect(&controller, &AppController::activitiesChanged, this, [this] {
        m_copy.update(m_controller.activities(), AppController::copyingLabel());
        showCopy();
    });
    form.finish();

    refreshFolder();
    showCopy();
}

void DrivePane::refreshFolder()
{
    m_folder = driveFolder(m_settings.driveRootPath(), DriveSync::detectedRoots());
    m_heading->setText(m_folder.heading);
    m_path->setText(QDir::toNativeSeparators(m_folder.path));
    m_path->setCursorPosition(0);
    m_path->setToolTip(m_path->text());
    m_path->setVisible(!m_folder.path.isEmpty());
    m_useDetected->setEnabled(m_folder.chosen);
    showCopy();
}

void DrivePane::chooseFolder()
{
    const QString start = m_folder.path.isEmpty() ? QDir::homePath() : m_folder.path;
    const QString chosen = QFileDialog::getExistingDirectory(this, tr("Choose Your Google Drive Folder"), start);
    if (!chosen.isEmpty())
        m_settings.setDriveRootPath(chosen);
}

QCoro::Task<> DrivePane::copyAll()
{
    if (m_copy.running())
        co_return;
    QList<QUuid> ready;
    for (const Recording &recording : m_controller.store().recordings()) {
        if (recording.state == ProcessingState::ready)
            ready.append(recording.id);
    }
    QPointer<DrivePane> self(this);
    m_copy.start(ready);
    showCopy();
    auto copying = m_controller.syncAllToDrive();
    co_await copying;
    if (!self)
        co_return;
    m_copy.finish();
    showCopy();
}

void DrivePane::showCopy()
{
    m_copyAll->setEnabled(m_folder.found && !m_copy.running());
    m_progress->setVisible(m_copy.running() && m_copy.total() > 0);
    m_progress->setRange(0, qMax(1, m_copy.total()));
    m_progress->setValue(m_copy.done());
    m_copyStatus->setText(m_copy.text());
    m_copyStatus->setVisible(!m_copyStatus->text().isEmpty());
}

} // namespace qm::ui
