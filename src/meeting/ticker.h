#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace qm {

// A repeating timer. `tick` runs on the thread that called start(), every `period`, until the ticker is
// destroyed. Exists so that code whose behaviour depends on time can be driven by hand in tests.
class Ticker {
public:
    virtual ~Ticker() = default;
    virtual void start(std::chrono::milliseconds period, std::function<void()> tick) = 0;
};

using TickerFactory = std::function<std::unique_ptr<Ticker>()>;

// A ticker on a QTimer of the calling thread's event loop.
std::unique_ptr<Ticker> makeQtTicker();

} // namespace qm
