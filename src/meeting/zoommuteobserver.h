#pragma once

#include "meeting/accessibilitytree.h"

#include <QObject>
#include <QThread>

#include <chrono>
#include <memory>
#include <optional>

namespace qm {

// How a read of Zoom's mute state went: the answer (absent when it can't be told) and the control that gave it.
struct MuteReading {
    std::optional<bool> muted;
    ElementPtr control;
};

namespace mute {
// What one element says by itself: its description ends in "audio muted" / "audio unmuted", or it is a menu
// item titled "Unmute Audio" / "Mute Audio" (any letter case).
std::optional<bool> stateOf(AccessibleElement &element);
// The first answer at `depth` or below, descending no deeper than depth 4.
MuteReading search(const ElementPtr &element, int depth);
// Zoom's menus: frame → menu bar → menu → menu item.
MuteReading stateFromMenu(const ElementPtr &app);
// Controls below windows titled exactly "Zoom Meeting".
MuteReading stateFromMeetingWindow(const ElementPtr &app);
// The whole read: unknown when the tree isn't enabled or Zoom isn't there; the menu route, then the windows.
MuteReading read(AccessibilityTree &tree);
} // namespace mute

// Answers "is the user muted in Zoom?" without stalling the main thread.
//
// Main thread only. Reads of the accessibility tree run on a helper thread; isMutedInZoom() answers at once
// with the latest reading and asks for a fresh one (the controller calls it every 0.5 s while recording, so the
// answer lags by at most one tick plus the read). A read that takes longer than `timeout` makes the answer
// unknown until one completes. The control that answered is remembered and read first next time.
class ZoomMuteObserver : public QObject {
    Q_OBJECT

public:
    explicit ZoomMuteObserver(std::unique_ptr<AccessibilityTree> tree,
                              std::chrono::milliseconds timeout = std::chrono::milliseconds(1500),
                              QObject *parent = nullptr);
    // Waits for a read in progress (each accessibility call is itself bounded by its implementation).
    ~ZoomMuteObserver() override;

    std::optional<bool> isMutedInZoom();

Q_SIGNALS:
    // A read finished (or timed out) with a different answer.
    void mutedInZoomChanged();

private:
    void request();
    void answered(std::optional<bool> muted, int generation);

    QThread m_thread;
    QObject *m_worker = nullptr; // lives on m_thread
    std::optional<bool> m_muted;
    bool m_reading = false;
    int m_generation = 0;
    std::chrono::milliseconds m_timeout;
};

} // namespace qm
