#include "ui/library/segmentdelegate.h"

#include "ui/library/markedtext.h"
#include "ui/library/transcriptmodel.h"

#include <QAbstractItemView>
#include <QApplication>
#include <QHelpEvent>
#include <QMouseEvent>
#include <QPainter>
#include <QTextLayout>
#include <QToolTip>

namespace qm::ui {

namespace {

constexpr int kLeft = 14;
constexpr int kRight = 12;
constexpr int kVertical = 7;
constexpr int kGap = 3;

QColor speakerColor(int speaker, const QPalette &palette)
{
    static const int hues[] = {210, 25, 140, 280, 350, 180, 50, 320};
    if (speaker < 0)
        return palette.color(QPalette::Text);
    const bool dark = palette.color(QPalette::Base).lightness() < 128;
    return QColor::fromHsl(hues[speaker % 8], dark ? 150 : 170, dark ? 170 : 85);
}

QTextLayout *layoutText(QTextLayout &layout, const QString &text, const QFont &font, int width)
{
    layout.setText(text);
    layout.setFont(font);
    QTextOption option;
    option.setWrapMode(QTextOption::WrapAtWordBoundaryOrAnywhere);
    option.setTextDirection(Qt::LayoutDirectionAuto);
    layout.setTextOption(option);
    layout.beginLayout();
    qreal y = 0;
    for (QTextLine line = layout.createLine(); line.isValid(); line = layout.createLine()) {
        line.setLineWidth(width);
        line.setPosition(QPointF(0, y));
        y += line.height();
    }
    layout.endLayout();
    return &layout;
}

} // namespace

QString SegmentDelegate::playFromHereText()
{
    return tr("Play from here");
}

void SegmentDelegate::setWidth(int width)
{
    if (width == m_width)
        return;
    m_width = width;
    m_heights.clear();
}

void SegmentDelegate::forget()
{
    m_heights.clear();
}

int SegmentDelegate::textWidth() const
{
    return std::max(80, m_width - kLeft - kRight);
}

QSize SegmentDelegate::sizeHint(const QStyleOptionViewItem &option, const QModelIndex &index) const
{
    const auto known = m_heights.constFind(index.row());
    if (known != m_heights.cend())
        return {m_width, *known};
    QTextLayout layout;
    layoutText(layout, index.data().toString(), option.font, textWidth());
    const int height =
        kVertical * 2 + QFontMetrics(option.font).height() + kGap + int(std::ceil(layout.boundingRect().height()));
    m_heights.insert(index.row(), height);
    return {m_width, height};
}

QRect SegmentDelegate::timeRect(const QStyleOptionViewItem &option, const QModelIndex &index) const
{
    QFont font = option.font;
    font.setBold(true);
    const QFontMetrics metrics(font);
    const QString time = QStringLiteral("▶ ") + index.data(TranscriptModel::TimestampRole).toString();
    return {option.rect.left() + kLeft, option.rect.top() + kVertical, metrics.horizontalAdvance(time),
            metrics.height()};
}

QRect SegmentDelegate::playRect(const QStyleOptionViewItem &option) const
{
    const QFontMetrics metrics(option.font);
    const int width = metrics.horizontalAdvance(QStringLiteral("▶ ") + playFromHereText()) + 16;
    return {option.rect.right() - kRight - width, option.rect.top() + kVertical - 2, width, metrics.height() + 4};
}

void SegmentDelegate::paint(QPainter *painter, const QStyleOptionViewItem &option, const QModelIndex &index) const
{
    QStyleOptionViewItem background = option;
    initStyleOption(&background, index);
    background.text.clear();
    const bool active = index.data(TranscriptModel::ActiveRole).toBool();
    const bool selected = option.state & QStyle::State_Selected;
    const QPalette &palette = option.palette;
    const QWidget *widget = option.widget;
    QStyle *style = widget ? widget->style() : QApplication::style();

    painter->save();
    if (active && !selected) {
        QColor tint = palette.color(QPalette::Highlight);
        tint.setAlphaF(0.14f);
        painter->fillRect(option.rect, tint);
    }
    style->drawPrimitive(QStyle::PE_PanelItemViewItem, &background, painter, widget);
    if (active)
        painter->fillRect(QRect(option.rect.left() + 3, option.rect.top() + 4, 4, option.rect.height() - 8),
                          palette.color(QPalette::Highlight));

    const QColor text = palette.color(selected ? QPalette::HighlightedText : QPalette::Text);
    QFont bold = option.font;
    bold.setBold(true);
    const QFontMetrics boldMetrics(bold);

    // The header: time (a link), speaker.
    const QRect time = timeRect(option, index);
    const QString timestamp = index.data(TranscriptModel::TimestampRole).toString();
    painter->setFont(bold);
    painter->setPen(selected ? text : palette.color(QPalette::Link));
    painter->drawText(time, Qt::AlignLeft | Qt::AlignVCenter, (active ? QStringLiteral("▶ ") : QString()) + timestamp);
    int x = time.left() + boldMetrics.horizontalAdvance((active ? QStringLiteral("▶ ") : QString()) + timestamp) + 12;
    const QVariant speaker = index.data(TranscriptModel::SpeakerRole);
    if (speaker.isValid()) {
        painter->setPen(selected ? text : speakerColor(index.data(TranscriptModel::SpeakerIndexRole).toInt(), palette));
        painter->drawText(QRect(x, time.top(), option.rect.right() - x - kRight, time.height()),
                          Qt::AlignLeft | Qt::AlignVCenter, speaker.toString());
    }

    const bool hovered = option.state & QStyle::State_MouseOver;
    if (hovered || (selected && (option.state & QStyle::State_HasFocus))) {
        QStyleOptionButton button;
        button.rect = playRect(option);
        button.text = QStringLiteral("▶ ") + playFromHereText();
        button.state = QStyle::State_Enabled | QStyle::State_Raised;
        button.palette = palette;
        button.fontMetrics = option.fontMetrics;
        style->drawControl(QStyle::CE_PushButton, &button, painter, widget);
    }

    // The text, wrapped, with the matches marked.
    painter->setFont(option.font);
    painter->setPen(text);
    QTextLayout layout;
    layoutText(layout, index.data().toString(), option.font, textWidth());
    const QList<QTextLayout::FormatRange> marks =
        markFormats(index.data(TranscriptModel::MatchesRole).value<QList<QPoint>>(), palette);
    layout.draw(painter, QPointF(option.rect.left() + kLeft, time.bottom() + 1 + kGap), marks);
    painter->restore();
}

bool SegmentDelegate::editorEvent(QEvent *event, QAbstractItemModel *model, const QStyleOptionViewItem &option,
                                  const QModelIndex &index)
{
    if (event->type() == QEvent::MouseButtonRelease) {
        const auto *mouse = static_cast<QMouseEvent *>(event);
        if (mouse->button() == Qt::LeftButton) {
            if (playRect(option).contains(mouse->position().toPoint())) {
                Q_EMIT playRequested(index.row());
                return true;
            }
            if (timeRect(option, index).contains(mouse->position().toPoint())) {
                Q_EMIT seekRequested(index.row());
                return true;
            }
        }
    }
    return QStyledItemDelegate::editorEvent(event, model, option, index);
}

bool SegmentDelegate::helpEvent(QHelpEvent *event, QAbstractItemView *view, const QStyleOptionViewItem &option,
                                const QModelIndex &index)
{
    if (event->type() == QEvent::ToolTip) {
        const QPoint at = event->pos();
        if (timeRect(option, index).contains(at)) {
            QToolTip::showText(event->globalPos(),
                               tr("Go to %1").arg(index.data(TranscriptModel::TimestampRole).toString()), view);
            return true;
        }
        if (playRect(option).contains(at)) {
            QToolTip::showText(event->globalPos(), tr("Play from the start of this segment (Enter)"), view);
            return true;
        }
    }
    return QStyledItemDelegate::helpEvent(event, view, option, index);
}

} // namespace qm::ui
