#include "ui/library/libraryviewstate.h"

#include "library/formatters.h"

#include <QCoreApplication>

namespace qm::ui {

namespace {

QString tr(const char *text)
{
    return QCoreApplication::translate("LibraryWindow", text);
}

} // namespace

QString sourceLabel(RecordingSource source)
{
    switch (source) {
    case RecordingSource::zoom:
        return tr("Zoom");
    case RecordingSource::systemAudio:
        return tr("System audio");
    case RecordingSource::inPerson:
        return tr("In person");
    }
    return {};
}

QString recordingSummary(const Recording &recording)
{
    QStringList parts{Formatters::shortDate(recording.startedAt)};
    if (recording.duration > 0)
        parts.append(Formatters::duration(recording.duration));
    parts.append(sourceLabel(recording.source));
    return parts.join(QStringLiteral(" · "));
}

RowStatus rowStatus(const Recording &recording, const std::optional<QString> &activity)
{
    if (activity)
        return {RowStatus::Kind::working, *activity};
    if (recording.state == ProcessingState::recording)
        return {RowStatus::Kind::working, tr("Recording…")};
    if (recording.state == ProcessingState::failed || recording.transcriptState == TranscriptState::failed)
        return {RowStatus::Kind::failed, recording.lastError.value_or(tr("Something went wrong."))};
    if (recording.state == ProcessingState::processing)
        return {RowStatus::Kind::working, tr("Waiting to be saved")};
    return {};
}

std::optional<Placeholder> listPlaceholder(int libraryCount, int shownCount, const QString &query, bool searching)
{
    if (libraryCount == 0)
        return Placeholder{tr("No recordings yet"),
                           tr("Start a recording from the Quillmoor icon in the system tray.")};
    if (shownCount > 0)
        return std::nullopt;
    if (searching)
        return Placeholder{tr("Searching…"), {}};
    return Placeholder{tr("No results"), tr("Nothing in titles or transcripts matches “%1”.").arg(query)};
}

Placeholder noSelectionPlaceholder()
{
    return {tr("Select a recording"), {}};
}

DetailState detailState(const DetailFacts &facts)
{
    const Recording &r = facts.recording;
    DetailState s;
    s.busyText = facts.activity;
    const bool ready = r.state == ProcessingState::ready;
    const bool working = facts.activity.has_value() || r.transcriptState == TranscriptState::running;

    s.transcribeText = r.transcriptState == TranscriptState::done ? tr("Re-transcribe") : tr("Transcribe");
    s.transcribeEnabled = ready && facts.sourceTracksExist && !working;
    s.driveText = r.driveSyncedAt ? tr("Re-sync Drive") : tr("Copy to Google Drive");
    s.driveEnabled = ready && !working;

    s.showTranscript = facts.hasTranscript;
    s.exportEnabled = facts.hasTranscript;
    s.copyEnabled = facts.hasTranscript;
    if (!facts.hasTranscript) {
        s.exportHint = tr("Transcribe first to export");
        s.emptyTitle = tr("No transcript yet");
        // Only a saved recording can be transcribed; for the others the media note says what happened.
        if (ready)
            s.emptyDetail = tr("Click Transcribe to create one with ") + label(facts.provider) +
                            tr(" – change in Settings › Transcription");
    }
    if (r.lastError &&
        (r.state == ProcessingState::failed || r.transcriptState == TranscriptState::failed || !facts.activity))
        s.errorText = r.lastError;

    s.showPlayer = facts.mediaExists;
    if (!facts.mediaExists) {
        switch (r.state) {
        case ProcessingState::recording:
            s.mediaNote = tr("This recording is still being captured. It can be played once it is saved.");
            break;
        case ProcessingState::processing:
            s.mediaNote = tr("The recording is being saved. It can be played when that is done.");
            break;
        case ProcessingState::failed:
            s.mediaNote = facts.sourceTracksExist
                              ? tr("The recording couldn't be saved, so there is nothing to play. Its source tracks "
                                   "are still in its folder: open it with Show in Files.")
                              : tr("The recording couldn't be saved, and no audio was kept.");
            break;
        case ProcessingState::ready:
            s.mediaNote = facts.sourceTracksExist
                              ? tr("The media file is missing from the recording's folder. It can still be "
                                   "transcribed from its source tracks.")
                              : tr("The media file and the source tracks are missing from the recording's folder.");
            break;
        }
    }
    if (s.showPlayer && facts.captureRunning)
        s.playbackNote = tr("Playback waits while a recording is running, so that it isn't recorded too.");
    return s;
}

QString trashTitle(const Recording &recording)
{
    return tr("Move “") + recording.title + tr("” to the Trash?");
}

QString trashMessage()
{
    return tr("The recording, its transcript and source tracks will be moved to the Trash. Copies in Google Drive "
              "are not touched.");
}

} // namespace qm::ui
