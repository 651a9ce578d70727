#pragma once

#include "library/recording.h"
#include "library/settingsvalues.h"

#include <QString>

#include <optional>

// What the library window shows, decided without widgets: the texts, which actions are offered and enabled,
// and why something can't be done. The widgets only draw these.
namespace qm::ui {

// "Zoom", "System audio", "In person".
QString sourceLabel(RecordingSource source);

// The second line of a recording in the list: "Today at 10:05 · 1h 2m · Zoom".
QString recordingSummary(const Recording &recording);

// What a row says about the recording's state, if anything.
struct RowStatus {
    enum class Kind { none, working, failed };
    Kind kind = Kind::none;
    QString text;

    bool operator==(const RowStatus &) const = default;
};
RowStatus rowStatus(const Recording &recording, const std::optional<QString> &activity);

// The text in place of an empty list.
struct Placeholder {
    QString title;
    QString detail;
};
// Nothing when the list has rows. `searching`: a search has not answered yet.
std::optional<Placeholder> listPlaceholder(int libraryCount, int shownCount, const QString &query, bool searching);
Placeholder noSelectionPlaceholder();

// Everything the detail view needs to know to draw one recording.
struct DetailFacts {
    Recording recording;
    bool hasTranscript = false;
    std::optional<QString> activity; // the controller's label while it works on the recording
    TranscriptionProvider provider = TranscriptionProvider::onDevice;
    bool mediaExists = false;       // the final media file is in the folder
    bool sourceTracksExist = false; // at least one source track is
    bool captureRunning = false;    // the controller is recording (any recording)
};

struct DetailState {
    QString transcribeText;
    bool transcribeEnabled = false;
    QString driveText;
    bool driveEnabled = false;
    bool exportEnabled = false;
    QString exportHint; // shown instead of the Export menu when there is nothing to export
    bool copyEnabled = false;
    bool showTranscript = false;
    QString emptyTitle; // without a transcript
    QString emptyDetail;
    std::optional<QString> busyText;  // the controller's activity
    std::optional<QString> errorText; // the recording's last error
    std::optional<QString> mediaNote; // why there is nothing to play, and what can still be done
    bool showPlayer = false;
    std::optional<QString> playbackNote; // why playback waits
};

DetailState detailState(const DetailFacts &facts);

// The confirmation before moving to the Trash.
QString trashTitle(const Recording &recording);
QString trashMessage();

} // namespace qm::ui
