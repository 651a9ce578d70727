#include "transcription/wordgrouping.h"

#include "library/textutil.h"

namespace qm {

namespace {
constexpr double kMaxPause = 1.5;
constexpr double kLongSpan = 40.0;

bool endsSentence(const QString &text)
{
    return text.endsWith(u'.') || text.endsWith(u'?') || text.endsWith(u'!');
}

bool attachesWithoutSpace(const QString &word)
{
    return QStringView(u",.?!:;").contains(word.front());
}
} // namespace

QList<TranscriptSegment> groupWords(const QList<TimedWord> &words, const QString &joiner)
{
    QList<TranscriptSegment> result;
    std::optional<TranscriptSegment> open;
    for (const TimedWord &word : words) {
        const QString text = trimSpacesAndTabs(word.text);
        if (text.isEmpty())
            continue;
        if (open) {
            const bool continues = open->speaker == word.speaker && word.start - open->end <= kMaxPause &&
                                   !(open->end - open->start > kLongSpan && endsSentence(open->text));
            if (continues) {
                // Punctuation that came as a word of its own belongs to the word before it.
                if (attachesWithoutSpace(text)) {
                    open->words.last().text += text;
                    open->words.last().end = std::max(open->words.last().end, word.end);
                } else {
                    open->text += joiner;
                    open->words.append(TranscriptWord{word.start, word.end, text});
                }
                open->text += text;
                open->end = word.end;
                continue;
            }
            result.append(*open);
        }
        open = TranscriptSegment{QUuid::createUuid(), word.start, word.end,
                                 word.speaker,        text,       {TranscriptWord{word.start, word.end, text}}};
    }
    if (open)
        result.append(*open);
    return result;
}

} // namespace qm
