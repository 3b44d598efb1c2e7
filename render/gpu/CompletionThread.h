#pragma once
// The GPU completion thread: runs each submitted frame's handler once its fence has signalled,
// in submission order. It plays the part of the platform thread that completion handlers run on.

#include "render/gpu/Vk.h"

#include <array>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

namespace brisvale::gpu {

struct CompletionStatus {
    bool failed = false;               // the device was lost (or the wait failed) before the fence signalled
    const char* description = "";      // the result's name when failed
};

// Implemented by whoever submits a frame; called once, on the completion thread.
class CompletionHandler {
public:
    virtual void frameCompleted(const CompletionStatus& status) = 0;

protected:
    ~CompletionHandler() = default;
};

class CompletionThread {
public:
    explicit CompletionThread(VkDevice device);
    ~CompletionThread();  // runs every pending handler, then joins
    CompletionThread(const CompletionThread&) = delete;
    CompletionThread& operator=(const CompletionThread&) = delete;

    // Queues a fence that has been (or is about to be) submitted. Blocks while the ring is full.
    void watch(VkFence fence, CompletionHandler* handler);

    // Blocks until every handler queued so far has run.
    void drain();

private:
    struct Entry {
        VkFence fence = VK_NULL_HANDLE;
        CompletionHandler* handler = nullptr;
    };
    static constexpr std::size_t kCapacity = 16;  // fixed ring: no allocation per frame

    void run();

    VkDevice device_;
    // mutex_ guards the ring (entries_, head_, count_) and stopping_; the main thread pushes,
    // the completion thread pops after the handler has run.
    std::mutex mutex_;
    std::condition_variable changed_;
    std::array<Entry, kCapacity> entries_{};
    std::size_t head_ = 0;
    std::size_t count_ = 0;
    bool stopping_ = false;
    std::thread thread_;  // started last, so every member above exists when it runs
};

} // namespace brisvale::gpu
