#pragma once

#include "capture/audiosettings.h"
#include "capture/mediaprocessorerror.h"
#include "library/result.h"

#include <QString>
#include <QStringList>

#include <optional>

namespace qm {

// A stretch of the recording's timeline, in seconds.
struct TimeRange {
    double start = 0;
    double duration = 0;
};

enum class MediaFileType { m4a, mp4 };

struct RenderRequest {
    QStringList audioSources;           // files that don't exist are skipped
    std::optional<QString> videoSource; // H.264 track copied as it is
    QString output;
    MediaFileType fileType = MediaFileType::m4a;
    AudioSettings audio;
    std::optional<TimeRange> timeRange; // output time zero is the range's start
};

namespace ff {

// Places every audio source at its own start on one timeline, mixes them into one stream, encodes it once,
// and copies the first video track's packets alongside. Blocking: runs on the pump thread.
// On failure the partly written output is left for the caller; sources are only ever read.
expected<void, MediaProcessorError> render(const RenderRequest &request);

// Length of a media file in seconds, or nothing when it can't be read.
std::optional<double> mediaDuration(const QString &path);

} // namespace ff
} // namespace qm
