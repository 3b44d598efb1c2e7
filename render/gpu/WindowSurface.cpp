// A swapchain on an SDL2 window, as a Surface.
//
// Each swapchain image has a colour target of the drawable size beside it; the renderer draws
// into the target and the frame ends with a blit (stretch) onto the swapchain image. A frame
// drawn smaller than the drawable is stretched onto the swapchain image straight away. The
// swapchain is recreated when it is out of date, suboptimal or the window's size has changed.
// An image whose frame was not submitted is given back with a small submission of its own.
//
// [SECTION] Swapchain set-up
// [SECTION] Drawables
// [SECTION] Presentation

#include "render/gpu/WindowSurface.h"

#include "render/RenderLog.h"
#include "render/gpu/CommandBuffer.h"
#include "render/gpu/Device.h"
#include "render/gpu/Recording.h"
#include "render/gpu/Sync.h"
#include "render/gpu/Texture.h"

#include <SDL2/SDL.h>
#include <SDL2/SDL_vulkan.h>

#include <algorithm>
#include <string>
#include <vector>

namespace brisvale::gpu {
namespace {

constexpr std::uint64_t kAcquireTimeoutNs = 1'000'000'000;  // a second without an image: no drawable

class WindowSurface final : public Surface {
public:
    WindowSurface(Device& device, SDL_Window* window, VkSurfaceKHR surface, VkSurfaceFormatKHR format)
        : device_(device), window_(window), surface_(surface), format_(format) {
        int width = 0;
        int height = 0;
        SDL_Vulkan_GetDrawableSize(window_, &width, &height);
        drawableWidth_ = static_cast<std::uint32_t>(std::max(width, 1));
        drawableHeight_ = static_cast<std::uint32_t>(std::max(height, 1));
        spare_ = std::make_unique<Semaphore>(device_);
    }

    ~WindowSurface() override {
        device_.waitIdle();
        destroySwapchain();
        vkDestroySurfaceKHR(device_.instance(), surface_, nullptr);
    }

    void setDrawableSize(std::uint32_t width, std::uint32_t height) override {
        drawableWidth_ = std::max<std::uint32_t>(width, 1);
        drawableHeight_ = std::max<std::uint32_t>(height, 1);
    }
    std::uint32_t drawableWidth() const override { return drawableWidth_; }
    std::uint32_t drawableHeight() const override { return drawableHeight_; }
    VkFormat colorFormat() const override { return format_.format; }

    bool nextDrawable(Drawable& drawable) override;
    void encodePresent(CommandBuffer& commands, const Drawable& drawable) override;
    void encodePresentScaled(CommandBuffer& commands, const Drawable& drawable,
                             std::shared_ptr<const Texture> picture) override;
    void present(const Drawable& drawable) override;
    void giveBack(const Drawable& drawable) override;

private:
    bool windowExtentChanged() const;
    bool recreateSwapchain();
    std::unique_ptr<CommandBuffer> giveBackCommands();
    void destroySwapchain();
    void blitOntoImage(VkCommandBuffer cmd, const Texture* source, VkImage image) const;
    void queuePresent(const Drawable& drawable);

    Device& device_;
    SDL_Window* window_;
    VkSurfaceKHR surface_;
    VkSurfaceFormatKHR format_;
    std::uint32_t drawableWidth_ = 1;
    std::uint32_t drawableHeight_ = 1;

    VkSwapchainKHR swapchain_ = VK_NULL_HANDLE;
    VkExtent2D extent_{0, 0};
    std::vector<VkImage> images_;
    std::vector<std::shared_ptr<Texture>> targets_;            // drawable-size colour target per image
    std::vector<std::shared_ptr<const Texture>> pictures_;     // per image: what its frame stretched onto it
    std::vector<std::unique_ptr<Semaphore>> acquired_;         // the acquisition each image last waited on
    std::vector<std::unique_ptr<Semaphore>> renderFinished_;   // per image: frame done, may present
    std::vector<std::unique_ptr<CommandBuffer>> giveBack_;     // per image: presents it without a frame
    std::unique_ptr<Semaphore> spare_;                         // free for the next acquisition
    std::shared_ptr<const Texture> lastPicture_;               // the picture of the last presented frame
    bool outOfDate_ = true;
};

// ---------------------------------------------------------------------------------------------
// [SECTION] Swapchain set-up
// ---------------------------------------------------------------------------------------------

bool WindowSurface::windowExtentChanged() const {
    int width = 0;
    int height = 0;
    SDL_Vulkan_GetDrawableSize(window_, &width, &height);
    return static_cast<std::uint32_t>(width) != extent_.width || static_cast<std::uint32_t>(height) != extent_.height;
}

void WindowSurface::destroySwapchain() {
    targets_.clear();
    pictures_.clear();
    giveBack_.clear();
    acquired_.clear();
    renderFinished_.clear();
    images_.clear();
    if (swapchain_ != VK_NULL_HANDLE) {
        vkDestroySwapchainKHR(device_.handle(), swapchain_, nullptr);
        swapchain_ = VK_NULL_HANDLE;
    }
}

// Null where it cannot be made: such an image is given back by a rebuild instead.
std::unique_ptr<CommandBuffer> WindowSurface::giveBackCommands() {
    try {
        return CommandBuffer::create(device_);
    } catch (const Error&) {
        return nullptr;
    }
}

bool WindowSurface::recreateSwapchain() {
    device_.waitIdle();  // nothing may still use the old images or their semaphores
    VkSurfaceCapabilitiesKHR caps;
    if (vkGetPhysicalDeviceSurfaceCapabilitiesKHR(device_.physicalDevice(), surface_, &caps) != VK_SUCCESS) {
        return false;
    }
    VkExtent2D extent = caps.currentExtent;
    if (extent.width == UINT32_MAX) {
        int width = 0;
        int height = 0;
        SDL_Vulkan_GetDrawableSize(window_, &width, &height);
        extent.width = std::clamp<std::uint32_t>(static_cast<std::uint32_t>(width), caps.minImageExtent.width,
                                                 caps.maxImageExtent.width);
        extent.height = std::clamp<std::uint32_t>(static_cast<std::uint32_t>(height), caps.minImageExtent.height,
                                                  caps.maxImageExtent.height);
    }
    if (extent.width == 0 || extent.height == 0) {
        return false;  // minimised: no drawable until it comes back
    }
    std::uint32_t imageCount = std::max<std::uint32_t>(caps.minImageCount + 1, 3);
    if (caps.maxImageCount != 0) imageCount = std::min(imageCount, caps.maxImageCount);

    VkSwapchainCreateInfoKHR info{};

    info.sType = VK_STRUCTURE_TYPE_SWAPCHAIN_CREATE_INFO_KHR;
    info.surface = surface_;
    info.minImageCount = imageCount;
    info.imageFormat = format_.format;
    info.imageColorSpace = format_.colorSpace;
    info.imageExtent = extent;
    info.imageArrayLayers = 1;
    info.imageUsage = VK_IMAGE_USAGE_TRANSFER_DST_BIT;
    info.imageSharingMode = VK_SHARING_MODE_EXCLUSIVE;
    info.preTransform = caps.currentTransform;
    info.compositeAlpha = (caps.supportedCompositeAlpha & VK_COMPOSITE_ALPHA_OPAQUE_BIT_KHR)
                              ? VK_COMPOSITE_ALPHA_OPAQUE_BIT_KHR
                              : static_cast<VkCompositeAlphaFlagBitsKHR>(caps.supportedCompositeAlpha &
                                                                         -caps.supportedCompositeAlpha);
    info.presentMode = VK_PRESENT_MODE_FIFO_KHR;
    info.clipped = VK_TRUE;
    info.oldSwapchain = swapchain_;
    VkSwapchainKHR created = VK_NULL_HANDLE;
    const VkResult result = vkCreateSwapchainKHR(device_.handle(), &info, nullptr, &created);
    destroySwapchain();
    if (result != VK_SUCCESS) {
        renderLog(RenderLogItem::SwapchainNotRecreated, resultName(result));
        return false;
    }
    swapchain_ = created;
    extent_ = extent;
    std::uint32_t count = 0;
    vkGetSwapchainImagesKHR(device_.handle(), swapchain_, &count, nullptr);
    images_.resize(count);
    vkGetSwapchainImagesKHR(device_.handle(), swapchain_, &count, images_.data());
    targets_.resize(count);
    pictures_.resize(count);
    for (std::uint32_t i = 0; i < count; ++i) {
        acquired_.push_back(std::make_unique<Semaphore>(device_));
        renderFinished_.push_back(std::make_unique<Semaphore>(device_));
        giveBack_.push_back(giveBackCommands());
    }
    outOfDate_ = false;
    return true;
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Drawables
// ---------------------------------------------------------------------------------------------

bool WindowSurface::nextDrawable(Drawable& drawable) {
    if (outOfDate_ || swapchain_ == VK_NULL_HANDLE || windowExtentChanged()) {
        if (!recreateSwapchain()) return false;
    }
    std::uint32_t index = 0;
    VkResult result = vkAcquireNextImageKHR(device_.handle(), swapchain_, kAcquireTimeoutNs, spare_->handle(),
                                            VK_NULL_HANDLE, &index);
    if (result == VK_ERROR_OUT_OF_DATE_KHR) {
        if (!recreateSwapchain()) return false;
        result = vkAcquireNextImageKHR(device_.handle(), swapchain_, kAcquireTimeoutNs, spare_->handle(),
                                       VK_NULL_HANDLE, &index);
    }
    if (result == VK_SUBOPTIMAL_KHR) {
        outOfDate_ = true;  // use this image, rebuild before the next
    } else if (result != VK_SUCCESS) {
        if (result != VK_TIMEOUT && result != VK_NOT_READY) outOfDate_ = true;
        return false;
    }
    // The image's previous acquisition semaphore has been waited on by now (the image came back
    // from presentation), so it becomes the spare.
    std::swap(spare_, acquired_[index]);

    auto& target = targets_[index];
    if (!target || target->width() != drawableWidth_ || target->height() != drawableHeight_) {
        TextureDescription description;
        description.format = format_.format;
        description.width = drawableWidth_;
        description.height = drawableHeight_;
        description.usage = VK_IMAGE_USAGE_COLOR_ATTACHMENT_BIT | VK_IMAGE_USAGE_TRANSFER_SRC_BIT |
                            VK_IMAGE_USAGE_TRANSFER_DST_BIT | VK_IMAGE_USAGE_SAMPLED_BIT;
        // Frames in flight keep the old one alive. A target that cannot be made now is a frame
        // without a drawable.
        try {
            target = Texture::create(device_, description);
        } catch (const Error&) {
            return false;
        }
    }
    drawable = Drawable{};
    drawable.texture = target.get();
    drawable.keepAlive = target;
    drawable.index = index;
    drawable.wait = acquired_[index]->handle();
    drawable.waitStage = VK_PIPELINE_STAGE_2_ALL_TRANSFER_BIT;
    drawable.signal = renderFinished_[index]->handle();
    return true;
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Presentation
// ---------------------------------------------------------------------------------------------

void WindowSurface::encodePresent(CommandBuffer& commands, const Drawable& drawable) {
    commands.imageBarrier(*drawable.texture, VK_IMAGE_LAYOUT_COLOR_ATTACHMENT_OPTIMAL,
                          VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL, VK_PIPELINE_STAGE_2_COLOR_ATTACHMENT_OUTPUT_BIT,
                          VK_ACCESS_2_COLOR_ATTACHMENT_WRITE_BIT, VK_PIPELINE_STAGE_2_BLIT_BIT,
                          VK_ACCESS_2_TRANSFER_READ_BIT);
    blitOntoImage(commands.handle(), drawable.texture, images_[drawable.index]);
    pictures_[drawable.index] = targets_[drawable.index];
}

void WindowSurface::encodePresentScaled(CommandBuffer& commands, const Drawable& drawable,
                                        std::shared_ptr<const Texture> picture) {
    // The picture is left as a transfer source after its frame, so a frame given back later can
    // show it again.
    blitOntoImage(commands.handle(), picture.get(), images_[drawable.index]);
    pictures_[drawable.index] = std::move(picture);
}

// Stretches `source` (in TRANSFER_SRC_OPTIMAL) over the swapchain image and leaves the image
// ready to present; with no source the image is cleared to black.
void WindowSurface::blitOntoImage(VkCommandBuffer cmd, const Texture* source, VkImage image) const {
    // Chained to the acquisition semaphore, which the submission waits on at the transfer stage.
    imageBarrier(cmd, image, VK_IMAGE_ASPECT_COLOR_BIT, VK_IMAGE_LAYOUT_UNDEFINED, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL,
                 VK_PIPELINE_STAGE_2_ALL_TRANSFER_BIT, VK_ACCESS_2_NONE, VK_PIPELINE_STAGE_2_ALL_TRANSFER_BIT,
                 VK_ACCESS_2_TRANSFER_WRITE_BIT);

    if (source != nullptr) {
        VkImageBlit region{};
        region.srcSubresource = {VK_IMAGE_ASPECT_COLOR_BIT, 0, 0, 1};
        region.srcOffsets[1] = {static_cast<std::int32_t>(source->width()), static_cast<std::int32_t>(source->height()),
                                1};
        region.dstSubresource = {VK_IMAGE_ASPECT_COLOR_BIT, 0, 0, 1};
        region.dstOffsets[1] = {static_cast<std::int32_t>(extent_.width), static_cast<std::int32_t>(extent_.height), 1};
        vkCmdBlitImage(cmd, source->image(), VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL, image,
                       VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL, 1, &region, VK_FILTER_LINEAR);
    } else {
        const VkClearColorValue black{};
        const VkImageSubresourceRange range{VK_IMAGE_ASPECT_COLOR_BIT, 0, 1, 0, 1};
        vkCmdClearColorImage(cmd, image, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL, &black, 1, &range);
    }

    imageBarrier(cmd, image, VK_IMAGE_ASPECT_COLOR_BIT, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL,
                 VK_IMAGE_LAYOUT_PRESENT_SRC_KHR, VK_PIPELINE_STAGE_2_ALL_TRANSFER_BIT, VK_ACCESS_2_TRANSFER_WRITE_BIT,
                 VK_PIPELINE_STAGE_2_NONE, VK_ACCESS_2_NONE);
}

void WindowSurface::present(const Drawable& drawable) {
    lastPicture_ = pictures_[drawable.index];
    queuePresent(drawable);
}

void WindowSurface::giveBack(const Drawable& drawable) {
    // The image was acquired: until its acquisition is waited on and the image is presented, the
    // swapchain never hands it out again, and a few such frames would leave none. A submission of
    // its own does both: it waits on the acquisition, shows the last picture again (so a failed
    // frame looks like a dropped one) and signals presentation.
    CommandBuffer* commands = giveBack_[drawable.index].get();
    VkFence previous = commands != nullptr ? commands->fence() : VK_NULL_HANDLE;  // this image's last give-back
    bool submitted = false;
    if (commands != nullptr &&
        vkWaitForFences(device_.handle(), 1, &previous, VK_TRUE, kAcquireTimeoutNs) == VK_SUCCESS) {
        try {
            commands->begin();
            blitOntoImage(commands->handle(), lastPicture_.get(), images_[drawable.index]);
            commands->end();
            submitted = commands->submit(SubmitSync{drawable.wait, drawable.waitStage, drawable.signal}) == VK_SUCCESS;
        } catch (const Error&) {
            submitted = false;
        }
    }
    if (!submitted) {
        outOfDate_ = true;  // a new swapchain before the next frame releases every image of this one
        return;
    }
    // Held until the image comes back, by which time the submission that reads it has completed.
    pictures_[drawable.index] = lastPicture_;
    queuePresent(drawable);
}

void WindowSurface::queuePresent(const Drawable& drawable) {
    VkSemaphore wait = drawable.signal;
    VkPresentInfoKHR info{};
    info.sType = VK_STRUCTURE_TYPE_PRESENT_INFO_KHR;
    info.waitSemaphoreCount = 1;
    info.pWaitSemaphores = &wait;
    info.swapchainCount = 1;
    info.pSwapchains = &swapchain_;
    info.pImageIndices = &drawable.index;
    const VkResult result = device_.present(info);
    if (result == VK_ERROR_OUT_OF_DATE_KHR || result == VK_SUBOPTIMAL_KHR) outOfDate_ = true;
}

} // namespace

std::unique_ptr<Surface> createWindowSurface(Device& device, SDL_Window* window) {
    if (window == nullptr) return nullptr;
    if (!device.supportsSwapchain()) {
        throw Error("Vulkan device was created without window support");
    }
    VkSurfaceKHR surface = VK_NULL_HANDLE;
    if (SDL_Vulkan_CreateSurface(window, device.instance(), &surface) != SDL_TRUE) {
        throw Error(std::string("SDL_Vulkan_CreateSurface failed: ") + SDL_GetError());
    }
    VkBool32 supported = VK_FALSE;
    vkGetPhysicalDeviceSurfaceSupportKHR(device.physicalDevice(), device.queueFamily(), surface, &supported);
    std::uint32_t count = 0;
    vkGetPhysicalDeviceSurfaceFormatsKHR(device.physicalDevice(), surface, &count, nullptr);
    std::vector<VkSurfaceFormatKHR> formats(count);
    vkGetPhysicalDeviceSurfaceFormatsKHR(device.physicalDevice(), surface, &count, formats.data());
    if (!supported || formats.empty()) {
        vkDestroySurfaceKHR(device.instance(), surface, nullptr);
        throw Error("The window's Vulkan surface cannot be presented to");
    }
    VkSurfaceFormatKHR chosen = formats.front();
    bool found = false;
    for (VkFormat wanted : {VK_FORMAT_B8G8R8A8_UNORM, VK_FORMAT_R8G8B8A8_UNORM}) {
        for (const auto& format : formats) {
            if (!found && format.format == wanted) {
                chosen = format;
                found = true;
            }
        }
    }
    return std::make_unique<WindowSurface>(device, window, surface, chosen);
}

} // namespace brisvale::gpu
