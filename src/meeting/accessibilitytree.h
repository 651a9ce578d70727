#pragma once

#include <QList>
#include <QString>

#include <memory>

namespace qm {

enum class AccessibleRole { other, frame, menuBar, menu, menuItem };

// One element of another application's accessibility tree. Every method is a synchronous cross-process call:
// use elements only on the mute observer's helper thread. Unreadable values read as empty.
class AccessibleElement {
public:
    virtual ~AccessibleElement() = default;
    virtual QString name() = 0;
    virtual QString description() = 0;
    virtual AccessibleRole role() = 0;
    virtual QList<std::shared_ptr<AccessibleElement>> children() = 0;
};
using ElementPtr = std::shared_ptr<AccessibleElement>;

// Entry to the accessibility tree. Created on any thread, then used only on the helper thread.
class AccessibilityTree {
public:
    virtual ~AccessibilityTree() = default;
    // "Trusted": the desktop's accessibility bus is on.
    virtual bool isEnabled() = 0;
    // Zoom's application element, or null when Zoom doesn't show one.
    virtual ElementPtr zoomApplication() = 0;
};

} // namespace qm
