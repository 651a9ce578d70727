#include "platform/linux/linuxzoomprobes.h"

#include "platform/linux/pulsesnapshot.h"

namespace qm::platform {

LinuxZoomProbes::LinuxZoomProbes(QString procRoot, QString display, std::chrono::milliseconds pulseTimeout)
    : m_processes(std::move(procRoot)), m_desktop(std::move(display)), m_pulseTimeout(pulseTimeout)
{}

QList<int> LinuxZoomProbes::zoomProcesses()
{
    return m_processes.zoomProcesses();
}

bool LinuxZoomProbes::zoomIsUsingAudioInput(const QList<int> &)
{
    const std::optional<PulseSnapshot> snapshot = readPulseSnapshot(m_pulseTimeout);
    return snapshot && zoomIsRecording(*snapshot);
}

bool LinuxZoomProbes::zoomHasMeetingWindow(const QList<int> &zoomPids)
{
    if (zoomPids.isEmpty())
        return false;
    return hasZoomMeetingWindow(m_desktop.windows(), zoomPids);
}

bool hasZoomMeetingWindow(const QList<WindowInfo> &windows, const QList<int> &zoomPids)
{
    for (const WindowInfo &window : windows) {
        if (window.onScreen && window.pid != 0 && zoomPids.contains(window.pid) && isMeetingWindowTitle(window.title))
            return true;
    }
    return false;
}

} // namespace qm::platform
