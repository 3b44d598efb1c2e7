#pragma once
// Synchronisation objects: binary semaphores (between submissions and presentation) and fences
// (between the GPU and the processor).

#include "render/gpu/Vk.h"

namespace brisvale::gpu {

class Device;

// A binary semaphore for ordering work between submissions and presentation. Both constructors
// throw Error when the object cannot be made.
class Semaphore {
public:
    explicit Semaphore(Device& device);
    ~Semaphore();
    Semaphore(const Semaphore&) = delete;
    Semaphore& operator=(const Semaphore&) = delete;
    VkSemaphore handle() const { return semaphore_; }

private:
    Device& device_;
    VkSemaphore semaphore_ = VK_NULL_HANDLE;
};

// A fence, created unsignalled.
class Fence {
public:
    explicit Fence(Device& device);
    ~Fence();
    Fence(const Fence&) = delete;
    Fence& operator=(const Fence&) = delete;
    VkFence handle() const { return fence_; }
    void reset();

private:
    Device& device_;
    VkFence fence_ = VK_NULL_HANDLE;
};

} // namespace brisvale::gpu
