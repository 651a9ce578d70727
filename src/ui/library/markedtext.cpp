#include "ui/library/markedtext.h"

#include <QFontMetrics>
#include <QPainter>
#include <QPalette>

namespace qm::ui {

QColor markColor(const QPalette &palette)
{
    // Yellow reads as "found" on either background; in the dark it is toned down so white text stays legible.
    const bool dark = palette.color(QPalette::Base).lightness() < 128;
    return dark ? QColor(0x8a, 0x6d, 0x00) : QColor(0xff, 0xe0, 0x66);
}

QColor markTextColor(const QPalette &palette)
{
    return markColor(palette).lightness() > 128 ? QColor(Qt::black) : QColor(Qt::white);
}

QList<QTextLayout::FormatRange> markFormats(const QList<QPoint> &matches, const QPalette &palette)
{
    QList<QTextLayout::FormatRange> formats;
    for (const QPoint &match : matches) {
        QTextLayout::FormatRange range;
        range.start = match.x();
        range.length = match.y();
        range.format.setBackground(markColor(palette));
        range.format.setForeground(markTextColor(palette));
        range.format.setFontWeight(QFont::Bold);
        formats.append(range);
    }
    return formats;
}

void drawMarkedLine(QPainter &painter, const QRect &rect, const QString &text, QPoint mark, const QColor &color,
                    const QColor &markBackground)
{
    const QFont plain = painter.font();
    QFont bold = plain;
    bold.setBold(true);
    const QFontMetrics plainMetrics(plain), boldMetrics(bold);
    const bool marked = mark.x() >= 0 && mark.y() > 0 && mark.x() + mark.y() <= text.size();
    QString before = marked ? text.left(mark.x()) : text;
    const QString match = marked ? text.mid(mark.x(), mark.y()) : QString();
    const QString after = marked ? text.mid(mark.x() + mark.y()) : QString();

    painter.save();
    painter.setClipRect(rect);
    painter.setPen(color);
    const int baseline = rect.top() + (rect.height() + plainMetrics.ascent() - plainMetrics.descent()) / 2;
    int x = rect.left();
    if (marked) {
        // Keep the match in view: cut the text before it from the left when both don't fit.
        const int room = rect.width() - boldMetrics.horizontalAdvance(match) -
                         std::min(plainMetrics.horizontalAdvance(after), rect.width() / 4);
        if (plainMetrics.horizontalAdvance(before) > room)
            before = plainMetrics.elidedText(before, Qt::ElideLeft, std::max(0, room));
    }
    const QString shownBefore = plainMetrics.elidedText(before, Qt::ElideRight, rect.right() - x);
    painter.drawText(x, baseline, shownBefore);
    x += plainMetrics.horizontalAdvance(shownBefore);
    if (marked && shownBefore == before && x < rect.right()) {
        const QString shownMatch = boldMetrics.elidedText(match, Qt::ElideRight, rect.right() - x);
        const int width = boldMetrics.horizontalAdvance(shownMatch);
        painter.fillRect(QRect(x - 1, rect.top() + 1, width + 2, rect.height() - 2), markBackground);
        painter.setFont(bold);
        painter.setPen(markBackground.lightness() > 128 ? QColor(Qt::black) : QColor(Qt::white));
        painter.drawText(x, baseline, shownMatch);
        painter.setPen(color);
        painter.setFont(plain);
        x += width;
        if (shownMatch == match && x < rect.right())
            painter.drawText(x, baseline, plainMetrics.elidedText(after, Qt::ElideRight, rect.right() - x));
    }
    painter.restore();
}

} // namespace qm::ui
