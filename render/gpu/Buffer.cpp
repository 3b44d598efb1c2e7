#include "render/gpu/Buffer.h"

#include "render/gpu/Device.h"
#include "render/gpu/Sync.h"

#include <cstring>
#include <stdexcept>

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
    if (vkCreateBuffer(device.handle(), &info, nullptr, &self->buffer_) != VK_SUCCESS) return nullptr;

    VkMemoryRequirements requirements;
    vkGetBufferMemoryRequirements(device.handle(), self->buffer_, &requirements);
    std::optional<std::uint32_t> type;
    switch (memory) {
    case BufferMemory::GpuPrivate:
        type = device.findMemoryType(requirements.memoryTypeBits, 0, VK_MEMORY_PROPERTY_DEVICE_LOCAL_BIT);
        break;
    case BufferMemory::HostVisible:
        type = device.findMemoryType(requirements.memoryTypeBits, VK_MEMORY_PROPERTY_HOST_VISIBLE_BIT,
                                     VK_MEMORY_PROPERTY_HOST_COHERENT_BIT);
        break;
    case BufferMemory::HostReadback:
        type = device.findMemoryType(requirements.memoryTypeBits, VK_MEMORY_PROPERTY_HOST_VISIBLE_BIT,
                                     VK_MEMORY_PROPERTY_HOST_CACHED_BIT);
        break;
    }
    if (!type) return nullptr;
    VkMemoryAllocateInfo allocateInfo{};
    allocateInfo.sType = VK_STRUCTURE_TYPE_MEMORY_ALLOCATE_INFO;
    allocateInfo.allocationSize = requirements.size;
    allocateInfo.memoryTypeIndex = *type;
    if (vkAllocateMemory(device.handle(), &allocateInfo, nullptr, &self->memory_) != VK_SUCCESS) return nullptr;
    if (vkBindBufferMemory(device.handle(), self->buffer_, self->memory_, 0) != VK_SUCCESS) return nullptr;
    if (memory != BufferMemory::GpuPrivate) {
        self->coherent_ = device.isHostCoherent(*type);
        if (vkMapMemory(device.handle(), self->memory_, 0, VK_WHOLE_SIZE, 0, &self->mapped_) != VK_SUCCESS) {
            return nullptr;
        }
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
    VkMappedMemoryRange range{};
    range.sType = VK_STRUCTURE_TYPE_MAPPED_MEMORY_RANGE;
    range.memory = memory_;
    range.offset = 0;
    range.size = VK_WHOLE_SIZE;
    check(vkFlushMappedMemoryRanges(device_.handle(), 1, &range), "vkFlushMappedMemoryRanges");
}

void Buffer::invalidate() {
    if (coherent_ || !mapped_) return;
    VkMappedMemoryRange range{};
    range.sType = VK_STRUCTURE_TYPE_MAPPED_MEMORY_RANGE;
    range.memory = memory_;
    range.offset = 0;
    range.size = VK_WHOLE_SIZE;
    check(vkInvalidateMappedMemoryRanges(device_.handle(), 1, &range), "vkInvalidateMappedMemoryRanges");
}

void Buffer::upload(const void* bytes, VkDeviceSize size) {
    auto staging = Buffer::create(device_, size, VK_BUFFER_USAGE_TRANSFER_SRC_BIT, BufferMemory::HostVisible);
    if (!staging) throw std::runtime_error("Failed to create staging buffer");
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
