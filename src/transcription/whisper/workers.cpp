#include "transcription/whisper/workers.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
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

// Set while this thread runs a part: a part that splits its own work again does it alone.
thread_local bool t_inPart = false;

// About 0.1 ms of pauses: long enough to bridge the gaps between the products of one decoding step.
constexpr int kSpins = 1500;

// Parts are claimed, not assigned: whoever is running takes the next one. On a busy machine a helper may wake
// milliseconds late; the caller then does that part itself instead of waiting for it.
class Pool {
public:
    Pool()
    {
        const int helpers = std::max(1, int(std::thread::hardware_concurrency())) - 1;
        for (int i = 0; i < helpers; ++i)
            m_helpers.emplace_back([this] { serve(); });
    }

    ~Pool()
    {
        m_stopping.store(true, std::memory_order_relaxed);
        m_wake.fetch_add(1, std::memory_order_release);
        m_wake.notify_all();
        m_helpers.clear(); // joins
    }

    std::size_t helpers() const { return m_helpers.size(); }
    std::mutex &busy() { return m_busy; }

    // Caller holds busy(). `bounds` has parts + 1 entries.
    void run(const std::vector<std::size_t> &bounds, void *body, Part part)
    {
        const std::uint64_t parts = bounds.size() - 1;
        m_bounds = &bounds;
        m_body = body;
        m_part = part;
        m_done.store(0, std::memory_order_relaxed);
        ++m_generation;
        m_claim.store(m_generation << 32 | parts << 16, std::memory_order_release);
        // Sequentially consistent, with the helper's side: either we see it going to sleep, or it sees the new
        // job before sleeping. (A wake-up lost anyway would only cost parallelism: the caller claims every part.)
        m_wake.fetch_add(1, std::memory_order_seq_cst);
        if (m_sleepers.load(std::memory_order_seq_cst) > 0)
            m_wake.notify_all();
        work();
        for (int spins = 0; m_done.load(std::memory_order_acquire) != parts; ++spins)
            if (spins < kSpins)
                relax();
            else
                std::this_thread::yield();
    }

private:
    // Claims and runs parts of the current job until none is left.
    void work()
    {
        std::uint64_t claim = m_claim.load(std::memory_order_acquire);
        for (;;) {
            const std::uint64_t parts = claim >> 16 & 0xffff, next = claim & 0xffff;
            if (next >= parts)
                return;
            if (!m_claim.compare_exchange_weak(claim, claim + 1, std::memory_order_acq_rel))
                continue;
            // The job can't change before this part is counted done, so its fields are stable here.
            const std::vector<std::size_t> &bounds = *m_bounds;
            if (bounds[next] < bounds[next + 1]) {
                t_inPart = true;
                m_part(m_body, bounds[next], bounds[next + 1]);
                t_inPart = false;
            }
            m_done.fetch_add(1, std::memory_order_release);
            claim = m_claim.load(std::memory_order_acquire);
        }
    }

    void serve()
    {
        std::uint32_t seen = m_wake.load(std::memory_order_acquire);
        for (;;) {
            int spins = 0;
            std::uint32_t now;
            while ((now = m_wake.load(std::memory_order_acquire)) == seen) {
                if (++spins < kSpins) {
                    relax();
                    continue;
                }
                m_sleepers.fetch_add(1, std::memory_order_seq_cst);
                m_wake.wait(seen, std::memory_order_seq_cst);
                m_sleepers.fetch_sub(1, std::memory_order_relaxed);
            }
            seen = now;
            if (m_stopping.load(std::memory_order_relaxed))
                return;
            work();
        }
    }

    std::vector<std::jthread> m_helpers;
    std::mutex m_busy;
    std::atomic<bool> m_stopping{false};
    std::atomic<std::uint32_t> m_wake{0};
    std::atomic<int> m_sleepers{0};
    // generation (32 bits) | parts (16) | next unclaimed part (16)
    std::atomic<std::uint64_t> m_claim{0};
    std::atomic<std::uint64_t> m_done{0};
    // The current job, written only by the caller between jobs.
    std::uint64_t m_generation = 0;
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
    if (parts <= 1 || t_inPart || !lock.try_lock()) {
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
