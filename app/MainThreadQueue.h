#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <vector>

namespace brisvale {

// The main thread's task queue: any thread posts, the event loop runs the tasks in order on the
// main thread. A wake hook (an SDL user event in the player) tells a sleeping event loop there is
// work; it is called at most once per batch, outside the lock. Delayed tasks (the delegate's
// full-screen request) are kept by the main thread alone and run when their time has come.
class MainThreadQueue {
public:
    using Task = std::function<void()>;
    using Clock = std::chrono::steady_clock;

    explicit MainThreadQueue(std::function<void()> wake);

    // Any thread.
    void post(Task task);

    // Main thread only.
    void postAfter(std::chrono::milliseconds delay, Task task);
    // Runs the tasks posted before the call and the delayed tasks that are due; returns how many ran.
    // Once `stopRequested` answers true (the application is quitting) no further task starts.
    std::size_t runPending(const std::function<bool()>& stopRequested = nullptr);
    // How long the event loop may sleep before a delayed task is due; -1 for "until woken".
    int millisecondsUntilNextDue() const;
    // Drops every task without running it (the event loop has ended).
    void dropAll();

private:
    std::function<void()> wake_;

    // Guards tasks_ and wakePending_: posted from the display-timer and GPU completion threads,
    // taken by the main thread.
    std::mutex lock_;
    std::deque<Task> tasks_;
    bool wakePending_ = false;  // a wake is on its way and the loop has not yet taken the batch

    struct Delayed {
        Clock::time_point due;
        Task task;
    };
    std::vector<Delayed> delayed_;  // main thread only
};

} // namespace brisvale
