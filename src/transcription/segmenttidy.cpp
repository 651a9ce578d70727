#include "transcription/segmenttidy.h"

#include <QHash>
#include <QTextBoundaryFinder>

namespace qm {

namespace {
constexpr double kMaxGap = 1.5;
constexpr double kMaxSpan = 45.0;
constexpr qsizetype kMaxCharacters = 600;

// Characters as a reader counts them: an accented letter or an emoji is one, however it is encoded.
qsizetype characterCount(const QString &text)
{
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    qsizetype count = 0;
    while (finder.toNextBoundary() != -1)
        ++count;
    return count;
}
} // namespace

void normalizeSpeakers(QList<TranscriptSegment> &segments)
{
    QHash<QString, QString> names;
    for (TranscriptSegment &segment : segments) {
        if (!segment.speaker)
            continue;
        auto found = names.constFind(*segment.speaker);
        if (found == names.constEnd())
            found = names.insert(*segment.speaker, QStringLiteral("Speaker %1").arg(names.size() + 1));
        segment.speaker = *found;
    }
}

QList<TranscriptSegment> tidy(const QList<TranscriptSegment> &segments)
{
    QList<TranscriptSegment> out;
    for (const TranscriptSegment &segment : segments) {
        const QString text = segment.text.trimmed();
        if (text.isEmpty())
            continue;
        if (!out.isEmpty()) {
            TranscriptSegment &last = out.last();
            if (last.speaker == segment.speaker && segment.start - last.end < kMaxGap &&
                segment.end - last.start < kMaxSpan &&
                characterCount(last.text) + characterCount(text) < kMaxCharacters) {
                last.text += u' ' + text;
                last.end = std::max(last.end, segment.end);
                last.words += segment.words;
                continue;
            }
        }
        TranscriptSegment kept = segment;
        kept.text = text;
        out.append(kept);
    }
    return out;
}

} // namespace qm
