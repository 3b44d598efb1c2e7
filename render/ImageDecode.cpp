// Image files to square, premultiplied RGBA8 layers, with stb_image and stb_image_resize.
// Debian's libstb carries the compiled implementations, so no STB_*_IMPLEMENTATION here.
//
// Colour is premultiplied before scaling: a transparent pixel then carries no colour into
// its neighbours, where scaling straight alpha would bleed whatever RGB the transparent
// pixels happen to hold into the edges of the opaque ones.
#include "render/ImageDecode.h"

#include <climits>
#include <memory>
#include <stdexcept>

#include <stb/stb_image.h>
#include <stb/stb_image_resize.h>

namespace brisvale {
namespace {

constexpr int kChannels = 4;
constexpr int kAlphaChannel = 3;
// Keeps edge * edge * 4 well inside every size type and stb's int strides.
constexpr std::uint32_t kMaxEdge = 16384;

struct StbiPixelsDeleter {
    void operator()(stbi_uc* pixels) const { stbi_image_free(pixels); }
};
using StbiPixels = std::unique_ptr<stbi_uc, StbiPixelsDeleter>;

void premultiply(stbi_uc* rgba, std::size_t pixelCount) {
    for (std::size_t i = 0; i < pixelCount; ++i, rgba += kChannels) {
        const unsigned a = rgba[kAlphaChannel];
        for (int c = 0; c < kAlphaChannel; ++c)
            rgba[c] = static_cast<stbi_uc>((rgba[c] * a + 127u) / 255u);
    }
}

// Non-negative kernels only: a kernel with negative lobes could push a colour channel above
// its alpha, which premultiplied data must never have.
stbir_filter filterFor(int from, std::uint32_t to) {
    return static_cast<std::uint32_t>(from) < to ? STBIR_FILTER_TRIANGLE : STBIR_FILTER_BOX;
}

} // namespace

std::vector<std::uint8_t> decodeImageToSquare(const std::uint8_t* bytes, std::size_t size,
                                              std::uint32_t edge, const std::string& path) {
    if (edge > kMaxEdge) throw std::runtime_error("Image edge length too large");

    // The header alone tells whether this is an image format at all; stb reads it without
    // decoding pixels.
    int width = 0, height = 0, fileChannels = 0;
    if (bytes == nullptr || size == 0 || size > static_cast<std::size_t>(INT_MAX) ||
        !stbi_info_from_memory(bytes, static_cast<int>(size), &width, &height, &fileChannels))
        throw std::runtime_error("Failed to load image: " + path);

    StbiPixels pixels(stbi_load_from_memory(bytes, static_cast<int>(size), &width, &height,
                                            &fileChannels, kChannels));
    if (!pixels || width <= 0 || height <= 0)
        throw std::runtime_error("Failed to decode image: " + path);

    premultiply(pixels.get(), static_cast<std::size_t>(width) * static_cast<std::size_t>(height));

    std::vector<std::uint8_t> square(static_cast<std::size_t>(edge) * edge * kChannels, 0);
    if (edge == 0) return square;
    const int edgeInt = static_cast<int>(edge);
    if (!stbir_resize(pixels.get(), width, height, width * kChannels, square.data(), edgeInt,
                      edgeInt, edgeInt * kChannels, STBIR_TYPE_UINT8, kChannels, kAlphaChannel,
                      STBIR_FLAG_ALPHA_PREMULTIPLIED, STBIR_EDGE_CLAMP, STBIR_EDGE_CLAMP,
                      filterFor(width, edge), filterFor(height, edge), STBIR_COLORSPACE_LINEAR,
                      nullptr))
        throw std::runtime_error("Failed to decode image: " + path);
    return square;
}

} // namespace brisvale
