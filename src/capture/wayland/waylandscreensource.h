#pragma once

#include "capture/hostclock.h"
#include "capture/screensource.h"
#include "capture/wayland/restoretokens.h"

#include <chrono>
#include <memory>
#include <mutex>

namespace qm {

class X11ScreenSource;

namespace wayland {
class FramePacer;
class PipeWireStream;
class ScreenCastPortal;
} // namespace wayland

struct WaylandSourceOptions {
    QString tokenFile;                             // empty: RestoreTokens' default
    std::chrono::milliseconds answerTime{180'000}; // how long the user may take in the dialog
    const HostClock *clock = nullptr;              // null: the monotonic clock
};

// The screen source of a Wayland session. Displays, and windows that can't be listed, are filmed through the
// desktop's screen-share dialog (xdg-desktop-portal's ScreenCast) and a PipeWire stream; the dialog shows once
// per source type, and later recordings start from the stored restore token. A window of XWayland (where Zoom
// usually runs) is filmed directly with x11grab, which needs no dialog; the root window never is, since
// under XWayland it reads black.
//
// displays() lists one display, "Screen": which monitor is filmed is the user's choice in the dialog.
// prepare() runs the dialog and returns the target with the shared stream's size; start() hands on the newest
// picture `fps` times a second on "app.quillmoor.screen", on the host clock. When the user stops sharing from
// the desktop, `failed` is called once and the video ends there.
class WaylandScreenSource final : public ScreenSource {
public:
    using Options = WaylandSourceOptions;

    explicit WaylandScreenSource(Options options = {});
    ~WaylandScreenSource() override;

    WaylandScreenSource(const WaylandScreenSource &) = delete;
    WaylandScreenSource &operator=(const WaylandScreenSource &) = delete;

    // XDG_SESSION_TYPE is "wayland", or WAYLAND_DISPLAY is set.
    static bool isWaylandSession();

    QList<DisplayInfo> displays() override;
    // XWayland's windows, when there is an XWayland.
    QList<WindowInfo> windows() override;
    std::optional<std::uint32_t> displayUnderPointer() override;

    bool picksWindows() const override { return true; }
    // Cancelling the dialog is screenPermissionDenied, and is remembered for the permission status. A refused
    // restore token is dropped and the dialog asked for once more.
    expected<VideoTarget, CaptureFailure> prepare(VideoTarget target) override;
    expected<void, QString> start(const VideoTarget &target, int fps, std::function<void(VideoFrame)> deliver,
                                  std::function<void(QString)> failed) override;
    // Ends the pictures, then the desktop's session.
    void stop() override;

private:
    struct Cast;
    expected<std::unique_ptr<Cast>, CaptureFailure> openCast(wayland::SourceType type);
    void ended(const QString &reason);

    Options m_options;
    MonotonicClock m_monotonic;
    wayland::RestoreTokens m_tokens;
    std::unique_ptr<X11ScreenSource> m_xwayland;
    std::unique_ptr<Cast> m_cast;
    bool m_xwaylandStarted = false;
};

} // namespace qm
