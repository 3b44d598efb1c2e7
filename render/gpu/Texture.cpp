#include "render/gpu/Texture.h"

#include "render/gpu/Device.h"

#include <algorithm>
#include <string>

namespace brisvale::gpu {
namespace {

// Bytes per texel of the formats this layer makes; the widest common texel for any other, so
// that a layer count derived from it never promises too much.
VkDeviceSize texelBytes(VkFormat format) {
    switch (format) {
    case VK_FORMAT_R8G8B8A8_UNORM:
    case VK_FORMAT_B8G8R8A8_UNORM:
    case VK_FORMAT_D32_SFLOAT: return 4;
    default: return 16;
    }
}

} // namespace

bool isDepthFormat(VkFormat format) {
    return format == VK_FORMAT_D32_SFLOAT || format == VK_FORMAT_D16_UNORM ||
           format == VK_FORMAT_D24_UNORM_S8_UINT || format == VK_FORMAT_D32_SFLOAT_S8_UINT;
}

TextureLimits textureLimits(const Device& device, const TextureDescription& description) {
    VkImageFormatProperties format{};
    if (vkGetPhysicalDeviceImageFormatProperties(device.physicalDevice(), description.format, VK_IMAGE_TYPE_2D,
                                                 VK_IMAGE_TILING_OPTIMAL, description.usage, 0,
                                                 &format) != VK_SUCCESS)
        return {};
    const VkPhysicalDeviceLimits& limits = device.properties().limits;
    TextureLimits result;
    result.maxWidth = std::min(format.maxExtent.width, limits.maxImageDimension2D);
    result.maxHeight = std::min(format.maxExtent.height, limits.maxImageDimension2D);
    const VkDeviceSize layerBytes =
        VkDeviceSize(std::max(description.width, 1u)) * std::max(description.height, 1u) * texelBytes(description.format);
    const VkDeviceSize byMemory = std::min(device.maxAllocationSize(), format.maxResourceSize) / layerBytes;
    result.maxLayers = static_cast<std::uint32_t>(
        std::min<VkDeviceSize>({format.maxArrayLayers, limits.maxImageArrayLayers, byMemory}));
    return result;
}

std::unique_ptr<Texture> Texture::create(Device& device, const TextureDescription& description) {
    const TextureLimits limits = textureLimits(device, description);
    if (description.width == 0 || description.height == 0 || description.layers == 0 ||
        description.width > limits.maxWidth || description.height > limits.maxHeight ||
        description.layers > limits.maxLayers)
        throw Error("A texture of " + std::to_string(description.width) + " x " + std::to_string(description.height) +
                    " with " + std::to_string(description.layers) + " layers is beyond the device (at most " +
                    std::to_string(limits.maxWidth) + " x " + std::to_string(limits.maxHeight) + ", " +
                    std::to_string(limits.maxLayers) + " layers)");
    std::unique_ptr<Texture> self(new Texture(device));
    self->description_ = description;
    VkImageCreateInfo info{};
    info.sType = VK_STRUCTURE_TYPE_IMAGE_CREATE_INFO;
    info.imageType = VK_IMAGE_TYPE_2D;
    info.format = description.format;
    info.extent = {description.width, description.height, 1};
    info.mipLevels = 1;
    info.arrayLayers = description.layers;
    info.samples = VK_SAMPLE_COUNT_1_BIT;
    info.tiling = VK_IMAGE_TILING_OPTIMAL;
    info.usage = description.usage;
    info.sharingMode = VK_SHARING_MODE_EXCLUSIVE;
    info.initialLayout = VK_IMAGE_LAYOUT_UNDEFINED;
    checkCreated(vkCreateImage(device.handle(), &info, nullptr, &self->image_), self->image_, "vkCreateImage");

    VkMemoryRequirements requirements;
    vkGetImageMemoryRequirements(device.handle(), self->image_, &requirements);
    self->memory_ = device.allocate(requirements, 0, VK_MEMORY_PROPERTY_DEVICE_LOCAL_BIT).memory;
    check(vkBindImageMemory(device.handle(), self->image_, self->memory_, 0), "vkBindImageMemory");

    VkImageViewCreateInfo viewInfo{};
    viewInfo.sType = VK_STRUCTURE_TYPE_IMAGE_VIEW_CREATE_INFO;
    viewInfo.image = self->image_;
    viewInfo.viewType = description.array ? VK_IMAGE_VIEW_TYPE_2D_ARRAY : VK_IMAGE_VIEW_TYPE_2D;
    viewInfo.format = description.format;
    viewInfo.subresourceRange = {self->aspect(), 0, 1, 0, description.layers};
    checkCreated(vkCreateImageView(device.handle(), &viewInfo, nullptr, &self->view_), self->view_,
                 "vkCreateImageView");
    return self;
}

Texture::~Texture() {
    if (view_ != VK_NULL_HANDLE) vkDestroyImageView(device_.handle(), view_, nullptr);
    if (image_ != VK_NULL_HANDLE) vkDestroyImage(device_.handle(), image_, nullptr);
    if (memory_ != VK_NULL_HANDLE) vkFreeMemory(device_.handle(), memory_, nullptr);
}

VkImageAspectFlags Texture::aspect() const {
    return isDepthFormat(description_.format) ? VK_IMAGE_ASPECT_DEPTH_BIT : VK_IMAGE_ASPECT_COLOR_BIT;
}

} // namespace brisvale::gpu
