#include "transcription/whisper/workers.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace qm::whisper::workers::detail {

namespace {

inline void relax()
{
#if defined(__x86_64__)
    _mm_pause();
#else
    std::this_thread::yield();
#endif
}

// About 0.1 ms of pauses: long enough to bridge the gaps between the products of one decoding step.
constexpr int kSpins = 1500;

class Pool {
public:
    Pool()
    {
        const int helpers = std::max(1, int(std::thread::hardware_concurrency())) - 1;
        m_helpers.reserve(std::size_t(helpers));
        for (int i = 0; i < helpers; ++i)
            m_helpers.push_back(std::make_unique<Helper>());
        for (int i = 0; i < helpers; ++i)
            m_helpers[std::size_t(i)]->thread = std::jthread([this, i] { serve(std::size_t(i)); });
    }

    ~Pool()
    {
        m_stopping.store(true, std::memory_order_relaxed);
        for (auto &helper : m_helpers) {
            helper->ticket.fetch_add(1, std::memory_order_release);
            helper->ticket.notify_one();
        }
        for (auto &helper : m_helpers)
            helper->thread.join();
    }

    std::size_t helpers() const { return m_helpers.size(); }
    std::mutex &busy() { return m_busy; }

    // Caller holds busy(). `bounds` has parts + 1 entries; part 0 is the caller's.
    void run(const std::vector<std::size_t> &bounds, void *body, Part part)
    {
        const std::size_t parts = bounds.size() - 1;
        m_bounds = &bounds;
        m_body = body;
        m_part = part;
        m_remaining.store(int(parts - 1), std::memory_order_relaxed);
        for (std::size_t p = 1; p < parts; ++p) {
            Helper &helper = *m_helpers[p - 1];
            helper.ticket.fetch_add(1, std::memory_order_release);
            helper.ticket.notify_one();
        }
        part(body, bounds[0], bounds[1]);
        // On a busy machine a helper may not run at once: spinning on would keep it off the core.
        for (int spins = 0; m_remaining.load(std::memory_order_acquire) != 0; ++spins)
            if (spins < kSpins)
                relax();
            else
                std::this_thread::yield();
    }

private:
    struct Helper {
        std::atomic<std::uint32_t> ticket{0};
        std::jthread thread;
    };

    void serve(std::size_t index)
    {
        Helper &helper = *m_helpers[index];
        std::uint32_t seen = 0;
        for (;;) {
            int spins = 0;
            std::uint32_t now;
            while ((now = helper.ticket.load(std::memory_order_acquire)) == seen) {
                if (++spins < kSpins)
                    relax();
                else
                    helper.ticket.wait(seen, std::memory_order_acquire);
            }
            seen = now;
            if (m_stopping.load(std::memory_order_relaxed))
                return;
            const std::vector<std::size_t> &bounds = *m_bounds;
            m_part(m_body, bounds[index + 1], bounds[index + 2]);
            m_remaining.fetch_sub(1, std::memory_order_release);
        }
    }

    std::vector<std::unique_ptr<Helper>> m_helpers;
    std::mutex m_busy;
    std::atomic<bool> m_stopping{false};
    std::atomic<int> m_remaining{0};
    // The current job; written only while no helper is working.
    const std::vector<std::size_t> *m_bounds = nullptr;
    void *m_body = nullptr;
    Part m_part = nullptr;
};

Pool &pool()
{
    static Pool instance;
    return instance;
}

} // namespace

void run(std::size_t count, int threads, std::size_t grain, void *body, Part part)
{
    grain = std::max<std::size_t>(grain, 1);
    const std::size_t chunks = (count + grain - 1) / grain;
    std::size_t parts = std::min<std::size_t>(std::size_t(std::max(threads, 1)), chunks);
    if (parts > 1)
        parts = std::min(parts, pool().helpers() + 1);
    std::unique_lock lock(pool().busy(), std::defer_lock);
    if (parts <= 1 || !lock.try_lock()) {
        part(body, 0, count);
        return;
    }
    thread_local std::vector<std::size_t> bounds;
    bounds.resize(parts + 1);
    const std::size_t perPart = (chunks + parts - 1) / parts;
    for (std::size_t p = 0; p <= parts; ++p)
        bounds[p] = std::min(count, p * perPart * grain);
    pool().run(bounds, body, part);
}

} // namespace qm::whisper::workers::detail
