#pragma once

#include "library/recording.h"
#include "library/transcript.h"

namespace qm::test {

// A finished recording with every field set, placed in `folder`.
Recording sampleRecording(const QString &folder = QStringLiteral("/"));

// A transcript with two speakers and three segments.
Transcript sampleTranscript();

// Writes `recording` (or raw bytes) as a library folder named `name` under `root`; returns the folder path.
QString writeRecordingFolder(const QString &root, const QString &name, const Recording &recording);
QString writeRecordingFolder(const QString &root, const QString &name, const QByteArray &metadata);

} // namespace qm::test
