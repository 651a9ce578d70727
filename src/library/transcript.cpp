#include "library/transcript.h"

#include "library/formatters.h"
#include "library/recording.h"
#include "library/textutil.h"

#include <QCoreApplication>

namespace qm {

namespace {

QString tr(const char *text)
{
    return QCoreApplication::translate("Transcript", text);
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
    QStringList cues;
    cues.reserve(segments.size());
    int number = 1;
    for (const TranscriptSegment &segment : segments) {
        // Players skip cues that are too short to see, so every cue lasts at least half a second.
        const double end = std::max(segment.end, segment.start + 0.5);
        QString cue = QString::number(number++) + u'\n' + Formatters::srtTime(segment.start) + QLatin1String(" --> ") +
                      Formatters::srtTime(end) + u'\n';
        const QString name = nameFor(segment.speaker).value_or(QString());
        if (!name.isEmpty())
            cue += name + QLatin1String(": ");
        cue += segment.text + u'\n';
        cues.append(cue);
    }
    return cues.join(u'\n');
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
