#include "capture/x11/x11screensource.h"

#include "capture/ffmpeg/ffmpegptr.h"
#include "capture/x11/x11desktop.h"
#include "library/log.h"

#include <QThread>

extern "C" {
#include <libavdevice/avdevice.h>
#include <libavutil/dict.h>
}

#include <algorithm>
#include <mutex>
#include <time.h>

namespace qm {

struct X11ScreenSource::Grab {
    ff::InputPtr input;
    int width = 0;
    int height = 0;
    std::function<void(VideoFrame)> deliver;
    std::function<void(QString)> failed;
    bool window = false;
};

namespace {

class Options {
public:
    Options() = default;
    Options(const Options &) = delete;
    Options &operator=(const Options &) = delete;
    ~Options() { av_dict_free(&m_dictionary); }

    void set(const char *key, const QString &value) { av_dict_set(&m_dictionary, key, value.toUtf8().constData(), 0); }
    AVDictionary **get() { return &m_dictionary; }

private:
    AVDictionary *m_dictionary = nullptr;
};

Nanoseconds hostNow()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return Nanoseconds(now.tv_sec) * kNanosecondsPerSecond + now.tv_nsec;
}

QString openFailure(int code)
{
    return QStringLiteral("Quillmoor couldn't start filming the screen (%1).").arg(ff::errorText(code));
}

} // namespace

X11ScreenSource::X11ScreenSource(QString displayName)
    : m_displayName(std::move(displayName)), m_desktop(std::make_unique<x11::Desktop>(m_displayName))
{}

X11ScreenSource::~X11ScreenSource()
{
    stop();
}

QString X11ScreenSource::noX11Message()
{
    return QStringLiteral("Screen recording needs an X11 session; it isn't available on this desktop yet.");
}

QList<DisplayInfo> X11ScreenSource::displays()
{
    return m_desktop->displays();
}

QList<WindowInfo> X11ScreenSource::windows()
{
    return m_desktop->windows();
}

std::optional<std::uint32_t> X11ScreenSource::displayUnderPointer()
{
    const auto pointer = m_desktop->pointer();
    if (!pointer)
        return std::nullopt;
    for (const DisplayInfo &display : m_desktop->displays()) {
        if (display.geometry.contains(*pointer))
            return display.id;
    }
    return std::nullopt;
}

expected<void, QString> X11ScreenSource::start(const VideoTarget &target, int fps,
                                               std::function<void(VideoFrame)> deliver,
                                               std::function<void(QString)> failed)
{
    if (m_thread && !m_thread->isFinished())
        return unexpected(QStringLiteral("The screen is already being filmed."));
    stop();
    if (!m_desktop->available()) {
        logLine(QStringLiteral("No X server at \"%1\"; screen recording unavailable")
                    .arg(m_displayName.isEmpty() ? qEnvironmentVariable("DISPLAY") : m_displayName));
        return unexpected(noX11Message());
    }

    fps = std::max(fps, 1);
    Options options;
    options.set("framerate", QString::number(fps));
    options.set("draw_mouse", QStringLiteral("1"));
    QRect area;
    if (target.kind == VideoTarget::Kind::window) {
        const auto geometry = m_desktop->windowGeometry(target.id);
        if (!geometry || geometry->isEmpty())
            return unexpected(QStringLiteral("The window to film has closed."));
        area = *geometry;
        options.set("window_id", QString::number(target.id));
    } else {
        area = target.geometry;
        if (area.isEmpty()) {
            const QList<DisplayInfo> displays = m_desktop->displays();
            const auto found = std::find_if(displays.begin(), displays.end(),
                                            [&](const DisplayInfo &display) { return display.id == target.id; });
            if (found != displays.end())
                area = found->geometry;
        }
        // x11grab refuses a region that reaches past the screen, which a monitor just unplugged can do.
        area &= QRect(QPoint(0, 0), m_desktop->screenSize());
        if (area.isEmpty())
            return unexpected(QStringLiteral("The display to film is no longer connected."));
        options.set("grab_x", QString::number(area.x()));
        options.set("grab_y", QString::number(area.y()));
        options.set("video_size", QStringLiteral("%1x%2").arg(area.width()).arg(area.height()));
    }

    static std::once_flag registered;
    std::call_once(registered, avdevice_register_all);
    const AVInputFormat *format = av_find_input_format("x11grab");
    if (!format)
        return unexpected(QStringLiteral("Screen recording isn't available: FFmpeg was built without X11 capture."));
    AVFormatContext *raw = nullptr;
    const QByteArray url = m_displayName.toLocal8Bit();
    const int result = avformat_open_input(&raw, url.constData(), format, options.get());
    ff::InputPtr input(raw);
    if (result < 0) {
        logLine(QStringLiteral("x11grab didn't open: %1").arg(ff::errorText(result)));
        return unexpected(openFailure(result));
    }
    const AVCodecParameters *parameters = input->nb_streams > 0 ? input->streams[0]->codecpar : nullptr;
    // The frames carry the server's pixels untouched, which is BGRX only on 24- and 32-bit visuals.
    if (!parameters || parameters->codec_id != AV_CODEC_ID_RAWVIDEO ||
        (parameters->format != AV_PIX_FMT_BGR0 && parameters->format != AV_PIX_FMT_BGRA) || parameters->width <= 0 ||
        parameters->height <= 0)
        return unexpected(QStringLiteral("Screen recording needs a display with 24-bit colour."));

    m_grab = std::make_unique<Grab>(Grab{std::move(input), parameters->width, parameters->height, std::move(deliver),
                                         std::move(failed), target.kind == VideoTarget::Kind::window});
    m_stopping = false;
    m_thread.reset(QThread::create([this] { run(*m_grab); }));
    m_thread->setObjectName(QStringLiteral("app.quillmoor.screen"));
    m_thread->start();
    logLine(QStringLiteral("Filming %1 (%2×%3 at %4,%5) at %6 fps")
                .arg(target.description.isEmpty() ? QStringLiteral("the screen") : target.description)
                .arg(m_grab->width)
                .arg(m_grab->height)
                .arg(area.x())
                .arg(area.y())
                .arg(fps));
    return {};
}

void X11ScreenSource::run(Grab &grab)
{
    ff::PacketPtr packet(av_packet_alloc());
    const int rowBytes = grab.width * 4;
    while (packet && !m_stopping.load()) {
        const int result = av_read_frame(grab.input.get(), packet.get());
        if (result == AVERROR(EAGAIN)) {
            QThread::msleep(1);
            continue;
        }
        if (result < 0) {
            if (m_stopping.load())
                break;
            logLine(QStringLiteral("Screen grab stopped: %1").arg(ff::errorText(result)));
            // A window that closes or shrinks away is the usual cause, and one the user can make sense of.
            grab.failed(grab.window ? QStringLiteral("Filming stopped because the window being filmed closed.")
                                    : QStringLiteral("Filming the screen stopped (%1).").arg(ff::errorText(result)));
            break;
        }
        // Stamped as read: the device's own timestamps are wall-clock, not the host clock.
        const Nanoseconds pts = hostNow();
        const int stride = packet->size / grab.height;
        if (stride >= rowBytes) {
            auto pixels = std::make_shared<std::vector<std::uint8_t>>(
                packet->data, packet->data + std::size_t(stride) * std::size_t(grab.height));
            av_packet_unref(packet.get());
            grab.deliver(VideoFrame{pts, grab.width, grab.height, stride, std::move(pixels), true});
        } else {
            av_packet_unref(packet.get());
        }
    }
}

void X11ScreenSource::stop()
{
    if (!m_thread)
        return;
    m_stopping = true;
    m_thread->wait();
    m_thread.reset();
    m_grab.reset();
}

} // namespace qm
