// The text over the picture: layout (wrap, cut, printable ASCII), stb_easy_font's quads behind a
// box, the pipeline made from SPIR-V built with the program, and the pass.

#include "render/TextOverlay.h"

#include "render/gpu/Buffer.h"
#include "render/gpu/CommandBuffer.h"
#include "render/gpu/Descriptors.h"
#include "render/gpu/Device.h"
#include "render/gpu/Pipeline.h"
#include "render/gpu/Texture.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <stdexcept>

// stb_easy_font is a header of static functions, some of which go unused here.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wunused-function"
#pragma GCC diagnostic ignored "-Wsign-compare"
#include <stb/stb_easy_font.h>
#pragma GCC diagnostic pop

namespace brisvale {
namespace {

// The overlay's shaders, compiled to SPIR-V when the program is built (kTextOverlayVertex,
// kTextOverlayFragment).
#include "TextOverlay.frag.h"
#include "TextOverlay.vert.h"

constexpr const char* kOverlayFailed = "Failed to create text overlay";

// In font units (stb_easy_font's line is 12 high).
constexpr float kMargin = 8.0f;
constexpr float kPadding = 4.0f;
constexpr std::uint8_t kTextColour[4] = {240, 240, 232, 255};
constexpr std::uint8_t kBoxColour[4] = {8, 8, 12, 200};
// stb_easy_font draws each character with at most 11 quads of four 16-byte vertices; one more
// quad is the box.
constexpr std::size_t kQuadBytes = 64;
constexpr std::size_t kMaxQuadsPerCharacter = 11;
constexpr std::size_t kCapacityBytes = (TextOverlay::kMaxCharacters * kMaxQuadsPerCharacter + 1) * kQuadBytes;
// The font is scaled by whole pixels, so that a line of kColumns characters fits the target.
constexpr float kPixelsPerScaleStep = 640.0f;
constexpr float kMaxScale = 4.0f;

struct OverlayConstants {
    float width, height, scale, unused;
};

std::string layOut(std::string_view text) {
    std::string out;
    out.reserve(TextOverlay::kMaxCharacters + TextOverlay::kMaxLines + 3);
    std::size_t lines = 1, column = 0, characters = 0;
    bool cut = false;
    for (const char raw : text) {
        const auto c = static_cast<unsigned char>(raw);
        if (c == '\r' || (c >= 0x80 && c < 0xC0)) continue;  // the rest of a UTF-8 sequence shows as one '?'
        if (c == '\n' || column == TextOverlay::kColumns) {
            if (lines == TextOverlay::kMaxLines) {
                cut = true;
                break;
            }
            out += '\n';
            ++lines;
            column = 0;
            if (c == '\n') continue;
        }
        if (characters == TextOverlay::kMaxCharacters) {
            cut = true;
            break;
        }
        out += c == '\t' ? ' ' : (c >= 32 && c < 127) ? static_cast<char>(c) : '?';
        ++column;
        ++characters;
    }
    while (!out.empty() && out.back() == '\n') out.pop_back();
    if (cut) out += "...";
    return out;
}

void boxQuad(std::uint8_t* at, float x0, float y0, float x1, float y1) {
    const float corners[4][2] = {{x0, y0}, {x1, y0}, {x1, y1}, {x0, y1}};  // stb_easy_font's order
    for (const auto& corner : corners) {
        const float position[3] = {corner[0], corner[1], 0.0f};
        std::memcpy(at, position, sizeof position);
        std::memcpy(at + sizeof position, kBoxColour, sizeof kBoxColour);
        at += 16;
    }
}

} // namespace

TextOverlay::TextOverlay(gpu::Device& device, VkFormat colorFormat, std::uint32_t slots) try {
    layout_ = gpu::PipelineLayout::create(device, {{0, VK_DESCRIPTOR_TYPE_STORAGE_BUFFER}}, sizeof(OverlayConstants));
    const std::vector<std::uint32_t> vertex(std::begin(kTextOverlayVertex), std::end(kTextOverlayVertex));
    const std::vector<std::uint32_t> fragment(std::begin(kTextOverlayFragment), std::end(kTextOverlayFragment));
    gpu::RenderPipelineDescription description;
    description.layout = layout_.get();
    description.vertex = &vertex;
    description.fragment = &fragment;
    description.colorFormat = colorFormat;
    description.blend.enabled = true;
    description.blend.srcColor = VK_BLEND_FACTOR_SRC_ALPHA;
    description.blend.dstColor = VK_BLEND_FACTOR_ONE_MINUS_SRC_ALPHA;
    description.blend.srcAlpha = VK_BLEND_FACTOR_ONE;
    description.blend.dstAlpha = VK_BLEND_FACTOR_ONE_MINUS_SRC_ALPHA;
    pipeline_ = gpu::RenderPipeline::create(device, description);

    descriptors_ = gpu::DescriptorPool::create(device, *layout_, slots);
    slots_.resize(slots);
    for (Slot& slot : slots_) {
        slot.quads = gpu::Buffer::create(device, kCapacityBytes, VK_BUFFER_USAGE_STORAGE_BUFFER_BIT,
                                         gpu::BufferMemory::HostVisible);
        slot.set = descriptors_->allocate();
        gpu::DescriptorSetWriter(device, slot.set).storageBuffer(0, *slot.quads).commit();
    }
    quads_.reserve(kCapacityBytes);
} catch (const gpu::Error& error) {
    throw std::runtime_error(std::string(kOverlayFailed) + ": " + error.what());
}

TextOverlay::~TextOverlay() = default;

void TextOverlay::setText(std::string_view text) {
    text_ = layOut(text);
    ++version_;
    vertexCount_ = 0;
    if (text_.empty()) return;
    quads_.resize(kCapacityBytes);
    const float width = static_cast<float>(stb_easy_font_width(text_.data()));
    const float height = static_cast<float>(stb_easy_font_height(text_.data()));
    boxQuad(quads_.data(), kMargin - kPadding, kMargin - kPadding, kMargin + width + kPadding,
            kMargin + height + kPadding);
    unsigned char colour[4];
    std::memcpy(colour, kTextColour, sizeof colour);
    const int textQuads = stb_easy_font_print(kMargin, kMargin, text_.data(), colour, quads_.data() + kQuadBytes,
                                              static_cast<int>(kCapacityBytes - kQuadBytes));
    vertexCount_ = static_cast<std::uint32_t>(1 + textQuads) * 6;
}

void TextOverlay::encode(gpu::CommandBuffer& commands, const gpu::Texture& target, std::uint32_t slotIndex) {
    Slot& slot = slots_[slotIndex];
    if (slot.version != version_) {
        std::memcpy(slot.quads->data(), quads_.data(), std::size_t(vertexCount_ / 6) * kQuadBytes);
        slot.quads->flush();
        slot.version = version_;
    }
    // The passes before wrote the target.
    commands.memoryBarrier(VK_PIPELINE_STAGE_2_COLOR_ATTACHMENT_OUTPUT_BIT, VK_ACCESS_2_COLOR_ATTACHMENT_WRITE_BIT,
                           VK_PIPELINE_STAGE_2_COLOR_ATTACHMENT_OUTPUT_BIT,
                           VK_ACCESS_2_COLOR_ATTACHMENT_READ_BIT | VK_ACCESS_2_COLOR_ATTACHMENT_WRITE_BIT);
    commands.beginRendering(gpu::ColorTarget::loaded(target), gpu::DepthTarget{});
    commands.setViewport(target.width(), target.height());
    commands.bindRender(*pipeline_, *layout_, slot.set);
    const float scale = std::clamp(std::floor(static_cast<float>(target.width()) / kPixelsPerScaleStep), 1.0f, kMaxScale);
    const OverlayConstants constants{static_cast<float>(target.width()), static_cast<float>(target.height()), scale,
                                     0.0f};
    commands.pushConstants(*layout_, 0, sizeof constants, &constants);
    commands.setTopology(VK_PRIMITIVE_TOPOLOGY_TRIANGLE_LIST);
    commands.draw(vertexCount_);
    commands.endRendering();
}

} // namespace brisvale
