#pragma once
// A presentation surface without a window: a small ring of colour images in GPU memory. The last
// presented image can be read back as 8-bit RGBA (tests, the capture tool).

#include "render/gpu/Surface.h"

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

namespace brisvale::gpu {

class Device;

class OffscreenSurface : public Surface {
public:
    // Both throw std::runtime_error (one line) for a size the device cannot make an image of.
    OffscreenSurface(Device& device, std::uint32_t width, std::uint32_t height);
    ~OffscreenSurface() override;

    void setDrawableSize(std::uint32_t width, std::uint32_t height) override;
    std::uint32_t drawableWidth() const override { return width_; }
    std::uint32_t drawableHeight() const override { return height_; }
    VkFormat colorFormat() const override { return kFormat; }

    bool nextDrawable(Drawable& drawable) override;
    void encodePresent(CommandBuffer& commands, const Drawable& drawable) override;
    void present(const Drawable& drawable) override;
    void giveBack(const Drawable&) override {}  // the ring's images are never held back

    // The last presented image, width × height × 4 bytes, RGBA, top row first; waits for the GPU.
    // Empty when nothing has been presented yet.
    std::vector<std::uint8_t> readbackRGBA();
    std::uint32_t presentedWidth() const;
    std::uint32_t presentedHeight() const;

    // Test hook: while set, nextDrawable reports "no drawable".
    void setDrawablesAvailable(bool available) { available_ = available; }
    std::uint64_t presentedCount() const { return presented_; }

private:
    static constexpr VkFormat kFormat = VK_FORMAT_B8G8R8A8_UNORM;  // as a window's swapchain
    static constexpr std::size_t kRing = 3;
    void applySize(std::uint32_t width, std::uint32_t height);

    Device& device_;
    std::uint32_t width_ = 1;
    std::uint32_t height_ = 1;
    std::array<std::shared_ptr<Texture>, kRing> images_;
    std::size_t next_ = 0;
    std::shared_ptr<Texture> lastPresented_;
    bool available_ = true;
    std::uint64_t presented_ = 0;
};

} // namespace brisvale::gpu
