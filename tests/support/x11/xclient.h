#pragma once

#include "capture/x11/x11desktop.h"

#include <QByteArray>
#include <QList>
#include <QRect>
#include <QSize>

namespace qm::test {

// The test's own X client. Xvfb runs no window manager, so besides making windows it plays the window manager
// that publishes the client list.
class XClient {
public:
    XClient() : m_connection(xcb_connect(nullptr, nullptr))
    {
        if (!xcb_connection_has_error(m_connection.get()))
            m_screen = xcb_setup_roots_iterator(xcb_get_setup(m_connection.get())).data;
    }
    bool ok() const { return m_screen != nullptr; }
    xcb_window_t root() const { return m_screen->root; }
    QSize size() const { return QSize(m_screen->width_in_pixels, m_screen->height_in_pixels); }
    xcb_connection_t *c() const { return m_connection.get(); }

    // An override-redirect window of one colour (0xRRGGBB on the 24-bit visual).
    xcb_window_t window(xcb_window_t parent, QRect rect, std::uint32_t colour, bool map = true)
    {
        const xcb_window_t id = xcb_generate_id(c());
        const std::uint32_t values[] = {colour, 1}; // background, override-redirect
        xcb_create_window(c(), XCB_COPY_FROM_PARENT, id, parent, std::int16_t(rect.x()), std::int16_t(rect.y()),
                          std::uint16_t(rect.width()), std::uint16_t(rect.height()), 0, XCB_WINDOW_CLASS_INPUT_OUTPUT,
                          m_screen->root_visual, XCB_CW_BACK_PIXEL | XCB_CW_OVERRIDE_REDIRECT, values);
        if (map)
            xcb_map_window(c(), id);
        return id;
    }
    void setText(xcb_window_t window, const char *property, const char *type, const QByteArray &text)
    {
        xcb_change_property(c(), XCB_PROP_MODE_REPLACE, window, atom(property), atom(type), 8,
                            std::uint32_t(text.size()), text.constData());
    }
    void setValues(xcb_window_t window, const char *property, xcb_atom_t type, const QList<std::uint32_t> &values)
    {
        xcb_change_property(c(), XCB_PROP_MODE_REPLACE, window, atom(property), type, 32, std::uint32_t(values.size()),
                            values.constData());
    }
    xcb_atom_t atom(const char *name)
    {
        x11::Reply<xcb_intern_atom_reply_t> reply(
            xcb_intern_atom_reply(c(), xcb_intern_atom(c(), 0, std::uint16_t(qstrlen(name)), name), nullptr));
        return reply ? reply->atom : xcb_atom_t(XCB_ATOM_NONE);
    }
    // Returns once the server has carried out everything sent before.
    void sync()
    {
        x11::Reply<xcb_get_input_focus_reply_t>(xcb_get_input_focus_reply(c(), xcb_get_input_focus(c()), nullptr));
    }

private:
    x11::ConnectionPtr m_connection;
    xcb_screen_t *m_screen = nullptr;
};

} // namespace qm::test
