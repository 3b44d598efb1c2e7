#include "app/MainThreadQueue.h"

#include <algorithm>

namespace brisvale {

MainThreadQueue::MainThreadQueue(std::function<void()> wake) : wake_(std::move(wake)) {}

void MainThreadQueue::post(Task task) {
    bool wakeNow = false;
    {
        std::lock_guard<std::mutex> guard(lock_);
        tasks_.push_back(std::move(task));
        if (!wakePending_) {
            wakePending_ = true;
            wakeNow = true;
        }
    }
    if (wakeNow && wake_) {
        wake_();
    }
}

void MainThreadQueue::postAfter(std::chrono::milliseconds delay, Task task) {
    delayed_.push_back({Clock::now() + delay, std::move(task)});
}

std::size_t MainThreadQueue::runPending(const std::function<bool()>& stopRequested) {
    auto stopping = [&] { return stopRequested && stopRequested(); };
    std::deque<Task> batch;
    {
        std::lock_guard<std::mutex> guard(lock_);
        batch.swap(tasks_);
        wakePending_ = false;
    }
    std::size_t ran = 0;
    for (Task& task : batch) {
        if (stopping()) {
            return ran;
        }
        task();
        ++ran;
    }

    const Clock::time_point now = Clock::now();
    std::vector<Task> due;
    for (auto it = delayed_.begin(); it != delayed_.end();) {
        if (it->due <= now) {
            due.push_back(std::move(it->task));
            it = delayed_.erase(it);
        } else {
            ++it;
        }
    }
    for (Task& task : due) {
        if (stopping()) {
            return ran;
        }
        task();
        ++ran;
    }
    return ran;
}

int MainThreadQueue::millisecondsUntilNextDue() const {
    if (delayed_.empty()) {
        return -1;
    }
    Clock::time_point earliest = delayed_.front().due;
    for (const Delayed& d : delayed_) {
        earliest = std::min(earliest, d.due);
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(earliest - Clock::now()).count();
    return static_cast<int>(std::max<long long>(0, left));
}

void MainThreadQueue::dropAll() {
    std::deque<Task> dropped;
    {
        std::lock_guard<std::mutex> guard(lock_);
        dropped.swap(tasks_);
        wakePending_ = false;
    }
    delayed_.clear();
}

} // namespace brisvale
