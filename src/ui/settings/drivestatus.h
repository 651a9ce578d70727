#pragma once

#include <QHash>
#include <QList>
#include <QString>
#include <QUuid>

namespace qm::ui {

// What the Google Drive pane says about the folder copies go to.
struct DriveFolder {
    QString heading; // "Using the detected Drive folder", "Using the folder you chose", or why there is none
    QString path;    // empty when there is none
    bool chosen = false;
    bool found = false;
};

// `chosenRoot` is the driveRootPath setting; `detected` what detection found, best first.
DriveFolder driveFolder(const QString &chosenRoot, const QList<QString> &detected);

// Follows "Copy all recordings now" through the controller's activity labels: the controller copies the
// recordings one after another and labels each with `copyingLabel` while it does.
class DriveCopyProgress {
public:
    void start(const QList<QUuid> &recordings);
    // Call with the controller's activities whenever they change.
    void update(const QHash<QUuid, QString> &activities, const QString &copyingLabel);
    void finish() { m_running = false; }

    bool running() const { return m_running; }
    int done() const { return int(m_done.size()); }
    int total() const { return int(m_pending.size()); }
    // "Copying 2 of 5 recordings…", "Finished copying 5 recordings.", "There are no finished recordings to copy."
    QString text() const;

private:
    QList<QUuid> m_pending;
    QList<QUuid> m_started;
    QList<QUuid> m_done;
    bool m_running = false;
    bool m_ran = false;
};

} // namespace qm::ui
