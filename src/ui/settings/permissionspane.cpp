#include "ui/settings/permissionspane.h"

#include "ui/settings/paneform.h"

#include <QFrame>
#include <QGridLayout>
#include <QLabel>
#include <QPainter>
#include <QPushButton>
#include <QVBoxLayout>

namespace qm::ui {

namespace {

// A small coloured dot beside each status: green when granted, amber when something needs doing, grey while
// nothing is known yet. The same three colours read well on light and dark palettes.
QPixmap light(PermissionStatus status, qreal ratio)
{
    const int size = 12;
    QPixmap dot(QSize(size, size) * ratio);
    dot.setDevicePixelRatio(ratio);
    dot.fill(Qt::transparent);
    QPainter painter(&dot);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    switch (status) {
    case PermissionStatus::granted:
        painter.setBrush(QColor(0x2e, 0xa0, 0x4f));
        break;
    case PermissionStatus::denied:
        painter.setBrush(QColor(0xe5, 0x8e, 0x1a));
        break;
    case PermissionStatus::notAsked:
        painter.setBrush(QColor(0x91, 0x91, 0x91));
        break;
    }
    painter.drawEllipse(QRectF(1, 1, size - 2, size - 2));
    return dot;
}

// A hairline in the palette's mid tone: a sunken frame line is drawn in the light tone, which glares on a
// dark palette.
QWidget *separator()
{
    auto *line = new QWidget;
    line->setFixedHeight(1);
    line->setAutoFillBackground(true);
    line->setBackgroundRole(QPalette::Mid);
    return line;
}

} // namespace

PermissionsPane::PermissionsPane(Permissions &permissions, QWidget *parent)
    : QWidget(parent), m_permissions(permissions)
{
    PaneForm form(this, tr("Permissions"));
    auto *intro = noteLabel(tr("What Quillmoor may use on this computer. Most of it is decided by your desktop "
                               "and its sound server; each button opens the place where it is changed."));
    form.wide(intro);
    form.gap();

    auto *table = new QWidget;
    auto *grid = new QGridLayout(table);
    grid->setContentsMargins(0, 0, 0, 0);
    grid->setHorizontalSpacing(12);
    grid->setVerticalSpacing(10);
    grid->setColumnStretch(1, 1);
    const QList<PermissionRow> rows = permissionRows(permissions);
    int at = 0;
    for (const PermissionRow &row : rows) {
        if (at > 0)
            grid->addWidget(separator(), at++, 0, 1, 3);
        Line line;
        line.light = new QLabel;
        line.light->setAlignment(Qt::AlignHCenter | Qt::AlignTop);
        line.light->setContentsMargins(0, 3, 0, 0);
        auto *title = new QLabel(row.title);
        QFont bold = title->font();
        bold.setBold(true);
        title->setFont(bold);
        line.state = new QLabel;
        line.state->setWordWrap(true);
        auto *text = new QVBoxLayout;
        text->setContentsMargins(0, 0, 0, 0);
        text->setSpacing(2);
        text->addWidget(title);
        text->addWidget(line.state);
        if (!row.note.isEmpty())
            text->addWidget(noteLabel(row.note));
        line.button = new QPushButton;
        line.button->setObjectName(QStringLiteral("permission.%1").arg(int(row.kind)));
        const PermissionKind kind = row.kind;
        connect(line.button, &QPushButton::clicked, this, [this, kind] { act(kind); });
        grid->addWidget(line.light, at, 0);
        grid->addLayout(text, at, 1);
        grid->addWidget(line.button, at, 2, Qt::AlignRight | Qt::AlignVCenter);
        ++at;
        m_lines.append(line);
    }
    form.wide(table);

    m_instruction = noteLabel(QString());
    m_instruction->setForegroundRole(QPalette::WindowText);
    m_instruction->setFrameShape(QFrame::StyledPanel);
    m_instruction->setMargin(8);
    m_instruction->hide();
    form.wide(m_instruction);

    form.gap();
    auto *again = new QPushButton(tr("Check Again"));
    connect(again, &QPushButton::clicked, &permissions, &Permissions::refresh);
    form.wide(again);
    form.grid()->setAlignment(again, Qt::AlignRight);
    form.finish();

    display(rows);
    connect(&permissions, &Permissions::changed, this, [this] { display(permissionRows(m_permissions)); });
    connect(&permissions, &Permissions::instructionNeeded, this, [this](const QString &text) {
        m_instruction->setText(text);
        m_instruction->show();
    });
}

void PermissionsPane::display(const QList<PermissionRow> &rows)
{
    for (qsizetype i = 0; i < rows.size() && i < m_lines.size(); ++i) {
        const Line &line = m_lines[i];
        line.light->setPixmap(light(rows[i].status, devicePixelRatioF()));
        line.light->setAccessibleName(rows[i].state);
        line.state->setText(rows[i].state);
        line.button->setText(rows[i].buttonText);
        line.button->setVisible(!rows[i].buttonText.isEmpty());
    }
}

void PermissionsPane::act(PermissionKind kind)
{
    m_instruction->hide();
    switch (kind) {
    case PermissionKind::microphone:
        m_permissions.requestMicrophone();
        break;
    case PermissionKind::screenRecording:
        m_permissions.requestScreenRecording();
        break;
    case PermissionKind::accessibility:
        m_permissions.requestAccessibility();
        break;
    case PermissionKind::speechModel:
        m_permissions.requestSpeechRecognition();
        break;
    case PermissionKind::notifications:
        m_permissions.requestNotifications();
        break;
    }
}

} // namespace qm::ui
