#pragma once

#include "capture/hostclock.h"
#include "capture/mediasample.h"

#include <QString>

class QThread;

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

namespace qm::wayland {

// Turns pictures that come only when the screen changes into a steady frame rate. Ticks fall at
// start + n / fps on the host clock; each tick hands on the newest picture, again when nothing new came,
// stamped with the tick's time. Ticks missed because the thread was held up are skipped, not made up.
//
// offer() and end() may be called from any thread. run() starts a thread of its own that delivers; stop()
// returns after its last delivery. After end() (sharing ended) nothing more is delivered.
class FramePacer {
public:
    explicit FramePacer(const HostClock &clock);
    ~FramePacer();

    FramePacer(const FramePacer &) = delete;
    FramePacer &operator=(const FramePacer &) = delete;

    void offer(VideoFrame picture);
    void end();
    bool hasPicture() const;

    // The schedule, without a thread: ticks from `start` at `fps` (below 1 counts as 1).
    void begin(int fps, Nanoseconds start);
    // The picture for the latest tick not after `now` that hasn't been handed on yet, if any picture came.
    std::optional<VideoFrame> due(Nanoseconds now);
    // When the next tick falls.
    Nanoseconds nextTick() const;

    // begin() at the clock's now, then deliver on the thread "app.quillmoor.screen".
    void run(int fps, std::function<void(VideoFrame)> deliver);
    void stop();

private:
    const HostClock &m_clock;
    mutable std::mutex m_mutex;
    std::condition_variable m_wake;
    std::optional<VideoFrame> m_latest;
    bool m_ended = false;
    bool m_stopping = false;
    Nanoseconds m_start = 0;
    Nanoseconds m_interval = kNanosecondsPerSecond;
    std::int64_t m_nextIndex = 0;
    std::unique_ptr<QThread> m_thread;
};

} // namespace qm::wayland
