#include "library/transcriptexport.h"

#include "library/jsoncoding.h"

#include <algorithm>

namespace qm {

namespace {

// "01:02:03.456", milliseconds truncated.
QString vttTime(double seconds)
{
    const qint64 total = seconds > 0 ? qint64(seconds * 1000.0) : 0;
    return QStringLiteral("%1:%2:%3.%4")
        .arg(total / 3'600'000, 2, 10, QLatin1Char('0'))
        .arg(total / 60'000 % 60, 2, 10, QLatin1Char('0'))
        .arg(total / 1000 % 60, 2, 10, QLatin1Char('0'))
        .arg(total % 1000, 3, 10, QLatin1Char('0'));
}

QString escaped(QString text)
{
    return text.replace(u'&', QStringLiteral("&amp;"))
        .replace(u'<', QStringLiteral("&lt;"))
        .replace(u'>', QStringLiteral("&gt;"));
}

} // namespace

QString extension(TranscriptFormat format)
{
    switch (format) {
    case TranscriptFormat::text:
        return QStringLiteral("txt");
    case TranscriptFormat::markdown:
        return QStringLiteral("md");
    case TranscriptFormat::subRip:
        return QStringLiteral("srt");
    case TranscriptFormat::webVTT:
        return QStringLiteral("vtt");
    case TranscriptFormat::json:
        return QStringLiteral("json");
    }
    return {};
}

QString webVTT(const Transcript &transcript)
{
    QString out = QStringLiteral("WEBVTT\n");
    for (const TranscriptSegment &segment : transcript.segments) {
        const double end = std::max(segment.end, segment.start + 0.5);
        out += u'\n' + vttTime(segment.start) + QStringLiteral(" --> ") + vttTime(end) + u'\n';
        const QString name = transcript.nameFor(segment.speaker).value_or(QString());
        // A cue's text ends at the first blank line, so line breaks inside a segment become spaces.
        const QString text = escaped(segment.text).replace(u'\n', u' ');
        if (!name.isEmpty())
            out += QStringLiteral("<v ") + escaped(name).replace(u'\n', u' ') + u'>' + text + u'\n';
        else
            out += text + u'\n';
    }
    return out;
}

QString render(TranscriptFormat format, const Transcript &transcript, const Recording &recording)
{
    switch (format) {
    case TranscriptFormat::text:
        return transcript.plainText(true);
    case TranscriptFormat::markdown:
        return transcript.markdown(recording);
    case TranscriptFormat::subRip:
        return transcript.srt();
    case TranscriptFormat::webVTT:
        return webVTT(transcript);
    case TranscriptFormat::json: {
        Transcript named = transcript;
        for (TranscriptSegment &segment : named.segments)
            segment.speaker = transcript.nameFor(segment.speaker);
        named.speakerNames.clear();
        return QString::fromUtf8(JsonCoding::encode(named));
    }
    }
    return {};
}

} // namespace qm
