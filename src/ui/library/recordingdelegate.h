#pragma once

#include <QStyledItemDelegate>

namespace qm::ui {

// Draws one recording of the list (LibraryListModel's roles): title, the date line, the state when there is
// something to say (a sign before it, so failure isn't told by colour alone) and a search's snippet.
class RecordingDelegate : public QStyledItemDelegate {
    Q_OBJECT

public:
    using QStyledItemDelegate::QStyledItemDelegate;

    void paint(QPainter *painter, const QStyleOptionViewItem &option, const QModelIndex &index) const override;
    QSize sizeHint(const QStyleOptionViewItem &option, const QModelIndex &index) const override;
};

} // namespace qm::ui
