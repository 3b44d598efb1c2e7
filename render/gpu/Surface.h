#pragma once
// The presentation surface: where frames go. The renderer asks it for the next drawable (a colour
// target at the drawable size), draws into it, lets the surface record its presentation work at
// the end of the frame's command buffer, submits, and then presents; a frame that is not submitted
// gives its drawable back instead. Two implementations: a swapchain on a window
// (WindowSurface.h) and images in GPU memory (OffscreenSurface.h).

#include "render/gpu/Vk.h"

#include <cstdint>
#include <memory>

namespace brisvale::gpu {

class CommandBuffer;
class Texture;

struct Drawable {
    const Texture* texture = nullptr;          // colour target and blit destination; contents undefined on arrival
    std::shared_ptr<const void> keepAlive;     // hold while a frame that draws into it is in flight
    std::uint32_t index = 0;                   // the surface's own
    VkSemaphore wait = VK_NULL_HANDLE;         // the submission waits on it (at waitStage)
    VkPipelineStageFlags2 waitStage = VK_PIPELINE_STAGE_2_NONE;
    VkSemaphore signal = VK_NULL_HANDLE;       // the submission signals it for presentation
};

class Surface {
public:
    virtual ~Surface();

    // The size, in pixels, at which drawables are made from the next one on.
    virtual void setDrawableSize(std::uint32_t width, std::uint32_t height) = 0;
    virtual std::uint32_t drawableWidth() const = 0;
    virtual std::uint32_t drawableHeight() const = 0;
    // The colour format of every drawable (what render pipelines must be built for).
    virtual VkFormat colorFormat() const = 0;

    // False when there is no drawable now ("no drawable"); nothing is then owed to the surface.
    virtual bool nextDrawable(Drawable& drawable) = 0;
    // Records the transition of the drawable into a colour attachment (start of the frame).
    void encodeBegin(CommandBuffer& commands, const Drawable& drawable) const;
    // Records the surface's work after the last pass (the drawable is a colour attachment then).
    virtual void encodePresent(CommandBuffer& commands, const Drawable& drawable) = 0;
    // Instead of encodePresent, for a frame drawn smaller than the drawable into `picture` (in
    // TRANSFER_SRC_OPTIMAL, held by the caller until the frame completes): the picture is
    // presented stretched over the drawable's area with linear filtering. By default it is
    // stretched onto the drawable, which then goes on as in encodePresent; a surface that
    // stretches its drawables anyway (a window's) stretches the picture instead, and may keep it.
    virtual void encodePresentScaled(CommandBuffer& commands, const Drawable& drawable,
                                     std::shared_ptr<const Texture> picture);
    // After the frame's submission: hands the drawable to presentation.
    virtual void present(const Drawable& drawable) = 0;
    // Instead of present when the frame was not submitted (the submission failed, or encoding
    // raised): the drawable goes back to the surface without the frame, so that later frames
    // still get one. Never throws.
    virtual void giveBack(const Drawable& drawable) = 0;
};

// Stretches `picture` (TRANSFER_SRC_OPTIMAL) over the whole drawable, with linear filtering. The
// drawable is a colour attachment before and after.
void stretchOntoDrawable(CommandBuffer& commands, const Texture& picture, const Drawable& drawable);

} // namespace brisvale::gpu
