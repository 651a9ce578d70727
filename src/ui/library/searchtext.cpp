#include "ui/library/searchtext.h"

#include "library/jsoncoding.h"
#include "library/recordingstore.h"

#include <QDir>
#include <QFile>

namespace qm::ui {

SearchFold::SearchFold(const QLocale &locale)
    : m_turkic(locale.language() == QLocale::Turkish || locale.language() == QLocale::Azerbaijani)
{}

QString SearchFold::operator()(const QString &text) const
{
    QString composed = text.normalized(QString::NormalizationForm_C);
    if (m_turkic) {
        // Unicode's Turkic case folding: I pairs with dotless ı, and İ with i.
        for (QChar &c : composed) {
            if (c == u'I')
                c = QChar(0x0131);
            else if (c == QChar(0x0130))
                c = u'i';
        }
    }
    return composed.toCaseFolded();
}

QString SearchFold::flavour() const
{
    return QStringLiteral("%1/%2").arg(m_turkic ? QStringLiteral("turkic") : QStringLiteral("default"),
                                       QString::fromLatin1(qVersion()));
}

QString searchQuery(const QString &typed)
{
    return typed.trimmed();
}

Snippet snippetAround(const QString &composed, qsizetype at, qsizetype length, int width)
{
    const qsizetype size = composed.size();
    if (at < 0 || length <= 0 || at + length > size)
        return {composed.left(width), -1, 0};
    const qsizetype room = std::max<qsizetype>(0, width - length);
    qsizetype begin = std::max<qsizetype>(0, at - room / 3);
    qsizetype end = std::min(size, at + length + (room - (at - begin)));
    begin = std::max<qsizetype>(0, std::min(begin, end - width));

    // Start after a space and stop before one, unless that would eat most of the context.
    if (begin > 0) {
        const qsizetype space = composed.indexOf(u' ', begin);
        if (space >= 0 && space < at && space - begin < 15)
            begin = space + 1;
    }
    if (end < size) {
        const qsizetype space = composed.lastIndexOf(u' ', end - 1);
        if (space >= at + length && end - space < 15)
            end = space;
    }
    QString text;
    if (begin > 0)
        text += QStringLiteral("…");
    const qsizetype offset = text.size();
    text += QStringView(composed).mid(begin, end - begin).toString().replace(u'\n', u' ');
    if (end < size)
        text += QStringLiteral("…");
    return {text, offset + (at - begin), length};
}

std::optional<Snippet> findIn(const QString &text, const QString &foldedQuery, const SearchFold &fold, int width)
{
    if (foldedQuery.isEmpty())
        return std::nullopt;
    const QString folded = fold(text);
    const qsizetype at = folded.indexOf(foldedQuery);
    if (at < 0)
        return std::nullopt;
    const QString composed = text.normalized(QString::NormalizationForm_C);
    if (composed.size() != folded.size()) // a fold that changed the length: show the text without a mark
        return Snippet{composed.left(width), -1, 0};
    return snippetAround(composed, at, foldedQuery.size(), width);
}

std::optional<Transcript> readTranscript(const QString &folder)
{
    // Read as the store reads it, so that what the search sees is what the detail view shows.
    QFile file(QDir(folder).filePath(QLatin1String(kTranscriptFileName)));
    if (file.size() > kLibraryFileSizeLimit || !file.open(QIODevice::ReadOnly))
        return std::nullopt;
    auto decoded = JsonCoding::decodeTranscript(file.read(kLibraryFileSizeLimit));
    if (!decoded)
        return std::nullopt;
    return std::move(*decoded);
}

int firstMatchingSegment(const Transcript &transcript, const QString &foldedQuery, const SearchFold &fold)
{
    if (foldedQuery.isEmpty())
        return -1;
    for (qsizetype i = 0; i < transcript.segments.size(); ++i) {
        if (fold(transcript.segments.at(i).text).contains(foldedQuery))
            return int(i);
    }
    return -1;
}

std::optional<QList<SearchHit>> scanLibrary(const QList<SearchEntry> &entries, const QString &query,
                                            const SearchFold &fold, const std::function<bool()> &cancelled)
{
    QList<SearchHit> hits;
    const QString trimmed = searchQuery(query);
    if (trimmed.isEmpty()) {
        for (const SearchEntry &entry : entries)
            hits.append({entry.id, false, -1, std::nullopt});
        return hits;
    }
    const QString folded = fold(trimmed);
    for (const SearchEntry &entry : entries) {
        if (cancelled && cancelled())
            return std::nullopt;
        if (fold(entry.title).contains(folded)) {
            hits.append({entry.id, true, -1, std::nullopt});
            continue;
        }
        const std::optional<Transcript> transcript = readTranscript(entry.folder);
        if (!transcript)
            continue;
        const int segment = firstMatchingSegment(*transcript, folded, fold);
        if (segment >= 0)
            hits.append({entry.id, false, segment, findIn(transcript->segments.at(segment).text, folded, fold)});
    }
    return hits;
}

} // namespace qm::ui
