#include "ui/tray/panelrows.h"

#include "library/formatters.h"
#include "ui/tray/symbols.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QVBoxLayout>

#include <optional>

namespace qm::ui {

namespace {

QLabel *quietLabel(const QString &text, QWidget *parent)
{
    auto *label = new QLabel(text, parent);
    QPalette palette = label->palette();
    QColor quiet = palette.color(QPalette::WindowText);
    quiet.setAlphaF(0.65F);
    palette.setColor(QPalette::WindowText, quiet);
    label->setPalette(palette);
    QFont font = label->font();
    font.setPointSizeF(font.pointSizeF() * 0.9);
    label->setFont(font);
    label->setAttribute(Qt::WA_TransparentForMouseEvents);
    return label;
}

// Symbols take the colour of the text beside them, or `tint` when they carry a meaning of their own.
QLabel *iconLabel(const QIcon &icon, int size, QWidget *parent, std::optional<QColor> tint = std::nullopt)
{
    auto *label = new QLabel(parent);
    label->setPixmap(symbols::tinted(icon, tint.value_or(parent->palette().color(QPalette::WindowText)))
                         .pixmap(size, size, QIcon::Normal));
    label->setFixedSize(size, size);
    label->setAttribute(Qt::WA_TransparentForMouseEvents);
    return label;
}

} // namespace

RecordOptionButton::RecordOptionButton(const QIcon &icon, const QString &title, const QString &subtitle,
                                       QWidget *parent)
    : QPushButton(parent)
{
    setAccessibleName(title);
    setAccessibleDescription(subtitle);
    setToolTip(subtitle);
    auto *row = new QHBoxLayout(this);
    row->setContentsMargins(10, 6, 10, 6);
    row->setSpacing(10);
    row->addWidget(iconLabel(icon, 22, this));
    auto *texts = new QVBoxLayout;
    texts->setSpacing(0);
    auto *heading = new QLabel(title, this);
    QFont bold = heading->font();
    bold.setWeight(QFont::DemiBold);
    heading->setFont(bold);
    heading->setAttribute(Qt::WA_TransparentForMouseEvents);
    texts->addWidget(heading);
    texts->addWidget(quietLabel(subtitle, this));
    row->addLayout(texts, 1);
}

QSize RecordOptionButton::sizeHint() const
{
    return layout()->sizeHint().expandedTo(QSize(0, 46));
}

RecentRow::RecentRow(const Recording &recording, const QString &detail, QWidget *parent) : QPushButton(parent)
{
    setFlat(true);
    setAccessibleName(recording.title);
    setToolTip(detail.isEmpty() ? recording.title : recording.title + QStringLiteral("\n") + detail);
    auto *row = new QHBoxLayout(this);
    row->setContentsMargins(8, 3, 8, 3);
    row->setSpacing(8);
    row->addWidget(iconLabel(symbols::source(recording.source), 16, this));
    auto *texts = new QVBoxLayout;
    texts->setSpacing(0);
    auto *title = new QLabel(this);
    title->setAttribute(Qt::WA_TransparentForMouseEvents);
    title->setText(title->fontMetrics().elidedText(recording.title, Qt::ElideRight, 250));
    texts->addWidget(title);
    QString second = Formatters::duration(recording.duration);
    if (!detail.isEmpty())
        second = detail;
    auto *info = quietLabel(QString(), this);
    info->setText(info->fontMetrics().elidedText(second, Qt::ElideRight, 250));
    texts->addWidget(info);
    row->addLayout(texts, 1);
    if (recording.state == ProcessingState::failed || recording.transcriptState == TranscriptState::failed)
        row->addWidget(iconLabel(symbols::warning(), 16, this, symbols::warningColor()));
    else if (recording.transcriptState == TranscriptState::done)
        row->addWidget(iconLabel(symbols::transcript(), 16, this));
}

QSize RecentRow::sizeHint() const
{
    return layout()->sizeHint();
}

Banner::Banner(Tone tone, QWidget *parent) : QFrame(parent)
{
    setAutoFillBackground(true);
    setFrameShape(QFrame::StyledPanel);
    QColor tint = tone == Tone::error     ? QColor(0xe0, 0x1b, 0x24)
                  : tone == Tone::warning ? QColor(0xe5, 0xa5, 0x0a)
                                          : palette().color(QPalette::Highlight);
    QPalette p = palette();
    QColor background = p.color(QPalette::Window);
    // A wash of the tone over the window colour keeps the text readable in light and dark palettes.
    background = QColor::fromRgbF(background.redF() * 0.82F + tint.redF() * 0.18F,
                                  background.greenF() * 0.82F + tint.greenF() * 0.18F,
                                  background.blueF() * 0.82F + tint.blueF() * 0.18F);
    p.setColor(QPalette::Window, background);
    setPalette(p);
    auto *column = new QVBoxLayout(this);
    column->setContentsMargins(10, 8, 10, 8);
    column->setSpacing(6);
    auto *top = new QHBoxLayout;
    top->setSpacing(8);
    top->addWidget(iconLabel(tone == Tone::information ? symbols::meetingAudio() : symbols::warning(), 16, this,
                             tone == Tone::information ? std::nullopt : std::optional(tint)),
                   0, Qt::AlignTop);
    m_text = new QLabel(this);
    m_text->setWordWrap(true);
    m_text->setTextInteractionFlags(Qt::TextSelectableByMouse);
    top->addWidget(m_text, 1);
    column->addLayout(top);
    m_buttons = new QHBoxLayout;
    m_buttons->setSpacing(6);
    m_buttons->addStretch(1);
    column->addLayout(m_buttons);
}

void Banner::setText(const QString &text)
{
    m_text->setText(text);
    setAccessibleDescription(text);
}

} // namespace qm::ui
