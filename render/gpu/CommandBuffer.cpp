#include "render/gpu/CommandBuffer.h"

#include "render/gpu/Buffer.h"
#include "render/gpu/Device.h"
#include "render/gpu/Pipeline.h"
#include "render/gpu/Recording.h"
#include "render/gpu/Texture.h"

namespace brisvale::gpu {

std::unique_ptr<CommandBuffer> CommandBuffer::create(Device& device) {
    std::unique_ptr<CommandBuffer> self(new CommandBuffer(device));
    VkCommandPoolCreateInfo poolInfo{};
    poolInfo.sType = VK_STRUCTURE_TYPE_COMMAND_POOL_CREATE_INFO;
    poolInfo.flags = VK_COMMAND_POOL_CREATE_TRANSIENT_BIT;
    poolInfo.queueFamilyIndex = device.queueFamily();
    checkCreated(vkCreateCommandPool(device.handle(), &poolInfo, nullptr, &self->pool_), self->pool_,
                 "vkCreateCommandPool");
    VkCommandBufferAllocateInfo allocateInfo{};
    allocateInfo.sType = VK_STRUCTURE_TYPE_COMMAND_BUFFER_ALLOCATE_INFO;
    allocateInfo.commandPool = self->pool_;
    allocateInfo.level = VK_COMMAND_BUFFER_LEVEL_PRIMARY;
    allocateInfo.commandBufferCount = 1;
    checkCreated(vkAllocateCommandBuffers(device.handle(), &allocateInfo, &self->commands_), self->commands_,
                 "vkAllocateCommandBuffers");
    VkFenceCreateInfo fenceInfo{};
    fenceInfo.sType = VK_STRUCTURE_TYPE_FENCE_CREATE_INFO;
    fenceInfo.flags = VK_FENCE_CREATE_SIGNALED_BIT;  // "previous use complete" holds for the first frame
    checkCreated(vkCreateFence(device.handle(), &fenceInfo, nullptr, &self->fence_), self->fence_, "vkCreateFence");
    return self;
}

CommandBuffer::~CommandBuffer() {
    if (fence_ != VK_NULL_HANDLE) vkDestroyFence(device_.handle(), fence_, nullptr);
    if (pool_ != VK_NULL_HANDLE) vkDestroyCommandPool(device_.handle(), pool_, nullptr);
}

void CommandBuffer::begin() {
    check(vkResetFences(device_.handle(), 1, &fence_), "vkResetFences");
    check(vkResetCommandPool(device_.handle(), pool_, 0), "vkResetCommandPool");
    VkCommandBufferBeginInfo info{};
    info.sType = VK_STRUCTURE_TYPE_COMMAND_BUFFER_BEGIN_INFO;
    info.flags = VK_COMMAND_BUFFER_USAGE_ONE_TIME_SUBMIT_BIT;
    check(vkBeginCommandBuffer(commands_, &info), "vkBeginCommandBuffer");
}

void CommandBuffer::end() {
    check(vkEndCommandBuffer(commands_), "vkEndCommandBuffer");
}

VkResult CommandBuffer::submit(const SubmitSync& sync) {
    VkCommandBufferSubmitInfo commandInfo{};
    commandInfo.sType = VK_STRUCTURE_TYPE_COMMAND_BUFFER_SUBMIT_INFO;
    commandInfo.commandBuffer = commands_;
    VkSemaphoreSubmitInfo waitInfo{};
    waitInfo.sType = VK_STRUCTURE_TYPE_SEMAPHORE_SUBMIT_INFO;
    waitInfo.semaphore = sync.wait;
    waitInfo.stageMask = sync.waitStage;
    VkSemaphoreSubmitInfo signalInfo{};
    signalInfo.sType = VK_STRUCTURE_TYPE_SEMAPHORE_SUBMIT_INFO;
    signalInfo.semaphore = sync.signal;
    signalInfo.stageMask = VK_PIPELINE_STAGE_2_ALL_COMMANDS_BIT;
    VkSubmitInfo2 info{};
    info.sType = VK_STRUCTURE_TYPE_SUBMIT_INFO_2;
    info.waitSemaphoreInfoCount = sync.wait != VK_NULL_HANDLE ? 1 : 0;
    info.pWaitSemaphoreInfos = &waitInfo;
    info.commandBufferInfoCount = 1;
    info.pCommandBufferInfos = &commandInfo;
    info.signalSemaphoreInfoCount = sync.signal != VK_NULL_HANDLE ? 1 : 0;
    info.pSignalSemaphoreInfos = &signalInfo;
    return device_.submit(info, fence_);
}

void CommandBuffer::bindCompute(const ComputePipeline& pipeline, const PipelineLayout& layout, VkDescriptorSet set) {
    vkCmdBindPipeline(commands_, VK_PIPELINE_BIND_POINT_COMPUTE, pipeline.handle());
    vkCmdBindDescriptorSets(commands_, VK_PIPELINE_BIND_POINT_COMPUTE, layout.handle(), 0, 1, &set, 0, nullptr);
}

void CommandBuffer::bindRender(const RenderPipeline& pipeline, const PipelineLayout& layout, VkDescriptorSet set) {
    vkCmdBindPipeline(commands_, VK_PIPELINE_BIND_POINT_GRAPHICS, pipeline.handle());
    vkCmdBindDescriptorSets(commands_, VK_PIPELINE_BIND_POINT_GRAPHICS, layout.handle(), 0, 1, &set, 0, nullptr);
}

void CommandBuffer::pushConstants(const PipelineLayout& layout, std::uint32_t offset, std::uint32_t size,
                                  const void* data) {
    vkCmdPushConstants(commands_, layout.handle(), VK_SHADER_STAGE_ALL, offset, size, data);
}

void CommandBuffer::dispatch(std::uint32_t groupsX) {
    vkCmdDispatch(commands_, groupsX, 1, 1);
}

void CommandBuffer::beginRendering(const ColorTarget& color, const DepthTarget& depth) {
    targetWidth_ = color.texture->width();
    targetHeight_ = color.texture->height();
    VkRenderingAttachmentInfo colorInfo{};
    colorInfo.sType = VK_STRUCTURE_TYPE_RENDERING_ATTACHMENT_INFO;
    colorInfo.imageView = color.texture->view();
    colorInfo.imageLayout = VK_IMAGE_LAYOUT_COLOR_ATTACHMENT_OPTIMAL;
    colorInfo.loadOp = color.clear ? VK_ATTACHMENT_LOAD_OP_CLEAR : VK_ATTACHMENT_LOAD_OP_LOAD;
    colorInfo.storeOp = VK_ATTACHMENT_STORE_OP_STORE;
    for (std::size_t i = 0; i < color.clearColor.size(); ++i) {
        colorInfo.clearValue.color.float32[i] = color.clearColor[i];
    }
    VkRenderingAttachmentInfo depthInfo{};
    depthInfo.sType = VK_STRUCTURE_TYPE_RENDERING_ATTACHMENT_INFO;
    if (depth.texture) {
        depthInfo.imageView = depth.texture->view();
        depthInfo.imageLayout = VK_IMAGE_LAYOUT_DEPTH_ATTACHMENT_OPTIMAL;
        depthInfo.loadOp = VK_ATTACHMENT_LOAD_OP_CLEAR;
        depthInfo.storeOp = VK_ATTACHMENT_STORE_OP_STORE;
        depthInfo.clearValue.depthStencil = {depth.clearDepth, 0};
    }
    VkRenderingInfo info{};
    info.sType = VK_STRUCTURE_TYPE_RENDERING_INFO;
    info.renderArea = {{0, 0}, {targetWidth_, targetHeight_}};
    info.layerCount = 1;
    info.colorAttachmentCount = 1;
    info.pColorAttachments = &colorInfo;
    info.pDepthAttachment = depth.texture ? &depthInfo : nullptr;
    vkCmdBeginRendering(commands_, &info);
}

void CommandBuffer::endRendering() {
    vkCmdEndRendering(commands_);
}

void CommandBuffer::setViewport(std::uint32_t width, std::uint32_t height) {
    VkViewport viewport{0.0f, static_cast<float>(height), static_cast<float>(width), -static_cast<float>(height),
                        0.0f, 1.0f};
    VkRect2D scissor{{0, 0}, {width, height}};
    vkCmdSetViewport(commands_, 0, 1, &viewport);
    vkCmdSetScissor(commands_, 0, 1, &scissor);
}

void CommandBuffer::setDepthState(bool test, bool write, VkCompareOp compare) {
    vkCmdSetDepthTestEnable(commands_, test ? VK_TRUE : VK_FALSE);
    vkCmdSetDepthWriteEnable(commands_, write ? VK_TRUE : VK_FALSE);
    vkCmdSetDepthCompareOp(commands_, compare);
}

void CommandBuffer::setTopology(VkPrimitiveTopology topology) {
    vkCmdSetPrimitiveTopology(commands_, topology);
}

void CommandBuffer::draw(std::uint32_t vertexCount) {
    vkCmdDraw(commands_, vertexCount, 1, 0, 0);
}

void CommandBuffer::drawIndirect(const Buffer& arguments) {
    vkCmdDrawIndirect(commands_, arguments.handle(), 0, 1, sizeof(VkDrawIndirectCommand));
}

void CommandBuffer::stretch(const Texture& source, const Texture& destination) {
    VkImageBlit region{};
    region.srcSubresource = {VK_IMAGE_ASPECT_COLOR_BIT, 0, 0, 1};
    region.srcOffsets[1] = {static_cast<std::int32_t>(source.width()), static_cast<std::int32_t>(source.height()), 1};
    region.dstSubresource = {VK_IMAGE_ASPECT_COLOR_BIT, 0, 0, 1};
    region.dstOffsets[1] = {static_cast<std::int32_t>(destination.width()),
                            static_cast<std::int32_t>(destination.height()), 1};
    vkCmdBlitImage(commands_, source.image(), VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL, destination.image(),
                   VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL, 1, &region, VK_FILTER_LINEAR);
}

void CommandBuffer::memoryBarrier(VkPipelineStageFlags2 srcStage, VkAccessFlags2 srcAccess,
                                  VkPipelineStageFlags2 dstStage, VkAccessFlags2 dstAccess) {
    gpu::memoryBarrier(commands_, srcStage, srcAccess, dstStage, dstAccess);
}

void CommandBuffer::imageBarrier(const Texture& texture, VkImageLayout oldLayout, VkImageLayout newLayout,
                                 VkPipelineStageFlags2 srcStage, VkAccessFlags2 srcAccess,
                                 VkPipelineStageFlags2 dstStage, VkAccessFlags2 dstAccess) {
    gpu::imageBarrier(commands_, texture, oldLayout, newLayout, srcStage, srcAccess, dstStage, dstAccess);
}

std::unique_ptr<CommandQueue> CommandQueue::create(Device& device, std::uint32_t slots) {
    std::unique_ptr<CommandQueue> self(new CommandQueue());
    for (std::uint32_t i = 0; i < slots; ++i) self->buffers_.push_back(CommandBuffer::create(device));
    return self;
}

} // namespace brisvale::gpu
