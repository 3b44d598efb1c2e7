#include "render/gpu/OffscreenSurface.h"

#include "render/gpu/Buffer.h"
#include "render/gpu/CommandBuffer.h"
#include "render/gpu/Device.h"
#include "render/gpu/Recording.h"
#include "render/gpu/Sync.h"
#include "render/gpu/Texture.h"

#include <cstring>
#include <string>

namespace brisvale::gpu {
namespace {

TextureDescription drawableDescription(VkFormat format, std::uint32_t width, std::uint32_t height) {
    TextureDescription description;
    description.format = format;
    description.width = width;
    description.height = height;
    // A blit destination too: a picture rendered below the drawable's size is stretched onto it.
    description.usage = VK_IMAGE_USAGE_COLOR_ATTACHMENT_BIT | VK_IMAGE_USAGE_TRANSFER_SRC_BIT |
                        VK_IMAGE_USAGE_TRANSFER_DST_BIT | VK_IMAGE_USAGE_SAMPLED_BIT;
    return description;
}

} // namespace

OffscreenSurface::OffscreenSurface(Device& device, std::uint32_t width, std::uint32_t height) : device_(device) {
    applySize(width, height);
    for (ReadbackSlot& slot : readback_) slot.owner = this;
}

OffscreenSurface::~OffscreenSurface() {
    // The completion thread may still hold a readback slot's handler.
    if (readbackEnabled_) device_.completions().drain();
}

void OffscreenSurface::setDrawableSize(std::uint32_t width, std::uint32_t height) { applySize(width, height); }

// Refused here, where the size is chosen, rather than as a frame without a drawable later.
void OffscreenSurface::applySize(std::uint32_t width, std::uint32_t height) {
    width = width == 0 ? 1 : width;
    height = height == 0 ? 1 : height;
    const TextureLimits limits = textureLimits(device_, drawableDescription(kFormat, width, height));
    if (width > limits.maxWidth || height > limits.maxHeight)
        throw Error("Drawable size " + std::to_string(width) + " x " + std::to_string(height) +
                                 " is too large: the device allows at most " + std::to_string(limits.maxWidth) +
                                 " x " + std::to_string(limits.maxHeight));
    width_ = width;
    height_ = height;
}

bool OffscreenSurface::nextDrawable(Drawable& drawable) {
    if (!available_) return false;
    if (readbackEnabled_) {
        std::lock_guard lock(readbackMutex_);
        std::size_t free = 0;
        while (free < kReadbackBuffers && readback_[free].frame != 0) ++free;
        if (free == kReadbackBuffers) return false;
        readbackNext_ = free;
    }
    auto& image = images_[next_];
    if (!image || image->width() != width_ || image->height() != height_) {
        const TextureDescription description = drawableDescription(kFormat, width_, height_);
        // The old image stays alive through the keep-alive of the frames that used it. An image
        // that cannot be made now is a frame without a drawable.
        try {
            image = Texture::create(device_, description);
        } catch (const Error&) {
            return false;
        }
    }
    drawable = Drawable{};
    drawable.texture = image.get();
    drawable.keepAlive = image;
    drawable.index = static_cast<std::uint32_t>(next_);
    next_ = (next_ + 1) % kRing;
    return true;
}

void OffscreenSurface::encodePresent(CommandBuffer& commands, const Drawable& drawable) {
    commands.imageBarrier(*drawable.texture, VK_IMAGE_LAYOUT_COLOR_ATTACHMENT_OPTIMAL,
                          VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL, VK_PIPELINE_STAGE_2_COLOR_ATTACHMENT_OUTPUT_BIT,
                          VK_ACCESS_2_COLOR_ATTACHMENT_WRITE_BIT, VK_PIPELINE_STAGE_2_ALL_TRANSFER_BIT,
                          VK_ACCESS_2_TRANSFER_READ_BIT);
    if (!readbackEnabled_) return;

    // The slot is free (nextDrawable saw to it), so its buffer can be replaced or written.
    ReadbackSlot& slot = readback_[readbackNext_];
    const Texture& image = *drawable.texture;
    const VkDeviceSize bytes = VkDeviceSize(image.width()) * image.height() * 4;
    if (!slot.buffer || slot.buffer->size() != bytes) {
        slot.buffer.reset();
        slot.buffer = Buffer::create(device_, bytes, VK_BUFFER_USAGE_TRANSFER_DST_BIT, BufferMemory::HostReadback);
    }
    if (!slot.fence) slot.fence = std::make_unique<Fence>(device_);
    slot.width = image.width();
    slot.height = image.height();
    copyLayerToBuffer(commands.handle(), image, 0, *slot.buffer);
}

void OffscreenSurface::present(const Drawable& drawable) {
    lastPresented_ = images_[drawable.index];
    ++presented_;
    if (!readbackEnabled_) return;

    ReadbackSlot& slot = readback_[readbackNext_];
    slot.fence->reset();  // its last use completed before the slot was freed
    {
        std::lock_guard lock(readbackMutex_);
        slot.frame = presented_;
        slot.completed = false;
        slot.failed = false;
    }
    // No batch, only the fence: it signals once everything submitted so far has completed.
    VkSubmitInfo2 nothing{};
    nothing.sType = VK_STRUCTURE_TYPE_SUBMIT_INFO_2;
    if (device_.submit(nothing, slot.fence->handle()) != VK_SUCCESS) {
        std::lock_guard lock(readbackMutex_);
        slot.completed = true;
        slot.failed = true;
        return;
    }
    device_.completions().watch(slot.fence->handle(), &slot);
}

// Frame readback: the slots' states under readbackMutex_.

void OffscreenSurface::enableFrameReadback() { readbackEnabled_ = true; }

void OffscreenSurface::ReadbackSlot::frameCompleted(const CompletionStatus& status) {
    {
        std::lock_guard lock(owner->readbackMutex_);
        completed = true;
        failed = status.failed;
    }
    owner->readbackChanged_.notify_all();
}

OffscreenSurface::ReadbackSlot* OffscreenSurface::slotHolding(std::uint64_t number) {
    for (ReadbackSlot& slot : readback_) {
        if (number != 0 && slot.frame == number) return &slot;
    }
    return nullptr;
}

FramePixels OffscreenSurface::waitForFrame(std::uint64_t number) {
    ReadbackSlot* slot = nullptr;
    {
        std::unique_lock lock(readbackMutex_);
        slot = slotHolding(number);
        if (slot == nullptr) throw Error("Frame " + std::to_string(number) + " is not in a readback buffer");
        readbackChanged_.wait(lock, [slot] { return slot->completed; });
        if (slot->failed) throw Error("Failed to read back frame " + std::to_string(number));
    }
    slot->buffer->invalidate();
    return FramePixels{static_cast<const std::uint8_t*>(slot->buffer->data()), slot->width, slot->height,
                       std::size_t(slot->width) * 4};
}

void OffscreenSurface::releaseFrame(std::uint64_t number) {
    {
        std::unique_lock lock(readbackMutex_);
        ReadbackSlot* slot = slotHolding(number);
        if (slot == nullptr) return;
        readbackChanged_.wait(lock, [slot] { return slot->completed; });
        slot->frame = 0;
    }
    readbackChanged_.notify_all();
}

std::uint32_t OffscreenSurface::presentedWidth() const {
    return lastPresented_ ? lastPresented_->width() : 0;
}

std::uint32_t OffscreenSurface::presentedHeight() const {
    return lastPresented_ ? lastPresented_->height() : 0;
}

std::vector<std::uint8_t> OffscreenSurface::readbackRGBA() {
    if (!lastPresented_) return {};
    const Texture& image = *lastPresented_;
    const VkDeviceSize bytes = VkDeviceSize(image.width()) * image.height() * 4;
    auto readback = Buffer::create(device_, bytes, VK_BUFFER_USAGE_TRANSFER_DST_BIT, BufferMemory::HostReadback);
    device_.runNow([&](VkCommandBuffer commands) {
        // The presenting frame left the image in TRANSFER_SRC_OPTIMAL; wait for all of its work.
        memoryBarrier(commands, VK_PIPELINE_STAGE_2_ALL_COMMANDS_BIT, VK_ACCESS_2_MEMORY_WRITE_BIT,
                      VK_PIPELINE_STAGE_2_COPY_BIT, VK_ACCESS_2_TRANSFER_READ_BIT);
        copyLayerToBuffer(commands, image, 0, *readback);
    });
    readback->invalidate();
    std::vector<std::uint8_t> rgba(bytes);
    const auto* bgra = static_cast<const std::uint8_t*>(readback->data());
    for (VkDeviceSize i = 0; i < bytes; i += 4) {
        rgba[i + 0] = bgra[i + 2];
        rgba[i + 1] = bgra[i + 1];
        rgba[i + 2] = bgra[i + 0];
        rgba[i + 3] = bgra[i + 3];
    }
    return rgba;
}

} // namespace brisvale::gpu
