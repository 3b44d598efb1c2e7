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

} // namespace brisvale::gpu
