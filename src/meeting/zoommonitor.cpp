#include "meeting/zoommonitor.h"

#include <QPointer>

namespace qm {

ZoomMonitor::ZoomMonitor(std::unique_ptr<ZoomProbes> probes, TickerFactory tickers, QObject *parent)
    : QObject(parent), m_probes(std::move(probes)), m_tickers(std::move(tickers))
{}

ZoomMonitor::~ZoomMonitor() = default;

void ZoomMonitor::start()
{
    m_timer.reset();
    m_timer = m_tickers();
    QPointer<ZoomMonitor> self(this);
    m_timer->start(pollPeriod, [self] {
        if (self)
            self->poll();
    });
    poll();
}

void ZoomMonitor::poll()
{
    const QList<int> pids = m_probes->zoomProcesses();
    const bool running = !pids.isEmpty();
    if (running != m_zoomRunning) {
        m_zoomRunning = running;
        Q_EMIT zoomRunningChanged(running);
    }

    // The window list is only read when the cheaper audio probe says no.
    const bool seen = running && (m_probes->zoomIsUsingAudioInput(pids) || m_probes->zoomHasMeetingWindow(pids));
    if (seen) {
        ++m_positiveStreak;
        m_negativeStreak = 0;
        if (!m_meetingActive && m_positiveStreak >= startAfterPositivePolls) {
            m_meetingActive = true;
            Q_EMIT meetingActiveChanged(true);
            Q_EMIT meetingStarted();
        }
    } else {
        ++m_negativeStreak;
        m_positiveStreak = 0;
        if (m_meetingActive && m_negativeStreak >= endAfterNegativePolls) {
            m_meetingActive = false;
            Q_EMIT meetingActiveChanged(false);
            Q_EMIT meetingEnded();
        }
    }
}

} // namespace qm
