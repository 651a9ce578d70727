#pragma once

#include "library/transcript.h"

#include <QStringList>

namespace qm::test {

// "start-end speaker: text" per segment ("-" for no speaker), so one table row can state a whole result.
// With `decimals` < 0 times are written as short as they go.
inline QStringList segmentLines(const QList<TranscriptSegment> &segments, int decimals = -1)
{
    QStringList lines;
    const auto time = [decimals](double t) {
        return decimals < 0 ? QString::number(t) : QString::number(t, 'f', decimals);
    };
    for (const TranscriptSegment &s : segments)
        lines.append(time(s.start) + u'-' + time(s.end) + u' ' + s.speaker.value_or(QStringLiteral("-")) +
                     QStringLiteral(": ") + s.text);
    return lines;
}

} // namespace qm::test
