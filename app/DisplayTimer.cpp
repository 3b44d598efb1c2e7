#include "app/DisplayTimer.h"

#include <chrono>

namespace brisvale {

DisplayTimer::DisplayTimer(double refreshHz, std::function<void()> tick)
    : refreshHz_(refreshHz > 0.0 ? refreshHz : 60.0), tick_(std::move(tick)) {}

DisplayTimer::~DisplayTimer() { stop(); }

double DisplayTimer::refreshRateOr60(int reportedHz) { return reportedHz > 0 ? reportedHz : 60.0; }

void DisplayTimer::start() {
    if (thread_.joinable()) {
        return;
    }
    {
        std::lock_guard<std::mutex> guard(lock_);
        stopping_ = false;
    }
    thread_ = std::thread([this] { run(); });
}

void DisplayTimer::stop() {
    {
        std::lock_guard<std::mutex> guard(lock_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void DisplayTimer::run() {
    using Clock = std::chrono::steady_clock;
    const auto period = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(1.0 / refreshHz_));
    Clock::time_point next = Clock::now() + period;
    for (;;) {
        {
            std::unique_lock<std::mutex> guard(lock_);
            if (wake_.wait_until(guard, next, [this] { return stopping_; })) {
                return;
            }
        }
        tick_();
        next += period;
        const Clock::time_point now = Clock::now();
        if (next <= now) {
            next = now + period;
        }
    }
}

} // namespace brisvale
