#pragma once

#include <QColor>
#include <QList>
#include <QPoint>
#include <QString>
#include <QTextLayout>

class QPainter;
class QPalette;
class QRect;

namespace qm::ui {

// Search matches drawn so that they stand out by more than colour: a tinted background and bold letters.
QList<QTextLayout::FormatRange> markFormats(const QList<QPoint> &matches, const QPalette &palette);
QColor markColor(const QPalette &palette);
QColor markTextColor(const QPalette &palette);

// Draws one line of `text` in `rect`, the range (start, length) marked, cut with "…" when it doesn't fit.
void drawMarkedLine(QPainter &painter, const QRect &rect, const QString &text, QPoint mark, const QColor &color,
                    const QColor &markBackground);

} // namespace qm::ui
