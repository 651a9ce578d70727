#include "ui/tray/trayviewmodel.h"

#include "app/appsettings.h"
#include "library/formatters.h"
#include "library/recordingstore.h"
#include "meeting/permissions.h"
#include "meeting/zoommonitor.h"

namespace qm::ui {

TrayViewModel::TrayViewModel(AppController &controller, QObject *parent) : QObject(parent), m_controller(controller)
{
    const auto notify = [this] { Q_EMIT changed(); };
    connect(&controller, &AppController::phaseChanged, this, notify);
    connect(&controller, &AppController::activeChanged, this, notify);
    connect(&controller, &AppController::isPausedChanged, this, notify);
    connect(&controller, &AppController::isMicMutedChanged, this, notify);
    connect(&controller, &AppController::isMutedInZoomChanged, this, notify);
    connect(&controller, &AppController::videoDescriptionChanged, this, notify);
    connect(&controller, &AppController::elapsedChanged, this, notify);
    connect(&controller, &AppController::activitiesChanged, this, notify);
    connect(&controller, &AppController::isProcessingChanged, this, notify);
    connect(&controller, &AppController::errorMessageChanged, this, notify);
    connect(&controller, &AppController::permissionProblemChanged, this, notify);
    connect(&controller.store(), &RecordingStore::recordingsChanged, this, notify);
    connect(&controller.zoom(), &ZoomMonitor::meetingActiveChanged, this, notify);
    connect(&controller.zoom(), &ZoomMonitor::zoomRunningChanged, this, notify);
    connect(&controller.permissions(), &Permissions::changed, this, notify);
    connect(&controller.settings(), &AppSettings::showTimerInMenuBarChanged, this, notify);
    connect(&controller.settings(), &AppSettings::includeMicrophoneChanged, this, notify);
}

TrayViewModel::IconState TrayViewModel::iconState() const
{
    const auto phase = m_controller.phase();
    if (phase == AppController::Phase::recording || phase == AppController::Phase::stopping)
        return m_controller.isPaused() ? IconState::paused : IconState::recording;
    return m_controller.isProcessing() ? IconState::processing : IconState::idle;
}

QString TrayViewModel::timerText() const
{
    const IconState state = iconState();
    if ((state != IconState::recording && state != IconState::paused) || !m_controller.settings().showTimerInMenuBar())
        return {};
    return Formatters::clock(m_controller.elapsed());
}

QString TrayViewModel::tooltip() const
{
    QString text = QStringLiteral("Quillmoor – ") + statusLine();
    const IconState state = iconState();
    if (state == IconState::recording || state == IconState::paused)
        text += QStringLiteral(" ") + Formatters::clock(m_controller.elapsed());
    else if (state == IconState::processing && !m_controller.activities().isEmpty())
        text += QStringLiteral(" · ") + m_controller.activities().begin().value();
    return text;
}

QString TrayViewModel::statusLine() const
{
    if (m_quitting)
        return tr("Saving…");
    switch (m_controller.phase()) {
    case AppController::Phase::starting:
        return tr("Starting…");
    case AppController::Phase::recording:
        return m_controller.isPaused() ? tr("Paused") : tr("Recording");
    case AppController::Phase::stopping:
        return tr("Saving…");
    case AppController::Phase::idle:
        break;
    }
    if (m_controller.zoom().isMeetingActive())
        return tr("Zoom meeting in progress");
    if (m_controller.zoom().isZoomRunning())
        return tr("Zoom is open · ready");
    return tr("Ready to record");
}

bool TrayViewModel::showsPermissionsBanner() const
{
    // A failed start says what was refused in the error banner already; this one is for what is known before.
    if (m_controller.permissionProblem())
        return false;
    return m_controller.permissions().microphone() == PermissionStatus::denied ||
           m_controller.permissions().screenRecording() == PermissionStatus::denied;
}

bool TrayViewModel::showsZoomBanner() const
{
    return isIdle() && m_controller.zoom().isMeetingActive();
}

QString TrayViewModel::recordingCardTitle() const
{
    if (m_controller.phase() == AppController::Phase::starting || !m_controller.active())
        return tr("Starting");
    switch (m_controller.active()->source) {
    case RecordingSource::zoom:
        return tr("Zoom Meeting");
    case RecordingSource::systemAudio:
        return tr("Online Meeting");
    case RecordingSource::inPerson:
        return tr("In-Person Meeting");
    }
    return {};
}

QString TrayViewModel::videoLine() const
{
    const QString description = m_controller.videoDescriptionText();
    return description.isEmpty() ? QString() : tr("Video: ") + description;
}

QString TrayViewModel::micButtonText() const
{
    return m_controller.isMicMuted() ? tr("Unmute") : tr("Mute");
}

QString TrayViewModel::micButtonHelp() const
{
    return m_controller.isMicMuted() ? tr("Your microphone is muted in the recording")
                                     : tr("Mute your microphone in the recording");
}

QString TrayViewModel::muteNote() const
{
    if (m_controller.isMutedInZoom())
        return tr("Muted in Zoom – your voice isn't recorded");
    if (m_controller.isMicMuted())
        return tr("Microphone muted – only the meeting is recorded");
    return {};
}

QString TrayViewModel::pauseButtonText() const
{
    return m_controller.isPaused() ? tr("Resume") : tr("Pause");
}

QList<Recording> TrayViewModel::recent() const
{
    QList<Recording> rows;
    const std::optional<QUuid> live =
        m_controller.active() ? std::optional(m_controller.active()->id) : std::optional<QUuid>();
    for (const Recording &recording : m_controller.store().recordings()) {
        if (rows.size() == kRecentCount)
            break;
        if (recording.id != live)
            rows.append(recording);
    }
    return rows;
}

QString TrayViewModel::recentDetail(const Recording &recording) const
{
    const auto activity = m_controller.activities().constFind(recording.id);
    if (activity != m_controller.activities().constEnd())
        return activity.value();
    if (recording.state == ProcessingState::failed)
        return recording.lastError.value_or(tr("Failed"));
    if (recording.transcriptState == TranscriptState::failed)
        return recording.lastError.value_or(tr("Transcription failed"));
    return {};
}

void TrayViewModel::setQuitting(bool quitting)
{
    if (m_quitting == quitting)
        return;
    m_quitting = quitting;
    Q_EMIT changed();
}

void TrayViewModel::setTrayNotice(const QString &notice)
{
    if (m_trayNotice == notice)
        return;
    m_trayNotice = notice;
    Q_EMIT changed();
}

QString TrayViewModel::noTrayNotice()
{
    return tr("This desktop shows no tray icons, so Quillmoor opens this window instead. On GNOME, the "
              "AppIndicator extension adds a tray.");
}

void TrayViewModel::setUpdateNotice(const QString &notice)
{
    if (m_updateNotice == notice)
        return;
    m_updateNotice = notice;
    Q_EMIT changed();
}

QString TrayViewModel::title(RecordingSource source)
{
    switch (source) {
    case RecordingSource::zoom:
        return tr("Record Zoom Meeting");
    case RecordingSource::systemAudio:
        return tr("Record System Audio");
    case RecordingSource::inPerson:
        return tr("Record In-Person Meeting");
    }
    return {};
}

QString TrayViewModel::subtitle(RecordingSource source)
{
    switch (source) {
    case RecordingSource::zoom:
        return tr("Zoom audio + your microphone");
    case RecordingSource::systemAudio:
        return tr("Any app – Teams, Meet, browser…");
    case RecordingSource::inPerson:
        return tr("Microphone only – meeting rooms");
    }
    return {};
}

} // namespace qm::ui
