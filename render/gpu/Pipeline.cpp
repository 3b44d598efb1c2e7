#include "render/gpu/Pipeline.h"

#include "render/gpu/Device.h"
#include "render/gpu/PipelineCache.h"

#include <array>

namespace brisvale::gpu {
namespace {

// A shader module that lives only while a pipeline is made from it.
class ShaderModule {
public:
    ShaderModule(Device& device, const std::vector<std::uint32_t>& code) : device_(device) {
        VkShaderModuleCreateInfo info{};
        info.sType = VK_STRUCTURE_TYPE_SHADER_MODULE_CREATE_INFO;
        info.codeSize = code.size() * sizeof(std::uint32_t);
        info.pCode = code.data();
        check(vkCreateShaderModule(device.handle(), &info, nullptr, &module_), "vkCreateShaderModule");
    }
    ~ShaderModule() {
        if (module_ != VK_NULL_HANDLE) vkDestroyShaderModule(device_.handle(), module_, nullptr);
    }
    ShaderModule(const ShaderModule&) = delete;
    ShaderModule& operator=(const ShaderModule&) = delete;
    VkShaderModule handle() const { return module_; }

private:
    Device& device_;
    VkShaderModule module_ = VK_NULL_HANDLE;
};

VkPipelineShaderStageCreateInfo stageInfo(VkShaderStageFlagBits stage, VkShaderModule module) {
    VkPipelineShaderStageCreateInfo info{};
    info.sType = VK_STRUCTURE_TYPE_PIPELINE_SHADER_STAGE_CREATE_INFO;
    info.stage = stage;
    info.module = module;
    info.pName = "main";
    return info;
}

} // namespace

std::unique_ptr<PipelineLayout> PipelineLayout::create(Device& device, const std::vector<LayoutBinding>& bindings,
                                                       std::uint32_t pushConstantBytes) {
    std::unique_ptr<PipelineLayout> self(new PipelineLayout(device));
    self->bindings_ = bindings;
    std::vector<VkDescriptorSetLayoutBinding> setBindings;
    for (const auto& binding : bindings) {
        VkDescriptorSetLayoutBinding entry{};
        entry.binding = binding.binding;
        entry.descriptorType = binding.type;
        entry.descriptorCount = 1;
        entry.stageFlags = VK_SHADER_STAGE_ALL;
        setBindings.push_back(entry);
    }
    VkDescriptorSetLayoutCreateInfo setInfo{};
    setInfo.sType = VK_STRUCTURE_TYPE_DESCRIPTOR_SET_LAYOUT_CREATE_INFO;
    setInfo.bindingCount = static_cast<std::uint32_t>(setBindings.size());
    setInfo.pBindings = setBindings.data();
    checkCreated(vkCreateDescriptorSetLayout(device.handle(), &setInfo, nullptr, &self->setLayout_), self->setLayout_,
                 "vkCreateDescriptorSetLayout");
    VkPushConstantRange range{VK_SHADER_STAGE_ALL, 0, pushConstantBytes};
    VkPipelineLayoutCreateInfo layoutInfo{};
    layoutInfo.sType = VK_STRUCTURE_TYPE_PIPELINE_LAYOUT_CREATE_INFO;
    layoutInfo.setLayoutCount = 1;
    layoutInfo.pSetLayouts = &self->setLayout_;
    layoutInfo.pushConstantRangeCount = pushConstantBytes > 0 ? 1 : 0;
    layoutInfo.pPushConstantRanges = &range;
    checkCreated(vkCreatePipelineLayout(device.handle(), &layoutInfo, nullptr, &self->layout_), self->layout_,
                 "vkCreatePipelineLayout");
    return self;
}

PipelineLayout::~PipelineLayout() {
    if (layout_ != VK_NULL_HANDLE) vkDestroyPipelineLayout(device_.handle(), layout_, nullptr);
    if (setLayout_ != VK_NULL_HANDLE) vkDestroyDescriptorSetLayout(device_.handle(), setLayout_, nullptr);
}

std::unique_ptr<RenderPipeline> RenderPipeline::create(Device& device, const RenderPipelineDescription& description) {
    std::unique_ptr<RenderPipeline> self(new RenderPipeline(device));
    const ShaderModule vertex(device, *description.vertex);
    const ShaderModule fragment(device, *description.fragment);
    const std::array stages{stageInfo(VK_SHADER_STAGE_VERTEX_BIT, vertex.handle()),
                            stageInfo(VK_SHADER_STAGE_FRAGMENT_BIT, fragment.handle())};

    VkPipelineVertexInputStateCreateInfo vertexInput{};

    vertexInput.sType = VK_STRUCTURE_TYPE_PIPELINE_VERTEX_INPUT_STATE_CREATE_INFO;
    VkPipelineInputAssemblyStateCreateInfo assembly{};
    assembly.sType = VK_STRUCTURE_TYPE_PIPELINE_INPUT_ASSEMBLY_STATE_CREATE_INFO;
    assembly.topology = VK_PRIMITIVE_TOPOLOGY_TRIANGLE_LIST;  // the strip is chosen per draw
    VkPipelineViewportStateCreateInfo viewport{};
    viewport.sType = VK_STRUCTURE_TYPE_PIPELINE_VIEWPORT_STATE_CREATE_INFO;
    viewport.viewportCount = 1;
    viewport.scissorCount = 1;
    VkPipelineRasterizationStateCreateInfo raster{};
    raster.sType = VK_STRUCTURE_TYPE_PIPELINE_RASTERIZATION_STATE_CREATE_INFO;
    raster.polygonMode = VK_POLYGON_MODE_FILL;
    raster.cullMode = VK_CULL_MODE_NONE;
    raster.frontFace = VK_FRONT_FACE_COUNTER_CLOCKWISE;
    raster.lineWidth = 1.0f;
    VkPipelineMultisampleStateCreateInfo multisample{};
    multisample.sType = VK_STRUCTURE_TYPE_PIPELINE_MULTISAMPLE_STATE_CREATE_INFO;
    multisample.rasterizationSamples = VK_SAMPLE_COUNT_1_BIT;
    VkPipelineDepthStencilStateCreateInfo depth{};
    depth.sType = VK_STRUCTURE_TYPE_PIPELINE_DEPTH_STENCIL_STATE_CREATE_INFO;
    depth.depthCompareOp = VK_COMPARE_OP_LESS;
    depth.maxDepthBounds = 1.0f;

    VkPipelineColorBlendAttachmentState attachment{};
    attachment.blendEnable = description.blend.enabled ? VK_TRUE : VK_FALSE;
    attachment.srcColorBlendFactor = description.blend.srcColor;
    attachment.dstColorBlendFactor = description.blend.dstColor;
    attachment.colorBlendOp = description.blend.colorOp;
    attachment.srcAlphaBlendFactor = description.blend.srcAlpha;
    attachment.dstAlphaBlendFactor = description.blend.dstAlpha;
    attachment.alphaBlendOp = description.blend.alphaOp;
    attachment.colorWriteMask = VK_COLOR_COMPONENT_R_BIT | VK_COLOR_COMPONENT_G_BIT | VK_COLOR_COMPONENT_B_BIT |
                                VK_COLOR_COMPONENT_A_BIT;
    VkPipelineColorBlendStateCreateInfo blend{};
    blend.sType = VK_STRUCTURE_TYPE_PIPELINE_COLOR_BLEND_STATE_CREATE_INFO;
    blend.attachmentCount = 1;
    blend.pAttachments = &attachment;

    const bool hasDepth = description.depthFormat != VK_FORMAT_UNDEFINED;
    std::vector<VkDynamicState> dynamicStates{VK_DYNAMIC_STATE_VIEWPORT, VK_DYNAMIC_STATE_SCISSOR,
                                              VK_DYNAMIC_STATE_PRIMITIVE_TOPOLOGY};
    if (hasDepth) {
        dynamicStates.insert(dynamicStates.end(), {VK_DYNAMIC_STATE_DEPTH_TEST_ENABLE,
                                                   VK_DYNAMIC_STATE_DEPTH_WRITE_ENABLE,
                                                   VK_DYNAMIC_STATE_DEPTH_COMPARE_OP});
    }
    VkPipelineDynamicStateCreateInfo dynamic{};
    dynamic.sType = VK_STRUCTURE_TYPE_PIPELINE_DYNAMIC_STATE_CREATE_INFO;
    dynamic.dynamicStateCount = static_cast<std::uint32_t>(dynamicStates.size());
    dynamic.pDynamicStates = dynamicStates.data();

    VkPipelineRenderingCreateInfo rendering{};

    rendering.sType = VK_STRUCTURE_TYPE_PIPELINE_RENDERING_CREATE_INFO;
    rendering.colorAttachmentCount = 1;
    rendering.pColorAttachmentFormats = &description.colorFormat;
    rendering.depthAttachmentFormat = description.depthFormat;

    VkGraphicsPipelineCreateInfo info{};

    info.sType = VK_STRUCTURE_TYPE_GRAPHICS_PIPELINE_CREATE_INFO;
    info.pNext = &rendering;
    info.stageCount = static_cast<std::uint32_t>(stages.size());
    info.pStages = stages.data();
    info.pVertexInputState = &vertexInput;
    info.pInputAssemblyState = &assembly;
    info.pViewportState = &viewport;
    info.pRasterizationState = &raster;
    info.pMultisampleState = &multisample;
    info.pDepthStencilState = hasDepth ? &depth : nullptr;
    info.pColorBlendState = &blend;
    info.pDynamicState = &dynamic;
    info.layout = description.layout->handle();
    const VkPipelineCache cache = description.cache ? description.cache->handle() : VK_NULL_HANDLE;
    checkCreated(vkCreateGraphicsPipelines(device.handle(), cache, 1, &info, nullptr, &self->pipeline_),
                 self->pipeline_, "vkCreateGraphicsPipelines");
    self->hasDepth_ = hasDepth;
    return self;
}

RenderPipeline::~RenderPipeline() {
    if (pipeline_ != VK_NULL_HANDLE) vkDestroyPipeline(device_.handle(), pipeline_, nullptr);
}

std::unique_ptr<ComputePipeline> ComputePipeline::create(Device& device, const PipelineLayout& layout,
                                                         const std::vector<std::uint32_t>& compute,
                                                         const PipelineCache* cache) {
    std::unique_ptr<ComputePipeline> self(new ComputePipeline(device));
    const ShaderModule module(device, compute);
    VkComputePipelineCreateInfo info{};
    info.sType = VK_STRUCTURE_TYPE_COMPUTE_PIPELINE_CREATE_INFO;
    info.stage = stageInfo(VK_SHADER_STAGE_COMPUTE_BIT, module.handle());
    info.layout = layout.handle();
    checkCreated(vkCreateComputePipelines(device.handle(), cache ? cache->handle() : VK_NULL_HANDLE, 1, &info, nullptr,
                                          &self->pipeline_),
                 self->pipeline_, "vkCreateComputePipelines");
    return self;
}

ComputePipeline::~ComputePipeline() {
    if (pipeline_ != VK_NULL_HANDLE) vkDestroyPipeline(device_.handle(), pipeline_, nullptr);
}

} // namespace brisvale::gpu
