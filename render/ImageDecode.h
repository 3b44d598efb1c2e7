#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace brisvale {

// The largest side an image file may declare. Decoding costs time and memory in proportion to
// the declared size, however small the file, so bigger ones are refused before any decoding.
inline constexpr std::uint32_t kMaxImageSide = 8192;
// The side of every layer of the renderer's image array: each image is scaled to fill it.
inline constexpr std::uint32_t kImageLayerEdge = 1024;
// Pixels all the images of a show may declare together: 512 layer-sized images, 256 at 1920 ×
// 1080, or 8 of the largest (8192 × 8192). Decoding costs time and memory by the declared size.
inline constexpr std::uint64_t kImageDecodeBudgetPixels = 512ull * 1024 * 1024;

struct ImageSize {
    std::uint32_t width = 0;
    std::uint32_t height = 0;
};

// The size an encoded image declares in its header (PNG, JPEG, BMP, TGA, GIF, PSD, PNM; no
// other format is known, so no other decoder ever runs). Reads no pixels. `path` only names the
// image in error messages. Throws std::runtime_error:
//   "Failed to load image: " + path    when the bytes are not an image the decoder knows;
//   "Image is larger than 8192 x 8192 pixels: " + path   when either side is above kMaxImageSide.
ImageSize readImageSize(const std::uint8_t* bytes, std::size_t size, const std::string& path);

// Decodes an encoded image (the formats above, GIF's first frame; the format is recognised
// from the bytes) and scales each axis independently to fill edge x edge pixels.
// Returns edge * edge * 4 bytes of 8-bit RGBA, colour premultiplied by alpha, top row first.
// Throws readImageSize's errors, and
//   "Failed to decode image: " + path  when the format is known but no pixels come out.
std::vector<std::uint8_t> decodeImageToSquare(const std::uint8_t* bytes, std::size_t size,
                                              std::uint32_t edge, const std::string& path);

} // namespace brisvale
