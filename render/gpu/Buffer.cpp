#include "render/gpu/Buffer.h"

#include "render/gpu/Device.h"
#include "render/gpu/Recording.h"

#include <cstring>

namespace brisvale::gpu {

std::unique_ptr<Buffer> Buffer::create(Device& device, VkDeviceSize size, VkBufferUsageFlags usage,
                                       BufferMemory memory) {
    std::unique_ptr<Buffer> self(new Buffer(device));
    self->size_ = size;
    VkBufferCreateInfo info{};
    info.sType = VK_STRUCTURE_TYPE_BUFFER_CREATE_INFO;
    info.size = size;
    info.usage = usage;
    if (memory == BufferMemory::GpuPrivate) info.usage |= VK_BUFFER_USAGE_TRANSFER_DST_BIT;
    info.sharingMode = VK_SHARING_MODE_EXCLUSIVE;
    checkCreated(vkCreateBuffer(device.handle(), &info, nullptr, &self->buffer_), self->buffer_, "vkCreateBuffer");

    VkMemoryRequirements requirements;
    vkGetBufferMemoryRequirements(device.handle(), self->buffer_, &requirements);
    VkMemoryPropertyFlags required = VK_MEMORY_PROPERTY_HOST_VISIBLE_BIT;
    VkMemoryPropertyFlags preferred = VK_MEMORY_PROPERTY_HOST_COHERENT_BIT;
    switch (memory) {
    case BufferMemory::GpuPrivate:
        required = 0;
        preferred = VK_MEMORY_PROPERTY_DEVICE_LOCAL_BIT;
        break;
    case BufferMemory::HostVisible:
        break;
    case BufferMemory::HostReadback:
        preferred = VK_MEMORY_PROPERTY_HOST_CACHED_BIT;
        break;
    }
    const Device::Allocation allocation = device.allocate(requirements, required, preferred);
    self->memory_ = allocation.memory;
    check(vkBindBufferMemory(device.handle(), self->buffer_, self->memory_, 0), "vkBindBufferMemory");
    if (memory != BufferMemory::GpuPrivate) {
        self->coherent_ = device.isHostCoherent(allocation.type);
        checkCreated(vkMapMemory(device.handle(), self->memory_, 0, VK_WHOLE_SIZE, 0, &self->mapped_), self->mapped_,
                     "vkMapMemory");
    }
    return self;
}

Buffer::~Buffer() {
    if (mapped_) vkUnmapMemory(device_.handle(), memory_);
    if (buffer_ != VK_NULL_HANDLE) vkDestroyBuffer(device_.handle(), buffer_, nullptr);
    if (memory_ != VK_NULL_HANDLE) vkFreeMemory(device_.handle(), memory_, nullptr);
}

void Buffer::flush() {
    if (coherent_ || !mapped_) return;
    const VkMappedMemoryRange range = wholeMemory();
    check(vkFlushMappedMemoryRanges(device_.handle(), 1, &range), "vkFlushMappedMemoryRanges");
}

void Buffer::invalidate() {
    if (coherent_ || !mapped_) return;
    const VkMappedMemoryRange range = wholeMemory();
    check(vkInvalidateMappedMemoryRanges(device_.handle(), 1, &range), "vkInvalidateMappedMemoryRanges");
}

VkMappedMemoryRange Buffer::wholeMemory() const {
    VkMappedMemoryRange range{};
    range.sType = VK_STRUCTURE_TYPE_MAPPED_MEMORY_RANGE;
    range.memory = memory_;
    range.offset = 0;
    range.size = VK_WHOLE_SIZE;
    return range;
}

void Buffer::upload(const void* bytes, VkDeviceSize size) {
    auto staging = Buffer::create(device_, size, VK_BUFFER_USAGE_TRANSFER_SRC_BIT, BufferMemory::HostVisible);
    std::memcpy(staging->data(), bytes, size);
    staging->flush();
    device_.runNow([&](VkCommandBuffer commands) {
        VkBufferCopy region{0, 0, size};
        vkCmdCopyBuffer(commands, staging->handle(), buffer_, 1, &region);
        memoryBarrier(commands, VK_PIPELINE_STAGE_2_COPY_BIT, VK_ACCESS_2_TRANSFER_WRITE_BIT,
                      VK_PIPELINE_STAGE_2_ALL_COMMANDS_BIT, VK_ACCESS_2_MEMORY_READ_BIT | VK_ACCESS_2_MEMORY_WRITE_BIT);
    });
}

} // namespace brisvale::gpu
