#include "render/gpu/CompletionThread.h"

#include <cstdint>

namespace brisvale::gpu {

CompletionThread::CompletionThread(VkDevice device) : device_(device), thread_([this] { run(); }) {}

CompletionThread::~CompletionThread() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    thread_.join();
}

void CompletionThread::watch(VkFence fence, CompletionHandler* handler) {
    {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return count_ < kCapacity; });
        entries_[(head_ + count_) % kCapacity] = Entry{fence, handler};
        ++count_;
    }
    changed_.notify_all();
}

void CompletionThread::drain() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return count_ == 0; });
}

void CompletionThread::run() {
    for (;;) {
        Entry entry;
        {
            std::unique_lock lock(mutex_);
            changed_.wait(lock, [this] { return count_ > 0 || stopping_; });
            if (count_ == 0) {
                return;  // stopping with nothing left
            }
            entry = entries_[head_];
        }
        const VkResult result = vkWaitForFences(device_, 1, &entry.fence, VK_TRUE, UINT64_MAX);
        CompletionStatus status;
        if (result != VK_SUCCESS) {
            status.failed = true;
            status.description = resultName(result);
        }
        entry.handler->frameCompleted(status);
        {
            std::lock_guard lock(mutex_);
            head_ = (head_ + 1) % kCapacity;
            --count_;
        }
        changed_.notify_all();
    }
}

} // namespace brisvale::gpu
