#include "capture/proc/zoomprocesses.h"

#include <QDir>
#include <QFile>

namespace qm {

namespace {

QByteArray readSmall(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.read(4096) : QByteArray();
}

bool isZoom(const QString &processDir)
{
    const QByteArray name = readSmall(processDir + QStringLiteral("/comm")).trimmed();
    if (name == "zoom" || name == "zoom.real" || name == "ZoomLauncher")
        return true;
    // Flatpak runs every app in a scope named after its id.
    return readSmall(processDir + QStringLiteral("/cgroup")).contains("app-flatpak-us.zoom.");
}

} // namespace

ProcZoomProcesses::ProcZoomProcesses(QString procRoot) : m_root(std::move(procRoot)) {}

QList<int> ProcZoomProcesses::zoomProcesses()
{
    QList<int> found;
    const QDir root(m_root);
    for (const QString &entry : root.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        bool numeric = false;
        const int pid = entry.toInt(&numeric);
        if (numeric && isZoom(root.filePath(entry)))
            found.append(pid);
    }
    return found;
}

} // namespace qm
