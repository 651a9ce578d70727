#pragma once

#include "library/transcript.h"

#include <QList>

namespace qm {

// Replaces the engine's raw speaker labels, whatever their form, with "Speaker 1", "Speaker 2", … in order of
// first appearance. Segments without a speaker keep none.
void normalizeSpeakers(QList<TranscriptSegment> &segments);

// Trims every text, drops blank segments, and joins a segment into the one before it when both have the same
// speaker, the gap between them is under 1.5 s, the joined segment would span under 45 s and its text stay
// under 600 characters. The joined segment keeps the first one's id and start, and has both segments' words.
QList<TranscriptSegment> tidy(const QList<TranscriptSegment> &segments);

} // namespace qm
