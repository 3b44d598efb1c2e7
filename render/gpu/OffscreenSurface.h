#pragma once
// A presentation surface without a window: a small ring of colour images in GPU memory. The last
// presented image can be read back as 8-bit RGBA (tests, the capture tool); or, for a stream of
// frames, every presented frame is copied in its own command buffer into one of two host-visible
// buffers, read while the GPU draws the next one.

#include "render/gpu/CompletionThread.h"
#include "render/gpu/Surface.h"

#include <array>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace brisvale::gpu {

class Buffer;
class Device;
class Fence;

// One frame's pixels in a readback buffer: B, G, R, A bytes, top row first.
struct FramePixels {
    const std::uint8_t* bgra = nullptr;
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    std::size_t rowBytes = 0;
};

class OffscreenSurface : public Surface {
public:
    // Both throw Error (one line) for a size the device cannot make an image of.
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

    // From the next frame on, every presented frame goes to a free readback buffer (of two); a
    // frame is numbered by presentedCount() once it has been presented. While both buffers hold
    // a frame, there is no drawable.
    void enableFrameReadback();
    // Blocks until frame `number` has completed on the GPU and the completion handlers of its
    // frame have run. The pixels stay valid until releaseFrame(number). Throws Error
    // when no buffer holds that frame or the GPU failed it.
    FramePixels waitForFrame(std::uint64_t number);
    // Frees frame `number`'s buffer for a later frame, once the GPU is done with it. Any thread.
    void releaseFrame(std::uint64_t number);

private:
    static constexpr VkFormat kFormat = VK_FORMAT_B8G8R8A8_UNORM;  // as a window's swapchain
    static constexpr std::size_t kRing = 3;
    void applySize(std::uint32_t width, std::uint32_t height);

    // A readback buffer and the fence of an empty submission made after its frame's: a fence
    // signals only when all earlier work on the queue has completed, so its handler runs after
    // the frame's own on the completion thread.
    struct ReadbackSlot final : CompletionHandler {
        OffscreenSurface* owner = nullptr;
        std::unique_ptr<Buffer> buffer;
        std::unique_ptr<Fence> fence;
        std::uint32_t width = 0;
        std::uint32_t height = 0;
        std::uint64_t frame = 0;  // the frame it holds; 0: free
        bool completed = true;
        bool failed = false;
        void frameCompleted(const CompletionStatus& status) override;
    };
    static constexpr std::size_t kReadbackBuffers = 2;
    ReadbackSlot* slotHolding(std::uint64_t number);

    Device& device_;
    std::uint32_t width_ = 1;
    std::uint32_t height_ = 1;
    std::array<std::shared_ptr<Texture>, kRing> images_;
    std::size_t next_ = 0;
    std::shared_ptr<Texture> lastPresented_;
    bool available_ = true;
    std::uint64_t presented_ = 0;

    bool readbackEnabled_ = false;
    std::size_t readbackNext_ = 0;  // the buffer the frame being drawn takes (main thread)
    std::array<ReadbackSlot, kReadbackBuffers> readback_;
    // readbackMutex_ guards each slot's frame, completed and failed: the main thread fills a
    // slot, the completion thread completes it, a consumer thread (the video encoder) frees it.
    std::mutex readbackMutex_;
    std::condition_variable readbackChanged_;
};

} // namespace brisvale::gpu
