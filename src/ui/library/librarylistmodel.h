#pragma once

#include "ui/library/libraryviewstate.h"
#include "ui/library/searchtext.h"

#include <QHash>
#include <QSortFilterProxyModel>
#include <QUuid>

namespace qm {
class RecordingStore;
}

namespace qm::ui {

class LibrarySearch;

// The recordings the list shows: the store's, newest first, narrowed to the latest search's hits, with what
// each row says besides the store's roles. Main thread only.
class LibraryListModel : public QSortFilterProxyModel {
    Q_OBJECT

public:
    enum Role {
        SummaryRole = Qt::UserRole + 100, // QString: date · duration · source
        StatusRole,                       // RowStatus
        SnippetRole,                      // Snippet of the matching transcript text, when there is one yet
        TitleMarkRole,                    // Snippet of the title with the match marked, for a title hit
        TranscriptHitRole,                // bool: the search found the recording in its transcript
    };
    Q_ENUM(Role)

    LibraryListModel(RecordingStore &store, LibrarySearch &search, QObject *parent = nullptr);

    // The controller's activity labels, by recording.
    void setActivities(const QHash<QUuid, QString> &activities);

    QUuid idAt(int row) const;
    QModelIndex indexOf(const QUuid &id) const;
    // The first segment of the recording's transcript that matches the search, when known.
    int matchingSegment(const QUuid &id) const;

    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;

protected:
    bool filterAcceptsRow(int sourceRow, const QModelIndex &sourceParent) const override;

private:
    void rowChanged(const QUuid &id);

    RecordingStore &m_store;
    LibrarySearch &m_search;
    QHash<QUuid, QString> m_activities;
};

} // namespace qm::ui

Q_DECLARE_METATYPE(qm::ui::Snippet)
Q_DECLARE_METATYPE(qm::ui::RowStatus)
