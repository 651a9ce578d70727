#include "ui/settings/paneform.h"

#include <QDir>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QResizeEvent>
#include <QStyle>
#include <QVBoxLayout>

namespace qm::ui {

namespace {

// The form stops here on a wide window, so that text fields and wrapped notes keep a comfortable length.
constexpr int kFormWidth = 680;

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

// Wrapped text whose preferred height is the one it needs at the width it was given. Layouts ask a plain
// label for its height at its preferred width, which is narrow for a sentence, and leave gaps around it.
class WrappingLabel : public QLabel {
public:
    using QLabel::QLabel;

    QSize sizeHint() const override { return fitted(QLabel::sizeHint()); }
    QSize minimumSizeHint() const override { return fitted(QLabel::minimumSizeHint()); }

protected:
    void resizeEvent(QResizeEvent *event) override
    {
        QLabel::resizeEvent(event);
        if (event->oldSize().width() != event->size().width())
            updateGeometry();
    }

private:
    QSize fitted(QSize hint) const
    {
        if (width() <= 0 || text().isEmpty())
            return hint;
        return {hint.width(), heightForWidth(width())};
    }
};

QGridLayout *formGrid(QBoxLayout *column)
{
    auto *body = new QWidget;
    body->setMaximumWidth(kFormWidth);
    auto *grid = new QGridLayout(body);
    grid->setContentsMargins(0, 0, 0, 0);
    grid->setColumnStretch(1, 1);
    column->addWidget(body);
    return grid;
}

} // namespace

QLabel *noteLabel(const QString &text, QWidget *parent)
{
    auto *label = new WrappingLabel(text, parent);
    label->setWordWrap(true);
    label->setForegroundRole(QPalette::PlaceholderText);
    QFont font = label->font();
    font.setPointSizeF(font.pointSizeF() * 0.92);
    label->setFont(font);
    label->setTextInteractionFlags(Qt::TextBrowserInteraction);
    label->setOpenExternalLinks(true);
    label->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Preferred);
    return label;
}

QLabel *valueLabel(const QString &text, QWidget *parent)
{
    auto *label = new WrappingLabel(text, parent);
    label->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
    label->setWordWrap(true);
    label->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Preferred);
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

PaneForm::PaneForm(QWidget *pane, const QString &title) : m_pane(pane), m_column(new QVBoxLayout(pane))
{
    const int margin = pane->style()->pixelMetric(QStyle::PM_LayoutLeftMargin);
    m_column->setContentsMargins(2 * margin, margin, 2 * margin, margin);
    m_column->addWidget(titleLabel(title));
    m_column->addSpacing(margin);
    m_grid = formGrid(m_column);
}

PaneForm::PaneForm(QWidget *part) : m_pane(part), m_column(new QVBoxLayout(part))
{
    m_column->setContentsMargins(0, 0, 0, 0);
    m_grid = formGrid(m_column);
}

void PaneForm::alignLabels(std::initializer_list<const PaneForm *> forms)
{
    int widest = 0;
    for (const PaneForm *form : forms) {
        for (const QLabel *label : form->m_labels)
            widest = qMax(widest, label->sizeHint().width());
    }
    for (const PaneForm *form : forms)
        form->m_grid->setColumnMinimumWidth(0, widest);
}

QLabel *PaneForm::label(const QString &text, QWidget *buddy, bool besideSeveral)
{
    auto *name = new QLabel(text);
    if (buddy)
        name->setBuddy(buddy);
    // Beside a single control the label sits on its middle line; beside several, on the first one's.
    if (besideSeveral) {
        name->setAlignment(Qt::AlignRight | Qt::AlignTop);
        name->setContentsMargins(0, 3, 0, 0);
    } else {
        name->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    }
    m_grid->addWidget(name, m_row, 0);
    m_labels.append(name);
    return name;
}

void PaneForm::field(QWidget *widget)
{
    // Text fields and notes take the column's width; everything else keeps its own size, left-aligned.
    if (widget->sizePolicy().horizontalPolicy() & QSizePolicy::ExpandFlag) {
        m_grid->addWidget(widget, m_row, 1);
    } else {
        m_grid->addWidget(widget, m_row, 1, Qt::AlignLeft | Qt::AlignVCenter);
    }
    ++m_row;
}

void PaneForm::row(const QString &text, QWidget *widget)
{
    label(text, widget, false);
    field(widget);
}

void PaneForm::row(const QString &text, QLayout *layout, QWidget *buddy)
{
    label(text, buddy, true);
    m_grid->addLayout(layout, m_row++, 1);
}

void PaneForm::row(QWidget *widget)
{
    field(widget);
}

void PaneForm::row(QLayout *layout)
{
    m_grid->addLayout(layout, m_row++, 1);
}

void PaneForm::wide(QWidget *widget)
{
    m_grid->addWidget(widget, m_row++, 0, 1, 2);
}

QLabel *PaneForm::note(const QString &text)
{
    QLabel *label = noteLabel(text);
    field(label);
    return label;
}

void PaneForm::gap()
{
    m_grid->setRowMinimumHeight(m_row++, m_pane->style()->pixelMetric(QStyle::PM_LayoutVerticalSpacing) * 2);
}

void PaneForm::finish()
{
    // Height the rows don't need gathers below the last one instead of opening gaps between them.
    m_grid->setRowStretch(m_row, 1);
    m_column->addStretch(1);
}

} // namespace qm::ui
