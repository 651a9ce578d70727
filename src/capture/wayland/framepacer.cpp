#include "capture/wayland/framepacer.h"

#include <QThread>

#include <algorithm>
#include <chrono>

namespace qm::wayland {

FramePacer::FramePacer(const HostClock &clock) : m_clock(clock) {}

FramePacer::~FramePacer()
{
    stop();
}

void FramePacer::offer(VideoFrame picture)
{
    const std::lock_guard lock(m_mutex);
    if (!m_ended)
        m_latest = std::move(picture);
}

void FramePacer::end()
{
    const std::lock_guard lock(m_mutex);
    m_ended = true;
    m_latest.reset();
    m_wake.notify_all();
}

bool FramePacer::hasPicture() const
{
    const std::lock_guard lock(m_mutex);
    return m_latest.has_value();
}

void FramePacer::begin(int fps, Nanoseconds start)
{
    const std::lock_guard lock(m_mutex);
    m_start = start;
    m_interval = kNanosecondsPerSecond / std::max(fps, 1);
    m_nextIndex = 0;
}

std::optional<VideoFrame> FramePacer::due(Nanoseconds now)
{
    const std::lock_guard lock(m_mutex);
    if (now < m_start)
        return std::nullopt;
    const std::int64_t index = (now - m_start) / m_interval;
    if (index < m_nextIndex)
        return std::nullopt;
    m_nextIndex = index + 1;
    if (!m_latest)
        return std::nullopt;
    VideoFrame frame = *m_latest; // the pixels are shared, not copied
    frame.pts = m_start + index * m_interval;
    return frame;
}

Nanoseconds FramePacer::nextTick() const
{
    const std::lock_guard lock(m_mutex);
    return m_start + m_nextIndex * m_interval;
}

void FramePacer::run(int fps, std::function<void(VideoFrame)> deliver)
{
    stop();
    begin(fps, m_clock.now());
    {
        const std::lock_guard lock(m_mutex);
        m_stopping = false;
    }
    m_thread.reset(QThread::create([this, deliver = std::move(deliver)] {
        for (;;) {
            const Nanoseconds wait = std::max<Nanoseconds>(nextTick() - m_clock.now(), 0);
            {
                std::unique_lock lock(m_mutex);
                if (m_wake.wait_for(lock, std::chrono::nanoseconds(wait), [this] { return m_stopping || m_ended; }))
                    return;
            }
            if (auto frame = due(m_clock.now()))
                deliver(std::move(*frame));
        }
    }));
    m_thread->setObjectName(QStringLiteral("app.quillmoor.screen"));
    m_thread->start();
}

void FramePacer::stop()
{
    {
        const std::lock_guard lock(m_mutex);
        m_stopping = true;
    }
    m_wake.notify_all();
    if (m_thread) {
        m_thread->wait();
        m_thread.reset();
    }
}

} // namespace qm::wayland
