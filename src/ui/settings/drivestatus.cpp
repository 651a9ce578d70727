#include "ui/settings/drivestatus.h"

#include "drive/drivesync.h"
#include "library/textutil.h"

#include <QCoreApplication>

namespace qm::ui {

namespace {

QString tr(const char *text)
{
    return QCoreApplication::translate("qm::ui::DriveStatus", text);
}

} // namespace

DriveFolder driveFolder(const QString &chosenRoot, const QList<QString> &detected)
{
    const QString chosen = trimSpacesAndTabs(chosenRoot);
    if (!chosen.isEmpty())
        return {tr("Using the folder you chose"), chosen, true, true};
    if (!detected.isEmpty())
        return {tr("Using the detected Drive folder"), detected.first(), false, true};
    return {SyncError::driveNotFound().description(), {}, false, false};
}

void DriveCopyProgress::start(const QList<QUuid> &recordings)
{
    m_pending = recordings;
    m_started.clear();
    m_done.clear();
    m_running = true;
    m_ran = true;
}

void DriveCopyProgress::update(const QHash<QUuid, QString> &activities, const QString &copyingLabel)
{
    for (const QUuid &id : std::as_const(m_pending)) {
        const bool copying = activities.value(id) == copyingLabel;
        if (copying && !m_started.contains(id))
            m_started.append(id);
        else if (!copying && m_started.contains(id) && !m_done.contains(id))
            m_done.append(id);
    }
}

QString DriveCopyProgress::text() const
{
    if (!m_ran)
        return {};
    if (total() == 0)
        return tr("There are no finished recordings to copy.");
    if (m_running)
        return tr("Copying %1 of %2 recordings…").arg(qMin(done() + 1, total())).arg(total());
    // A copy that failed has said so in its own notification; this only reports that the run is over.
    return total() == 1 ? tr("Finished copying 1 recording.") : tr("Finished copying %1 recordings.").arg(total());
}

} // namespace qm::ui
