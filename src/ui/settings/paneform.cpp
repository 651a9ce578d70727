#include "ui/settings/paneform.h"

#include <QDir>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QStyle>
#include <QVBoxLayout>

namespace qm::ui {

namespace {

// The field column holds wrapped notes; past this width lines get too long to read comfortably.
constexpr int kFieldWidth = 440;

QLabel *titleLabel(const QString &text)
{
    auto *title = new QLabel(text);
    QFont font = title->font();
    font.setPointSizeF(font.pointSizeF() * 1.35);
    font.setBold(true);
    title->setFont(font);
    title->setAccessibleName(text);
    return title;
}

} // namespace

QLabel *noteLabel(const QString &text, QWidget *parent)
{
    auto *label = new QLabel(text, parent);
    label->setWordWrap(true);
    label->setForegroundRole(QPalette::PlaceholderText);
    QFont font = label->font();
    font.setPointSizeF(font.pointSizeF() * 0.92);
    label->setFont(font);
    label->setTextInteractionFlags(Qt::TextBrowserInteraction);
    label->setOpenExternalLinks(true);
    return label;
}

QLabel *valueLabel(const QString &text, QWidget *parent)
{
    auto *label = new QLabel(text, parent);
    label->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
    label->setWordWrap(true);
    label->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Preferred);
    label->setMinimumWidth(kFieldWidth * 2 / 3);
    return label;
}

QLineEdit *pathField(const QString &path, QWidget *parent)
{
    auto *field = new QLineEdit(QDir::toNativeSeparators(path), parent);
    field->setReadOnly(true);
    field->setFrame(false);
    // Reads as text on the page, not as a box to type in; a long path scrolls instead of being cut.
    QPalette palette = field->palette();
    palette.setColor(QPalette::Base, Qt::transparent);
    field->setPalette(palette);
    field->setCursorPosition(0);
    field->setToolTip(field->text());
    return field;
}

QLayout *sideBySide(std::initializer_list<QWidget *> widgets)
{
    auto *line = new QHBoxLayout;
    line->setContentsMargins(0, 0, 0, 0);
    for (QWidget *widget : widgets)
        line->addWidget(widget);
    line->addStretch(1);
    return line;
}

PaneForm::PaneForm(QWidget *pane, const QString &title)
    : m_pane(pane), m_column(new QVBoxLayout(pane)), m_form(new QFormLayout)
{
    const int margin = pane->style()->pixelMetric(QStyle::PM_LayoutLeftMargin);
    m_column->setContentsMargins(2 * margin, margin, 2 * margin, margin);
    m_column->addWidget(titleLabel(title));
    m_column->addSpacing(margin);
    m_form->setLabelAlignment(Qt::AlignRight | Qt::AlignVCenter);
    m_form->setFormAlignment(Qt::AlignLeft | Qt::AlignTop);
    m_form->setFieldGrowthPolicy(QFormLayout::ExpandingFieldsGrow);
    m_form->setRowWrapPolicy(QFormLayout::DontWrapRows);
    m_column->addLayout(m_form);
}

void PaneForm::row(const QString &label, QWidget *field)
{
    auto *name = new QLabel(label);
    name->setBuddy(field);
    if (field->sizePolicy().horizontalPolicy() & QSizePolicy::ExpandFlag && field->maximumWidth() == QWIDGETSIZE_MAX)
        field->setMaximumWidth(kFieldWidth);
    m_form->addRow(name, field);
}

void PaneForm::row(const QString &label, QLayout *field, QWidget *buddy)
{
    auto *name = new QLabel(label);
    if (buddy)
        name->setBuddy(buddy);
    m_form->addRow(name, field);
}

void PaneForm::row(QWidget *field)
{
    m_form->addRow(QString(), field);
}

void PaneForm::row(QLayout *field)
{
    m_form->addRow(QString(), field);
}

void PaneForm::wide(QWidget *field)
{
    m_form->addRow(field);
}

QLabel *PaneForm::note(const QString &text)
{
    QLabel *label = noteLabel(text);
    // Wrapped text asks for little width; it should take the field column's, up to a readable line length.
    label->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Preferred);
    label->setMinimumWidth(kFieldWidth * 2 / 3);
    label->setMaximumWidth(kFieldWidth);
    label->setAlignment(Qt::AlignLeft | Qt::AlignTop);
    m_form->addRow(QString(), label);
    return label;
}

void PaneForm::gap()
{
    auto *space = new QWidget;
    space->setFixedHeight(m_pane->style()->pixelMetric(QStyle::PM_LayoutVerticalSpacing) * 2);
    m_form->addRow(space);
}

void PaneForm::finish()
{
    m_column->addStretch(1);
}

} // namespace qm::ui
