#include "ui/tray/levelmeter.h"

#include "ui/tray/symbols.h"

#include <QPainter>
#include <QPainterPath>

#include <algorithm>

namespace qm::ui {

LevelMeter::LevelMeter(Kind kind, QWidget *parent) : QWidget(parent), m_kind(kind)
{
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    setAccessibleName(kind == Kind::meeting ? tr("Meeting level") : tr("Microphone level"));
}

void LevelMeter::setLevel(float level)
{
    const float target = m_muted ? 0.0F : std::clamp(level, 0.0F, 1.0F);
    // Rise at once, fall by at most a fifth per update.
    const float next = target >= m_level ? target : std::max(target, m_level - 0.2F);
    if (qFuzzyCompare(next + 1.0F, m_level + 1.0F))
        return;
    m_level = next;
    update();
}

void LevelMeter::setMuted(bool muted)
{
    if (m_muted == muted)
        return;
    m_muted = muted;
    if (muted)
        m_level = 0;
    update();
}

QSize LevelMeter::sizeHint() const
{
    return {160, 18};
}

void LevelMeter::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const int symbolSize = 16;
    const QIcon symbol = m_kind == Kind::meeting ? symbols::meetingAudio()
                                                 : (m_muted ? symbols::microphoneMuted() : symbols::microphone());
    symbols::tinted(symbol, palette().color(QPalette::WindowText))
        .paint(&painter, QRect(0, (height() - symbolSize) / 2, symbolSize, symbolSize));

    const QRectF track(symbolSize + 8, height() / 2.0 - 3, width() - symbolSize - 9, 6);
    QColor groove = palette().color(QPalette::WindowText);
    groove.setAlphaF(0.15F);
    QPainterPath trackPath;
    trackPath.addRoundedRect(track, 3, 3);
    painter.fillPath(trackPath, groove);
    if (m_level <= 0)
        return;
    QRectF filled = track;
    filled.setWidth(std::max(6.0, track.width() * double(m_level)));
    QPainterPath fillPath;
    fillPath.addRoundedRect(filled, 3, 3);
    // Green while comfortable, amber near full scale, where speech starts to clip.
    painter.fillPath(fillPath, m_level > 0.92F ? QColor(0xe5, 0xa5, 0x0a) : QColor(0x2e, 0xc2, 0x7e));
}

} // namespace qm::ui
