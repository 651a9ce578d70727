#include "capture/x11/x11desktop.h"

#include <QSize>

#include <xcb/randr.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>
#include <vector>

namespace qm::x11 {

namespace {

// Receives the error of one reply at a time and releases it. Every reply is fetched with an error slot, since
// without one xcb queues the error as an event that nothing here would ever read.
class Errors {
public:
    Errors() = default;
    Errors(const Errors &) = delete;
    Errors &operator=(const Errors &) = delete;
    ~Errors() { std::free(m_last); }

    xcb_generic_error_t **slot()
    {
        std::free(m_last);
        m_last = nullptr;
        return &m_last;
    }

private:
    xcb_generic_error_t *m_last = nullptr;
};

// Longest title read, in 32-bit units; titles longer than this are cut.
constexpr std::uint32_t kTitleLength = 1024;
// Most clients listed.
constexpr std::uint32_t kClientListLength = 16384;

QString textOf(const xcb_get_property_reply_t *reply)
{
    if (!reply || reply->format != 8)
        return {};
    const auto *data = static_cast<const char *>(xcb_get_property_value(reply));
    const int length = xcb_get_property_value_length(reply);
    // ICCCM's STRING is Latin-1; the EWMH names and most toolkits' WM_NAME are UTF-8.
    return reply->type == XCB_ATOM_STRING ? QString::fromLatin1(data, length) : QString::fromUtf8(data, length);
}

template <class T> std::vector<T> valuesOf(const xcb_get_property_reply_t *reply, xcb_atom_t type)
{
    static_assert(sizeof(T) == 4);
    if (!reply || reply->type != type || reply->format != 32)
        return {};
    const auto *data = static_cast<const T *>(xcb_get_property_value(reply));
    return std::vector<T>(data, data + xcb_get_property_value_length(reply) / 4);
}

} // namespace

Desktop::Desktop(QString displayName) : m_displayName(std::move(displayName)) {}

xcb_connection_t *Desktop::connection()
{
    if (m_connection && !xcb_connection_has_error(m_connection.get()))
        return m_connection.get();
    m_connection.reset();
    m_screen = nullptr;

    const QByteArray name = m_displayName.toLocal8Bit();
    int screenNumber = 0;
    ConnectionPtr connection(xcb_connect(name.isEmpty() ? nullptr : name.constData(), &screenNumber));
    if (xcb_connection_has_error(connection.get()))
        return nullptr;
    auto roots = xcb_setup_roots_iterator(xcb_get_setup(connection.get()));
    for (int i = 0; i < screenNumber && roots.rem; ++i)
        xcb_screen_next(&roots);
    if (!roots.rem)
        return nullptr;

    const std::array<std::pair<const char *, xcb_atom_t *>, 7> names{{
        {"_NET_CLIENT_LIST", &m_atoms.clientList},
        {"_NET_CLIENT_LIST_STACKING", &m_atoms.clientListStacking},
        {"_NET_WM_NAME", &m_atoms.wmName},
        {"UTF8_STRING", &m_atoms.utf8String},
        {"_NET_WM_PID", &m_atoms.wmPid},
        {"_NET_WM_STATE", &m_atoms.wmState},
        {"_NET_WM_STATE_HIDDEN", &m_atoms.wmStateHidden},
    }};
    std::array<xcb_intern_atom_cookie_t, names.size()> cookies{};
    for (std::size_t i = 0; i < names.size(); ++i)
        cookies[i] = xcb_intern_atom(connection.get(), 0, std::uint16_t(std::strlen(names[i].first)), names[i].first);
    Errors errors;
    for (std::size_t i = 0; i < names.size(); ++i) {
        Reply<xcb_intern_atom_reply_t> atom(xcb_intern_atom_reply(connection.get(), cookies[i], errors.slot()));
        *names[i].second = atom ? atom->atom : xcb_atom_t(XCB_ATOM_NONE);
    }

    m_screen = roots.data;
    m_connection = std::move(connection);
    return m_connection.get();
}

bool Desktop::available()
{
    return connection() != nullptr;
}

QSize Desktop::screenSize()
{
    if (!connection())
        return {};
    return QSize(m_screen->width_in_pixels, m_screen->height_in_pixels);
}

QString Desktop::atomName(xcb_atom_t atom)
{
    Errors errors;
    Reply<xcb_get_atom_name_reply_t> reply(
        xcb_get_atom_name_reply(m_connection.get(), xcb_get_atom_name(m_connection.get(), atom), errors.slot()));
    if (!reply)
        return {};
    return QString::fromLatin1(xcb_get_atom_name_name(reply.get()), xcb_get_atom_name_name_length(reply.get()));
}

QList<DisplayInfo> Desktop::displays()
{
    xcb_connection_t *c = connection();
    if (!c)
        return {};
    const QRect wholeScreen(0, 0, m_screen->width_in_pixels, m_screen->height_in_pixels);
    const QList<DisplayInfo> fallback{{m_screen->root, QStringLiteral("Screen"), wholeScreen}};

    // A request to an extension the server lacks would close the connection, so ask first.
    const xcb_query_extension_reply_t *randr = xcb_get_extension_data(c, &xcb_randr_id);
    if (!randr || !randr->present)
        return fallback;
    Errors errors;
    Reply<xcb_randr_query_version_reply_t> version(
        xcb_randr_query_version_reply(c, xcb_randr_query_version(c, 1, 5), errors.slot()));
    if (!version || version->major_version < 1 || (version->major_version == 1 && version->minor_version < 5))
        return fallback;
    Reply<xcb_randr_get_monitors_reply_t> monitors(
        xcb_randr_get_monitors_reply(c, xcb_randr_get_monitors(c, m_screen->root, 1), errors.slot()));
    if (!monitors)
        return fallback;

    QList<DisplayInfo> result;
    for (auto it = xcb_randr_get_monitors_monitors_iterator(monitors.get()); it.rem; xcb_randr_monitor_info_next(&it)) {
        const xcb_randr_monitor_info_t *monitor = it.data;
        const QRect geometry(monitor->x, monitor->y, monitor->width, monitor->height);
        if (monitor->name == XCB_ATOM_NONE || geometry.isEmpty())
            continue;
        result.append({monitor->name, QString(), geometry});
    }
    for (DisplayInfo &display : result)
        display.name = atomName(display.id);
    return result.isEmpty() ? fallback : result;
}

QList<xcb_window_t> Desktop::clientList()
{
    xcb_connection_t *c = m_connection.get();
    Errors errors;
    for (xcb_atom_t list : {m_atoms.clientListStacking, m_atoms.clientList}) {
        Reply<xcb_get_property_reply_t> reply(xcb_get_property_reply(
            c, xcb_get_property(c, 0, m_screen->root, list, XCB_ATOM_WINDOW, 0, kClientListLength), errors.slot()));
        const auto windows = valuesOf<xcb_window_t>(reply.get(), XCB_ATOM_WINDOW);
        if (!windows.empty())
            return QList<xcb_window_t>(windows.begin(), windows.end());
    }
    return {};
}

QList<WindowInfo> Desktop::windows()
{
    xcb_connection_t *c = connection();
    if (!c)
        return {};
    struct Pending {
        xcb_window_t id;
        xcb_get_window_attributes_cookie_t attributes;
        xcb_get_geometry_cookie_t geometry;
        xcb_translate_coordinates_cookie_t origin;
        xcb_get_property_cookie_t netName, name, pid, state;
    };
    // All requests go out before any reply is awaited: one round trip for the whole list.
    std::vector<Pending> pending;
    for (xcb_window_t id : clientList()) {
        pending.push_back({
            id,
            xcb_get_window_attributes(c, id),
            xcb_get_geometry(c, id),
            xcb_translate_coordinates(c, id, m_screen->root, 0, 0),
            xcb_get_property(c, 0, id, m_atoms.wmName, m_atoms.utf8String, 0, kTitleLength),
            xcb_get_property(c, 0, id, XCB_ATOM_WM_NAME, XCB_GET_PROPERTY_TYPE_ANY, 0, kTitleLength),
            xcb_get_property(c, 0, id, m_atoms.wmPid, XCB_ATOM_CARDINAL, 0, 1),
            xcb_get_property(c, 0, id, m_atoms.wmState, XCB_ATOM_ATOM, 0, 64),
        });
    }

    QList<WindowInfo> result;
    Errors errors;
    for (const Pending &p : pending) {
        // Every reply is taken, even after a failure, so that none is left behind in xcb.
        Reply<xcb_get_window_attributes_reply_t> attributes(
            xcb_get_window_attributes_reply(c, p.attributes, errors.slot()));
        Reply<xcb_get_geometry_reply_t> geometry(xcb_get_geometry_reply(c, p.geometry, errors.slot()));
        Reply<xcb_translate_coordinates_reply_t> origin(xcb_translate_coordinates_reply(c, p.origin, errors.slot()));
        Reply<xcb_get_property_reply_t> netName(xcb_get_property_reply(c, p.netName, errors.slot()));
        Reply<xcb_get_property_reply_t> name(xcb_get_property_reply(c, p.name, errors.slot()));
        Reply<xcb_get_property_reply_t> pid(xcb_get_property_reply(c, p.pid, errors.slot()));
        Reply<xcb_get_property_reply_t> state(xcb_get_property_reply(c, p.state, errors.slot()));
        if (!attributes || !geometry || !origin)
            continue;

        WindowInfo window;
        window.id = p.id;
        window.title = textOf(netName.get());
        if (window.title.isEmpty())
            window.title = textOf(name.get());
        const auto pids = valuesOf<std::uint32_t>(pid.get(), XCB_ATOM_CARDINAL);
        window.pid = pids.empty() ? 0 : int(pids.front());
        window.geometry = QRect(origin->dst_x, origin->dst_y, geometry->width, geometry->height);
        const auto states = valuesOf<xcb_atom_t>(state.get(), XCB_ATOM_ATOM);
        const bool hidden = std::find(states.begin(), states.end(), m_atoms.wmStateHidden) != states.end();
        window.onScreen = attributes->map_state == XCB_MAP_STATE_VIEWABLE && !hidden;
        result.append(window);
    }
    return result;
}

std::optional<QPoint> Desktop::pointer()
{
    xcb_connection_t *c = connection();
    if (!c)
        return std::nullopt;
    Errors errors;
    Reply<xcb_query_pointer_reply_t> reply(
        xcb_query_pointer_reply(c, xcb_query_pointer(c, m_screen->root), errors.slot()));
    if (!reply || !reply->same_screen)
        return std::nullopt;
    return QPoint(reply->root_x, reply->root_y);
}

std::optional<QRect> Desktop::windowGeometry(xcb_window_t window)
{
    xcb_connection_t *c = connection();
    if (!c)
        return std::nullopt;
    const auto geometryCookie = xcb_get_geometry(c, window);
    const auto originCookie = xcb_translate_coordinates(c, window, m_screen->root, 0, 0);
    Errors errors;
    Reply<xcb_get_geometry_reply_t> geometry(xcb_get_geometry_reply(c, geometryCookie, errors.slot()));
    Reply<xcb_translate_coordinates_reply_t> origin(xcb_translate_coordinates_reply(c, originCookie, errors.slot()));
    if (!geometry || !origin)
        return std::nullopt;
    return QRect(origin->dst_x, origin->dst_y, geometry->width, geometry->height);
}

} // namespace qm::x11
