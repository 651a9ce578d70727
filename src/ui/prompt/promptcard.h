#pragma once

#include "meeting/zoomprompt.h"

#include <QPointer>
#include <QWidget>

#include <functional>
#include <memory>

class QPushButton;

namespace qm::ui {

// The floating "Zoom meeting detected" card: a frameless tool window that stays above other windows and never
// takes the keyboard focus away from the meeting.
class PromptCard : public QWidget {
    Q_OBJECT

public:
    static constexpr QSize cardSize{340, 92};

    PromptCard(std::function<void()> record, std::function<void()> notNow);

    // Places the card in the top-right corner of the primary screen's available area and fades it in.
    void appear();

    QPushButton *recordButton() const { return m_record; }
    QPushButton *notNowButton() const { return m_notNow; }

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    QPushButton *m_record = nullptr;
    QPushButton *m_notNow = nullptr;
};

// Hosts one PromptCard for ZoomPrompt. The card outlives this view until the event loop deletes it, because
// the view is destroyed from inside the card's own button handlers.
class PromptCardView : public PromptView {
public:
    PromptCardView() = default;
    ~PromptCardView() override;
    PromptCardView(const PromptCardView &) = delete;
    PromptCardView &operator=(const PromptCardView &) = delete;

    void present(std::function<void()> record, std::function<void()> notNow) override;
    void close() override;

    PromptCard *card() const { return m_card; }

private:
    QPointer<PromptCard> m_card;
};

// The view factory ZoomPrompt takes.
std::unique_ptr<PromptView> makePromptCardView();

} // namespace qm::ui
