// The image texture array: one 1024 × 1024 RGBA8 layer per image of the asset manifest, decoded,
// squeezed to the square, premultiplied, and uploaded through a staging buffer at start-up.
//
// A show's images come from strangers: the layer count is checked against the device, and the
// images' headers against the decode budget, before the array is made or any pixel decoded.

#include "render/RendererImpl.h"

#include "content/AssetManifest.h"
#include "render/ImageDecode.h"

#include <cstring>
#include <string>

namespace brisvale {
namespace {

constexpr const char* kNoImagePaths = "Asset manifest does not define any image paths";
constexpr const char* kNoImageArray = "Failed to create image texture array";
constexpr const char* kNoUploadBuffer = "Failed to create bitmap context for texture upload";
const std::string kOverDecodeBudget =
    "Images together are larger than " + std::to_string(renderer_limits::kImageDecodeBudgetPixels) + " pixels";

} // namespace

void Renderer::Impl::loadTextureArray() {
    const std::vector<std::string> paths = loadImagePaths(*archive, manifest.assetManifestPath);
    if (paths.empty()) throw std::runtime_error(kNoImagePaths);

    gpu::TextureDescription description;
    description.format = VK_FORMAT_R8G8B8A8_UNORM;
    description.width = renderer_limits::kImageEdge;
    description.height = renderer_limits::kImageEdge;
    description.array = true;
    description.usage = VK_IMAGE_USAGE_SAMPLED_BIT | VK_IMAGE_USAGE_TRANSFER_DST_BIT | VK_IMAGE_USAGE_TRANSFER_SRC_BIT;
    const std::uint32_t allowed = gpu::textureLimits(*device, description).maxLayers;
    if (paths.size() > allowed)
        throw std::runtime_error(std::string(kNoImageArray) + ": " + std::to_string(paths.size()) +
                                 " images, the device allows at most " + std::to_string(allowed));
    imageCount = static_cast<std::uint32_t>(paths.size());
    description.layers = imageCount;

    // What decoding would cost is known from the headers before anything is spent on it. An image
    // whose header cannot be read is left to the loop below, which reports it in list order.
    std::uint64_t declaredPixels = 0;
    for (const std::string& path : paths) {
        if (!archive->contains(path)) continue;
        try {
            const ArchiveBytes bytes = archive->open(path);
            const ImageSize size = readImageSize(bytes.data(), bytes.size(), path);
            declaredPixels += std::uint64_t(size.width) * size.height;
        } catch (const std::runtime_error&) {
            continue;
        }
        if (declaredPixels > renderer_limits::kImageDecodeBudgetPixels)
            throw std::runtime_error(kOverDecodeBudget + ": " + path);
    }

    imageTextureArray = gpu::Texture::create(*device, description);
    require(imageTextureArray, kNoImageArray);

    // The first failure, in list order, ends the loop (decoding checks each header's limits again).
    for (std::uint32_t slice = 0; slice < imageCount; ++slice) {
        loadTextureSlice(paths[slice], slice, renderer_limits::kImageEdge);
    }
}

void Renderer::Impl::loadTextureSlice(const std::string& path, std::uint32_t slice, std::uint64_t size) {
    const ArchiveBytes bytes = archive->open(path);
    const std::uint32_t edge = static_cast<std::uint32_t>(size);
    const std::vector<std::uint8_t> pixels = decodeImageToSquare(bytes.data(), bytes.size(), edge, path);

    const VkDeviceSize layerBytes = VkDeviceSize(edge) * edge * 4;
    auto staging = gpu::Buffer::create(*device, layerBytes, VK_BUFFER_USAGE_TRANSFER_SRC_BIT,
                                       gpu::BufferMemory::HostVisible);
    require(staging, kNoUploadBuffer);
    std::memcpy(staging->data(), pixels.data(), layerBytes);
    staging->flush();

    const gpu::Texture& array = *imageTextureArray;
    device->runNow([&](VkCommandBuffer commands) {
        gpu::ImageTransition toCopy;
        toCopy.dstStage = VK_PIPELINE_STAGE_2_COPY_BIT;
        toCopy.dstAccess = VK_ACCESS_2_TRANSFER_WRITE_BIT;
        toCopy.newLayout = VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL;
        gpu::transitionImage(commands, array.image(), VK_IMAGE_ASPECT_COLOR_BIT, toCopy, slice, 1);
        VkBufferImageCopy region{};
        region.imageSubresource = {VK_IMAGE_ASPECT_COLOR_BIT, 0, slice, 1};
        region.imageExtent = {edge, edge, 1};
        vkCmdCopyBufferToImage(commands, staging->handle(), array.image(), VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL, 1,
                               &region);
        gpu::ImageTransition toSample;
        toSample.srcStage = VK_PIPELINE_STAGE_2_COPY_BIT;
        toSample.srcAccess = VK_ACCESS_2_TRANSFER_WRITE_BIT;
        toSample.dstStage = VK_PIPELINE_STAGE_2_FRAGMENT_SHADER_BIT;
        toSample.dstAccess = VK_ACCESS_2_SHADER_SAMPLED_READ_BIT;
        toSample.oldLayout = VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL;
        toSample.newLayout = VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL;
        gpu::transitionImage(commands, array.image(), VK_IMAGE_ASPECT_COLOR_BIT, toSample, slice, 1);
    });
}

} // namespace brisvale
