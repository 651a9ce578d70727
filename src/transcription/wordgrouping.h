#pragma once

#include "library/transcript.h"

#include <QList>
#include <QString>

#include <optional>

namespace qm {

// One timed word as a provider reports it; seconds from the start of the audio.
struct TimedWord {
    QString text;
    double start = 0;
    double end = 0;
    std::optional<QString> speaker;
};

// Joins a provider's words, in time order, into segments: a new segment starts at a change of speaker, after
// a pause of more than 1.5 s, and at the first sentence end once a segment spans more than 40 s. Punctuation
// that arrives as a word of its own is attached without `joiner`. Blank words are ignored. Speaker labels
// stay raw. Each segment keeps its words, punctuation joined to the word before it.
QList<TranscriptSegment> groupWords(const QList<TimedWord> &words, const QString &joiner);

} // namespace qm
