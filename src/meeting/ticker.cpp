#include "meeting/ticker.h"

#include <QTimer>

namespace qm {

namespace {

class QtTicker : public Ticker {
public:
    QtTicker() : m_timer(new QTimer) {}
    // A ticker may be destroyed from inside its own tick; the timer goes once that has returned.
    ~QtTicker() override
    {
        m_timer->stop();
        QObject::disconnect(m_timer, nullptr, nullptr, nullptr);
        m_timer->deleteLater();
    }

    void start(std::chrono::milliseconds period, std::function<void()> tick) override
    {
        QObject::disconnect(m_timer, nullptr, nullptr, nullptr);
        QObject::connect(m_timer, &QTimer::timeout, m_timer, std::move(tick));
        m_timer->start(period);
    }

private:
    QTimer *m_timer;
};

} // namespace

std::unique_ptr<Ticker> makeQtTicker()
{
    return std::make_unique<QtTicker>();
}

} // namespace qm
