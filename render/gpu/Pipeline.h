#pragma once
// Pipelines: the one resource layout every show shader shares (one descriptor set, one push
// constant range for all stages), render pipelines for dynamic rendering, compute pipelines.

#include "render/gpu/Vk.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace brisvale::gpu {

class Device;
class PipelineCache;

struct LayoutBinding {
    std::uint32_t binding = 0;
    VkDescriptorType type = VK_DESCRIPTOR_TYPE_STORAGE_BUFFER;
};

// Descriptor set layout (set 0) + pipeline layout, visible to every stage. Each kind of pipeline
// object throws Error when it cannot be made.
class PipelineLayout {
public:
    static std::unique_ptr<PipelineLayout> create(Device& device, const std::vector<LayoutBinding>& bindings,
                                                  std::uint32_t pushConstantBytes);
    ~PipelineLayout();
    PipelineLayout(const PipelineLayout&) = delete;
    PipelineLayout& operator=(const PipelineLayout&) = delete;

    VkDescriptorSetLayout setLayout() const { return setLayout_; }
    VkPipelineLayout handle() const { return layout_; }
    const std::vector<LayoutBinding>& bindings() const { return bindings_; }

private:
    PipelineLayout(Device& device) : device_(device) {}
    Device& device_;
    std::vector<LayoutBinding> bindings_;
    VkDescriptorSetLayout setLayout_ = VK_NULL_HANDLE;
    VkPipelineLayout layout_ = VK_NULL_HANDLE;
};

struct BlendState {
    bool enabled = false;
    VkBlendFactor srcColor = VK_BLEND_FACTOR_ONE;
    VkBlendFactor dstColor = VK_BLEND_FACTOR_ZERO;
    VkBlendOp colorOp = VK_BLEND_OP_ADD;
    VkBlendFactor srcAlpha = VK_BLEND_FACTOR_ONE;
    VkBlendFactor dstAlpha = VK_BLEND_FACTOR_ZERO;
    VkBlendOp alphaOp = VK_BLEND_OP_ADD;
};

struct RenderPipelineDescription {
    const PipelineLayout* layout = nullptr;
    const std::vector<std::uint32_t>* vertex = nullptr;    // SPIR-V, entry point "main"
    const std::vector<std::uint32_t>* fragment = nullptr;
    VkFormat colorFormat = VK_FORMAT_B8G8R8A8_UNORM;
    BlendState blend;
    // VK_FORMAT_UNDEFINED: no depth attachment. With one, depth test, write and compare are set
    // per draw (dynamic state), starting from "off" in every pass.
    VkFormat depthFormat = VK_FORMAT_UNDEFINED;
    const PipelineCache* cache = nullptr;  // none: the driver compiles from scratch
};

class RenderPipeline {
public:
    static std::unique_ptr<RenderPipeline> create(Device& device, const RenderPipelineDescription& description);
    ~RenderPipeline();
    RenderPipeline(const RenderPipeline&) = delete;
    RenderPipeline& operator=(const RenderPipeline&) = delete;
    VkPipeline handle() const { return pipeline_; }
    bool hasDepth() const { return hasDepth_; }

private:
    RenderPipeline(Device& device) : device_(device) {}
    Device& device_;
    VkPipeline pipeline_ = VK_NULL_HANDLE;
    bool hasDepth_ = false;
};

class ComputePipeline {
public:
    static std::unique_ptr<ComputePipeline> create(Device& device, const PipelineLayout& layout,
                                                   const std::vector<std::uint32_t>& compute,
                                                   const PipelineCache* cache = nullptr);
    ~ComputePipeline();
    ComputePipeline(const ComputePipeline&) = delete;
    ComputePipeline& operator=(const ComputePipeline&) = delete;
    VkPipeline handle() const { return pipeline_; }

private:
    ComputePipeline(Device& device) : device_(device) {}
    Device& device_;
    VkPipeline pipeline_ = VK_NULL_HANDLE;
};

} // namespace brisvale::gpu
