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

void memoryBarrier(VkCommandBuffer commands, VkPipelineStageFlags2 srcStage, VkAccessFlags2 srcAccess,
                   VkPipelineStageFlags2 dstStage, VkAccessFlags2 dstAccess) {
    VkMemoryBarrier2 barrier{};
    barrier.sType = VK_STRUCTURE_TYPE_MEMORY_BARRIER_2;
    barrier.srcStageMask = srcStage;
    barrier.srcAccessMask = srcAccess;
    barrier.dstStageMask = dstStage;
    barrier.dstAccessMask = dstAccess;
    VkDependencyInfo dependency{};
    dependency.sType = VK_STRUCTURE_TYPE_DEPENDENCY_INFO;
    dependency.memoryBarrierCount = 1;
    dependency.pMemoryBarriers = &barrier;
    vkCmdPipelineBarrier2(commands, &dependency);
}

} // namespace brisvale::gpu
