#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace brisvale {

// Decodes an encoded image (PNG, JPEG, BMP, TGA, GIF's first frame, PSD, PNM; the format is
// recognised from the bytes) and scales each axis independently to fill edge x edge pixels.
// Returns edge * edge * 4 bytes of 8-bit RGBA, colour premultiplied by alpha, top row first.
// `path` only names the image in error messages. Throws std::runtime_error:
//   "Failed to load image: " + path    when the bytes are not an image the decoder knows;
//   "Failed to decode image: " + path  when the format is known but no pixels come out.
std::vector<std::uint8_t> decodeImageToSquare(const std::uint8_t* bytes, std::size_t size,
                                              std::uint32_t edge, const std::string& path);

} // namespace brisvale
