#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace brisvale {

// The display-synchronised timer: a thread of its own that calls `tick` at the display's refresh
// rate. It keeps its own clock, because presentation does not pace frames everywhere (Xvfb);
// ticks missed while the thread was held up are skipped, as a display would skip them.
class DisplayTimer {
public:
    DisplayTimer(double refreshHz, std::function<void()> tick);
    ~DisplayTimer();  // stops
    DisplayTimer(const DisplayTimer&) = delete;
    DisplayTimer& operator=(const DisplayTimer&) = delete;

    void start();
    // Returns when the thread has ended: no tick runs after this.
    void stop();

    // The refresh rate to use for a display reporting `reportedHz` (0 when unknown).
    static double refreshRateOr60(int reportedHz);

private:
    void run();

    const double refreshHz_;
    std::function<void()> tick_;
    std::thread thread_;  // the display-timer thread: runs tick_ and nothing else

    // Guards stopping_: set by stop() on the main thread, read by the timer thread between ticks.
    std::mutex lock_;
    std::condition_variable wake_;
    bool stopping_ = false;
};

} // namespace brisvale
