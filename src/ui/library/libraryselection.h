#pragma once

#include <QObject>
#include <QUuid>

#include <optional>

class QAbstractItemModel;

namespace qm::ui {

// The one selected recording of the library window, by id, so that it survives refreshes and searches. When
// the store drops the selected recording, the one after it in the list as shown (else the one before) is
// selected; when a reload no longer finds it, nothing is. Main thread only.
class LibrarySelection : public QObject {
    Q_OBJECT

public:
    // `store` is the store's model and `shown` the list the user sees over it; both report ids under `idRole`.
    LibrarySelection(QAbstractItemModel &store, QAbstractItemModel &shown, int idRole, QObject *parent = nullptr);

    const std::optional<QUuid> &selected() const { return m_selected; }
    void select(std::optional<QUuid> id);

Q_SIGNALS:
    void selectedChanged();

private:
    int shownRow(const QUuid &id) const;
    bool inStore(const QUuid &id) const;

    QAbstractItemModel &m_store;
    QAbstractItemModel &m_shown;
    int m_idRole;
    std::optional<QUuid> m_selected;
    std::optional<std::optional<QUuid>> m_candidate; // the neighbour in the list, while it drops the selection
    std::optional<std::optional<QUuid>> m_successor; // what to select once the store has dropped it
};

} // namespace qm::ui
