#include "render/gpu/Descriptors.h"

#include "render/gpu/Buffer.h"
#include "render/gpu/Device.h"
#include "render/gpu/Pipeline.h"
#include "render/gpu/Sampler.h"
#include "render/gpu/Texture.h"

#include <stdexcept>
#include <vector>

namespace brisvale::gpu {

std::unique_ptr<DescriptorPool> DescriptorPool::create(Device& device, const PipelineLayout& layout,
                                                       std::uint32_t sets) {
    std::unique_ptr<DescriptorPool> self(new DescriptorPool(device, layout));
    std::vector<VkDescriptorPoolSize> sizes;
    for (const auto& binding : layout.bindings()) {
        sizes.push_back({binding.type, sets});
    }
    VkDescriptorPoolCreateInfo info{};
    info.sType = VK_STRUCTURE_TYPE_DESCRIPTOR_POOL_CREATE_INFO;
    info.maxSets = sets;
    info.poolSizeCount = static_cast<std::uint32_t>(sizes.size());
    info.pPoolSizes = sizes.data();
    checkCreated(vkCreateDescriptorPool(device.handle(), &info, nullptr, &self->pool_), self->pool_,
                 "vkCreateDescriptorPool");
    return self;
}

DescriptorPool::~DescriptorPool() {
    if (pool_ != VK_NULL_HANDLE) vkDestroyDescriptorPool(device_.handle(), pool_, nullptr);
}

VkDescriptorSet DescriptorPool::allocate() {
    VkDescriptorSetLayout setLayout = layout_.setLayout();
    VkDescriptorSetAllocateInfo info{};
    info.sType = VK_STRUCTURE_TYPE_DESCRIPTOR_SET_ALLOCATE_INFO;
    info.descriptorPool = pool_;
    info.descriptorSetCount = 1;
    info.pSetLayouts = &setLayout;
    VkDescriptorSet set = VK_NULL_HANDLE;
    check(vkAllocateDescriptorSets(device_.handle(), &info, &set), "vkAllocateDescriptorSets");
    return set;
}

DescriptorSetWriter& DescriptorSetWriter::storageBuffer(std::uint32_t binding, const Buffer& buffer) {
    VkWriteDescriptorSet& write = nextWrite(binding, VK_DESCRIPTOR_TYPE_STORAGE_BUFFER);
    buffers_[count_] = {buffer.handle(), 0, VK_WHOLE_SIZE};
    write.pBufferInfo = &buffers_[count_++];
    return *this;
}

DescriptorSetWriter& DescriptorSetWriter::sampledTexture(std::uint32_t binding, const Texture& texture,
                                                         const Sampler& sampler, VkImageLayout layout) {
    VkWriteDescriptorSet& write = nextWrite(binding, VK_DESCRIPTOR_TYPE_COMBINED_IMAGE_SAMPLER);
    images_[count_] = {sampler.handle(), texture.view(), layout};
    write.pImageInfo = &images_[count_++];
    return *this;
}

VkWriteDescriptorSet& DescriptorSetWriter::nextWrite(std::uint32_t binding, VkDescriptorType type) {
    if (count_ == kMaxWrites) throw std::logic_error("too many descriptor writes");
    VkWriteDescriptorSet& write = writes_[count_];
    write = {};
    write.sType = VK_STRUCTURE_TYPE_WRITE_DESCRIPTOR_SET;
    write.dstSet = set_;
    write.dstBinding = binding;
    write.descriptorCount = 1;
    write.descriptorType = type;
    return write;
}

void DescriptorSetWriter::commit() {
    vkUpdateDescriptorSets(device_.handle(), static_cast<std::uint32_t>(count_), writes_.data(), 0, nullptr);
    count_ = 0;
}

} // namespace brisvale::gpu
