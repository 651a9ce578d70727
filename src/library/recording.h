#pragma once

#include "library/enumtext.h"

#include <QDateTime>
#include <QList>
#include <QString>
#include <QUrl>
#include <QUuid>

#include <optional>

namespace qm {

enum class RecordingSource { zoom, systemAudio, inPerson };
enum class ProcessingState { recording, processing, ready, failed };
enum class TranscriptState { none, running, done, failed };

template <> struct EnumText<RecordingSource> {
    static constexpr std::array<std::pair<RecordingSource, const char *>, 3> cases{{
        {RecordingSource::zoom, "zoom"},
        {RecordingSource::systemAudio, "systemAudio"},
        {RecordingSource::inPerson, "inPerson"},
    }};
};
template <> struct EnumText<ProcessingState> {
    static constexpr std::array<std::pair<ProcessingState, const char *>, 4> cases{{
        {ProcessingState::recording, "recording"},
        {ProcessingState::processing, "processing"},
        {ProcessingState::ready, "ready"},
        {ProcessingState::failed, "failed"},
    }};
};
template <> struct EnumText<TranscriptState> {
    static constexpr std::array<std::pair<TranscriptState, const char *>, 4> cases{{
        {TranscriptState::none, "none"},
        {TranscriptState::running, "running"},
        {TranscriptState::done, "done"},
        {TranscriptState::failed, "failed"},
    }};
};

// The word a new recording of this source is named after ("Zoom Meeting"), translated.
QString defaultTitleWord(RecordingSource source);

// One captured meeting. A plain value; the store owns the persisted copy and every change goes
// through RecordingStore::save. `folder` is never written: it is where the metadata file was found.
struct Recording {
    QUuid id;
    QString title;
    RecordingSource source = RecordingSource::zoom;
    QDateTime startedAt;
    double duration = 0;
    std::optional<QString> mediaFileName;
    bool hasVideo = false;
    bool hasMicrophoneTrack = false;
    bool hasMeetingTrack = false;
    ProcessingState state = ProcessingState::recording;
    TranscriptState transcriptState = TranscriptState::none;
    std::optional<QString> transcriptEngine;
    std::optional<QString> lastError;
    std::optional<QDateTime> driveSyncedAt;
    QUrl folder = QUrl::fromLocalFile(QStringLiteral("/"));

    // Meeting track first, then the microphone; only tracks the capture reported as holding audio.
    QList<QUrl> audioSourceURLs() const;

    QString folderPath() const { return folder.toLocalFile(); }

    bool operator==(const Recording &) const = default;
};

inline constexpr const char *kMetadataFileName = "recording.json";
inline constexpr const char *kSourceFolderName = "Source";
inline constexpr const char *kMeetingTrackFileName = "meeting-audio.m4a";
inline constexpr const char *kMicrophoneTrackFileName = "microphone.m4a";
inline constexpr const char *kScreenTrackFileName = "screen.mov";

} // namespace qm
