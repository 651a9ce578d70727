#pragma once

#include "meeting/accessibilitytree.h"

#include <QList>

#include <functional>

namespace qm::platform {

// Zoom's accessibility tree over AT-SPI 2 (libatspi). Used only on the mute observer's helper thread, which
// is the only thread in the program that calls libatspi. Every call is bounded by libatspi's method timeout,
// set short here. Zoom's application is the one whose process is among `zoomPids()` (or that calls itself
// "zoom" when no process is known).
class AtspiTree : public AccessibilityTree {
public:
    explicit AtspiTree(std::function<QList<int>()> zoomPids);
    ~AtspiTree() override;

    bool isEnabled() override;
    ElementPtr zoomApplication() override;

private:
    std::function<QList<int>()> m_zoomPids;
    bool m_initialised = false;
};

} // namespace qm::platform
