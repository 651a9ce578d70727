#include "ui/prompt/promptcard.h"

#include <QGuiApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QPainter>
#include <QPropertyAnimation>
#include <QPushButton>
#include <QScreen>
#include <QVBoxLayout>

namespace qm::ui {

namespace {

constexpr int rightMargin = 16;
constexpr int topMargin = 12;
constexpr int fadeInMs = 250;

QLabel *textLabel(const QString &text, qreal pointSizeFactor, bool bold, QWidget *parent)
{
    auto *label = new QLabel(text, parent);
    QFont font = label->font();
    font.setPointSizeF(font.pointSizeF() * pointSizeFactor);
    font.setBold(bold);
    label->setFont(font);
    label->setTextFormat(Qt::PlainText);
    return label;
}

} // namespace

PromptCard::PromptCard(std::function<void()> record, std::function<void()> notNow)
    : QWidget(nullptr, Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint | Qt::WindowDoesNotAcceptFocus)
{
    // The user is in a meeting: the card must not pull the keyboard away from it.
    setAttribute(Qt::WA_ShowWithoutActivating);
    setFocusPolicy(Qt::NoFocus);
    setFixedSize(cardSize);
    setObjectName(QStringLiteral("promptCard"));

    auto *title = textLabel(tr("Zoom meeting detected"), 1.15, true, this);
    auto *body = textLabel(tr("Record and transcribe it with Quillmoor?"), 0.95, false, this);
    body->setForegroundRole(QPalette::PlaceholderText);

    m_notNow = new QPushButton(tr("Not now"), this);
    m_record = new QPushButton(tr("Record"), this);
    for (QPushButton *button : {m_notNow, m_record})
        button->setFocusPolicy(Qt::NoFocus);
    m_record->setDefault(true);
    // Copies: the handlers may destroy whoever else holds these functions.
    connect(m_record, &QPushButton::clicked, this, [record = std::move(record)] {
        if (record)
            record();
    });
    connect(m_notNow, &QPushButton::clicked, this, [notNow = std::move(notNow)] {
        if (notNow)
            notNow();
    });

    auto *buttons = new QHBoxLayout;
    buttons->setSpacing(8);
    buttons->addStretch(1);
    buttons->addWidget(m_notNow);
    buttons->addWidget(m_record);

    auto *column = new QVBoxLayout(this);
    column->setContentsMargins(14, 9, 12, 9);
    column->setSpacing(2);
    column->addWidget(title);
    column->addWidget(body);
    column->addStretch(1);
    column->addLayout(buttons);
}

void PromptCard::appear()
{
    // Without a screen the card keeps its zero origin rather than guessing.
    if (const QScreen *screen = QGuiApplication::primaryScreen()) {
        const QRect area = screen->availableGeometry();
        move(area.x() + area.width() - width() - rightMargin, area.y() + topMargin);
    }
    setWindowOpacity(0.0);
    show();
    auto *fade = new QPropertyAnimation(this, "windowOpacity", this);
    fade->setDuration(fadeInMs);
    fade->setStartValue(0.0);
    fade->setEndValue(1.0);
    fade->start(QAbstractAnimation::DeleteWhenStopped);
}

void PromptCard::paintEvent(QPaintEvent *)
{
    // A bordered card rather than a translucent rounded one: without a compositor, transparent corners turn
    // black.
    QPainter painter(this);
    painter.fillRect(rect(), palette().window());
    painter.setPen(palette().color(QPalette::Mid));
    painter.drawRect(rect().adjusted(0, 0, -1, -1));
}

PromptCardView::~PromptCardView()
{
    close();
}

void PromptCardView::present(std::function<void()> record, std::function<void()> notNow)
{
    m_card = new PromptCard(std::move(record), std::move(notNow));
    m_card->appear();
}

void PromptCardView::close()
{
    if (!m_card)
        return;
    m_card->hide();
    m_card->deleteLater();
    m_card.clear();
}

std::unique_ptr<PromptView> makePromptCardView()
{
    return std::make_unique<PromptCardView>();
}

} // namespace qm::ui
