#include "capture/capturequeue.h"

#include <future>
#include <pthread.h>

namespace qm {

CaptureQueue::CaptureQueue(const QString &name)
{
    m_thread = std::thread([this, title = name.left(15).toUtf8()] {
        pthread_setname_np(pthread_self(), title.constData());
        run();
    });
}

CaptureQueue::~CaptureQueue()
{
    {
        const std::lock_guard lock(m_mutex);
        m_ending = true;
    }
    m_wake.notify_all();
    m_thread.join();
}

void CaptureQueue::post(std::function<void()> work)
{
    {
        const std::lock_guard lock(m_mutex);
        m_work.push_back(std::move(work));
    }
    m_wake.notify_one();
}

void CaptureQueue::sync(const std::function<void()> &work)
{
    std::promise<void> done;
    post([&] {
        work();
        done.set_value();
    });
    done.get_future().wait();
}

void CaptureQueue::run()
{
    for (;;) {
        std::function<void()> work;
        {
            std::unique_lock lock(m_mutex);
            m_wake.wait(lock, [this] { return !m_work.empty() || m_ending; });
            if (m_work.empty())
                return;
            work = std::move(m_work.front());
            m_work.pop_front();
        }
        work();
    }
}

} // namespace qm
