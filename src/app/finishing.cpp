// The part of the controller that runs after a capture stops: final media file, Drive copies, transcript,
// edits that rewrite the transcript, and recovery of what an earlier run left unfinished.

#include "app/appcontroller.h"
#include "app/appsettings.h"
#include "capture/mediaprocessor.h"
#include "library/formatters.h"
#include "library/log.h"
#include "library/recordingstore.h"
#include "library/textutil.h"
#include "meeting/notifier.h"
#include "transcription/transcriptionservice.h"

#include <QDir>
#include <QFileInfo>
#include <QLockFile>
#include <QPointer>

namespace qm {

namespace {

bool sourceExists(const Recording &record, const char *fileName)
{
    return QFileInfo::exists(QDir(record.folderPath()).filePath(QLatin1String(kSourceFolderName)) + u'/' +
                             QLatin1String(fileName));
}

TranscriptionOptions transcriptionOptions(const AppSettings &settings, TranscriptionProvider provider)
{
    TranscriptionOptions options;
    options.provider = provider;
    options.language = settings.language();
    options.detectSpeakers = settings.detectSpeakers();
    options.labelMyVoice = settings.labelMyVoice();
    options.myName = settings.myName();
    options.model = settings.model(provider);
    return options;
}

} // namespace

QString AppController::savingLabel()
{
    return tr("Saving recording…");
}

QString AppController::transcribingLabel()
{
    return tr("Transcribing…");
}

QString AppController::copyingLabel()
{
    return tr("Copying to Google Drive…");
}

QCoro::Task<> AppController::finalize(QUuid id, bool recovered)
{
    QPointer<AppController> self(this);
    std::optional<Recording> record = m_parts.store.recording(id);
    if (!record)
        co_return;
    setActivity(id, savingLabel());

    // A recording that can't be saved keeps its folder and says why; nothing follows it.
    const auto fail = [this, id](Recording failed, const QString &title, const QString &text) {
        failed.state = ProcessingState::failed;
        failed.lastError = text;
        saveOrSay(failed);
        m_parts.notifier.post(title, text);
        setActivity(id, std::nullopt);
    };

    if (!record->hasMeetingTrack && !record->hasMicrophoneTrack) {
        fail(*record, tr("Nothing was recorded"),
             tr("No audio was captured. Check that a microphone is connected and that the meeting's sound plays "
                "through this computer."));
        co_return;
    }

    auto building = m_parts.media.buildFinalMedia(*record, m_parts.settings.audioQuality());
    auto built = co_await building;
    if (!self)
        co_return;
    record = m_parts.store.recording(id);
    if (!record) {
        setActivity(id, std::nullopt);
        co_return;
    }
    if (!built && lacksSpaceToJoin(*record)) {
        // Not a failure of the recording: its tracks are whole, and the next start joins them again.
        record->lastError = tr("There wasn't enough free space to join the recording's tracks. They are kept in "
                               "its Source folder; free some space and Quillmoor finishes the recording the next "
                               "time it starts.");
        saveOrSay(*record);
        m_parts.notifier.post(tr("Couldn't save recording"), *record->lastError);
        setActivity(id, std::nullopt);
        co_return;
    }
    if (!built) {
        fail(*record, tr("Couldn't save recording"),
             recovered ? tr("This recording was interrupted (Quillmoor was force-quit or the computer shut down) "
                            "before its audio could be saved.")
                       : built.error().description());
        co_return;
    }

    const QString fileName = *built;
    auto measuring = m_parts.media.duration(QUrl::fromLocalFile(QDir(record->folderPath()).filePath(fileName)));
    const double seconds = co_await measuring;
    if (!self)
        co_return;
    record = m_parts.store.recording(id);
    if (!record) {
        setActivity(id, std::nullopt);
        co_return;
    }
    record->mediaFileName = fileName;
    record->duration = seconds;
    record->state = ProcessingState::ready;
    if (!saveOrSay(*record)) {
        setActivity(id, std::nullopt);
        co_return;
    }
    m_parts.notifier.postAbout(tr("Recording saved"),
                               record->title + QStringLiteral(" \u00b7 ") + Formatters::duration(seconds), id);

    if (m_parts.settings.driveSyncEnabled()) {
        auto copying = syncToDrive(id);
        co_await copying;
        if (!self)
            co_return;
    }
    if (m_parts.settings.autoTranscribe()) {
        auto transcribing = transcribe(id);
        co_await transcribing;
        if (!self)
            co_return;
    }
    setActivity(id, std::nullopt);
}

QCoro::Task<> AppController::transcribe(QUuid id, std::optional<TranscriptionProvider> provider)
{
    QPointer<AppController> self(this);
    std::optional<Recording> record = m_parts.store.recording(id);
    if (!record || record->state != ProcessingState::ready || record->transcriptState == TranscriptState::running)
        co_return;
    record->transcriptState = TranscriptState::running;
    record->lastError.reset();
    if (!saveOrSay(*record))
        co_return;
    setActivity(id, transcribingLabel());
    QLockFile running(transcriptionLockPath(*record));
    running.tryLock(0);

    auto transcribing = m_parts.transcription.transcribe(
        *record, transcriptionOptions(m_parts.settings, provider.value_or(m_parts.settings.provider())),
        [self, id](const QString &text) {
            if (self && self->m_activities.contains(id))
                self->setActivity(id, text);
        });
    auto result = co_await transcribing;
    if (!self)
        co_return;

    record = m_parts.store.recording(id);
    if (!record) {
        setActivity(id, std::nullopt);
        co_return;
    }
    if (result) {
        if (const auto saved = m_parts.store.saveTranscript(*result, *record); !saved)
            result = unexpected(TranscriptionError::file(record->folderPath(), saved.error().reason));
    }
    if (result) {
        record->transcriptState = TranscriptState::done;
        record->transcriptEngine = result->engine;
        saveOrSay(*record);
        bumpTranscriptRevision();
        m_parts.notifier.postAbout(tr("Transcript ready"), record ? record->title : QString(), id);
        if (m_parts.settings.driveSyncEnabled()) {
            auto copying = syncToDrive(id);
            co_await copying;
            if (!self)
                co_return;
        }
    } else {
        const QString text = result.error().description();
        record->transcriptState = TranscriptState::failed;
        record->lastError = text;
        saveOrSay(*record);
        m_parts.notifier.post(tr("Transcription failed"), text);
    }
    setActivity(id, std::nullopt);
}

QCoro::Task<> AppController::syncToDrive(QUuid id)
{
    QPointer<AppController> self(this);
    const std::optional<Recording> record = m_parts.store.recording(id);
    if (!record || record->state != ProcessingState::ready)
        co_return;
    const std::optional<QString> previous =
        m_activities.contains(id) ? std::optional(m_activities.value(id)) : std::nullopt;
    setActivity(id, copyingLabel());

    auto copying = DriveSync::sync(*record, DriveSync::DriveOptions::from(m_parts.settings), m_parts.drivePlaces);
    const auto copied = co_await copying;
    if (!self)
        co_return;

    std::optional<Recording> fresh = m_parts.store.recording(id);
    if (fresh) {
        if (copied) {
            fresh->driveSyncedAt = m_parts.now();
            if (fresh->transcriptState != TranscriptState::failed)
                fresh->lastError.reset();
            saveOrSay(*fresh);
        } else if (copied.error().kind == SyncError::Kind::nothingToCopy) {
            // Not a failure: there is simply nothing of this recording to copy yet.
            logLine(copied.error().description());
        } else {
            fresh->lastError = copied.error().description();
            saveOrSay(*fresh);
            m_parts.notifier.post(tr("Google Drive sync failed"), copied.error().description());
        }
    }
    setActivity(id, previous);
}

QCoro::Task<> AppController::syncAllToDrive()
{
    QPointer<AppController> self(this);
    const QList<Recording> records = m_parts.store.recordings();
    for (const Recording &record : records) {
        if (record.state != ProcessingState::ready)
            continue;
        auto copying = syncToDrive(record.id);
        co_await copying;
        if (!self)
            co_return;
    }
}

expected<void, SaveError> AppController::renameSpeaker(const QString &label, const QString &name,
                                                       const Recording &recording)
{
    std::optional<Transcript> transcript = m_parts.store.transcript(recording);
    if (!transcript)
        return {};
    transcript->speakerNames.insert(label, name);
    if (auto saved = m_parts.store.saveTranscript(*transcript, recording); !saved)
        return saved;
    bumpTranscriptRevision();
    if (m_parts.settings.driveSyncEnabled() && recording.driveSyncedAt)
        syncToDrive(recording.id);
    return {};
}

expected<void, SaveError> AppController::rename(const Recording &recording, const QString &title)
{
    const QString trimmed = trimSpacesAndTabs(title);
    if (trimmed.isEmpty())
        return {};
    std::optional<Recording> record = m_parts.store.recording(recording.id);
    if (!record)
        return {};
    record->title = trimmed;
    if (auto saved = m_parts.store.save(*record); !saved)
        return saved;
    // The exports carry the title; transcript.json doesn't, so a failure here leaves nothing inconsistent.
    if (const std::optional<Transcript> transcript = m_parts.store.transcript(*record))
        (void)m_parts.store.saveTranscript(*transcript, *record);
    return {};
}

void AppController::recoverInterruptedRecordings()
{
    const QList<Recording> records = m_parts.store.recordings();
    for (Recording record : records) {
        // A transcription cut off with its run would otherwise stay "running" and refuse every retry.
        if (record.transcriptState == TranscriptState::running) {
            QLockFile transcription(transcriptionLockPath(record));
            if (transcription.tryLock(0)) {
                transcription.unlock();
                record.transcriptState = TranscriptState::failed;
                record.lastError = tr("The transcription was interrupted before it finished. Transcribe again to "
                                      "retry.");
                saveOrSay(record);
            }
        }
        if (record.state != ProcessingState::recording && record.state != ProcessingState::processing)
            continue;
        // Still being captured by another run: not interrupted. A lock left by a process that died is stale
        // and is taken over here.
        QLockFile capture(captureLockPath(record));
        if (!capture.tryLock(0))
            continue;
        capture.unlock();
        record.hasMeetingTrack = sourceExists(record, kMeetingTrackFileName);
        record.hasMicrophoneTrack = sourceExists(record, kMicrophoneTrackFileName);
        record.hasVideo = record.hasVideo && sourceExists(record, kScreenTrackFileName);
        record.state = ProcessingState::processing;
        if (saveOrSay(record))
            finalize(record.id, true);
    }
}

bool AppController::lacksSpaceToJoin(const Recording &record) const
{
    const std::optional<qint64> free = m_parts.freeSpace ? m_parts.freeSpace(record.folderPath()) : std::nullopt;
    if (!free)
        return false;
    qint64 tracks = 0;
    const QDir source(QDir(record.folderPath()).filePath(QLatin1String(kSourceFolderName)));
    for (const QFileInfo &track : source.entryInfoList(QDir::Files))
        tracks += track.size();
    // The joined file is about the size of its tracks; a little more covers the container and the speech copy.
    constexpr qint64 margin = 64LL * 1024 * 1024;
    return *free < tracks + margin;
}

bool AppController::saveOrSay(const Recording &recording)
{
    const auto saved = m_parts.store.save(recording);
    if (!saved)
        setErrorMessage(saved.error().description());
    return bool(saved);
}

void AppController::setActivity(const QUuid &id, std::optional<QString> label)
{
    if (label) {
        if (m_activities.value(id) == *label && m_activities.contains(id))
            return;
        m_activities.insert(id, *label);
    } else {
        if (!m_activities.remove(id))
            return;
    }
    Q_EMIT activitiesChanged();
    const bool processing = !m_activities.isEmpty();
    if (processing != m_isProcessing) {
        m_isProcessing = processing;
        Q_EMIT isProcessingChanged(processing);
    }
    if (!label)
        Q_EMIT finishedProcessing(id);
}

void AppController::bumpTranscriptRevision()
{
    ++m_transcriptRevision;
    Q_EMIT transcriptRevisionChanged(m_transcriptRevision);
}

} // namespace qm
