#pragma once
// A reusable command buffer with its own pool and fence: one per frame slot, recorded again each
// time its slot comes round (the previous use has completed by then). The recording helpers cover
// what the renderer encodes; anything else can go through handle().

#include "render/gpu/Vk.h"

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

namespace brisvale::gpu {

class Buffer;
class ComputePipeline;
class Device;
class PipelineLayout;
class RenderPipeline;
class Texture;

struct SubmitSync {
    VkSemaphore wait = VK_NULL_HANDLE;                          // e.g. a swapchain image acquisition
    VkPipelineStageFlags2 waitStage = VK_PIPELINE_STAGE_2_ALL_COMMANDS_BIT;
    VkSemaphore signal = VK_NULL_HANDLE;                        // e.g. "ready to present"
};

struct ColorTarget {
    const Texture* texture = nullptr;  // in COLOR_ATTACHMENT_OPTIMAL during the pass
    bool clear = true;                 // else load
    std::array<float, 4> clearColor = {0, 0, 0, 1};

    // A pass that starts from `color` everywhere, or one that draws over what is there.
    static ColorTarget cleared(const Texture& texture, std::array<float, 4> color) { return {&texture, true, color}; }
    static ColorTarget loaded(const Texture& texture) { return {&texture, false}; }
};

struct DepthTarget {
    const Texture* texture = nullptr;  // nullptr: no depth attachment
    float clearDepth = 1.0f;
};

class CommandBuffer {
public:
    static std::unique_ptr<CommandBuffer> create(Device& device);  // throws Error on failure
    ~CommandBuffer();
    CommandBuffer(const CommandBuffer&) = delete;
    CommandBuffer& operator=(const CommandBuffer&) = delete;

    VkCommandBuffer handle() const { return commands_; }
    VkFence fence() const { return fence_; }

    // Resets the pool and the fence; the previous submission must have completed.
    void begin();
    void end();
    VkResult submit(const SubmitSync& sync);

    void bindCompute(const ComputePipeline& pipeline, const PipelineLayout& layout, VkDescriptorSet set);
    void bindRender(const RenderPipeline& pipeline, const PipelineLayout& layout, VkDescriptorSet set);
    void pushConstants(const PipelineLayout& layout, std::uint32_t offset, std::uint32_t size, const void* data);
    void dispatch(std::uint32_t groupsX);

    void beginRendering(const ColorTarget& color, const DepthTarget& depth);
    void endRendering();
    // Viewport flipped so that clip-space y points up; covers the whole target.
    void setViewport(std::uint32_t width, std::uint32_t height);
    void setDepthState(bool test, bool write, VkCompareOp compare);
    void setTopology(VkPrimitiveTopology topology);
    void draw(std::uint32_t vertexCount);
    void drawIndirect(const Buffer& arguments);

    // Linear-filtered blit of the whole of `source` (TRANSFER_SRC_OPTIMAL) over the whole of
    // `destination` (TRANSFER_DST_OPTIMAL), whatever their sizes.
    void stretch(const Texture& source, const Texture& destination);

    // Recording.h's barriers, on this command buffer.
    void memoryBarrier(VkPipelineStageFlags2 srcStage, VkAccessFlags2 srcAccess, VkPipelineStageFlags2 dstStage,
                       VkAccessFlags2 dstAccess);
    void imageBarrier(const Texture& texture, VkImageLayout oldLayout, VkImageLayout newLayout,
                      VkPipelineStageFlags2 srcStage, VkAccessFlags2 srcAccess, VkPipelineStageFlags2 dstStage,
                      VkAccessFlags2 dstAccess);

private:
    CommandBuffer(Device& device) : device_(device) {}
    Device& device_;
    VkCommandPool pool_ = VK_NULL_HANDLE;
    VkCommandBuffer commands_ = VK_NULL_HANDLE;
    VkFence fence_ = VK_NULL_HANDLE;
    std::uint32_t targetWidth_ = 0;
    std::uint32_t targetHeight_ = 0;
};

// The renderer's command queue: the device's queue plus one reusable command buffer per frame slot.
class CommandQueue {
public:
    static std::unique_ptr<CommandQueue> create(Device& device, std::uint32_t slots);  // throws Error on failure
    CommandBuffer& buffer(std::uint32_t slot) { return *buffers_[slot]; }
    std::uint32_t slots() const { return static_cast<std::uint32_t>(buffers_.size()); }

private:
    CommandQueue() = default;
    std::vector<std::unique_ptr<CommandBuffer>> buffers_;
};

} // namespace brisvale::gpu
