#include "render/RendererTesting.h"

#include "render/gpu/Sync.h"

#include <cstring>
#include <stdexcept>

namespace brisvale {

std::vector<std::uint8_t> RendererTesting::readImageLayer(Renderer& renderer, std::uint32_t layer) {
    Renderer::Impl& impl = *renderer.impl_;
    const gpu::Texture& array = *impl.imageTextureArray;
    const VkDeviceSize bytes = VkDeviceSize(array.width()) * array.height() * 4;
    auto readback = gpu::Buffer::create(*impl.device, bytes, VK_BUFFER_USAGE_TRANSFER_DST_BIT,
                                        gpu::BufferMemory::HostReadback);
    if (!readback) throw std::runtime_error("Failed to create readback buffer");
    impl.device->runNow([&](VkCommandBuffer commands) {
        gpu::ImageTransition toCopy;
        toCopy.srcStage = VK_PIPELINE_STAGE_2_FRAGMENT_SHADER_BIT;
        toCopy.dstStage = VK_PIPELINE_STAGE_2_COPY_BIT;
        toCopy.dstAccess = VK_ACCESS_2_TRANSFER_READ_BIT;
        toCopy.oldLayout = VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL;
        toCopy.newLayout = VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL;
        gpu::transitionImage(commands, array.image(), VK_IMAGE_ASPECT_COLOR_BIT, toCopy, layer, 1);
        VkBufferImageCopy region{};
        region.imageSubresource = {VK_IMAGE_ASPECT_COLOR_BIT, 0, layer, 1};
        region.imageExtent = {array.width(), array.height(), 1};
        vkCmdCopyImageToBuffer(commands, array.image(), VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL, readback->handle(), 1,
                               &region);
        gpu::ImageTransition back;
        back.srcStage = VK_PIPELINE_STAGE_2_COPY_BIT;
        back.dstStage = VK_PIPELINE_STAGE_2_FRAGMENT_SHADER_BIT;
        back.dstAccess = VK_ACCESS_2_SHADER_SAMPLED_READ_BIT;
        back.oldLayout = VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL;
        back.newLayout = VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL;
        gpu::transitionImage(commands, array.image(), VK_IMAGE_ASPECT_COLOR_BIT, back, layer, 1);
        gpu::memoryBarrier(commands, VK_PIPELINE_STAGE_2_COPY_BIT, VK_ACCESS_2_TRANSFER_WRITE_BIT,
                           VK_PIPELINE_STAGE_2_HOST_BIT, VK_ACCESS_2_HOST_READ_BIT);
    });
    readback->invalidate();
    std::vector<std::uint8_t> pixels(bytes);
    std::memcpy(pixels.data(), readback->data(), bytes);
    return pixels;
}

} // namespace brisvale
