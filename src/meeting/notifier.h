#pragma once

#include <QString>
#include <QUuid>

#include <functional>

namespace qm {

// Immediate user notifications. Main thread only. Nothing here reports failure: a desktop without a
// notification server simply shows nothing.
class Notifier {
public:
    virtual ~Notifier() = default;
    // Called once, when the controller is created, before the first post().
    virtual void setUp() = 0;
    // Shows one notification now; returns without waiting for the desktop.
    virtual void post(const QString &title, const QString &body) = 0;
    // A notification about one recording: where the desktop lets the user click it, the click calls the handler
    // given to setOpenHandler with `recording`.
    virtual void postAbout(const QString &title, const QString &body, const QUuid &recording)
    {
        Q_UNUSED(recording);
        post(title, body);
    }
    virtual void setOpenHandler(std::function<void(const QUuid &)> handler) { Q_UNUSED(handler); }
    // While quiet (a recording runs), notifications ask the desktop not to play a sound, which the recording
    // of the computer's output would otherwise hear.
    virtual void setQuiet(bool quiet) = 0;
};

} // namespace qm
