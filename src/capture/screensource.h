#pragma once

#include "capture/capturefailure.h"
#include "capture/mediasample.h"
#include "library/result.h"

#include <QList>
#include <QRect>
#include <QString>

#include <cstdint>
#include <functional>
#include <optional>

namespace qm {

// What the screen track films.
struct VideoTarget {
    enum class Kind { display, window };
    Kind kind = Kind::display;
    std::uint32_t id = 0; // display: the monitor's identifier; window: the X11 window id
    QRect geometry;       // in pixels, on the root window
    QString description;  // "Zoom meeting window" or the display's name
};

// A window as the window list reports it.
struct WindowInfo {
    std::uint32_t id = 0;
    int pid = 0;
    QString title;
    QRect geometry;
    bool onScreen = true;
};

// A monitor as the display server reports it.
struct DisplayInfo {
    std::uint32_t id = 0; // stable for the session; 0 is never used ("automatic")
    QString name;         // model or output name
    QRect geometry;
};

// The screen-capture service: lists displays and windows, and grabs frames of one target.
//
// Frames are delivered on a grabber thread owned by the implementation, stamped with the host clock at the
// moment they were read; `failed` is called (on that thread) once if grabbing stops by itself. start() and
// stop() are called from one controlling thread; stop() returns only after the last delivery.
class ScreenSource {
public:
    virtual ~ScreenSource() = default;

    // Empty when the desktop can't be listed (for example a Wayland session without X11).
    virtual QList<DisplayInfo> displays() = 0;
    // Top-level windows in stacking order, bottom first.
    virtual QList<WindowInfo> windows() = 0;
    // The display under the pointer, if known.
    virtual std::optional<std::uint32_t> displayUnderPointer() = 0;

    // Whether a window target with id 0 stands for "the window the user picks in the desktop's dialog", for
    // desktops whose windows can't be listed.
    virtual bool picksWindows() const { return false; }
    // Settles what start() will film, before the track is made: a desktop that asks the user what to share asks
    // here (this may take as long as the user does), and the returned target carries the size that will be
    // filmed. A source that must be stopped afterwards is stopped by stop(), started or not.
    virtual expected<VideoTarget, CaptureFailure> prepare(VideoTarget target) { return target; }

    // Starts grabbing `target` at `fps` frames a second, with the pointer drawn in. An error is a sentence
    // for the user.
    virtual expected<void, QString> start(const VideoTarget &target, int fps, std::function<void(VideoFrame)> deliver,
                                          std::function<void(QString)> failed) = 0;
    virtual void stop() = 0;
};

// The Zoom meeting window among `windows`, if there is one: a window of a Zoom process wider than 200 pixels
// titled "Zoom Meeting", "Zoom Webinar" or "Meeting"; otherwise the only, or else the largest, such window
// that is on screen (the earlier one on equal areas).
std::optional<WindowInfo> zoomMeetingWindow(const QList<WindowInfo> &windows, const QList<int> &zoomPids);

// The display to film when no meeting window is filmed: `chosen` when it is among `displays`; else the one
// holding `zoomWindow` (the first whose area intersects it); else the one under the pointer; else the first.
std::optional<DisplayInfo> displayToFilm(const QList<DisplayInfo> &displays, std::optional<std::uint32_t> chosen,
                                         const std::optional<WindowInfo> &zoomWindow,
                                         std::optional<std::uint32_t> underPointer);

} // namespace qm
