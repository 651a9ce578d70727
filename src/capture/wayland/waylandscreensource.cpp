#include "capture/wayland/waylandscreensource.h"

#include "capture/wayland/framepacer.h"
#include "capture/wayland/pipewirestream.h"
#include "capture/wayland/screencastportal.h"
#include "capture/x11/x11screensource.h"
#include "library/log.h"

#include <QCoreApplication>

namespace qm {

using namespace wayland;

namespace {

// A stream that says nothing of its size gets this long to negotiate one.
constexpr std::chrono::milliseconds kNegotiationTime{5'000};

QString sharingEnded()
{
    return QCoreApplication::translate("qm::WaylandScreenSource", "Screen sharing was stopped from the desktop.");
}

void keep(const expected<void, QString> &written)
{
    if (!written)
        logLine(QStringLiteral("Couldn't keep the screen-sharing token: ") + written.error());
}

} // namespace

// One shared stream, from the dialog to stop(). The callbacks of PipeWire's and the portal's threads use only
// this; destruction runs from the last member up, so the portal's thread and then PipeWire's stop before the
// pacer and the state they use go.
struct WaylandScreenSource::Cast {
    explicit Cast(const HostClock &clock) : pacer(std::make_unique<FramePacer>(clock)) {}

    void end(const QString &reason)
    {
        pacer->end();
        std::function<void(QString)> report;
        {
            const std::lock_guard lock(mutex);
            if (endedReason)
                return;
            endedReason = reason;
            report = failed;
        }
        logLine(QStringLiteral("Screen sharing ended: ") + reason);
        if (report)
            report(sharingEnded());
    }

    std::mutex mutex;
    std::function<void(QString)> failed; // set by start()
    std::optional<QString> endedReason;
    QSize size;
    std::unique_ptr<FramePacer> pacer;
    std::unique_ptr<PipeWireStream> stream;
    std::unique_ptr<ScreenCastPortal> portal;
};

WaylandScreenSource::WaylandScreenSource(Options options)
    : m_options(std::move(options)), m_tokens(m_options.tokenFile), m_xwayland(std::make_unique<X11ScreenSource>())
{
    if (!m_options.clock)
        m_options.clock = &m_monotonic;
}

WaylandScreenSource::~WaylandScreenSource()
{
    stop();
}

bool WaylandScreenSource::isWaylandSession()
{
    return qEnvironmentVariable("XDG_SESSION_TYPE") == u"wayland" || !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY");
}

QList<DisplayInfo> WaylandScreenSource::displays()
{
    return {DisplayInfo{1, QCoreApplication::translate("qm::WaylandScreenSource", "Screen"), QRect()}};
}

QList<WindowInfo> WaylandScreenSource::windows()
{
    return m_xwayland->windows();
}

std::optional<std::uint32_t> WaylandScreenSource::displayUnderPointer()
{
    return std::nullopt;
}

expected<VideoTarget, CaptureFailure> WaylandScreenSource::prepare(VideoTarget target)
{
    if (target.kind == VideoTarget::Kind::window && target.id != 0)
        return target; // an XWayland window, filmed by x11grab
    stop();
    auto cast = openCast(target.kind == VideoTarget::Kind::window ? SourceType::window : SourceType::monitor);
    if (!cast)
        return unexpected(cast.error());
    m_cast = std::move(*cast);
    target.geometry = QRect(QPoint(0, 0), m_cast->size);
    return target;
}

expected<std::unique_ptr<WaylandScreenSource::Cast>, CaptureFailure> WaylandScreenSource::openCast(SourceType type)
{
    auto cast = std::make_unique<Cast>(*m_options.clock);
    Cast *shared = cast.get();
    auto ask = [&](const QString &token) {
        cast->portal = std::make_unique<ScreenCastPortal>();
        cast->portal->setClosedHandler([shared] { shared->end(QStringLiteral("the desktop closed the session")); });
        return cast->portal->open(type, token, m_options.answerTime);
    };
    auto opened = ask(m_tokens.token(type));
    if (!opened && opened.error().kind == PortalFailure::Kind::refusedToken) {
        logLine(QStringLiteral("The desktop refused the stored screen-sharing token (%1); asking again")
                    .arg(opened.error().detail));
        keep(m_tokens.forget(type));
        opened = ask({});
    }
    if (!opened) {
        const PortalFailure &failure = opened.error();
        logLine(QStringLiteral("Screen sharing didn't start: ") + failure.detail);
        switch (failure.kind) {
        case PortalFailure::Kind::cancelled:
            keep(m_tokens.markDeclined());
            return unexpected(CaptureFailure::of(CaptureError::screenPermissionDenied));
        case PortalFailure::Kind::unavailable:
            return unexpected(CaptureFailure::other(QCoreApplication::translate(
                "qm::WaylandScreenSource", "Screen recording on Wayland needs the desktop's screen-sharing service "
                                           "(xdg-desktop-portal with the portal of your desktop).")));
        default:
            return unexpected(CaptureFailure::other(QCoreApplication::translate(
                "qm::WaylandScreenSource", "The desktop couldn't start sharing the screen.")));
        }
    }
    keep(m_tokens.store(type, cast->portal->newRestoreToken()));

    auto couldNotFilm = [](const QString &detail) {
        logLine(QStringLiteral("Screen sharing started, but its stream didn't: ") + detail);
        return unexpected(CaptureFailure::other(QCoreApplication::translate(
            "qm::WaylandScreenSource", "The desktop shared the screen, but its pictures couldn't be read.")));
    };
    auto fd = cast->portal->openPipeWireRemote();
    if (!fd)
        return couldNotFilm(fd.error().detail);
    auto stream = PipeWireStream::connect(*fd, opened->node,
                                          {[shared](VideoFrame picture) { shared->pacer->offer(std::move(picture)); },
                                           [shared](const QString &reason) { shared->end(reason); }});
    if (!stream)
        return couldNotFilm(stream.error());
    cast->stream = std::move(*stream);
    cast->size = opened->size;
    if (cast->size.isEmpty())
        cast->size = cast->stream->negotiatedSize(kNegotiationTime).value_or(QSize());
    if (cast->size.isEmpty())
        return couldNotFilm(QStringLiteral("no picture size"));
    logLine(QStringLiteral("Sharing a %1 of %2×%3 through the desktop (PipeWire node %4)")
                .arg(type == SourceType::window ? QStringLiteral("window") : QStringLiteral("monitor"))
                .arg(cast->size.width())
                .arg(cast->size.height())
                .arg(opened->node));
    return cast;
}

expected<void, QString> WaylandScreenSource::start(const VideoTarget &target, int fps,
                                                   std::function<void(VideoFrame)> deliver,
                                                   std::function<void(QString)> failed)
{
    if (target.kind == VideoTarget::Kind::window && target.id != 0) {
        auto started = m_xwayland->start(target, fps, std::move(deliver), std::move(failed));
        m_xwaylandStarted = started.has_value();
        return started;
    }
    if (!m_cast) {
        if (auto prepared = prepare(target); !prepared)
            return unexpected(prepared.error().description());
    }
    {
        const std::lock_guard lock(m_cast->mutex);
        if (m_cast->endedReason)
            return unexpected(sharingEnded());
        m_cast->failed = std::move(failed);
    }
    m_cast->pacer->run(fps, std::move(deliver));
    return {};
}

void WaylandScreenSource::stop()
{
    if (m_xwaylandStarted) {
        m_xwayland->stop();
        m_xwaylandStarted = false;
    }
    if (!m_cast)
        return;
    m_cast->pacer->stop();
    {
        // Closing the session ends the stream too; that is no failure to report.
        const std::lock_guard lock(m_cast->mutex);
        m_cast->failed = nullptr;
        m_cast->endedReason = QStringLiteral("stopped");
    }
    m_cast->portal->close();
    m_cast.reset();
}

} // namespace qm
