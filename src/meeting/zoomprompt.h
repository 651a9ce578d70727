#pragma once

#include "meeting/ticker.h"

#include <QObject>

#include <chrono>
#include <functional>
#include <memory>

namespace qm {

// The card that asks "Zoom meeting detected": a window the user interface supplies.
class PromptView {
public:
    virtual ~PromptView() = default;
    // Shows the card; `record` and `notNow` are the two buttons. Called once per view.
    virtual void present(std::function<void()> record, std::function<void()> notNow) = 0;
    // Hides the card at once (no fade). The view is destroyed right after, possibly from inside one of its own
    // button callbacks, so widget implementations delete their widgets later.
    virtual void close() = 0;
};

// Asks the user whether to record a meeting that was just detected. Main thread only.
//
// At most one card shows: show() replaces a showing card (whose auto-dismiss is cancelled with it). The card
// goes away when the user presses either button, when dismiss() is called (the meeting ended), or
// autoDismissAfter after it appeared. `playSound` runs each time a card appears; whoever builds the prompt
// decides whether a sound may play (not while recording).
class ZoomPrompt : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool isShowing READ isShowing NOTIFY showingChanged)

public:
    static constexpr std::chrono::milliseconds autoDismissAfter{90'000};

    using ViewFactory = std::function<std::unique_ptr<PromptView>()>;
    ZoomPrompt(ViewFactory views, std::function<void()> playSound, TickerFactory tickers = makeQtTicker,
               QObject *parent = nullptr);
    ~ZoomPrompt() override;

    bool isShowing() const { return m_view != nullptr; }

    // `onRecord` runs after the card has gone, when the user presses "Record".
    void show(std::function<void()> onRecord);
    void dismiss();

Q_SIGNALS:
    void showingChanged(bool showing);

private:
    ViewFactory m_views;
    std::function<void()> m_playSound;
    TickerFactory m_tickers;
    std::unique_ptr<PromptView> m_view;
    std::unique_ptr<Ticker> m_autoDismiss;
    int m_card = 0; // counts cards and dismissals, so callbacks of a card that has gone do nothing
};

} // namespace qm
