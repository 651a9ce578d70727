#include "library/transcript.h"

#include "library/formatters.h"
#include "library/recording.h"
#include "library/textutil.h"

#include <QCoreApplication>

#include <algorithm>
#include <cstdlib>

namespace qm {

namespace {

QString tr(const char *text)
{
    return QCoreApplication::translate("Transcript", text);
}

// Players skip cues that are too short to see, so every cue lasts at least half a second.
constexpr double kMinCueSeconds = 0.5;
constexpr double kMaxCueSeconds = 7.0;
constexpr qsizetype kCueLineLength = 42;

// The text broken into at most two lines of kCueLineLength characters, at the space nearest the middle; nothing
// when it doesn't fit.
std::optional<QString> cueLines(const QString &text)
{
    if (text.size() <= kCueLineLength)
        return text;
    std::optional<qsizetype> best;
    for (qsizetype i = text.indexOf(u' '); i >= 0; i = text.indexOf(u' ', i + 1)) {
        if (i <= kCueLineLength && text.size() - i - 1 <= kCueLineLength &&
            (!best || std::abs(text.size() - 2 * i) < std::abs(text.size() - 2 * *best)))
            best = i;
    }
    if (!best)
        return std::nullopt;
    return text.left(*best) + u'\n' + text.mid(*best + 1);
}

struct Cue {
    double start = 0;
    double end = 0;
    QString text;
};

// A segment's words as cues. Each cue quotes the segment's text from its first word to its last, so spacing and
// punctuation stay as the engine wrote them; when a word can't be found there, the words are joined with spaces.
QList<Cue> wordCues(const TranscriptSegment &segment, const QString &prefix)
{
    QList<std::pair<qsizetype, qsizetype>> spans; // [begin, end) of each word in the text
    for (qsizetype from = 0; const TranscriptWord &word : segment.words) {
        const qsizetype at = segment.text.indexOf(word.text, from);
        if (word.text.isEmpty() || at < 0) {
            spans.clear();
            break;
        }
        spans.append({at, at + word.text.size()});
        from = at + word.text.size();
    }
    const auto textOf = [&](qsizetype first, qsizetype last) {
        if (!spans.isEmpty())
            return segment.text.mid(spans[first].first, spans[last].second - spans[first].first).simplified();
        QStringList texts;
        for (qsizetype i = first; i <= last; ++i)
            texts.append(segment.words[i].text);
        return texts.join(u' ').simplified();
    };

    QList<Cue> cues;
    for (qsizetype first = 0; first < segment.words.size();) {
        qsizetype last = first;
        while (last + 1 < segment.words.size() &&
               segment.words[last + 1].end - segment.words[first].start <= kMaxCueSeconds &&
               cueLines(prefix + textOf(first, last + 1)))
            ++last;
        const QString text = prefix + textOf(first, last);
        cues.append(Cue{segment.words[first].start, segment.words[last].end, cueLines(text).value_or(text)});
        first = last + 1;
    }
    // Stretched cues stop where the next one starts, so a segment's cues never show at once.
    for (qsizetype i = 0; i < cues.size(); ++i) {
        const double stretched = std::max(cues[i].end, cues[i].start + kMinCueSeconds);
        cues[i].end = i + 1 < cues.size() ? std::max(cues[i].end, std::min(stretched, cues[i + 1].start)) : stretched;
    }
    return cues;
}

} // namespace

QStringList Transcript::speakers() const
{
    QStringList labels;
    for (const TranscriptSegment &segment : segments) {
        if (segment.speaker && !labels.contains(*segment.speaker))
            labels.append(*segment.speaker);
    }
    return labels;
}

std::optional<QString> Transcript::nameFor(const std::optional<QString> &label) const
{
    if (!label)
        return std::nullopt;
    const auto mapped = speakerNames.constFind(*label);
    if (mapped != speakerNames.cend()) {
        const QString name = trimSpacesAndTabs(*mapped);
        if (!name.isEmpty())
            return name;
    }
    return label;
}

QString Transcript::plainText(bool timestamps) const
{
    QStringList paragraphs;
    paragraphs.reserve(segments.size());
    for (const TranscriptSegment &segment : segments) {
        QString paragraph;
        if (timestamps)
            paragraph += u'[' + Formatters::timestamp(segment.start) + QLatin1String("] ");
        const QString name = nameFor(segment.speaker).value_or(QString());
        if (!name.isEmpty())
            paragraph += name + QLatin1String(": ");
        paragraph += segment.text;
        paragraphs.append(paragraph);
    }
    return paragraphs.join(QLatin1String("\n\n"));
}

QString Transcript::markdown(const Recording &recording) const
{
    QString out = QLatin1String("# ") + recording.title + QLatin1String("\n\n");
    out +=
        QLatin1String("- **") + tr("Date") + QLatin1String(":** ") + Formatters::longDate(recording.startedAt) + u'\n';
    out += QLatin1String("- **") + tr("Duration") + QLatin1String(":** ") + Formatters::duration(recording.duration) +
           u'\n';

    QStringList names;
    for (const QString &label : speakers()) {
        const QString name = nameFor(label).value_or(QString());
        if (!name.isEmpty())
            names.append(name);
    }
    if (!names.isEmpty())
        out += QLatin1String("- **") + tr("Speakers") + QLatin1String(":** ") + names.join(QLatin1String(", ")) + u'\n';

    out += QLatin1String("- **") + tr("Transcribed with") + QLatin1String(":** ") + engine;
    if (model)
        out += QLatin1String(" (") + *model + u')';
    out += QLatin1String("\n\n---\n\n");

    for (const TranscriptSegment &segment : segments) {
        out += QLatin1String("**[") + Formatters::timestamp(segment.start) + u']';
        const QString name = nameFor(segment.speaker).value_or(QString());
        if (!name.isEmpty())
            out += u' ' + name;
        out += QLatin1String(":** ") + segment.text + QLatin1String("\n\n");
    }
    return out;
}

QString Transcript::srt() const
{
    QStringList out;
    out.reserve(segments.size());
    for (const TranscriptSegment &segment : segments) {
        const QString name = nameFor(segment.speaker).value_or(QString());
        const QString prefix = name.isEmpty() ? QString() : name + QLatin1String(": ");
        const QList<Cue> cues =
            segment.words.isEmpty()
                ? QList<Cue>{Cue{segment.start, std::max(segment.end, segment.start + kMinCueSeconds),
                                 prefix + segment.text}}
                : wordCues(segment, prefix);
        for (const Cue &cue : cues)
            out.append(QString::number(out.size() + 1) + u'\n' + Formatters::srtTime(cue.start) +
                       QLatin1String(" --> ") + Formatters::srtTime(cue.end) + u'\n' + cue.text + u'\n');
    }
    return out.join(u'\n');
}

bool isRightToLeft(const QString &text)
{
    for (const char32_t c : text.toUcs4()) {
        if ((c >= 0x0590 && c <= 0x08FF) || (c >= 0xFB1D && c <= 0xFDFF) || (c >= 0xFE70 && c <= 0xFEFF))
            return true;
        if ((c >= U'A' && c <= U'Z') || (c >= U'a' && c <= U'z') || (c >= 0x00C0 && c <= 0x024F))
            return false;
    }
    return false;
}

} // namespace qm
