#include "meeting/zoomprompt.h"

#include <QPointer>

namespace qm {

ZoomPrompt::ZoomPrompt(ViewFactory views, std::function<void()> playSound, TickerFactory tickers, QObject *parent)
    : QObject(parent), m_views(std::move(views)), m_playSound(std::move(playSound)), m_tickers(std::move(tickers))
{}

ZoomPrompt::~ZoomPrompt()
{
    m_autoDismiss.reset();
    if (m_view)
        m_view->close();
}

void ZoomPrompt::show(std::function<void()> onRecord)
{
    const bool wasShowing = isShowing();
    m_autoDismiss.reset();
    if (m_view) {
        m_view->close();
        m_view.reset();
    }

    m_view = m_views();
    // Each card's buttons act only on that card: a replaced card's late click must not close its successor.
    const int card = ++m_card;
    QPointer<ZoomPrompt> self(this);
    auto closeCard = [self, card] {
        if (self && self->m_card == card)
            self->dismiss();
    };
    m_view->present(
        [self, card, closeCard, onRecord = std::move(onRecord)] {
            if (!self || self->m_card != card || !self->m_view)
                return;
            // Closing destroys the card, and with it this function's captures.
            const std::function<void()> record = onRecord;
            closeCard();
            if (record)
                record();
        },
        closeCard);

    m_autoDismiss = m_tickers();
    m_autoDismiss->start(autoDismissAfter, closeCard);
    if (m_playSound)
        m_playSound();
    if (!wasShowing)
        Q_EMIT showingChanged(true);
}

void ZoomPrompt::dismiss()
{
    ++m_card;
    m_autoDismiss.reset();
    if (!m_view)
        return;
    // Moved out first: close() may re-enter through the view's own hide handling.
    std::unique_ptr<PromptView> view = std::move(m_view);
    view->close();
    Q_EMIT showingChanged(false);
}

} // namespace qm
