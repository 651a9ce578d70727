#include "capture/captureengine.h"

#include "capture/microphoneprivacy.h"
#include "capture/screensource.h"
#include "capture/soundserver.h"
#include "capture/trackwriter.h"

#include <QCoroFuture>
#include <QDir>
#include <QFileInfo>
#include <QtConcurrent/QtConcurrentRun>

#include <algorithm>
#include <cmath>
#include <thread>

namespace qm {

namespace {

// Sources on another clock are recognised by a large difference on their first sample; small ones are
// latency and stay uncorrected.
constexpr Nanoseconds kClockOffsetThreshold = 2 * kNanosecondsPerSecond;
constexpr Nanoseconds kLevelReportInterval = kNanosecondsPerSecond / 10;
constexpr float kLevelDecayPerSample = 0.8f;
constexpr float kLevelDecayPerReport = 0.6f;

std::size_t index(CaptureEngine::Kind kind)
{
    return std::size_t(kind);
}

QString localPath(const QUrl &url)
{
    return url.isLocalFile() ? url.toLocalFile() : url.toString();
}

} // namespace

struct CaptureEngine::State {
    std::optional<Nanoseconds> sessionStart;
    bool stopped = false;
    bool paused = false;
    bool microphoneMuted = false;
    std::optional<Nanoseconds> pauseBegan;
    Nanoseconds pausedTotal = 0;
    std::array<std::optional<Nanoseconds>, 3> clockOffsets;
    float meetingLevel = 0;
    float microphoneLevel = 0;
    std::optional<Nanoseconds> lastLevelReport;
    std::optional<VideoTarget> videoTarget;
    int frameRate = 15;
};

CaptureEngine::CaptureEngine(SoundServer &sound, ScreenSource *screen, ProcessList &processes, const HostClock &clock,
                             const MicrophonePrivacy *privacy, QObject *parent)
    : QObject(parent), m_sound(sound), m_screen(screen), m_processes(processes), m_clock(clock), m_privacy(privacy),
      m_queue(std::make_unique<CaptureQueue>(QStringLiteral("app.quillmoor.capture"))),
      m_state(std::make_unique<State>())
{}

CaptureEngine::~CaptureEngine()
{
    if (m_soundStarted || m_screenStarted)
        stopBlocking();
}

float CaptureEngine::level(const float *samples, std::size_t count)
{
    if (count == 0)
        return 0;
    double sum = 0;
    for (std::size_t i = 0; i < count; ++i)
        sum += double(samples[i]) * double(samples[i]);
    const double rms = std::sqrt(sum / double(count));
    const double decibels = 20.0 * std::log10(std::max(rms, 0.000001));
    return float(std::clamp((decibels + 60.0) / 60.0, 0.0, 1.0));
}

QCoro::Task<expected<void, CaptureFailure>> CaptureEngine::start(CaptureConfiguration configuration)
{
    QFuture<expected<void, CaptureFailure>> opening =
        QtConcurrent::run([this, configuration] { return startBlocking(configuration); });
    co_return co_await opening;
}

QCoro::Task<CaptureResult> CaptureEngine::stop()
{
    QFuture<CaptureResult> stopping = QtConcurrent::run([this] { return stopBlocking(); });
    co_return co_await stopping;
}

expected<void, CaptureFailure> CaptureEngine::startBlocking(const CaptureConfiguration &configuration)
{
    const QString meetingPath = localPath(configuration.meetingTrackURL);
    if (!QDir().mkpath(QFileInfo(meetingPath).path()))
        return unexpected(CaptureFailure::other(
            tr("Couldn't create the folder “%1” for the recording.").arg(QFileInfo(meetingPath).path())));

    QList<int> zoom;
    if (configuration.source == RecordingSource::zoom) {
        zoom = m_processes.zoomProcesses();
        if (zoom.isEmpty())
            return unexpected(CaptureFailure::of(CaptureError::zoomNotRunning));
    }
    if (configuration.recordsMicrophone() && m_privacy && m_privacy->microphoneDisabled())
        return unexpected(CaptureFailure::of(CaptureError::microphonePermissionDenied));

    auto createAudio = [&](Kind kind, const QUrl &url, int channels) -> expected<void, CaptureFailure> {
        auto writer = TrackWriter::createAudio(localPath(url), audioSettings(configuration.quality, channels));
        if (!writer)
            return unexpected(CaptureFailure::other(writer.error()));
        m_writers[index(kind)] = std::move(*writer);
        return {};
    };
    if (configuration.recordsMeeting()) {
        if (auto made = createAudio(Kind::meeting, configuration.meetingTrackURL, 2); !made)
            return made;
        if (configuration.recordsVideo()) {
            if (auto opened = openVideo(configuration, zoom); !opened)
                return opened;
        }
    }
    if (configuration.recordsMicrophone()) {
        if (auto made = createAudio(Kind::microphone, configuration.microphoneTrackURL, 1); !made)
            return made;
    }

    // Every track's time zero is this one instant.
    const Nanoseconds now = m_clock.now();
    m_queue->sync([&] {
        m_state->sessionStart = now;
        for (const auto &writer : m_writers) {
            if (writer)
                writer->start(now);
        }
    });

    auto fail = [this](CaptureFailure failure) -> expected<void, CaptureFailure> {
        stopBlocking();
        return unexpected(std::move(failure));
    };
    auto audioCallbacks = [this](Kind kind) {
        return SoundServer::Callbacks{
            [this, kind](AudioChunk chunk) {
                m_queue->post([this, kind, chunk = std::move(chunk)]() mutable { handle(kind, std::move(chunk)); });
            },
            [this](const QString &reason) { reportFailure(reason); }};
    };
    m_soundStarted = true;
    if (configuration.recordsMicrophone()) {
        if (auto started = m_sound.startMicrophone(configuration.chosenMicrophone(), audioCallbacks(Kind::microphone));
            !started)
            return fail(started.error());
    }
    if (configuration.recordsMeeting()) {
        if (auto started = m_sound.startMeeting(configuration.source, zoom, audioCallbacks(Kind::meeting)); !started)
            return fail(started.error());
    }
    if (m_state->videoTarget && m_screen) {
        m_screenStarted = true;
        auto started = m_screen->start(
            *m_state->videoTarget, m_state->frameRate,
            [this](VideoFrame frame) {
                m_queue->post([this, frame = std::move(frame)]() mutable { handle(std::move(frame)); });
            },
            [this](const QString &reason) {
                QMetaObject::invokeMethod(
                    this, [this, reason] { Q_EMIT videoStopped(reason); }, Qt::QueuedConnection);
            });
        if (!started)
            return fail(CaptureFailure::other(started.error()));
    }
    return {};
}

expected<void, CaptureFailure> CaptureEngine::openVideo(const CaptureConfiguration &configuration,
                                                        const QList<int> &zoomProcesses)
{
    const QList<DisplayInfo> displays = m_screen ? m_screen->displays() : QList<DisplayInfo>();
    if (displays.isEmpty()) {
        if (qEnvironmentVariableIsSet("WAYLAND_DISPLAY"))
            return unexpected(CaptureFailure::other(
                tr("Screen recording needs an X11 session; it isn't available on this desktop yet.")));
        return unexpected(CaptureFailure::of(CaptureError::noDisplay));
    }

    std::optional<WindowInfo> meetingWindow;
    if (configuration.source == RecordingSource::zoom)
        meetingWindow = zoomMeetingWindow(m_screen->windows(), zoomProcesses);

    VideoTarget target;
    if (meetingWindow) {
        target = VideoTarget{VideoTarget::Kind::window, meetingWindow->id, meetingWindow->geometry,
                             tr("Zoom meeting window")};
    } else if (configuration.source == RecordingSource::zoom && m_screen->picksWindows()) {
        // The meeting window can't be listed here: the user points it out in the desktop's dialog.
        target = VideoTarget{VideoTarget::Kind::window, 0, {}, tr("Zoom meeting window")};
    } else {
        const std::optional<std::uint32_t> chosen =
            configuration.displayID && *configuration.displayID != 0 ? configuration.displayID : std::nullopt;
        const std::optional<DisplayInfo> display =
            displayToFilm(displays, chosen, meetingWindow, m_screen->displayUnderPointer());
        if (!display)
            return unexpected(CaptureFailure::of(CaptureError::noDisplay));
        target = VideoTarget{VideoTarget::Kind::display, display->id, display->geometry, display->name};
    }

    m_screenStarted = true; // a prepared source holds on to what it was given until it is stopped
    auto prepared = m_screen->prepare(target);
    if (!prepared)
        return unexpected(prepared.error());
    target = *prepared;

    const VideoSettings settings =
        VideoSettings::forCapture(target.geometry.width(), target.geometry.height(), configuration.frameRate);
    auto writer = TrackWriter::createVideo(localPath(configuration.screenURL), settings);
    if (!writer)
        return unexpected(CaptureFailure::other(writer.error()));
    m_writers[index(Kind::screen)] = std::move(*writer);
    m_videoDescription = target.description;
    m_state->videoTarget = target;
    m_state->frameRate = configuration.effectiveFrameRate();
    return {};
}

CaptureResult CaptureEngine::stopBlocking()
{
    // Sources first, so nothing new is posted; then the queue finishes what it holds.
    if (m_soundStarted)
        m_sound.stop();
    if (m_screenStarted && m_screen)
        m_screen->stop();
    m_soundStarted = m_screenStarted = false;
    m_queue->sync([this] { m_state->stopped = true; });

    CaptureResult result;
    bool *done[] = {&result.meeting, &result.microphone, &result.screen};
    for (std::size_t i = 0; i < m_writers.size(); ++i) {
        if (m_writers[i]) {
            *done[i] = m_writers[i]->finish();
            result.droppedSamples += m_writers[i]->droppedCount();
            m_writers[i].reset();
        }
    }
    return result;
}

void CaptureEngine::drain()
{
    m_queue->sync([] {});
    for (const auto &writer : m_writers) {
        while (writer && writer->status() == WriterStatus::writing && writer->pendingCount() > 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

void CaptureEngine::setPaused(bool paused)
{
    m_queue->post([this, paused] {
        State &s = *m_state;
        if (paused == s.paused)
            return;
        const Nanoseconds now = m_clock.now();
        if (paused)
            s.pauseBegan = now;
        else if (s.pauseBegan)
            s.pausedTotal += now - *s.pauseBegan;
        s.paused = paused;
    });
}

void CaptureEngine::setMicrophoneMuted(bool muted)
{
    m_queue->post([this, muted] { m_state->microphoneMuted = muted; });
}

bool CaptureEngine::admit(Kind kind, Nanoseconds &pts, const AudioChunk *audio)
{
    State &s = *m_state;
    if (s.stopped || !s.sessionStart)
        return false;

    std::optional<Nanoseconds> &offset = s.clockOffsets[index(kind)];
    if (!offset) {
        const Nanoseconds difference = pts - m_clock.now();
        offset = std::llabs(difference) > kClockOffsetThreshold ? difference : 0;
    }

    if (audio) {
        const bool silenced = kind == Kind::microphone && s.microphoneMuted;
        const float now = silenced ? 0.0f : level(audio->samples.data(), audio->samples.size());
        float &stored = kind == Kind::meeting ? s.meetingLevel : s.microphoneLevel;
        stored = std::max(now, stored * kLevelDecayPerSample);
        reportLevelsIfDue();
    }
    if (s.paused)
        return false;

    // Subtracting the time spent paused closes the gap: what follows a pause continues right after it.
    const Nanoseconds shift = *offset + s.pausedTotal;
    if (pts - shift < *s.sessionStart)
        return false;
    pts -= shift;
    return true;
}

void CaptureEngine::handle(Kind kind, AudioChunk chunk)
{
    if (!admit(kind, chunk.pts, &chunk))
        return;
    // A muted stretch is written as silence so the track keeps its length.
    if (kind == Kind::microphone && m_state->microphoneMuted)
        std::fill(chunk.samples.begin(), chunk.samples.end(), 0.0f);
    if (TrackWriter *writer = m_writers[index(kind)].get())
        writer->append(std::move(chunk));
}

void CaptureEngine::handle(VideoFrame frame)
{
    TrackWriter *writer = m_writers[index(Kind::screen)].get();
    if (!writer || !frame.complete || !admit(Kind::screen, frame.pts, nullptr))
        return;
    writer->append(std::move(frame));
}

void CaptureEngine::reportLevelsIfDue()
{
    State &s = *m_state;
    const Nanoseconds now = m_clock.now();
    if (s.lastLevelReport && now - *s.lastLevelReport <= kLevelReportInterval)
        return;
    s.lastLevelReport = now;
    const float microphone = s.paused ? 0.0f : s.microphoneLevel;
    const float meeting = s.paused ? 0.0f : s.meetingLevel;
    s.microphoneLevel *= kLevelDecayPerReport;
    s.meetingLevel *= kLevelDecayPerReport;
    QMetaObject::invokeMethod(
        this, [this, microphone, meeting] { Q_EMIT levelsChanged(microphone, meeting); }, Qt::QueuedConnection);
}

void CaptureEngine::reportFailure(const QString &reason)
{
    QMetaObject::invokeMethod(
        this, [this, reason] { Q_EMIT failed(reason); }, Qt::QueuedConnection);
}

} // namespace qm
