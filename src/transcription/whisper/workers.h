#pragma once

#include <cstddef>
#include <type_traits>

// Helper threads kept for the life of the process, one per core beyond the first. Decoding splits its work
// dozens of times per token, a few hundred microseconds each; starting threads for every split would cost more
// than the split saves. Between jobs a helper spins for about a tenth of a millisecond, then sleeps.
namespace qm::whisper::workers {

// Calls body(begin, end) over [0, count) cut into at most `threads` contiguous parts whose bounds are multiples
// of `grain` (except the last), the first part on the calling thread. Returns when every part is done. Safe
// from any thread: when another thread is using the helpers, the caller does all the work itself.
template <typename Body> void parallelFor(std::size_t count, int threads, Body &&body, std::size_t grain = 1);

namespace detail {
using Part = void (*)(void *body, std::size_t begin, std::size_t end);
void run(std::size_t count, int threads, std::size_t grain, void *body, Part part);
} // namespace detail

template <typename Body> void parallelFor(std::size_t count, int threads, Body &&body, std::size_t grain)
{
    void *address = const_cast<void *>(static_cast<const void *>(&body));
    detail::run(count, threads, grain, address, [](void *b, std::size_t begin, std::size_t end) {
        (*static_cast<std::remove_reference_t<Body> *>(b))(begin, end);
    });
}

} // namespace qm::whisper::workers
