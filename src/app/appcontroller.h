#pragma once

#include "capture/diskspace.h"
#include "drive/drivesync.h"
#include "library/recording.h"
#include "library/recordingstore.h"
#include "library/settingsvalues.h"
#include "meeting/ticker.h"

#include <QCoroTask>
#include <QDateTime>
#include <QHash>
#include <QLockFile>
#include <QObject>
#include <QPointer>
#include <QUuid>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

namespace qm {

class AppSettings;
class CaptureEngine;
class MediaProcessor;
class Notifier;
class Permissions;
class RecordingStore;
class ScreenSource;
class TranscriptionService;
class ZoomMonitor;
class ZoomMuteObserver;
class ZoomPrompt;

// What the controller works with. The application builds these once; the controller owns none of them.
struct ControllerParts {
    AppSettings &settings;
    RecordingStore &store;
    ZoomMonitor &zoom;
    Permissions &permissions;
    Notifier &notifier;
    MediaProcessor &media;
    TranscriptionService &transcription;
    // A new, unstarted capture engine for each recording.
    std::function<std::unique_ptr<CaptureEngine>()> makeEngine;
    ZoomPrompt *prompt = nullptr;             // none in front ends that can't show one
    ZoomMuteObserver *muteObserver = nullptr; // none where Zoom's mute can't be read
    ScreenSource *screens = nullptr;          // lists displays for the video choice; none without a display
    DriveSync::Places drivePlaces = {};
    std::function<QDateTime()> now = [] { return QDateTime::currentDateTimeUtc(); };
    // Bytes free on the disk that holds a path; nothing when unknown (which never stops a recording).
    std::function<std::optional<qint64>(const QString &)> freeSpace = DiskSpace::freeBytes;
    TickerFactory tickers = makeQtTicker;
};

// The one application-wide controller: starts, pauses, mutes, stops and discards the single capture that can
// run at a time, follows Zoom's meeting state and mute button, and takes every stopped recording through the
// finishing pipeline (final media file, Drive copy, transcript) while publishing what the user interface draws.
//
// Main thread only. Every property is announced only when its value changes. The asynchronous steps are
// coroutines resumed on the main thread, so no field is ever touched from two threads; they look the recording
// up again by id after every wait, so a recording deleted meanwhile is simply not updated. Operations called in
// the wrong phase do nothing.
class AppController : public QObject {
    Q_OBJECT
    Q_PROPERTY(qm::AppController::Phase phase READ phase NOTIFY phaseChanged)
    Q_PROPERTY(bool isPaused READ isPaused NOTIFY isPausedChanged)
    Q_PROPERTY(bool isMicMuted READ isMicMuted NOTIFY isMicMutedChanged)
    Q_PROPERTY(bool isMutedInZoom READ isMutedInZoom NOTIFY isMutedInZoomChanged)
    Q_PROPERTY(QString videoDescription READ videoDescriptionText NOTIFY videoDescriptionChanged)
    Q_PROPERTY(double elapsed READ elapsed NOTIFY elapsedChanged)
    Q_PROPERTY(float micLevel READ micLevel NOTIFY levelsChanged)
    Q_PROPERTY(float meetingLevel READ meetingLevel NOTIFY levelsChanged)
    Q_PROPERTY(bool isProcessing READ isProcessing NOTIFY isProcessingChanged)
    Q_PROPERTY(int transcriptRevision READ transcriptRevision NOTIFY transcriptRevisionChanged)
    Q_PROPERTY(QString errorMessage READ errorMessageText NOTIFY errorMessageChanged)
    Q_PROPERTY(bool permissionProblem READ permissionProblem NOTIFY permissionProblemChanged)

public:
    enum class Phase { idle, starting, recording, stopping };
    Q_ENUM(Phase)

    static constexpr std::chrono::milliseconds tickPeriod{500};

    // Hooks the Zoom monitor and starts it, sets up notifications, and recovers recordings an earlier run left
    // unfinished. The store must already have been reloaded.
    explicit AppController(ControllerParts parts, QObject *parent = nullptr);
    ~AppController() override;

    AppSettings &settings() { return m_parts.settings; }
    RecordingStore &store() { return m_parts.store; }
    ZoomMonitor &zoom() { return m_parts.zoom; }
    Permissions &permissions() { return m_parts.permissions; }

    Phase phase() const { return m_phase; }
    const std::optional<Recording> &active() const { return m_active; }
    bool isPaused() const { return m_isPaused; }
    bool isMicMuted() const { return m_isMicMuted; }
    bool isMutedInZoom() const { return m_isMutedInZoom; }
    const std::optional<QString> &videoDescription() const { return m_videoDescription; }
    QString videoDescriptionText() const { return m_videoDescription.value_or(QString()); }
    double elapsed() const { return m_elapsed; }
    float micLevel() const { return m_micLevel; }
    float meetingLevel() const { return m_meetingLevel; }
    const QHash<QUuid, QString> &activities() const { return m_activities; }
    bool isProcessing() const { return m_isProcessing; }
    int transcriptRevision() const { return m_transcriptRevision; }
    const std::optional<QString> &errorMessage() const { return m_errorMessage; }
    QString errorMessageText() const { return m_errorMessage.value_or(QString()); }
    bool permissionProblem() const { return m_permissionProblem; }
    // There is an active recording and it records the microphone.
    bool activeRecordingUsesMicrophone() const;

    // `video` overrides the capture-format setting for this recording only (a command-line choice).
    void startRecording(RecordingSource source, std::optional<bool> video = std::nullopt);
    void stopRecording();
    void togglePause();
    void toggleMicrophoneMute();
    void discardRecording();
    // The user closed the error banner.
    void dismissError();

    // The finishing steps a user can ask for again. Each task resumes on the main thread.
    // `provider` overrides the provider setting for this run only.
    QCoro::Task<> transcribe(QUuid id, std::optional<TranscriptionProvider> provider = std::nullopt);
    QCoro::Task<> syncToDrive(QUuid id);
    QCoro::Task<> syncAllToDrive();
    // Both fail, changing nothing, when the recording's files can't be written.
    expected<void, SaveError> renameSpeaker(const QString &label, const QString &name, const Recording &recording);
    expected<void, SaveError> rename(const Recording &recording, const QString &title);

    // The label shown beside a recording while it is being worked on.
    static QString savingLabel();
    static QString transcribingLabel();
    static QString copyingLabel();
    // The lock files a capture and a transcription hold inside `recording`'s folder while they run.
    static QString captureLockPath(const Recording &recording);
    static QString transcriptionLockPath(const Recording &recording);

Q_SIGNALS:
    void phaseChanged(qm::AppController::Phase phase);
    void activeChanged();
    void isPausedChanged(bool paused);
    void isMicMutedChanged(bool muted);
    void isMutedInZoomChanged(bool muted);
    void videoDescriptionChanged();
    void elapsedChanged(double seconds);
    void levelsChanged();
    void activitiesChanged();
    void isProcessingChanged(bool processing);
    void transcriptRevisionChanged(int revision);
    void errorMessageChanged();
    void permissionProblemChanged(bool problem);
    // A recording left the finishing pipeline (every label of it is gone).
    void finishedProcessing(const QUuid &id);

private:
    QCoro::Task<> startTask(RecordingSource source, bool video);
    QCoro::Task<> stopTask();
    QCoro::Task<> discardTask();
    QCoro::Task<> finalize(QUuid id, bool recovered);
    void recoverInterruptedRecordings();
    void zoomMeetingStarted();
    void zoomMeetingEnded();
    bool followsZoomMute() const;
    void syncZoomMute();
    void startTicker();
    void tick();
    // Stops and saves the capture when the disk is about to fill; checked every few seconds by the ticker.
    void watchFreeSpace();
    // The sentence refusing a start when the library's disk can't hold a useful recording; nothing when it can.
    std::optional<QString> lackOfSpace(bool video) const;
    // A track the capture wrote some audio into, whatever the capture reported when it stopped.
    static bool sourceHoldsAudio(const Recording &record, const char *fileName);
    std::optional<std::uint32_t> videoDisplay() const;
    void resetRecordingState();

    // Saves through the store; a failure becomes the error message (the store has logged it). True when saved.
    bool saveOrSay(const Recording &recording);
    // Joining `record`'s tracks can't have worked for lack of room on its disk.
    bool lacksSpaceToJoin(const Recording &record) const;

    void setPhase(Phase phase);
    void setPaused(bool paused);
    void setMicMuted(bool muted);
    void setMutedInZoom(bool muted);
    void setVideoDescription(std::optional<QString> description);
    void setElapsed(double seconds);
    void setLevels(float microphone, float meeting);
    void setActivity(const QUuid &id, std::optional<QString> label);
    void setErrorMessage(std::optional<QString> message);
    void setPermissionProblem(bool problem);
    void bumpTranscriptRevision();

    ControllerParts m_parts;

    Phase m_phase = Phase::idle;
    std::optional<Recording> m_active;
    bool m_isPaused = false;
    bool m_isMicMuted = false;
    std::optional<QString> m_videoDescription;
    bool m_isMutedInZoom = false;
    double m_elapsed = 0;
    float m_micLevel = 0;
    float m_meetingLevel = 0;
    QHash<QUuid, QString> m_activities;
    bool m_isProcessing = false;
    int m_transcriptRevision = 0;
    std::optional<QString> m_errorMessage;
    bool m_permissionProblem = false;
    std::unique_ptr<CaptureEngine> m_engine;
    // Held while this process captures into a recording's folder, so that another run (a command in a second
    // terminal, say) doesn't take the live recording for an interrupted one.
    std::unique_ptr<QLockFile> m_captureLock;
    std::optional<QDateTime> m_startedAt;
    double m_pausedTotal = 0;
    std::optional<QDateTime> m_pauseBegan;
    std::unique_ptr<Ticker> m_ticker;
    int m_ticksSinceSpaceCheck = 0;
    bool m_askedForAccessibility = false;
};

} // namespace qm
