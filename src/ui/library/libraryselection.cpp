#include "ui/library/libraryselection.h"

#include <QAbstractItemModel>

namespace qm::ui {

LibrarySelection::LibrarySelection(QAbstractItemModel &store, QAbstractItemModel &shown, int idRole, QObject *parent)
    : QObject(parent), m_store(store), m_shown(shown), m_idRole(idRole)
{
    // The list drops a row before the store has finished telling everyone about it, so the neighbour is taken
    // from the list first and used only if the store really is deleting the selected recording (rather than a
    // search hiding it).
    connect(&shown, &QAbstractItemModel::rowsAboutToBeRemoved, this, [this](const QModelIndex &, int first, int last) {
        m_candidate.reset();
        if (!m_selected)
            return;
        const int at = shownRow(*m_selected);
        if (at < first || at > last)
            return;
        std::optional<QUuid> next;
        if (last + 1 < m_shown.rowCount())
            next = m_shown.index(last + 1, 0).data(m_idRole).toUuid();
        else if (first > 0)
            next = m_shown.index(first - 1, 0).data(m_idRole).toUuid();
        m_candidate = next;
    });
    connect(&store, &QAbstractItemModel::rowsAboutToBeRemoved, this, [this](const QModelIndex &, int first, int last) {
        if (!m_selected)
            return;
        for (int row = first; row <= last; ++row) {
            if (m_store.index(row, 0).data(m_idRole).toUuid() == *m_selected) {
                m_successor = m_candidate.value_or(std::nullopt);
                return;
            }
        }
    });
    connect(&store, &QAbstractItemModel::rowsRemoved, this, [this] {
        if (!m_successor)
            return;
        const std::optional<QUuid> next = *m_successor;
        m_successor.reset();
        m_candidate.reset();
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
