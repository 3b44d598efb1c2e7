#pragma once
// Descriptor sets: a pool sized up front for a fixed number of sets of one layout, and a writer
// that updates a set in place without allocating (the frame path rewrites its sets every frame).

#include "render/gpu/Vk.h"

#include <array>
#include <cstdint>
#include <memory>

namespace brisvale::gpu {

class Buffer;
class Device;
class PipelineLayout;
class Sampler;
class Texture;

class DescriptorPool {
public:
    // Room for `sets` sets of `layout`. Throws Error on failure.
    static std::unique_ptr<DescriptorPool> create(Device& device, const PipelineLayout& layout, std::uint32_t sets);
    ~DescriptorPool();
    DescriptorPool(const DescriptorPool&) = delete;
    DescriptorPool& operator=(const DescriptorPool&) = delete;

    VkDescriptorSet allocate();  // throws Error when the pool is exhausted

private:
    DescriptorPool(Device& device, const PipelineLayout& layout) : device_(device), layout_(layout) {}
    Device& device_;
    const PipelineLayout& layout_;
    VkDescriptorPool pool_ = VK_NULL_HANDLE;
};

class DescriptorSetWriter {
public:
    DescriptorSetWriter(Device& device, VkDescriptorSet set) : device_(device), set_(set) {}
    DescriptorSetWriter& storageBuffer(std::uint32_t binding, const Buffer& buffer);
    DescriptorSetWriter& sampledTexture(std::uint32_t binding, const Texture& texture, const Sampler& sampler,
                                        VkImageLayout layout);
    void commit();

private:
    static constexpr std::size_t kMaxWrites = 8;
    // The next write of the batch, its resource still to be filled in.
    VkWriteDescriptorSet& nextWrite(std::uint32_t binding, VkDescriptorType type);
    Device& device_;
    VkDescriptorSet set_;
    std::array<VkWriteDescriptorSet, kMaxWrites> writes_{};
    std::array<VkDescriptorBufferInfo, kMaxWrites> buffers_{};
    std::array<VkDescriptorImageInfo, kMaxWrites> images_{};
    std::size_t count_ = 0;
};

} // namespace brisvale::gpu
