#pragma once

#include <QList>
#include <QString>

#include <initializer_list>

class QBoxLayout;
class QGridLayout;
class QLabel;
class QLayout;
class QLineEdit;
class QWidget;

namespace qm::ui {

// Lays out a settings pane the way desktop preference dialogs do: the pane's name as a heading, then groups of
// rows in two columns, labels right-aligned beside their controls, and short explanations in smaller, dimmer
// text under the control they explain. Every pane is built with one of these so that all six line up.
class PaneForm {
public:
    // Fills `pane`, which must not have a layout yet.
    PaneForm(QWidget *pane, const QString &title);
    // Fills a part of a pane that is shown or hidden as a whole (a page of a stack): no title, no margins.
    explicit PaneForm(QWidget *part);

    // Gives the label column of these forms the width of the widest, so that forms stacked in one pane line up
    // as one. Call once all rows are in.
    static void alignLabels(std::initializer_list<const PaneForm *> forms);

    // A row: `label` (with its mnemonic, "&Format:") beside `field`; the label's buddy is `field`.
    void row(const QString &label, QWidget *field);
    // A row whose field is several controls (side by side, or one under the other); the label's buddy is
    // `buddy`.
    void row(const QString &label, QLayout *field, QWidget *buddy = nullptr);
    // A row with nothing in the label column (a check box under the one before, a line of buttons).
    void row(QWidget *field);
    void row(QLayout *field);
    // A row that spans both columns (a list, a table of statuses).
    void wide(QWidget *field);
    // Smaller, dimmer text under the last row's control; links open in the desktop's browser.
    QLabel *note(const QString &text);
    // Space between two groups of rows.
    void gap();
    // Pushes everything up; call once, after the last row.
    void finish();

    QGridLayout *grid() const { return m_grid; }

private:
    QLabel *label(const QString &text, QWidget *buddy, bool besideSeveral);
    void field(QWidget *widget);

    QWidget *m_pane;
    QBoxLayout *m_column;
    QGridLayout *m_grid;
    QList<QLabel *> m_labels;
    int m_row = 0;
};

// A label with the dimmer, smaller look of a note, for text that is not part of a form row.
QLabel *noteLabel(const QString &text, QWidget *parent = nullptr);
// A label for a value the user may want to copy (a version, a sentence that names a place).
QLabel *valueLabel(const QString &text, QWidget *parent = nullptr);
// A path shown as text that can be selected and scrolled, however long it is.
QLineEdit *pathField(const QString &path, QWidget *parent = nullptr);
// A layout of `widgets` side by side, left-aligned, without margins.
QLayout *sideBySide(std::initializer_list<QWidget *> widgets);

} // namespace qm::ui
