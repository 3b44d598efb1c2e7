#pragma once
// Text drawn over the picture as the frame's last pass: a dark translucent box with light text
// (stb_easy_font's quads), readable over any picture. Made on first use; each frame slot has its
// own host-visible vertex buffer, rewritten in place only when the text has changed since that
// slot last drew it, so a frame allocates nothing.

#include "render/gpu/Vk.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace brisvale {

namespace gpu {
class Buffer;
class CommandBuffer;
class DescriptorPool;
class Device;
class PipelineLayout;
class RenderPipeline;
class Texture;
} // namespace gpu

class TextOverlay {
public:
    // What is drawn of a text: longer lines are wrapped, and what goes past the last line or
    // character is cut off (the cut marked with "...").
    static constexpr std::size_t kMaxCharacters = 2048;
    static constexpr std::size_t kMaxLines = 40;
    static constexpr std::size_t kColumns = 100;

    // Throws std::runtime_error (one line) when its pipeline or buffers cannot be made.
    TextOverlay(gpu::Device& device, VkFormat colorFormat, std::uint32_t slots);
    ~TextOverlay();
    TextOverlay(const TextOverlay&) = delete;
    TextOverlay& operator=(const TextOverlay&) = delete;

    // Main thread. Anything but printable ASCII shows as '?'.
    void setText(std::string_view text);
    bool empty() const { return vertexCount_ == 0; }

    // Main thread, while recording `slot`'s frame (whose previous frame has completed): the pass
    // over `target`, a colour attachment whose contents it keeps and draws over.
    void encode(gpu::CommandBuffer& commands, const gpu::Texture& target, std::uint32_t slot);

private:
    std::unique_ptr<gpu::PipelineLayout> layout_;
    std::unique_ptr<gpu::RenderPipeline> pipeline_;
    std::unique_ptr<gpu::DescriptorPool> descriptors_;
    struct Slot {
        std::unique_ptr<gpu::Buffer> quads;
        VkDescriptorSet set = VK_NULL_HANDLE;
        std::uint64_t version = 0;  // of the text its buffer holds
    };
    std::vector<Slot> slots_;
    std::string text_;                  // laid out: wrapped, cut, printable
    std::vector<std::uint8_t> quads_;   // stb_easy_font's vertices of the box and the text
    std::uint32_t vertexCount_ = 0;     // six per quad
    std::uint64_t version_ = 1;
};

} // namespace brisvale
