#pragma once
// GPU textures: 2D colour targets, 2D arrays (the image array) and depth targets, each with the one
// view the renderer samples or renders through.

#include "render/gpu/Vk.h"

#include <cstdint>
#include <memory>

namespace brisvale::gpu {

class Device;

struct TextureDescription {
    VkFormat format = VK_FORMAT_R8G8B8A8_UNORM;
    std::uint32_t width = 1;
    std::uint32_t height = 1;
    std::uint32_t layers = 1;
    bool array = false;            // a 2D-array view even for one layer
    VkImageUsageFlags usage = VK_IMAGE_USAGE_SAMPLED_BIT;
};

// The largest texture of a description's format and usage the device can make: its sides (the
// format's own extent and the device's 2D limit) and, at the description's width and height, its
// layers (the device's array limit and what fits one allocation). Zeros when the device cannot
// make the format for that usage at all.
struct TextureLimits {
    std::uint32_t maxWidth = 0;
    std::uint32_t maxHeight = 0;
    std::uint32_t maxLayers = 0;
};
TextureLimits textureLimits(const Device& device, const TextureDescription& description);

class Texture {
public:
    // Throws Error when the description is beyond textureLimits (nothing then reaches the
    // driver), or when the image, its memory or its view cannot be made.
    static std::unique_ptr<Texture> create(Device& device, const TextureDescription& description);
    ~Texture();
    Texture(const Texture&) = delete;
    Texture& operator=(const Texture&) = delete;

    VkImage image() const { return image_; }
    VkImageView view() const { return view_; }
    VkFormat format() const { return description_.format; }
    std::uint32_t width() const { return description_.width; }
    std::uint32_t height() const { return description_.height; }
    std::uint32_t layers() const { return description_.layers; }
    VkImageAspectFlags aspect() const;

private:
    Texture(Device& device) : device_(device) {}

    Device& device_;
    TextureDescription description_;
    VkImage image_ = VK_NULL_HANDLE;
    VkDeviceMemory memory_ = VK_NULL_HANDLE;
    VkImageView view_ = VK_NULL_HANDLE;
};

bool isDepthFormat(VkFormat format);

} // namespace brisvale::gpu
