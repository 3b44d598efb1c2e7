#include "render/gpu/Surface.h"

#include "render/gpu/CommandBuffer.h"

namespace brisvale::gpu {

Surface::~Surface() = default;

void Surface::encodeBegin(CommandBuffer& commands, const Drawable& drawable) const {
    // Earlier frames may still read (blit, copy) or write this image: order after both.
    commands.imageBarrier(*drawable.texture, VK_IMAGE_LAYOUT_UNDEFINED, VK_IMAGE_LAYOUT_COLOR_ATTACHMENT_OPTIMAL,
                          VK_PIPELINE_STAGE_2_COLOR_ATTACHMENT_OUTPUT_BIT | VK_PIPELINE_STAGE_2_ALL_TRANSFER_BIT,
                          VK_ACCESS_2_COLOR_ATTACHMENT_WRITE_BIT, VK_PIPELINE_STAGE_2_COLOR_ATTACHMENT_OUTPUT_BIT,
                          VK_ACCESS_2_COLOR_ATTACHMENT_WRITE_BIT | VK_ACCESS_2_COLOR_ATTACHMENT_READ_BIT);
}

void Surface::encodePresentScaled(CommandBuffer& commands, const Drawable& drawable,
                                  std::shared_ptr<const Texture> picture) {
    stretchOntoDrawable(commands, *picture, drawable);
    encodePresent(commands, drawable);
}

void stretchOntoDrawable(CommandBuffer& commands, const Texture& picture, const Drawable& drawable) {
    // Every pixel of the drawable comes from the stretch: what it held does not matter.
    commands.imageBarrier(*drawable.texture, VK_IMAGE_LAYOUT_UNDEFINED, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL,
                          VK_PIPELINE_STAGE_2_COLOR_ATTACHMENT_OUTPUT_BIT, VK_ACCESS_2_NONE, VK_PIPELINE_STAGE_2_BLIT_BIT,
                          VK_ACCESS_2_TRANSFER_WRITE_BIT);
    commands.stretch(picture, *drawable.texture);
    commands.imageBarrier(*drawable.texture, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL,
                          VK_IMAGE_LAYOUT_COLOR_ATTACHMENT_OPTIMAL, VK_PIPELINE_STAGE_2_BLIT_BIT,
                          VK_ACCESS_2_TRANSFER_WRITE_BIT, VK_PIPELINE_STAGE_2_COLOR_ATTACHMENT_OUTPUT_BIT,
                          VK_ACCESS_2_COLOR_ATTACHMENT_WRITE_BIT | VK_ACCESS_2_COLOR_ATTACHMENT_READ_BIT);
}

} // namespace brisvale::gpu
