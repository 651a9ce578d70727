#include "ui/library/transcriptmodel.h"

#include "library/formatters.h"
#include "ui/library/searchtext.h"

#include <QPoint>

#include <algorithm>

namespace qm::ui {

TranscriptModel::TranscriptModel(QObject *parent) : QAbstractListModel(parent) {}

void TranscriptModel::setTranscript(std::optional<Transcript> transcript)
{
    beginResetModel();
    m_transcript = std::move(transcript);
    m_speakers = m_transcript ? m_transcript->speakers() : QStringList();
    m_active = -1;
    endResetModel();
    Q_EMIT activeRowChanged(-1);
}

void TranscriptModel::setQuery(const QString &query)
{
    const QString folded = SearchFold()(searchQuery(query));
    if (folded == m_foldedQuery)
        return;
    m_foldedQuery = folded;
    if (rowCount() > 0)
        Q_EMIT dataChanged(index(0), index(rowCount() - 1), {MatchesRole});
}

int TranscriptModel::firstMatch() const
{
    if (!m_transcript)
        return -1;
    return firstMatchingSegment(*m_transcript, m_foldedQuery, SearchFold());
}

int TranscriptModel::segmentAt(const QList<TranscriptSegment> &segments, double seconds)
{
    const auto after = std::upper_bound(segments.cbegin(), segments.cend(), seconds,
                                        [](double t, const TranscriptSegment &s) { return t < s.start; });
    return int(after - segments.cbegin()) - 1;
}

void TranscriptModel::setTime(double seconds)
{
    const int row = m_transcript ? segmentAt(m_transcript->segments, seconds) : -1;
    if (row == m_active)
        return;
    const int previous = m_active;
    m_active = row;
    if (previous >= 0)
        Q_EMIT dataChanged(index(previous), index(previous), {ActiveRole});
    if (row >= 0)
        Q_EMIT dataChanged(index(row), index(row), {ActiveRole});
    Q_EMIT activeRowChanged(row);
}

int TranscriptModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() || !m_transcript ? 0 : int(m_transcript->segments.size());
}

QVariant TranscriptModel::data(const QModelIndex &index, int role) const
{
    if (!checkIndex(index, CheckIndexOption::IndexIsValid | CheckIndexOption::ParentIsInvalid))
        return {};
    const TranscriptSegment &segment = m_transcript->segments.at(index.row());
    switch (role) {
    case Qt::DisplayRole:
        return segment.text.normalized(QString::NormalizationForm_C);
    case StartRole:
        return segment.start;
    case TimestampRole:
        return Formatters::timestamp(segment.start);
    case SpeakerRole: {
        const std::optional<QString> name = m_transcript->nameFor(segment.speaker);
        return name ? QVariant(*name) : QVariant();
    }
    case SpeakerIndexRole:
        return segment.speaker ? int(m_speakers.indexOf(*segment.speaker)) : -1;
    case ActiveRole:
        return index.row() == m_active;
    case MatchesRole: {
        QList<QPoint> matches;
        if (m_foldedQuery.isEmpty())
            return QVariant::fromValue(matches);
        const QString folded = SearchFold()(segment.text);
        if (folded.size() != segment.text.normalized(QString::NormalizationForm_C).size())
            return QVariant::fromValue(matches);
        for (qsizetype at = folded.indexOf(m_foldedQuery); at >= 0;
             at = folded.indexOf(m_foldedQuery, at + m_foldedQuery.size()))
            matches.append(QPoint(int(at), int(m_foldedQuery.size())));
        return QVariant::fromValue(matches);
    }
    default:
        return {};
    }
}

} // namespace qm::ui
