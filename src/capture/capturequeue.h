#pragma once

#include <QString>

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace qm {

// A serial queue on one named thread: everything posted runs there, in order. The capture engine handles
// every sample and every change of its state here, so that state needs no lock.
class CaptureQueue {
public:
    explicit CaptureQueue(const QString &name);
    ~CaptureQueue(); // runs what was posted, then ends the thread

    CaptureQueue(const CaptureQueue &) = delete;
    CaptureQueue &operator=(const CaptureQueue &) = delete;

    // Never waits for the queue's thread.
    void post(std::function<void()> work);
    // Runs `work` on the queue after everything posted before it, and waits for it. Not from the queue itself.
    void sync(const std::function<void()> &work);
    bool isCurrent() const { return std::this_thread::get_id() == m_thread.get_id(); }

private:
    void run();

    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<std::function<void()>> m_work;
    bool m_ending = false;
    std::thread m_thread;
};

} // namespace qm
