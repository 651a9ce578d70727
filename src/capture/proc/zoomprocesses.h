#pragma once

#include "capture/soundserver.h"

#include <QString>

namespace qm {

// Finds the Zoom client among running processes by reading /proc: processes named "zoom", "zoom.real" or
// "ZoomLauncher" (the deb/rpm and snap builds) and Flatpak processes of an app id beginning with "us.zoom".
// Unreadable entries are skipped silently.
class ProcZoomProcesses : public ProcessList {
public:
    explicit ProcZoomProcesses(QString procRoot = QStringLiteral("/proc"));
    QList<int> zoomProcesses() override;

private:
    QString m_root;
};

} // namespace qm
