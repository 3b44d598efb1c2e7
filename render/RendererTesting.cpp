#include "render/RendererTesting.h"

#include "render/gpu/Recording.h"

#include <cstring>

namespace brisvale {

std::vector<std::uint8_t> RendererTesting::readImageLayer(Renderer& renderer, std::uint32_t layer) {
    Renderer::Impl& impl = *renderer.impl_;
    const gpu::Texture& array = *impl.imageTextureArray;
    const VkDeviceSize bytes = VkDeviceSize(array.width()) * array.height() * 4;
    auto readback = gpu::Buffer::create(*impl.device, bytes, VK_BUFFER_USAGE_TRANSFER_DST_BIT,
                                        gpu::BufferMemory::HostReadback);
    impl.device->runNow([&](VkCommandBuffer commands) {
        const gpu::Layers one{layer, 1};
        gpu::imageBarrier(commands, array, VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL,
                          VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL, VK_PIPELINE_STAGE_2_FRAGMENT_SHADER_BIT,
                          VK_ACCESS_2_NONE, VK_PIPELINE_STAGE_2_COPY_BIT, VK_ACCESS_2_TRANSFER_READ_BIT, one);
        gpu::copyLayerToBuffer(commands, array, layer, *readback);
        gpu::imageBarrier(commands, array, VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL,
                          VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL, VK_PIPELINE_STAGE_2_COPY_BIT, VK_ACCESS_2_NONE,
                          VK_PIPELINE_STAGE_2_FRAGMENT_SHADER_BIT, VK_ACCESS_2_SHADER_SAMPLED_READ_BIT, one);
    });
    readback->invalidate();
    std::vector<std::uint8_t> pixels(bytes);
    std::memcpy(pixels.data(), readback->data(), bytes);
    return pixels;
}

} // namespace brisvale
