#pragma once
// What any command buffer records, a frame's or one-shot work's (Device::runNow): a memory
// barrier, an image layout transition with its synchronisation (in the manner of Granite's
// CommandBuffer::image_barrier), and the copies between a buffer and one layer of a texture.

#include "render/gpu/Vk.h"

#include <cstdint>

namespace brisvale::gpu {

class Buffer;
class Texture;

// Work in `srcStage` writing through `srcAccess` is made visible to `dstStage` reading or
// writing through `dstAccess`.
void memoryBarrier(VkCommandBuffer commands, VkPipelineStageFlags2 srcStage, VkAccessFlags2 srcAccess,
                   VkPipelineStageFlags2 dstStage, VkAccessFlags2 dstAccess);

// Which array layers an image barrier covers; every layer unless told.
struct Layers {
    std::uint32_t first = 0;
    std::uint32_t count = VK_REMAINING_ARRAY_LAYERS;
};

// The layout transition of an image (its only mip level) from `oldLayout` to `newLayout`, after
// `srcStage`/`srcAccess` and before `dstStage`/`dstAccess`.
void imageBarrier(VkCommandBuffer commands, VkImage image, VkImageAspectFlags aspect, VkImageLayout oldLayout,
                  VkImageLayout newLayout, VkPipelineStageFlags2 srcStage, VkAccessFlags2 srcAccess,
                  VkPipelineStageFlags2 dstStage, VkAccessFlags2 dstAccess, Layers layers = {});
void imageBarrier(VkCommandBuffer commands, const Texture& texture, VkImageLayout oldLayout, VkImageLayout newLayout,
                  VkPipelineStageFlags2 srcStage, VkAccessFlags2 srcAccess, VkPipelineStageFlags2 dstStage,
                  VkAccessFlags2 dstAccess, Layers layers = {});

// The whole of one layer from a buffer of tightly packed texels; the layer is in
// TRANSFER_DST_OPTIMAL.
void copyBufferToLayer(VkCommandBuffer commands, const Buffer& source, const Texture& texture, std::uint32_t layer);
// The whole of one layer into a buffer, tightly packed, made visible to the processor once the
// work has completed; the layer is in TRANSFER_SRC_OPTIMAL.
void copyLayerToBuffer(VkCommandBuffer commands, const Texture& texture, std::uint32_t layer, const Buffer& target);

} // namespace brisvale::gpu
