#include "render/gpu/Sync.h"

#include "render/gpu/Device.h"

namespace brisvale::gpu {

Semaphore::Semaphore(Device& device) : device_(device) {
    VkSemaphoreCreateInfo info{};
    info.sType = VK_STRUCTURE_TYPE_SEMAPHORE_CREATE_INFO;
    check(vkCreateSemaphore(device.handle(), &info, nullptr, &semaphore_), "vkCreateSemaphore");
}

Semaphore::~Semaphore() {
    vkDestroySemaphore(device_.handle(), semaphore_, nullptr);
}

Fence::Fence(Device& device) : device_(device) {
    VkFenceCreateInfo info{};
    info.sType = VK_STRUCTURE_TYPE_FENCE_CREATE_INFO;
    check(vkCreateFence(device.handle(), &info, nullptr, &fence_), "vkCreateFence");
}

Fence::~Fence() {
    vkDestroyFence(device_.handle(), fence_, nullptr);
}

void Fence::reset() {
    check(vkResetFences(device_.handle(), 1, &fence_), "vkResetFences");
}

} // namespace brisvale::gpu
