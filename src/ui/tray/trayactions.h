#pragma once

#include <QUuid>

#include <functional>
#include <optional>

class QWidget;

namespace qm::ui {

// Where the tray's menu and panel send what the controller doesn't do itself: windows, the file browser and
// quitting. The shell fills these in.
struct TrayActions {
    std::function<void(std::optional<QUuid>)> openLibrary;
    // True opens the Permissions pane.
    std::function<void(bool permissions)> openSettings;
    std::function<void()> openFolder;
    std::function<void()> quit;
    std::function<void()> relaunch;
};

// Asks before a recording is thrown away; true when the user chose "Discard".
bool confirmDiscard(QWidget *parent);

} // namespace qm::ui
