#pragma once

#include "meeting/ticker.h"
#include "meeting/zoomprobes.h"

#include <QObject>

#include <chrono>
#include <memory>

namespace qm {

// Watches the Zoom client from outside and reports when a meeting starts and ends.
//
// Main thread only. Conservative on purpose: a meeting starts after two consecutive polls that saw one and ends
// after four consecutive polls that saw none; meetingStarted()/meetingEnded() are emitted synchronously inside
// poll(), once per change of isMeetingActive. The controller connects to them before calling start(); there is
// no stop: monitoring runs for the life of the object.
class ZoomMonitor : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool isZoomRunning READ isZoomRunning NOTIFY zoomRunningChanged)
    Q_PROPERTY(bool isMeetingActive READ isMeetingActive NOTIFY meetingActiveChanged)

public:
    static constexpr std::chrono::milliseconds pollPeriod{3000};
    static constexpr int startAfterPositivePolls = 2;
    static constexpr int endAfterNegativePolls = 4;

    // `tickers` makes the poll timer; by default a QTimer.
    explicit ZoomMonitor(std::unique_ptr<ZoomProbes> probes, TickerFactory tickers = makeQtTicker,
                         QObject *parent = nullptr);
    ~ZoomMonitor() override;

    bool isZoomRunning() const { return m_zoomRunning; }
    bool isMeetingActive() const { return m_meetingActive; }

    // Replaces any timer of an earlier start() with a new one of pollPeriod, then polls at once.
    void start();
    // One detection step; the probes run here, on the calling (main) thread.
    void poll();

Q_SIGNALS:
    void zoomRunningChanged(bool running);
    void meetingActiveChanged(bool active);
    void meetingStarted();
    void meetingEnded();

private:
    std::unique_ptr<ZoomProbes> m_probes;
    TickerFactory m_tickers;
    std::unique_ptr<Ticker> m_timer;
    bool m_zoomRunning = false;
    bool m_meetingActive = false;
    int m_positiveStreak = 0;
    int m_negativeStreak = 0;
};

} // namespace qm
