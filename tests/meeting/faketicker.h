#pragma once

#include "meeting/ticker.h"

#include <QList>

#include <memory>

// Tickers driven by hand: the factory keeps track of which of its tickers are still alive.
struct FakeTickers {
    struct Ticker : qm::Ticker {
        explicit Ticker(std::shared_ptr<int> live) : m_live(std::move(live)) { ++*m_live; }
        ~Ticker() override { --*m_live; }
        void start(std::chrono::milliseconds p, std::function<void()> t) override
        {
            period = p;
            tick = std::move(t);
        }
        std::chrono::milliseconds period{0};
        std::function<void()> tick;
        std::shared_ptr<int> m_live;
    };

    std::shared_ptr<int> live = std::make_shared<int>(0);
    Ticker *last = nullptr;

    qm::TickerFactory factory()
    {
        return [this] {
            auto ticker = std::make_unique<Ticker>(live);
            last = ticker.get();
            return ticker;
        };
    }
};
