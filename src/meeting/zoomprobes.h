#pragma once

#include <QList>
#include <QString>

namespace qm {

// What ZoomMonitor asks the system on each poll. Called on the main thread, so every call must come back
// promptly (implementations bound their own waits). Any failure answers "nothing found" (empty or false) and
// is never reported.
class ZoomProbes {
public:
    virtual ~ZoomProbes() = default;
    // Process ids of the running Zoom client and its helpers; empty when Zoom isn't running.
    virtual QList<int> zoomProcesses() = 0;
    // Whether one of `zoomPids` (or Zoom's voice engine) is recording from an input right now.
    virtual bool zoomIsUsingAudioInput(const QList<int> &zoomPids) = 0;
    // Whether one of `zoomPids` shows a meeting window (see isMeetingWindowTitle).
    virtual bool zoomHasMeetingWindow(const QList<int> &zoomPids) = 0;
};

// For runs that don't follow Zoom: nothing is ever found.
class NoZoomProbes : public ZoomProbes {
public:
    QList<int> zoomProcesses() override { return {}; }
    bool zoomIsUsingAudioInput(const QList<int> &) override { return false; }
    bool zoomHasMeetingWindow(const QList<int> &) override { return false; }
};

// Whether a window title names a Zoom meeting window: "Zoom Meeting", "Zoom Webinar", "Meeting" or
// "Zoom Workplace Meeting", compared whole and ignoring case.
bool isMeetingWindowTitle(const QString &title);

} // namespace qm
