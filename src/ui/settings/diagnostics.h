#pragma once

#include <QString>

namespace qm::ui {

// What "Copy diagnostics" reports. It holds no API key and no path: a user's own model file is named by its
// file name only, and the library is described by its size, not its place.
struct Diagnostics {
    QString version;
    QString build;
    QString qtVersion;
    QString system;      // "Debian GNU/Linux 12 (bookworm)"
    QString sessionType; // $XDG_SESSION_TYPE
    QString desktop;     // $XDG_CURRENT_DESKTOP
    int inputDevices = 0;
    bool trayAvailable = false;
    bool keyringAvailable = false;
    QString provider; // the stored raw value
    QString model;    // the on-device model in use: a name, or a path
    bool modelInstalled = false;
    int recordings = 0;
};

// Plain text, one "Name: value" line each, for pasting into a bug report.
QString diagnosticsText(const Diagnostics &facts);

} // namespace qm::ui
