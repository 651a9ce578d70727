#include "capture/screensource.h"

#include <algorithm>

namespace qm {

namespace {

bool hasMeetingTitle(const WindowInfo &window)
{
    return window.title == u"Zoom Meeting" || window.title == u"Zoom Webinar" || window.title == u"Meeting";
}

qint64 area(const QRect &rect)
{
    return qint64(rect.width()) * rect.height();
}

} // namespace

std::optional<WindowInfo> zoomMeetingWindow(const QList<WindowInfo> &windows, const QList<int> &zoomPids)
{
    QList<WindowInfo> candidates;
    for (const WindowInfo &window : windows) {
        if (zoomPids.contains(window.pid) && window.geometry.width() > 200)
            candidates.append(window);
    }
    // A titled meeting window is the meeting even while minimised or on another workspace.
    for (const WindowInfo &window : candidates) {
        if (hasMeetingTitle(window))
            return window;
    }
    std::optional<WindowInfo> largest;
    for (const WindowInfo &window : candidates) {
        if (window.onScreen && (!largest || area(window.geometry) > area(largest->geometry)))
            largest = window;
    }
    return largest;
}

std::optional<DisplayInfo> displayToFilm(const QList<DisplayInfo> &displays, std::optional<std::uint32_t> chosen,
                                         const std::optional<WindowInfo> &zoomWindow,
                                         std::optional<std::uint32_t> underPointer)
{
    const auto withId = [&](std::optional<std::uint32_t> id) -> std::optional<DisplayInfo> {
        if (!id)
            return std::nullopt;
        const auto found = std::find_if(displays.begin(), displays.end(),
                                        [&](const DisplayInfo &display) { return display.id == *id; });
        return found == displays.end() ? std::nullopt : std::optional(*found);
    };
    if (auto display = withId(chosen))
        return display;
    if (zoomWindow) {
        for (const DisplayInfo &display : displays) {
            if (display.geometry.intersects(zoomWindow->geometry))
                return display;
        }
    }
    if (auto display = withId(underPointer))
        return display;
    if (displays.isEmpty())
        return std::nullopt;
    return displays.first();
}

} // namespace qm
