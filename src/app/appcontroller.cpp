#include "app/appcontroller.h"

#include "app/appsettings.h"
#include "capture/captureconfiguration.h"
#include "capture/captureengine.h"
#include "capture/screensource.h"
#include "library/log.h"
#include "library/recordingstore.h"
#include "meeting/notifier.h"
#include "meeting/permissions.h"
#include "meeting/zoommonitor.h"
#include "meeting/zoommuteobserver.h"
#include "meeting/zoomprompt.h"

#include <QDir>
#include <QFileInfo>

#include <cmath>

namespace qm {

namespace {

double secondsBetween(const QDateTime &from, const QDateTime &to)
{
    return double(from.msecsTo(to)) / 1000.0;
}

} // namespace

AppController::AppController(ControllerParts parts, QObject *parent) : QObject(parent), m_parts(std::move(parts))
{
    m_parts.permissions.refresh();
    connect(&m_parts.zoom, &ZoomMonitor::meetingStarted, this, &AppController::zoomMeetingStarted);
    connect(&m_parts.zoom, &ZoomMonitor::meetingEnded, this, &AppController::zoomMeetingEnded);
    m_parts.zoom.start();
    m_parts.notifier.setUp();
    recoverInterruptedRecordings();
}

// A capture still running when the program ends is completed by the engine's destructor and keeps its
// files; the next start finds it unfinished and finishes it.
AppController::~AppController() = default;

QString AppController::captureLockPath(const Recording &recording)
{
    return QDir(recording.folderPath()).filePath(QStringLiteral(".capture.lock"));
}

QString AppController::transcriptionLockPath(const Recording &recording)
{
    return QDir(recording.folderPath()).filePath(QStringLiteral(".transcription.lock"));
}

bool AppController::activeRecordingUsesMicrophone() const
{
    if (!m_active)
        return false;
    return m_active->source == RecordingSource::inPerson || m_parts.settings.includeMicrophone();
}

void AppController::startRecording(RecordingSource source, std::optional<bool> video)
{
    if (m_phase != Phase::idle)
        return;
    setPhase(Phase::starting);
    setErrorMessage(std::nullopt);
    setPermissionProblem(false);
    if (m_parts.prompt)
        m_parts.prompt->dismiss();
    const bool filmed = video.value_or(m_parts.settings.captureFormat() == CaptureFormat::video);
    startTask(source, filmed && source != RecordingSource::inPerson);
}

void AppController::dismissError()
{
    setErrorMessage(std::nullopt);
    setPermissionProblem(false);
}

QCoro::Task<> AppController::startTask(RecordingSource source, bool video)
{
    QPointer<AppController> self(this);

    std::optional<Recording> created;
    std::optional<CaptureFailure> failure;
    std::unique_ptr<CaptureEngine> engine;
    const std::optional<QString> noRoom = lackOfSpace(video);
    auto made =
        noRoom ? expected<Recording, StoreError>(unexpected(StoreError{})) : m_parts.store.create(source, video);
    if (noRoom) {
        failure = CaptureFailure::other(*noRoom);
    } else if (!made) {
        failure = CaptureFailure::other(made.error().description());
    } else {
        created = *made;
        m_captureLock = std::make_unique<QLockFile>(captureLockPath(*created));
        m_captureLock->tryLock(0);
        engine = m_parts.makeEngine();
        connect(engine.get(), &CaptureEngine::levelsChanged, this, &AppController::setLevels);
        connect(engine.get(), &CaptureEngine::videoStopped, this, [this](const QString &reason) {
            if (m_phase != Phase::recording)
                return;
            setVideoDescription(std::nullopt);
            setErrorMessage(reason + u' ' + tr("The sound is still being recorded."));
        });
        connect(engine.get(), &CaptureEngine::failed, this, [this](const QString &reason) {
            if (m_phase != Phase::recording)
                return;
            setErrorMessage(tr("Recording was interrupted: ") + reason);
            stopRecording();
        });

        CaptureConfiguration configuration = CaptureConfiguration::forRecording(*created);
        configuration.source = source;
        configuration.captureVideo = video;
        configuration.includeMicrophone = m_parts.settings.includeMicrophone();
        configuration.quality = m_parts.settings.audioQuality();
        configuration.microphoneID = m_parts.settings.microphoneID();
        configuration.frameRate = m_parts.settings.videoFrameRate();
        configuration.displayID = videoDisplay();

        auto starting = engine->start(configuration);
        auto started = co_await starting;
        if (!self)
            co_return;
        if (!started)
            failure = started.error();
    }

    if (failure) {
        m_captureLock.reset();
        if (created) {
            QDir(created->folderPath()).removeRecursively();
            m_parts.store.reload();
        }
        engine.reset();
        setPhase(Phase::idle);
        setErrorMessage(failure->description());
        if (failure->error == CaptureError::microphonePermissionDenied ||
            failure->error == CaptureError::screenPermissionDenied)
            setPermissionProblem(true);
        m_parts.permissions.refresh();
        m_parts.notifier.post(tr("Couldn't start recording"), failure->description());
        co_return;
    }

    m_engine = std::move(engine);
    const QString description = m_engine->videoDescription();
    setVideoDescription(description.isEmpty() ? std::nullopt : std::optional(description));
    m_active = created;
    Q_EMIT activeChanged();
    m_startedAt = m_parts.now();
    m_pausedTotal = 0;
    m_pauseBegan.reset();
    setPaused(false);
    setMicMuted(false);
    setMutedInZoom(false);
    setElapsed(0);
    setPhase(Phase::recording);
    m_parts.notifier.setQuiet(true);
    if (followsZoomMute() && m_parts.permissions.accessibility() != PermissionStatus::granted &&
        !m_askedForAccessibility) {
        m_askedForAccessibility = true;
        m_parts.permissions.requestAccessibility();
    }
    syncZoomMute();
    startTicker();
}

void AppController::stopRecording()
{
    if (m_phase != Phase::recording || !m_engine || !m_active)
        return;
    setPhase(Phase::stopping);
    if (m_pauseBegan)
        m_pausedTotal += secondsBetween(*m_pauseBegan, m_parts.now());
    m_ticker.reset();
    stopTask();
}

QCoro::Task<> AppController::stopTask()
{
    QPointer<AppController> self(this);
    auto stopping = m_engine->stop();
    const CaptureResult result = co_await stopping;
    if (!self)
        co_return;
    const QUuid id = m_active->id;
    Recording record = m_parts.store.recording(id).value_or(*m_active);
    record.duration = m_elapsed;
    // A writer that failed late (a full disk) still left its fragments up to then: those are kept.
    record.hasMeetingTrack = result.meeting || sourceHoldsAudio(record, kMeetingTrackFileName);
    record.hasMicrophoneTrack = result.microphone || sourceHoldsAudio(record, kMicrophoneTrackFileName);
    record.hasVideo = result.screen;
    record.state = ProcessingState::processing;
    // The tracks are on disk whatever happens to this write; a later start finishes them if it failed.
    saveOrSay(record);
    if (result.droppedSamples > 0)
        logLine(QStringLiteral("%1 samples of “%2” were dropped while capturing")
                    .arg(result.droppedSamples)
                    .arg(record.title));
    resetRecordingState();
    auto finishing = finalize(id, false);
    co_await finishing;
}

void AppController::discardRecording()
{
    if (m_phase != Phase::recording || !m_engine || !m_active)
        return;
    setPhase(Phase::stopping);
    m_ticker.reset();
    discardTask();
}

QCoro::Task<> AppController::discardTask()
{
    QPointer<AppController> self(this);
    auto stopping = m_engine->stop();
    co_await stopping;
    if (!self)
        co_return;
    const Recording record = m_parts.store.recording(m_active->id).value_or(*m_active);
    resetRecordingState();
    m_parts.store.deleteRecording(record);
    m_parts.notifier.post(tr("Recording discarded"), record.title + tr(" was moved to the Trash."));
}

void AppController::togglePause()
{
    if (m_phase != Phase::recording || !m_engine)
        return;
    setPaused(!m_isPaused);
    m_engine->setPaused(m_isPaused);
    const QDateTime now = m_parts.now();
    if (m_isPaused) {
        m_pauseBegan = now;
    } else if (m_pauseBegan) {
        m_pausedTotal += secondsBetween(*m_pauseBegan, now);
        m_pauseBegan.reset();
    }
}

void AppController::toggleMicrophoneMute()
{
    if (!m_engine)
        return;
    setMicMuted(!m_isMicMuted);
    m_engine->setMicrophoneMuted(m_isMicMuted || m_isMutedInZoom);
}

bool AppController::followsZoomMute() const
{
    return m_active && m_parts.settings.followZoomMute() && m_active->source != RecordingSource::inPerson &&
           activeRecordingUsesMicrophone();
}

void AppController::syncZoomMute()
{
    if (!m_engine)
        return;
    bool muted = false;
    if (followsZoomMute() && m_parts.muteObserver)
        muted = m_parts.muteObserver->isMutedInZoom().value_or(false);
    if (muted == m_isMutedInZoom)
        return;
    setMutedInZoom(muted);
    m_engine->setMicrophoneMuted(m_isMicMuted || m_isMutedInZoom);
}

void AppController::startTicker()
{
    m_ticker = m_parts.tickers();
    QPointer<AppController> self(this);
    m_ticker->start(tickPeriod, [self] {
        if (self)
            self->tick();
    });
}

bool AppController::sourceHoldsAudio(const Recording &record, const char *fileName)
{
    // A fragmented track that holds only its header is about a kilobyte; anything past this has fragments.
    constexpr qint64 headerOnly = 16 * 1024;
    const QFileInfo track(QDir(record.folderPath()).filePath(QLatin1String(kSourceFolderName)) + u'/' +
                          QLatin1String(fileName));
    return track.isFile() && track.size() > headerOnly;
}

std::optional<QString> AppController::lackOfSpace(bool video) const
{
    const std::optional<qint64> free = m_parts.freeSpace ? m_parts.freeSpace(m_parts.store.rootPath()) : std::nullopt;
    if (!free)
        return std::nullopt;
    const qint64 needed =
        DiskSpace::bytesPerSecond(m_parts.settings.audioQuality(), video, m_parts.settings.videoFrameRate()) *
        std::chrono::seconds(DiskSpace::kStartReserve).count();
    if (*free >= std::max(needed, DiskSpace::kFloorBytes))
        return std::nullopt;
    return tr("There isn't enough free space to record: %1 is free on the library's disk, and 10 minutes need "
              "about %2. Free some space or choose another library folder in Settings.")
        .arg(DiskSpace::sizeText(*free), DiskSpace::sizeText(std::max(needed, DiskSpace::kFloorBytes)));
}

void AppController::watchFreeSpace()
{
    // Every 5 s: the check is a statfs call, and two minutes of reserve leave plenty of time between checks.
    constexpr int ticksBetweenChecks = 10;
    if (m_phase != Phase::recording || ++m_ticksSinceSpaceCheck < ticksBetweenChecks || !m_parts.freeSpace)
        return;
    m_ticksSinceSpaceCheck = 0;
    const std::optional<qint64> free = m_parts.freeSpace(m_parts.store.rootPath());
    if (!free)
        return;
    const bool video = m_active && m_active->hasVideo;
    const qint64 floor =
        std::max(DiskSpace::kFloorBytes,
                 DiskSpace::bytesPerSecond(m_parts.settings.audioQuality(), video, m_parts.settings.videoFrameRate()) *
                     std::chrono::seconds(DiskSpace::kStopReserve).count());
    if (*free >= floor)
        return;
    logLine(QStringLiteral("stopping the recording: %1 left on the library's disk").arg(DiskSpace::sizeText(*free)));
    setErrorMessage(tr("Recording stopped and saved because the disk is almost full (%1 free). Free some space "
                       "before recording again.")
                        .arg(DiskSpace::sizeText(*free)));
    stopRecording();
}

void AppController::tick()
{
    if (m_startedAt) {
        const QDateTime now = m_parts.now();
        const double pause = m_pauseBegan ? secondsBetween(*m_pauseBegan, now) : 0.0;
        const double elapsed = secondsBetween(*m_startedAt, now) - (m_pausedTotal + pause);
        // Observers redraw once a second; the stored value keeps its fraction until the next whole second.
        if (std::floor(elapsed) != std::floor(m_elapsed)) {
            m_elapsed = elapsed;
            Q_EMIT elapsedChanged(m_elapsed);
        }
    }
    syncZoomMute();
    watchFreeSpace();
}

std::optional<std::uint32_t> AppController::videoDisplay() const
{
    if (!m_parts.screens)
        return std::nullopt;
    const int chosen = m_parts.settings.videoDisplayID();
    if (chosen != 0) {
        for (const DisplayInfo &display : m_parts.screens->displays()) {
            if (display.id == std::uint32_t(chosen))
                return display.id;
        }
    }
    return m_parts.screens->displayUnderPointer();
}

void AppController::resetRecordingState()
{
    m_engine.reset();
    m_captureLock.reset();
    setVideoDescription(std::nullopt);
    if (m_active) {
        m_active.reset();
        Q_EMIT activeChanged();
    }
    setPaused(false);
    setMicMuted(false);
    setMutedInZoom(false);
    setLevels(0, 0);
    m_parts.notifier.setQuiet(false);
    setPhase(Phase::idle);
}

void AppController::zoomMeetingStarted()
{
    if (m_phase != Phase::idle)
        return;
    switch (m_parts.settings.zoomStartMode()) {
    case ZoomStartMode::manual:
        return;
    case ZoomStartMode::ask:
        if (m_parts.prompt) {
            QPointer<AppController> self(this);
            m_parts.prompt->show([self] {
                if (self)
                    self->startRecording(RecordingSource::zoom);
            });
        }
        return;
    case ZoomStartMode::automatic:
        startRecording(RecordingSource::zoom);
        m_parts.notifier.post(tr("Recording your Zoom meeting"),
                              tr("Quillmoor started recording automatically. Stop any time from the tray icon."));
        return;
    }
}

void AppController::zoomMeetingEnded()
{
    if (m_parts.prompt)
        m_parts.prompt->dismiss();
    if (m_phase != Phase::recording || !m_active || m_active->source != RecordingSource::zoom ||
        !m_parts.settings.autoStopWhenZoomEnds())
        return;
    stopRecording();
    m_parts.notifier.post(tr("Zoom meeting ended"), tr("Recording stopped and saved."));
}

template <typename T, typename Signal, typename... Args>
static bool assign(AppController *controller, T &field, T value, Signal signal, Args &&...args)
{
    if (field == value)
        return false;
    field = std::move(value);
    Q_EMIT(controller->*signal)(std::forward<Args>(args)...);
    return true;
}

void AppController::setPhase(Phase phase)
{
    if (m_phase == phase)
        return;
    m_phase = phase;
    Q_EMIT phaseChanged(phase);
}

void AppController::setPaused(bool paused)
{
    assign(this, m_isPaused, paused, &AppController::isPausedChanged, paused);
}

void AppController::setMicMuted(bool muted)
{
    assign(this, m_isMicMuted, muted, &AppController::isMicMutedChanged, muted);
}

void AppController::setMutedInZoom(bool muted)
{
    assign(this, m_isMutedInZoom, muted, &AppController::isMutedInZoomChanged, muted);
}

void AppController::setVideoDescription(std::optional<QString> description)
{
    assign(this, m_videoDescription, std::move(description), &AppController::videoDescriptionChanged);
}

void AppController::setElapsed(double seconds)
{
    assign(this, m_elapsed, seconds, &AppController::elapsedChanged, seconds);
}

void AppController::setLevels(float microphone, float meeting)
{
    if (m_micLevel == microphone && m_meetingLevel == meeting)
        return;
    m_micLevel = microphone;
    m_meetingLevel = meeting;
    Q_EMIT levelsChanged();
}

void AppController::setErrorMessage(std::optional<QString> message)
{
    assign(this, m_errorMessage, std::move(message), &AppController::errorMessageChanged);
}

void AppController::setPermissionProblem(bool problem)
{
    assign(this, m_permissionProblem, problem, &AppController::permissionProblemChanged, problem);
}

} // namespace qm
