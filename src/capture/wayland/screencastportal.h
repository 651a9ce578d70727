#pragma once

#include "capture/wayland/restoretokens.h"
#include "library/result.h"

#include <QSize>
#include <QString>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

class QThread;

namespace qm::wayland {

class PortalWorker;

// Why the portal gave no screen cast.
struct PortalFailure {
    enum class Kind {
        unavailable,  // no portal, or one without ScreenCast
        cancelled,    // the user closed the dialog
        refusedToken, // the restore token was rejected as malformed
        failed,       // the desktop reported an error
        timedOut,     // no answer in time
    };
    Kind kind = Kind::failed;
    QString detail; // for the log, not the user
};

// The stream a started session shares.
struct CastStream {
    std::uint32_t node = 0; // the PipeWire node
    QSize size;             // as the portal reports it; may be empty
    SourceType type = SourceType::monitor;
};

// One screen-cast session of xdg-desktop-portal (org.freedesktop.portal.ScreenCast, version 4 or later for
// restore tokens): CreateSession, SelectSources with persist mode 2 and the given restore token, Start,
// OpenPipeWireRemote. Every call answers later through a Request object, whose Response signal is subscribed
// to before the call is made.
//
// All D-Bus traffic runs on a thread of this object's ("app.quillmoor.portal") over a session-bus connection of
// its own, so that answers arrive while the caller, whichever thread it is, waits. The calls block their caller
// until the portal answers or the time runs out. The session is closed when the object goes away.
class ScreenCastPortal {
public:
    ScreenCastPortal();
    ~ScreenCastPortal();

    ScreenCastPortal(const ScreenCastPortal &) = delete;
    ScreenCastPortal &operator=(const ScreenCastPortal &) = delete;

    // Asks for one source of `type`. `restoreToken` (may be empty) skips the dialog when the desktop still
    // knows it. `answerTime` bounds the wait for the user's choice; the other steps have a short limit.
    // Once only per object.
    expected<CastStream, PortalFailure> open(SourceType type, const QString &restoreToken,
                                             std::chrono::milliseconds answerTime);
    // The token Start returned for the next session (empty when the desktop keeps no choices).
    QString newRestoreToken();
    // A descriptor of PipeWire's connection for this session, owned by the caller.
    expected<int, PortalFailure> openPipeWireRemote();
    // Called once, on the portal's thread, when the desktop ends a started session. Set before open().
    void setClosedHandler(std::function<void()> handler);
    // Ends the session; no closed handler runs after this.
    void close();

private:
    void run(std::function<void()> work);

    std::unique_ptr<QThread> m_thread;
    std::unique_ptr<PortalWorker> m_worker;
};

} // namespace qm::wayland
