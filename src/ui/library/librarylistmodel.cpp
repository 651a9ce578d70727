#include "ui/library/librarylistmodel.h"

#include "library/recordingstore.h"
#include "ui/library/librarysearch.h"
#include "ui/library/libraryviewstate.h"

namespace qm::ui {

LibraryListModel::LibraryListModel(RecordingStore &store, LibrarySearch &search, QObject *parent)
    : QSortFilterProxyModel(parent), m_store(store), m_search(search)
{
    setSourceModel(&store);
    connect(&search, &LibrarySearch::hitsChanged, this, [this] { invalidateRowsFilter(); });
    connect(&search, &LibrarySearch::hitChanged, this, &LibraryListModel::rowChanged);
}

void LibraryListModel::setActivities(const QHash<QUuid, QString> &activities)
{
    QSet<QUuid> changed;
    for (auto it = activities.cbegin(); it != activities.cend(); ++it) {
        if (m_activities.value(it.key()) != it.value() || !m_activities.contains(it.key()))
            changed.insert(it.key());
    }
    for (auto it = m_activities.cbegin(); it != m_activities.cend(); ++it) {
        if (!activities.contains(it.key()))
            changed.insert(it.key());
    }
    m_activities = activities;
    for (const QUuid &id : std::as_const(changed))
        rowChanged(id);
}

QUuid LibraryListModel::idAt(int row) const
{
    return index(row, 0).data(RecordingStore::IdRole).toUuid();
}

QModelIndex LibraryListModel::indexOf(const QUuid &id) const
{
    const QList<Recording> &recordings = m_store.recordings();
    for (qsizetype row = 0; row < recordings.size(); ++row) {
        if (recordings.at(row).id == id)
            return mapFromSource(m_store.index(int(row)));
    }
    return {};
}

int LibraryListModel::matchingSegment(const QUuid &id) const
{
    if (!m_search.hits())
        return -1;
    const auto hit = m_search.hits()->constFind(id);
    return hit == m_search.hits()->cend() ? -1 : hit->segment;
}

void LibraryListModel::rowChanged(const QUuid &id)
{
    const QModelIndex changed = indexOf(id);
    if (changed.isValid())
        Q_EMIT dataChanged(changed, changed);
}

QVariant LibraryListModel::data(const QModelIndex &index, int role) const
{
    if (!checkIndex(index, CheckIndexOption::IndexIsValid | CheckIndexOption::ParentIsInvalid))
        return {};
    if (role < SummaryRole)
        return QSortFilterProxyModel::data(index, role);
    const int sourceRow = mapToSource(index).row();
    if (sourceRow < 0 || sourceRow >= m_store.count())
        return {};
    const Recording *recording = &m_store.recordings().at(sourceRow);
    switch (role) {
    case SummaryRole:
        return recordingSummary(*recording);
    case StatusRole: {
        const auto activity = m_activities.constFind(recording->id);
        return QVariant::fromValue(
            rowStatus(*recording, activity == m_activities.cend() ? std::nullopt : std::optional<QString>(*activity)));
    }
    case SnippetRole:
    case TitleMarkRole:
    case TranscriptHitRole: {
        if (!m_search.hits())
            return {};
        const auto hit = m_search.hits()->constFind(recording->id);
        if (hit == m_search.hits()->cend())
            return {};
        if (role == TranscriptHitRole)
            return !hit->inTitle;
        if (role == TitleMarkRole) {
            if (!hit->inTitle)
                return {};
            const std::optional<Snippet> mark = findIn(recording->title, SearchFold()(m_search.query()), SearchFold(),
                                                       int(recording->title.size()) + 1);
            return mark ? QVariant::fromValue(*mark) : QVariant();
        }
        if (hit->inTitle)
            return {};
        if (!hit->snippet) {
            m_search.requestSnippet(recording->id);
            return {};
        }
        return QVariant::fromValue(*hit->snippet);
    }
    default:
        return {};
    }
}

bool LibraryListModel::filterAcceptsRow(int sourceRow, const QModelIndex &sourceParent) const
{
    if (sourceParent.isValid() || !m_search.hits())
        return !sourceParent.isValid();
    return m_search.hits()->contains(m_store.recordings().at(sourceRow).id);
}

} // namespace qm::ui
