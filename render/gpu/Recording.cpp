#include "render/gpu/Recording.h"

#include "render/gpu/Buffer.h"
#include "render/gpu/Texture.h"

namespace brisvale::gpu {
namespace {

VkBufferImageCopy wholeLayer(const Texture& texture, std::uint32_t layer) {
    VkBufferImageCopy region{};
    region.imageSubresource = {texture.aspect(), 0, layer, 1};
    region.imageExtent = {texture.width(), texture.height(), 1};
    return region;
}

} // namespace

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

void imageBarrier(VkCommandBuffer commands, VkImage image, VkImageAspectFlags aspect, VkImageLayout oldLayout,
                  VkImageLayout newLayout, VkPipelineStageFlags2 srcStage, VkAccessFlags2 srcAccess,
                  VkPipelineStageFlags2 dstStage, VkAccessFlags2 dstAccess, Layers layers) {
    VkImageMemoryBarrier2 barrier{};
    barrier.sType = VK_STRUCTURE_TYPE_IMAGE_MEMORY_BARRIER_2;
    barrier.srcStageMask = srcStage;
    barrier.srcAccessMask = srcAccess;
    barrier.dstStageMask = dstStage;
    barrier.dstAccessMask = dstAccess;
    barrier.oldLayout = oldLayout;
    barrier.newLayout = newLayout;
    barrier.srcQueueFamilyIndex = VK_QUEUE_FAMILY_IGNORED;
    barrier.dstQueueFamilyIndex = VK_QUEUE_FAMILY_IGNORED;
    barrier.image = image;
    barrier.subresourceRange = {aspect, 0, 1, layers.first, layers.count};
    VkDependencyInfo dependency{};
    dependency.sType = VK_STRUCTURE_TYPE_DEPENDENCY_INFO;
    dependency.imageMemoryBarrierCount = 1;
    dependency.pImageMemoryBarriers = &barrier;
    vkCmdPipelineBarrier2(commands, &dependency);
}

void imageBarrier(VkCommandBuffer commands, const Texture& texture, VkImageLayout oldLayout, VkImageLayout newLayout,
                  VkPipelineStageFlags2 srcStage, VkAccessFlags2 srcAccess, VkPipelineStageFlags2 dstStage,
                  VkAccessFlags2 dstAccess, Layers layers) {
    imageBarrier(commands, texture.image(), texture.aspect(), oldLayout, newLayout, srcStage, srcAccess, dstStage,
                 dstAccess, layers);
}

void copyBufferToLayer(VkCommandBuffer commands, const Buffer& source, const Texture& texture, std::uint32_t layer) {
    const VkBufferImageCopy region = wholeLayer(texture, layer);
    vkCmdCopyBufferToImage(commands, source.handle(), texture.image(), VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL, 1,
                           &region);
}

void copyLayerToBuffer(VkCommandBuffer commands, const Texture& texture, std::uint32_t layer, const Buffer& target) {
    const VkBufferImageCopy region = wholeLayer(texture, layer);
    vkCmdCopyImageToBuffer(commands, texture.image(), VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL, target.handle(), 1,
                           &region);
    memoryBarrier(commands, VK_PIPELINE_STAGE_2_COPY_BIT, VK_ACCESS_2_TRANSFER_WRITE_BIT, VK_PIPELINE_STAGE_2_HOST_BIT,
                  VK_ACCESS_2_HOST_READ_BIT);
}

} // namespace brisvale::gpu
