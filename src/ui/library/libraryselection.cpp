#include "ui/library/libraryselection.h"

#include <QAbstractItemModel>
#include <QSet>

namespace qm::ui {

LibrarySelection::LibrarySelection(QAbstractItemModel &store, QAbstractItemModel &shown, int idRole, QObject *parent)
    : QObject(parent), m_store(store), m_shown(shown), m_idRole(idRole)
{
    connect(&store, &QAbstractItemModel::rowsAboutToBeRemoved, this, [this](const QModelIndex &, int first, int last) {
        if (!m_selected)
            return;
        QSet<QUuid> leaving;
        for (int row = first; row <= last; ++row)
            leaving.insert(m_store.index(row, 0).data(m_idRole).toUuid());
        if (!leaving.contains(*m_selected))
            return;
        const int at = shownRow(*m_selected);
        std::optional<QUuid> next;
        if (at >= 0) {
            for (int row = at + 1; row < m_shown.rowCount() && !next; ++row) {
                const QUuid id = m_shown.index(row, 0).data(m_idRole).toUuid();
                if (!leaving.contains(id))
                    next = id;
            }
            for (int row = at - 1; row >= 0 && !next; --row) {
                const QUuid id = m_shown.index(row, 0).data(m_idRole).toUuid();
                if (!leaving.contains(id))
                    next = id;
            }
        }
        m_successor = next;
    });
    connect(&store, &QAbstractItemModel::rowsRemoved, this, [this] {
        if (!m_successor)
            return;
        const std::optional<QUuid> next = *m_successor;
        m_successor.reset();
        select(next);
    });
    connect(&store, &QAbstractItemModel::modelReset, this, [this] {
        if (m_selected && !inStore(*m_selected))
            select(std::nullopt);
    });
}

void LibrarySelection::select(std::optional<QUuid> id)
{
    if (id == m_selected)
        return;
    m_selected = id;
    Q_EMIT selectedChanged();
}

int LibrarySelection::shownRow(const QUuid &id) const
{
    for (int row = 0; row < m_shown.rowCount(); ++row) {
        if (m_shown.index(row, 0).data(m_idRole).toUuid() == id)
            return row;
    }
    return -1;
}

bool LibrarySelection::inStore(const QUuid &id) const
{
    for (int row = 0; row < m_store.rowCount(); ++row) {
        if (m_store.index(row, 0).data(m_idRole).toUuid() == id)
            return true;
    }
    return false;
}

} // namespace qm::ui
