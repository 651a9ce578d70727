#pragma once

#include "capture/screensource.h"

#include <QString>

#include <atomic>
#include <memory>

class QThread;

namespace qm {

namespace x11 {
class Desktop;
}

// The screen source of an X11 session: lists monitors (RandR), the window manager's clients (EWMH) and the
// pointer over xcb, and films with FFmpeg's x11grab device, the pointer drawn in.
//
// A display target films the rectangle `target.geometry` of the root window (when it is empty, the current
// rectangle of the monitor `target.id`); a window target films the window `target.id` at its own size.
// Frames are the X server's pixels as they are, one per tick of `fps`, delivered on the thread
// "app.quillmoor.screen". Without an X server (DISPLAY unset, a Wayland session without XWayland) the lists
// are empty and start() refuses.
//
// All members are called from one controlling thread; the callbacks given to start() run on the grabber
// thread and must not call back into this object.
class X11ScreenSource final : public ScreenSource {
public:
    // `displayName` as in $DISPLAY (":0"); empty means $DISPLAY.
    explicit X11ScreenSource(QString displayName = {});
    // Stops a running grab first.
    ~X11ScreenSource() override;

    X11ScreenSource(const X11ScreenSource &) = delete;
    X11ScreenSource &operator=(const X11ScreenSource &) = delete;

    QList<DisplayInfo> displays() override;
    QList<WindowInfo> windows() override;
    std::optional<std::uint32_t> displayUnderPointer() override;

    // Refuses while a grab is running; `fps` below 1 counts as 1.
    expected<void, QString> start(const VideoTarget &target, int fps, std::function<void(VideoFrame)> deliver,
                                  std::function<void(QString)> failed) override;
    void stop() override;

    // The sentence start() gives when there is no X server to film.
    static QString noX11Message();

private:
    struct Grab;
    void run(Grab &grab);

    QString m_displayName;
    std::unique_ptr<x11::Desktop> m_desktop;
    std::unique_ptr<Grab> m_grab;
    std::unique_ptr<QThread> m_thread;
    std::atomic<bool> m_stopping{false};
};

} // namespace qm
