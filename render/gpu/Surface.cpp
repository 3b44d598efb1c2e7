#include "render/gpu/Surface.h"

#include "render/gpu/CommandBuffer.h"
#include "render/gpu/Texture.h"

namespace brisvale::gpu {

Surface::~Surface() = default;

void Surface::encodeBegin(CommandBuffer& commands, const Drawable& drawable) const {
    // Earlier frames may still read (blit, copy) or write this image: order after both.
    ImageTransition transition;
    transition.srcStage = VK_PIPELINE_STAGE_2_COLOR_ATTACHMENT_OUTPUT_BIT | VK_PIPELINE_STAGE_2_ALL_TRANSFER_BIT;
    transition.srcAccess = VK_ACCESS_2_COLOR_ATTACHMENT_WRITE_BIT;
    transition.dstStage = VK_PIPELINE_STAGE_2_COLOR_ATTACHMENT_OUTPUT_BIT;
    transition.dstAccess = VK_ACCESS_2_COLOR_ATTACHMENT_WRITE_BIT | VK_ACCESS_2_COLOR_ATTACHMENT_READ_BIT;
    transition.oldLayout = VK_IMAGE_LAYOUT_UNDEFINED;
    transition.newLayout = VK_IMAGE_LAYOUT_COLOR_ATTACHMENT_OPTIMAL;
    transitionTexture(commands.handle(), *drawable.texture, transition);
}

} // namespace brisvale::gpu
