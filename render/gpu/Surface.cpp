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

void Surface::encodePresentScaled(CommandBuffer& commands, const Drawable& drawable,
                                  std::shared_ptr<const Texture> picture) {
    stretchOntoDrawable(commands, *picture, drawable);
    encodePresent(commands, drawable);
}

void stretchOntoDrawable(CommandBuffer& commands, const Texture& picture, const Drawable& drawable) {
    // Every pixel of the drawable comes from the stretch: what it held does not matter.
    ImageTransition toDestination;
    toDestination.srcStage = VK_PIPELINE_STAGE_2_COLOR_ATTACHMENT_OUTPUT_BIT;
    toDestination.dstStage = VK_PIPELINE_STAGE_2_BLIT_BIT;
    toDestination.dstAccess = VK_ACCESS_2_TRANSFER_WRITE_BIT;
    toDestination.newLayout = VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL;
    transitionTexture(commands.handle(), *drawable.texture, toDestination);

    commands.stretch(picture, *drawable.texture);

    ImageTransition toAttachment;
    toAttachment.srcStage = VK_PIPELINE_STAGE_2_BLIT_BIT;
    toAttachment.srcAccess = VK_ACCESS_2_TRANSFER_WRITE_BIT;
    toAttachment.dstStage = VK_PIPELINE_STAGE_2_COLOR_ATTACHMENT_OUTPUT_BIT;
    toAttachment.dstAccess = VK_ACCESS_2_COLOR_ATTACHMENT_WRITE_BIT | VK_ACCESS_2_COLOR_ATTACHMENT_READ_BIT;
    toAttachment.oldLayout = VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL;
    toAttachment.newLayout = VK_IMAGE_LAYOUT_COLOR_ATTACHMENT_OPTIMAL;
    transitionTexture(commands.handle(), *drawable.texture, toAttachment);
}

} // namespace brisvale::gpu
