#pragma once

#include "capture/screensource.h"

#include <QList>
#include <QPoint>
#include <QRect>
#include <QString>

#include <xcb/xcb.h>

#include <cstdlib>
#include <memory>
#include <optional>

namespace qm::x11 {

struct Disconnect {
    void operator()(xcb_connection_t *connection) const { xcb_disconnect(connection); }
};
// xcb hands out replies allocated with malloc.
struct FreeReply {
    void operator()(void *reply) const { std::free(reply); }
};
using ConnectionPtr = std::unique_ptr<xcb_connection_t, Disconnect>;
template <class T> using Reply = std::unique_ptr<T, FreeReply>;

// Reads the monitors, the window manager's client list and the pointer of one X screen over a connection of
// its own. Not thread-safe: one thread at a time. When the server can't be reached every query answers
// "nothing"; a connection the server dropped is replaced at the next query. Coordinates are pixels on the
// root window.
class Desktop {
public:
    // `displayName` as in $DISPLAY (":0", ":1.0"); empty means $DISPLAY.
    explicit Desktop(QString displayName);

    bool available();
    QSize screenSize();
    // RandR monitors; identified by their name atom. Without RandR 1.5, the whole screen as one display.
    QList<DisplayInfo> displays();
    // The clients in `_NET_CLIENT_LIST_STACKING` (else `_NET_CLIENT_LIST`), bottom first; windows that vanish
    // while being read are left out.
    QList<WindowInfo> windows();
    std::optional<QPoint> pointer();
    // The window's rectangle in root coordinates, or nothing when it doesn't exist (any more).
    std::optional<QRect> windowGeometry(xcb_window_t window);

private:
    struct Atoms {
        xcb_atom_t clientList = XCB_ATOM_NONE;
        xcb_atom_t clientListStacking = XCB_ATOM_NONE;
        xcb_atom_t wmName = XCB_ATOM_NONE;
        xcb_atom_t utf8String = XCB_ATOM_NONE;
        xcb_atom_t wmPid = XCB_ATOM_NONE;
        xcb_atom_t wmState = XCB_ATOM_NONE;
        xcb_atom_t wmStateHidden = XCB_ATOM_NONE;
    };

    xcb_connection_t *connection();
    QList<xcb_window_t> clientList();
    QString atomName(xcb_atom_t atom);

    QString m_displayName;
    ConnectionPtr m_connection;
    xcb_screen_t *m_screen = nullptr; // owned by m_connection
    Atoms m_atoms;
};

} // namespace qm::x11
