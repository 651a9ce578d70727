#pragma once

#include <QHash>
#include <QStyledItemDelegate>

namespace qm::ui {

// Draws one segment of the transcript (TranscriptModel's roles) as a SegmentRow: its time (a link that seeks
// there), its speaker and its text with the search's matches marked. The segment being played gets a bar, a
// "▶" and a tint, so it is found by shape as well as by colour. Under the pointer, and for the current row, a
// "Play from here" button shows at the right.
class SegmentDelegate : public QStyledItemDelegate {
    Q_OBJECT

public:
    using QStyledItemDelegate::QStyledItemDelegate;

    void paint(QPainter *painter, const QStyleOptionViewItem &option, const QModelIndex &index) const override;
    QSize sizeHint(const QStyleOptionViewItem &option, const QModelIndex &index) const override;
    bool editorEvent(QEvent *event, QAbstractItemModel *model, const QStyleOptionViewItem &option,
                     const QModelIndex &index) override;
    bool helpEvent(QHelpEvent *event, QAbstractItemView *view, const QStyleOptionViewItem &option,
                   const QModelIndex &index) override;

    // The width rows are laid out for; heights are remembered per row until it changes or forget() is called.
    void setWidth(int width);
    void forget();

    static QString playFromHereText();

Q_SIGNALS:
    void seekRequested(int row);
    void playRequested(int row);

private:
    QRect timeRect(const QStyleOptionViewItem &option, const QModelIndex &index) const;
    QRect playRect(const QStyleOptionViewItem &option) const;
    int textWidth() const;

    int m_width = 400;
    mutable QHash<int, int> m_heights;
};

} // namespace qm::ui
