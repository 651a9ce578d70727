#include "ui/library/recordingdelegate.h"

#include "library/recordingstore.h"
#include "ui/library/librarylistmodel.h"
#include "ui/library/markedtext.h"

#include <QApplication>
#include <QPainter>

namespace qm::ui {

namespace {

constexpr int kPadding = 8;
constexpr int kGap = 2;

struct Lines {
    bool status = false;
    bool snippet = false;
};

Lines linesOf(const QModelIndex &index)
{
    const auto status = index.data(LibraryListModel::StatusRole).value<RowStatus>();
    // A transcript hit keeps its line while its snippet is on its way, so rows don't jump.
    return {status.kind != RowStatus::Kind::none, index.data(LibraryListModel::TranscriptHitRole).toBool()};
}

QColor failureColor(const QPalette &palette)
{
    return palette.color(QPalette::Base).lightness() < 128 ? QColor(0xff, 0x7b, 0x72) : QColor(0xc0, 0x1c, 0x28);
}

} // namespace

QSize RecordingDelegate::sizeHint(const QStyleOptionViewItem &option, const QModelIndex &index) const
{
    const QFontMetrics metrics(option.font);
    const Lines lines = linesOf(index);
    int height = 2 * kPadding + 2 * metrics.height() + kGap;
    if (lines.status)
        height += metrics.height() + kGap;
    if (lines.snippet)
        height += metrics.height() + kGap;
    return {0, height};
}

void RecordingDelegate::paint(QPainter *painter, const QStyleOptionViewItem &option, const QModelIndex &index) const
{
    QStyleOptionViewItem background = option;
    initStyleOption(&background, index);
    background.text.clear();
    const QWidget *widget = option.widget;
    QStyle *style = widget ? widget->style() : QApplication::style();
    style->drawPrimitive(QStyle::PE_PanelItemViewItem, &background, painter, widget);

    const bool selected = option.state & QStyle::State_Selected;
    const QPalette &palette = option.palette;
    const QColor text = palette.color(selected ? QPalette::HighlightedText : QPalette::Text);
    QColor secondary = text;
    secondary.setAlphaF(0.68f);

    const QFontMetrics metrics(option.font);
    const int lineHeight = metrics.height();
    QRect line(option.rect.left() + kPadding + 2, option.rect.top() + kPadding, option.rect.width() - 2 * kPadding - 2,
               lineHeight);

    painter->save();
    QFont titleFont = option.font;
    titleFont.setBold(true);
    painter->setFont(titleFont);
    const QString title = index.data(RecordingStore::TitleRole).toString();
    const auto titleMark = index.data(LibraryListModel::TitleMarkRole).value<Snippet>();
    drawMarkedLine(*painter, line, title,
                   index.data(LibraryListModel::TitleMarkRole).isValid()
                       ? QPoint(int(titleMark.matchStart), int(titleMark.matchLength))
                       : QPoint(-1, 0),
                   text, markColor(palette));
    painter->setFont(option.font);

    line.translate(0, lineHeight + kGap);
    drawMarkedLine(*painter, line, index.data(LibraryListModel::SummaryRole).toString(), {-1, 0}, secondary, {});

    const auto status = index.data(LibraryListModel::StatusRole).value<RowStatus>();
    if (status.kind != RowStatus::Kind::none) {
        line.translate(0, lineHeight + kGap);
        const bool failed = status.kind == RowStatus::Kind::failed;
        const QString sign = failed ? QStringLiteral("⚠ ") : QStringLiteral("⏳ ");
        drawMarkedLine(*painter, line, sign + status.text, {-1, 0},
                       failed && !selected ? failureColor(palette) : secondary, {});
    }

    if (linesOf(index).snippet) {
        line.translate(0, lineHeight + kGap);
        const QVariant value = index.data(LibraryListModel::SnippetRole);
        const Snippet snippet = value.isValid() ? value.value<Snippet>() : Snippet{tr("…"), -1, 0};
        QFont italic = option.font;
        italic.setItalic(true);
        painter->setFont(italic);
        drawMarkedLine(*painter, line, snippet.text, QPoint(int(snippet.matchStart), int(snippet.matchLength)),
                       selected ? text : secondary, markColor(palette));
    }
    painter->restore();
}

} // namespace qm::ui
