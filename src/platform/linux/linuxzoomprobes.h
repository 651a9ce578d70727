#pragma once

#include "capture/proc/zoomprocesses.h"
#include "capture/x11/x11desktop.h"
#include "meeting/zoomprobes.h"

#include <chrono>

namespace qm::platform {

// Zoom seen from outside on Linux: its processes in /proc, its recording streams on the sound server, and its
// windows in the X11 client list (a native Wayland session lists no windows, so there the window probe finds
// nothing). Each sound-server read is bounded by `pulseTimeout`.
class LinuxZoomProbes : public ZoomProbes {
public:
    explicit LinuxZoomProbes(QString procRoot = QStringLiteral("/proc"), QString display = {},
                             std::chrono::milliseconds pulseTimeout = std::chrono::milliseconds(500));

    QList<int> zoomProcesses() override;
    bool zoomIsUsingAudioInput(const QList<int> &zoomPids) override;
    bool zoomHasMeetingWindow(const QList<int> &zoomPids) override;

private:
    ProcZoomProcesses m_processes;
    x11::Desktop m_desktop;
    std::chrono::milliseconds m_pulseTimeout;
};

// Whether one of `windows` is on screen, belongs to one of `zoomPids` and has a meeting window's title.
bool hasZoomMeetingWindow(const QList<WindowInfo> &windows, const QList<int> &zoomPids);

} // namespace qm::platform
