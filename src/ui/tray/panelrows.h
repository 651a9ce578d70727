#pragma once

#include "library/recording.h"

#include <QFrame>
#include <QPushButton>

class QLabel;
class QHBoxLayout;

namespace qm::ui {

// One way of starting a recording: its title over a quieter subtitle, as one focusable button.
class RecordOptionButton : public QPushButton {
    Q_OBJECT
public:
    RecordOptionButton(const QIcon &icon, const QString &title, const QString &subtitle, QWidget *parent = nullptr);
    QSize sizeHint() const override;
};

// One recent recording: its source symbol, title and what it is waiting for or why it failed.
class RecentRow : public QPushButton {
    Q_OBJECT
public:
    RecentRow(const Recording &recording, const QString &detail, QWidget *parent = nullptr);
    QSize sizeHint() const override;
};

// A coloured strip with a message, and room for buttons after it.
class Banner : public QFrame {
    Q_OBJECT
public:
    enum class Tone { information, warning, error };
    Banner(Tone tone, QWidget *parent = nullptr);
    void setText(const QString &text);
    QHBoxLayout *buttons() { return m_buttons; }

private:
    QLabel *m_text;
    QHBoxLayout *m_buttons;
};

} // namespace qm::ui
